// The allocation functions of the C runtime, on the library. Results, errors and errno are those of the GNU
// C library; malloc, calloc, realloc and free with the heap and nothing else are made short, everything else
// goes a general way.
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <malloc.h>
#include <unistd.h>

#include "frame/host.h"
#include "frame/seam_tiny_pool.h"
#include "guarded.h"
#include "heap/dlmalloc.h"
#include "mem_Interface.h"
#include "mem_Tracker.h"
#include "process.h"

namespace kxmrun {

constinit Process process{};
constinit thread_local Thread own{};
constinit Known known{};

namespace {

constexpr std::size_t most = PTRDIFF_MAX;
constexpr std::size_t largest_tiny = 120; // with its header a slot of the pool
constexpr std::size_t tiny_header = 8;

// ---- Refusals

void raise_to(std::atomic<std::uint64_t>& highest, std::uint64_t value) {
    std::uint64_t now = highest.load(std::memory_order_relaxed);
    while (now < value && !highest.compare_exchange_weak(now, value, std::memory_order_relaxed)) {
    }
}

// A size that no memory could satisfy is a mistake of the program's or a question, and is not counted.
__attribute__((noinline)) void* refuse(std::size_t size) {
    errno = ENOMEM;
    if (size <= most) {
        ProcessFigures& figures = *process.figures;
        const bool by_limit = process.backend == Backend::heap && error_memory_limit() != 0;
        (by_limit ? figures.refused_by_limit : figures.refused_by_system)
            .fetch_add(1, std::memory_order_relaxed);
        raise_to(figures.largest_refused, size);
    }
    return nullptr;
}

// ---- Tiny blocks: a slot of the pool begins 8 off a multiple of 16 from 9 bytes on. The word in front of
// the program's block holds its size.

bool is_tiny(const void* block) {
    return process.tiny && tiny_seam::is_page(tiny_seam::page_of(block));
}

char* slot_of(void* block) {
    return static_cast<char*>(block) - tiny_header;
}

void* take_tiny(std::size_t size) {
    char* const slot = static_cast<char*>(host::tiny_alloc(size == 0 ? 16 : size + tiny_header));
    if (slot == nullptr) {
        return nullptr;
    }
    std::memcpy(slot, &size, sizeof size);
    return slot + tiny_header;
}

std::size_t tiny_size(const void* block) {
    std::size_t size = 0;
    std::memcpy(&size, static_cast<const char*>(block) - tiny_header, sizeof size);
    return size;
}

// ---- Taking, giving back, asking

bool in_heap(const void* block) {
    return process.granules != nullptr && process.granules->holds(block);
}

// Not the C runtime's.
bool is_ours(const void* block) {
    switch (process.backend) {
    case Backend::heap:
        return in_heap(block);
    case Backend::guarded:
        return guarded::is(block);
    default:
        return false;
    }
}

void* take_from_heap(std::size_t size, std::size_t alignment, bool zeroed) {
    if (process.tiny && size <= largest_tiny && alignment <= 16) {
        void* const block = take_tiny(size);
        if (block != nullptr && zeroed) {
            std::memset(block, 0, size);
        }
        return block;
    }
    void* const block = alignment > 64 ? dlmemalign(alignment, size)
                        : zeroed       ? dlcalloc(1, size)
                                       : dlmalloc(size);
    if (alignment > 64 && zeroed && block != nullptr) {
        std::memset(block, 0, size);
    }
    return block;
}

// A zeroed block has the common alignment.
void* take(std::size_t size, std::size_t alignment, bool zeroed) {
    if (size > most || alignment > most - size) {
        return nullptr;
    }
    switch (process.backend) {
    case Backend::heap:
        return take_from_heap(size, alignment, zeroed);
    case Backend::guarded: {
        void* const block = guarded::take(size, alignment);
        if (block != nullptr && zeroed) {
            std::memset(block, 0, size);
        }
        return block;
    }
    case Backend::aligned:
        if (!zeroed) { // zeroed ones are the C runtime's on this back end, as in the library
            return mem_alignedAlloc(size, alignment > 64 ? alignment : 64);
        }
        [[fallthrough]];
    default:
        return zeroed           ? __libc_calloc(1, size)
               : alignment > 16 ? __libc_memalign(alignment, size)
                                : __libc_malloc(size);
    }
}

void give(void* block) {
    if (!is_ours(block)) {
        __libc_free(block);
    } else if (process.backend == Backend::guarded) {
        guarded::give(block);
    } else if (is_tiny(block)) {
        host::tiny_free(slot_of(block));
    } else {
        dlfree(block);
    }
}

std::size_t usable(void* block) {
    if (!is_ours(block)) {
        return process.runtime.usable_size != nullptr
                   ? process.runtime.usable_size(block)
                   // The word in front of it, before there was time to ask: see malloc_usable_size there.
                   : (static_cast<std::size_t*>(block)[-1] & ~std::size_t{7}) - 16;
    }
    if (process.backend == Backend::guarded) {
        return guarded::size(block);
    }
    return is_tiny(block) ? tiny_size(block) : dlmalloc_usable_size(block);
}

// ---- Blocks given back by threads that were inside

void give_later(void* block) {
    void* first = process.waiting.load(std::memory_order_relaxed);
    do {
        std::memcpy(block, &first, sizeof first);
    } while (!process.waiting.compare_exchange_weak(first, block, std::memory_order_release,
                                                    std::memory_order_relaxed));
}

// ---- Recording. All of it inside. A program that uses the library may end its recording by itself: from then
// on there is no tracker, and one must not be made.

bool records() {
    return process.tracking && mem_Tracker::CheckUseFlag() == mem_Tracker::e_useOn;
}

void tell_taken(void* block, std::size_t size, bool zeroed) {
    if (!records()) {
        return;
    }
    if (known.only_recorded) {
        known.recorded.insert(block);
    }
    if (zeroed) {
        mem_Tracker::Instance().CallocCall(block, 1, size);
    } else {
        mem_Tracker::Instance().MallocCall(block, size);
    }
}

// Whether the recording has seen the block, which it is about to see no more. On the heap, what the C runtime
// gave was given before the start or to somebody inside.
bool leaves_record(void* block) {
    if (!records() || (process.backend == Backend::heap && !in_heap(block))) {
        return false;
    }
    return known.only_recorded
               ? known.recorded.remove(block)
               : process.backend == Backend::heap || !known.unrecorded.remove(block);
}

// `was_recorded`: of the old block, which stays where there is no fresh one.
void tell_resized(void* fresh, void* block, std::size_t size, bool was_recorded) {
    if (!records()) {
        return;
    }
    if (known.only_recorded) {
        known.recorded.insert(fresh != nullptr ? fresh : was_recorded ? block : nullptr);
    } else if (fresh == nullptr && !was_recorded && process.backend != Backend::heap) {
        known.unrecorded.insert(block);
    }
    if (was_recorded) {
        mem_Tracker::Instance().ReallocCall(fresh, block, size);
    } else {
        mem_Tracker::Instance().MallocCall(fresh, size);
    }
}

void give_and_tell(void* block) {
    if (leaves_record(block)) {
        mem_Tracker::Instance().FreeCall(block);
    }
    give(block);
}

__attribute__((noinline)) void give_those_waiting() {
    void* block = process.waiting.exchange(nullptr, std::memory_order_acquire);
    while (block != nullptr) {
        void* next = nullptr;
        std::memcpy(&next, block, sizeof next);
        give_and_tell(block);
        block = next;
    }
}

inline bool some_wait() {
    return process.waiting.load(std::memory_order_relaxed) != nullptr;
}

// ---- The general ways

bool outside() {
    return process.backend == Backend::none || own.inside;
}

enum class Kind { malloc, calloc };

// The C runtime's, for somebody inside or before the start.
bool notes_unrecorded() {
    return process.backend == Backend::none ||
           (process.tracking && process.backend != Backend::heap);
}

void* note_unrecorded(void* block) {
    if (notes_unrecorded()) {
        known.unrecorded.insert(block);
    }
    return block;
}

void forget_unrecorded(void* block) {
    if (notes_unrecorded()) {
        known.unrecorded.remove(block);
    }
}

__attribute__((noinline)) void* general_take(std::size_t size, std::size_t alignment, Kind kind) {
    const bool zeroed = kind == Kind::calloc;
    if (outside()) {
        return note_unrecorded(zeroed           ? __libc_calloc(1, size)
                               : alignment > 16 ? __libc_memalign(alignment, size)
                                                : __libc_malloc(size));
    }
    const Inside inside;
    if (some_wait()) {
        give_those_waiting();
    }
    void* const block = take(size, alignment, zeroed);
    tell_taken(block, size, zeroed);
    return block != nullptr ? block : refuse(size);
}

__attribute__((noinline)) void general_give(void* block) {
    if (outside()) {
        if (is_ours(block)) {
            give_later(block);
        } else {
            forget_unrecorded(block);
            __libc_free(block);
        }
        return;
    }
    const int saved_errno = errno;
    {
        const Inside inside;
        if (some_wait()) {
            give_those_waiting();
        }
        give_and_tell(block);
    }
    errno = saved_errno;
}

// By way of a new block; told before the old one goes.
void* move(void* block, std::size_t size) {
    const bool was_recorded = leaves_record(block);
    void* const fresh = take(size, 16, false);
    if (fresh != nullptr) {
        const std::size_t kept = usable(block);
        std::memcpy(fresh, block, kept < size ? kept : size);
    }
    tell_resized(fresh, block, size, was_recorded);
    if (fresh != nullptr) {
        give(block);
    }
    return fresh;
}

bool stays_in_slot(void* block, std::size_t size) {
    const std::size_t slot = (tiny_size(block) + tiny_header + 15) / 16 * 16;
    if (size > most || size + tiny_header > slot) {
        return false;
    }
    std::memcpy(slot_of(block), &size, sizeof size);
    return true;
}

// pre: inside; size is not 0.
void* resize(void* block, std::size_t size) {
    const bool heap = process.backend == Backend::heap;
    const bool tiny = heap && in_heap(block) && is_tiny(block);
    const bool in_place_if_it_can = heap ? in_heap(block) : process.backend == Backend::runtime;
    if (!in_place_if_it_can || (tiny && !stays_in_slot(block, size))) {
        return move(block, size); // on the heap: it was the C runtime's, and becomes ours
    }
    const bool was_recorded = leaves_record(block);
    void* const result = tiny          ? block
                         : size > most ? nullptr
                         : heap        ? dlrealloc(block, size)
                                       : __libc_realloc(block, size);
    tell_resized(result, block, size, was_recorded);
    return result;
}

__attribute__((noinline)) void* general_resize(void* block, std::size_t size) {
    if (!outside()) {
        const Inside inside;
        void* const result = resize(block, size);
        return result != nullptr ? result : refuse(size);
    }
    if (!is_ours(block)) {
        forget_unrecorded(block);
        void* const fresh = __libc_realloc(block, size);
        note_unrecorded(fresh != nullptr ? fresh : block);
        return fresh;
    }
    void* const fresh = note_unrecorded(__libc_malloc(size));
    if (fresh != nullptr) {
        const std::size_t kept = usable(block);
        std::memcpy(fresh, block, kept < size ? kept : size);
        give_later(block);
    }
    return fresh;
}

bool product(std::size_t count, std::size_t size, std::size_t& bytes) {
    if (!__builtin_mul_overflow(count, size, &bytes)) {
        return true;
    }
    errno = ENOMEM;
    return false;
}

bool is_power_of_two(std::size_t value) {
    return value != 0 && (value & (value - 1)) == 0;
}

// The runtime's rules: any alignment is raised to a power of two, and a hopeless one is an error.
void* take_aligned(std::size_t alignment, std::size_t size) {
    if (alignment > SIZE_MAX / 2 + 1) {
        errno = EINVAL;
        return nullptr;
    }
    std::size_t power = 16;
    while (power < alignment) {
        power <<= 1;
    }
    if (size > most || power > most - size) {
        errno = ENOMEM;
        return nullptr;
    }
    return general_take(size, power, Kind::malloc);
}

std::size_t page_size() {
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// ---- The short ways

inline bool short_way() {
    return process.plain_heap && !own.inside;
}

} // namespace
} // namespace kxmrun

using namespace kxmrun;

KXMRUN_ENTRY void* malloc(std::size_t size) {
    if (short_way()) [[likely]] {
        void* block = nullptr;
        {
            const Inside inside;
            block = dlmalloc(size);
        }
        return block != nullptr ? block : refuse(size);
    }
    return general_take(size, 16, Kind::malloc);
}

KXMRUN_ENTRY void free(void* block) {
    if (block == nullptr) {
        return;
    }
    if (short_way() && !some_wait()) [[likely]] {
        if (process.granules->holds(block)) [[likely]] {
            const Inside inside;
            dlfree(block);
        } else {
            __libc_free(block);
        }
        return;
    }
    general_give(block);
}

KXMRUN_ENTRY void* calloc(std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    if (!product(count, size, bytes)) {
        return nullptr;
    }
    if (short_way()) [[likely]] {
        void* block = nullptr;
        {
            const Inside inside;
            block = dlcalloc(1, bytes);
        }
        return block != nullptr ? block : refuse(bytes);
    }
    return general_take(bytes, 16, Kind::calloc);
}

KXMRUN_ENTRY void* realloc(void* block, std::size_t size) {
    if (block == nullptr) {
        return malloc(size);
    }
    if (size == 0) {
        free(block);
        return nullptr;
    }
    if (short_way() && process.granules->holds(block)) [[likely]] {
        void* result = nullptr;
        {
            const Inside inside;
            result = dlrealloc(block, size);
        }
        return result != nullptr ? result : refuse(size);
    }
    return general_resize(block, size);
}

KXMRUN_ENTRY void* reallocarray(void* block, std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    return product(count, size, bytes) ? realloc(block, bytes) : nullptr;
}

KXMRUN_ENTRY int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    if (!is_power_of_two(alignment) || alignment % sizeof(void*) != 0) {
        return EINVAL;
    }
    const int saved_errno = errno;
    void* const block = take_aligned(alignment, size);
    errno = saved_errno;
    if (block == nullptr) {
        return ENOMEM;
    }
    *result = block;
    return 0;
}

KXMRUN_ENTRY void* memalign(std::size_t alignment, std::size_t size) {
    return take_aligned(alignment, size);
}

KXMRUN_ENTRY void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return take_aligned(alignment, size);
}

KXMRUN_ENTRY void* valloc(std::size_t size) {
    return take_aligned(page_size(), size);
}

KXMRUN_ENTRY void* pvalloc(std::size_t size) {
    const std::size_t page = page_size();
    if (size > SIZE_MAX - (page - 1)) {
        errno = ENOMEM;
        return nullptr;
    }
    return take_aligned(page, (size + page - 1) / page * page);
}

KXMRUN_ENTRY std::size_t malloc_usable_size(void* block) {
    return block != nullptr ? usable(block) : 0;
}

KXMRUN_ENTRY void free_sized(void* block, std::size_t) {
    free(block);
}

KXMRUN_ENTRY void free_aligned_sized(void* block, std::size_t, std::size_t) {
    free(block);
}

// What a program asks of the allocator beside blocks. mallopt and malloc_info stay the C runtime's, which
// still serves those inside; the heap's own options are the launcher's.

KXMRUN_ENTRY int malloc_trim(std::size_t pad) {
    if (process.backend != Backend::heap || own.inside) {
        return process.runtime.trim != nullptr ? process.runtime.trim(pad) : 0;
    }
    const Inside inside;
    return dlmalloc_trim(pad);
}

KXMRUN_ENTRY struct mallinfo2 mallinfo2() {
    struct mallinfo2 info {};
    if (process.backend != Backend::heap || own.inside) {
        return process.runtime.info != nullptr ? process.runtime.info() : info;
    }
    const Inside inside;
    const mem_DLMallinfoType heap = mem_DLMallinfo();
    info.arena = heap.arena;
    info.ordblks = heap.ordblks;
    info.hblkhd = heap.hblkhd;
    info.usmblks = heap.usmblks;
    info.uordblks = heap.uordblks;
    info.fordblks = heap.fordblks;
    info.keepcost = heap.keepcost;
    return info;
}

// The older form, whose figures may not fit.
KXMRUN_ENTRY struct mallinfo mallinfo() {
    const struct mallinfo2 wide = mallinfo2();
    const auto cut = [](std::size_t value) { return static_cast<int>(value); };
    return {cut(wide.arena),    cut(wide.ordblks), cut(wide.smblks),  cut(wide.hblks),
            cut(wide.hblkhd),   cut(wide.usmblks), cut(wide.fsmblks), cut(wide.uordblks),
            cut(wide.fordblks), cut(wide.keepcost)};
}
