// The choice of the back end, taken once per process: the table of twelve bound functions, the
// environment variables that decide, and the bootstrap for memory asked for too early.
//
// Variables count by presence alone; their values are never read. They are read at the moment of
// binding and never again.
#include "frame/mem_Binding.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "frame/mem_Backends.h"
#include "heap/dlmalloc.h"
#include "mem_BoundFunctions.h"
#include "mem_Interface.h"
#include "platform/os.h"

bool mem_Mallinfo::useDL = false;

void* (*mem_malloc)(std::size_t) = mem_firstMalloc;
void* (*mem_calloc)(std::size_t, std::size_t) = nullptr;
void* (*mem_realloc)(void*, std::size_t) = nullptr;
void (*mem_free)(void*) = nullptr;
int (*mem_trim)(std::size_t) = nullptr;
int (*mem_mallopt)(int, std::size_t) = nullptr;
std::size_t (*mem_footprint)() = nullptr;
std::size_t (*mem_maxfootprint)() = nullptr;
std::size_t (*mem_memorylimit)() = nullptr;
int (*mem_errormemorylimit)() = nullptr;
std::size_t (*mem_fragmentationinfo)() = nullptr;
kxm::mallinfo (*mem_dlmallinfo)() = nullptr;

namespace {

// Calls that may pass mem_firstMalloc without binding. Nothing raises it: kept as a hook.
std::int32_t s_earlyCalls = 0;
// Set before binding, so that a second thread that comes in meanwhile does not bind again.
std::int32_t s_firstMallocDone = 0;

bool is_set(const char* name) {
    return std::getenv(name) != nullptr;
}

bool heap_wanted() {
    return is_set("KXQ_DLALLOCATOR") && !is_set("KXQ_CRTMALLOC");
}

void bind_allocation(void* (*malloc_)(std::size_t), void* (*calloc_)(std::size_t, std::size_t),
                     void* (*realloc_)(void*, std::size_t), void (*free_)(void*)) {
    mem_malloc = malloc_;
    mem_calloc = calloc_;
    mem_realloc = realloc_;
    mem_free = free_;
}

void bind_stubs() {
    mem_trim = mem_notrim;
    mem_mallopt = mem_nomallopt;
    mem_footprint = mem_nofootprint;
    mem_maxfootprint = mem_nofootprint;
    mem_memorylimit = mem_nomemorylimit;
    mem_errormemorylimit = mem_noerrormemorylimit;
    mem_fragmentationinfo = mem_nofragmentationinfo;
    mem_dlmallinfo = mem_nomallinfo;
}

void bind_heap() {
    bind_allocation(dlmalloc, dlcalloc, dlrealloc, dlfree);
    mem_trim = dlmalloc_trim;
    mem_mallopt = dlmallopt;
    mem_footprint = dlmalloc_footprint;
    mem_maxfootprint = dlmalloc_max_footprint;
    mem_memorylimit = dlmalloc_memory_limit;
    mem_errormemorylimit = error_memory_limit;
    mem_fragmentationinfo = dlfragmentationinfo;
    mem_dlmallinfo = dlmallinfo;
}

} // namespace

int mem_notrim(std::size_t) {
    return 0;
}

int mem_nomallopt(int, std::size_t) {
    return 0;
}

std::size_t mem_nofootprint() {
    return 0;
}

std::size_t mem_nomemorylimit() {
    return 0;
}

int mem_noerrormemorylimit() {
    return 0;
}

size_t mem_nofragmentationinfo() {
    return 0;
}

kxm::mallinfo mem_nomallinfo() {
    return {};
}

void mem_bindFunctions(bool guarded) {
    if (mem_Mallinfo::useDL) {
        bind_heap();
    } else {
        if (is_set("KXQ_USE_ALIGNED_MEMORY")) {
            // calloc stays the C runtime's, deliberately: its blocks are not for mem_free.
            bind_allocation(mem_malign, os::runtime_allocator.calloc, mem_realign,
                            mem_free_aligned);
        } else {
            const os::RuntimeAllocator& runtime = os::runtime_allocator;
            bind_allocation(runtime.malloc, runtime.calloc, runtime.realloc, runtime.free);
        }
        bind_stubs();
    }
    if (guarded) {
        bind_allocation(myMalloc, myCalloc, myRealloc, myFree);
        bind_stubs();
    }
}

bool mem_tableUnbound() {
    return mem_malloc == mem_firstMalloc;
}

void mem_chooseBackend() {
    if (is_set("KXQ_DLALLOCATOR")) { // otherwise the flag keeps its value
        mem_Mallinfo::useDL = !is_set("KXQ_CRTMALLOC");
    }
    const bool guarded = is_set("KXA_DEADBEEF");
    if (guarded) {
        mem_Mallinfo::useDL = false;
    }
    mem_bindFunctions(guarded);
}

void* mem_firstMalloc(std::size_t size) {
    if (s_earlyCalls != 0) {
        --s_earlyCalls;
    } else if (s_firstMallocDone == 0) {
        s_firstMallocDone = 1;
        if (heap_wanted()) {
            std::fputs("ERROR: Memory allocation attempt before component initialization\n",
                       stderr);
            std::fflush(stderr);
            std::abort();
        }
        mem_Mallinfo::useDL = false;
        if (heap_wanted()) { // never true after the test above; the repetition is kept as it is
            mem_Mallinfo::useDL = true;
        }
        if (is_set("KXA_DEADBEEF")) {
            mem_Mallinfo::useDL = false;
            mem_bindFunctions(true);
            return myMalloc(size);
        }
        mem_bindFunctions(false);
    }
    // Not through the table: the first block comes from plain malloc even when the aligned back end
    // has just been bound, whose free it will meet. Kept so.
    return mem_Mallinfo::useDL ? dlmalloc(size) : os::runtime_allocator.malloc(size);
}
