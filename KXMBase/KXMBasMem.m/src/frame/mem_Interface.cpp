// The C allocation interface. An entry does three things in a fixed order: it routes a small
// request to the tiny block pool when that is on, calls the bound back end otherwise, and tells the
// tracker. With pool and tracking off that costs a flag test, one indirect call and one comparison.
#include "mem_Interface.h"

#include <cstdint>
#include <new>

#include "frame/mem_TinySwitches.h"
#include "frame/seam_tiny_pool.h"
#include "frame/seam_tracker.h"
#include "heap/dlmalloc.h"
#include "mem_BoundFunctions.h"
#include "platform/compiler.h"
#include "platform/os.h"
#include "platform/relaxed_word.h"

os::relaxed_word<bool> mem_tinyBlocksOn = false;
os::relaxed_word<bool> mem_tinyBlocksUsed = false;

namespace {

using tracker_seam::Use;

constexpr std::size_t tiny_limit = 129; // first size that is not tiny

// One cached word per tracked entry, not one for all: each settles the first time its own entry
// runs after the decision. Races are harmless, since every thread computes the same value.
using CachedUse = os::relaxed_word<Use>;
CachedUse s_useMalloc, s_useFree, s_useMalignFree, s_useRealloc, s_useCalloc, s_useMalign,
    s_useRelease, s_useAcquire;

// Bytes; the highest that mem_MaxFootprint has met outside the heap.
os::relaxed_word<std::uint64_t> s_maxFootprint = 0;

// True when the entry's hook must run.
inline bool gate(CachedUse& cached) {
    if (cached == tracker_seam::off) {
        return false;
    }
    if (cached == tracker_seam::unknown) {
        cached = tracker_seam::check_use_flag();
        if (cached == tracker_seam::off) {
            return false;
        }
    }
    cached = mem_CheckTracker(cached);
    return cached == tracker_seam::on;
}

// A tiny block lies in a page that begins with its own address and the tag. Any other pointer's
// page is read too, which is why the pool must have been used before anybody looks.
inline bool is_tiny(const void* ptr) {
    if (!mem_tinyBlocksUsed) {
        return false;
    }
    const tiny_seam::Tag* const page = tiny_seam::page_of(ptr);
    return page != nullptr && tiny_seam::is_page(page);
}

KXM_ALWAYS_INLINE void* route_malloc(size_t size) {
    return mem_tinyBlocksOn && size < tiny_limit ? tiny_seam::alloc(size) : mem_malloc(size);
}

KXM_NEVER_INLINE void* gated_malloc(size_t size) {
    void* const ptr = route_malloc(size);
    if (gate(s_useMalloc)) {
        tracker_seam::malloc_call(ptr, size);
    }
    return ptr;
}

KXM_ALWAYS_INLINE void route_free(void* ptr) {
    if (is_tiny(ptr)) {
        tiny_seam::free(ptr);
    } else {
        mem_free(ptr);
    }
}

KXM_NEVER_INLINE void gated_free(void* ptr) {
    if (gate(s_useFree)) { // before the release, while the address is still owned
        tracker_seam::free_call(ptr);
    }
    route_free(ptr);
}

} // namespace

// "Finished" is not kept longer than the one call.
mem_Tracker::UseEnm mem_CheckTracker(mem_Tracker::UseEnm cached) {
    switch (cached) {
    case tracker_seam::on:
        return tracker_seam::check_use_flag() == tracker_seam::on ? tracker_seam::on
                                                                  : tracker_seam::off;
    case tracker_seam::unknown:
        return tracker_seam::check_use_flag();
    default:
        return tracker_seam::off;
    }
}

void* mem_Malloc(size_t size) {
    if (s_useMalloc == tracker_seam::off) [[likely]] {
        return route_malloc(size); // off is for good, so the gate need not be asked behind it
    }
    return gated_malloc(size);
}

void* mem_Malloc_Handled(size_t size) {
    void* const ptr = mem_Malloc(size);
    if (ptr == nullptr) {
        // Read, not fetched and put back, so that no other thread meets a moment without a handler.
        if (const std::new_handler handler = std::get_new_handler()) {
            handler();
        }
    }
    return ptr; // not tried again: the handler is called for its effect alone
}

void mem_Free(void* ptr) {
    if (s_useFree == tracker_seam::off) [[likely]] {
        route_free(ptr);
    } else {
        gated_free(ptr);
    }
}

void* mem_Realloc(void* ptr, size_t size) {
    void* const result = is_tiny(ptr) ? tiny_seam::realloc(ptr, size) : mem_realloc(ptr, size);
    if (gate(s_useRealloc)) {
        tracker_seam::realloc_call(result, ptr, size);
    }
    return result;
}

void* mem_Calloc(size_t count, size_t size) {
    void* const result = mem_calloc(count, size);
    if (gate(s_useCalloc)) {
        tracker_seam::calloc_call(result, count, size);
    }
    return result;
}

// Past the table, on every back end: such a block is not the heap's, and no limit counts it.
void* mem_Malign(size_t size, size_t alignment) {
    void* const result = mem_alignedAlloc(size, alignment);
    if (gate(s_useMalign)) {
        tracker_seam::malloc_call(result, size);
    }
    return result;
}

void mem_MalignFree(void* ptr) {
    if (gate(s_useMalignFree)) {
        tracker_seam::free_call(ptr);
    }
    if (is_tiny(ptr)) {
        tiny_seam::free(ptr);
    } else {
        mem_free_aligned(ptr);
    }
}

void mem_Release(void* ptr) {
    if (gate(s_useRelease)) {
        tracker_seam::release_call(ptr);
    }
}

void mem_Acquire(void* ptr) {
    if (gate(s_useAcquire)) {
        tracker_seam::acquire_call(ptr);
    }
}

int mem_Trim(size_t pad) {
    return mem_trim(pad);
}

int mem_Mallopt(int param, size_t value) {
    return mem_mallopt(param, value);
}

size_t mem_Footprint() {
    return mem_usingDL() != 0 ? mem_footprint() / 1024 : mem_FootprintFromResources();
}

// Bytes, where mem_Footprint answers in kibibytes: deliberately.
size_t mem_MaxFootprint() {
    if (mem_usingDL() != 0) {
        return mem_maxfootprint();
    }
    const std::uint64_t now = std::uint64_t{mem_FootprintFromResources()} * 1024;
    if (now > s_maxFootprint) {
        s_maxFootprint = now;
    }
    return s_maxFootprint;
}

size_t mem_MemoryLimit() {
    return mem_memorylimit();
}

size_t mem_FragmentationInfo() {
    return mem_fragmentationinfo();
}

int mem_ErrorMemoryLimit() {
    return mem_errormemorylimit();
}

int mem_usingDL() {
    return mem_Mallinfo::useDL ? 1 : 0;
}

size_t mem_FootprintFromResources() {
    os::ProcessMemory figures{};
    return os::process_memory(figures) ? figures.private_bytes >> 10 : 0;
}

size_t mem_MaxFootprintFromResources() {
    os::ProcessMemory figures{};
    return os::process_memory(figures) ? figures.peak_private_bytes >> 10 : 0;
}

void mem_ReleaseMemoryLock() {
    if (mem_Mallinfo::useDL) {
        dlmalloc_ReleaseLock();
    }
}

mem_DLMallinfoType mem_DLMallinfo() {
    // Without the three fields that the heap always leaves zero.
    const kxm::mallinfo info = mem_dlmallinfo();
    return {info.arena,    info.ordblks,  info.hblkhd,  info.usmblks,
            info.uordblks, info.fordblks, info.keepcost};
}
