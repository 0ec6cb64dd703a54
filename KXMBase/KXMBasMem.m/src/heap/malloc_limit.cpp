// Options, among them the memory limit, and statistics.
//
// The limit stands twice. dlmallopt writes the parameters' copy, which dlmalloc_memory_limit
// reports at once; the state's copy is what is enforced, and the next growth begins by fetching it,
// before any check. What is limited is the footprint: all bytes held from the system, free or not.
// A limit below the footprint takes nothing back; it refuses every growth until releases bring it
// down.
#include "heap/malloc_limit.h"

#include <algorithm>
#include <bit>

#include "heap/dlmalloc.h"
#include "heap/malloc_segment.h"

namespace heap {
namespace {

constexpr int option_trim_threshold = -1;
constexpr int option_granularity = -2;
constexpr int option_mmap_threshold = -3;
constexpr int option_use_lock = -4;
constexpr int option_memory_limit = -5;

bool set_granularity(std::size_t value) {
    if (value < params.page_size || !std::has_single_bit(value)) {
        return false;
    }
    params.granularity = value;
    return true;
}

// Calls visit(chunk) for every chunk of every segment, up to the fenceposts or the top.
template <typename Visit> void for_each_chunk(const malloc_state* m, Visit visit) {
    for (const malloc_segment* segment = &m->seg; segment != nullptr; segment = segment->next) {
        for (const malloc_chunk* chunk = align_as_chunk(segment->base);
             segment_holds(segment, chunk) && chunk != m->top && chunk->head != FENCEPOST_HEAD;
             chunk = next_chunk(chunk)) {
            visit(chunk);
        }
    }
}

} // namespace

std::size_t internal_dlfragmentationinfo(malloc_state* m) {
    const Entry entry;
    std::size_t largest = 0;
    if (m->top != nullptr) {
        for_each_chunk(m, [&largest](const malloc_chunk* chunk) {
            if (!cinuse(chunk)) {
                largest = std::max(largest, chunk_size(chunk));
            }
        });
    }
    return largest;
}

kxm::mallinfo internal_mallinfo(malloc_state* m) {
    const Entry entry;
    kxm::mallinfo info{};
    if (m->top == nullptr) {
        return info;
    }
    std::size_t nfree = 1;
    std::size_t mfree = m->topsize + TOP_FOOT_SIZE;
    std::size_t sum = mfree;
    for_each_chunk(m, [&](const malloc_chunk* chunk) {
        const std::size_t size = chunk_size(chunk);
        sum += size;
        if (!cinuse(chunk)) {
            mfree += size;
            ++nfree;
        }
    });
    info.arena = sum;
    info.ordblks = nfree;
    info.hblkhd = m->footprint - sum;
    info.usmblks = m->max_footprint;
    info.uordblks = m->footprint - mfree;
    info.fordblks = mfree;
    info.keepcost = m->topsize;
    return info;
}

} // namespace heap

// No option takes the heap's lock.
int dlmallopt(int param, std::size_t value) {
    using namespace heap;
    init_mparams(); // carries the values before this one to the state
    switch (param) {
    case option_trim_threshold:
        params.trim_threshold = value; // reaches trim_check when the top is next reset
        return 1;
    case option_granularity:
        return set_granularity(value) ? 1 : 0;
    case option_mmap_threshold:
        params.mmap_threshold = value;
        return 1;
    case option_use_lock:
        params.use_lock = static_cast<std::uint32_t>(value); // the low 32 bits
        return 0; // as this option has always answered; the value is stored all the same
    case option_memory_limit:
        params.memory_limit = value;
        return 1;
    default:
        return 0;
    }
}

std::size_t dlmalloc_footprint() {
    return heap::state.footprint;
}

std::size_t dlmalloc_max_footprint() {
    return heap::state.max_footprint;
}

std::size_t dlmalloc_memory_limit() {
    return heap::params.memory_limit;
}

std::size_t dlfragmentationinfo() {
    return heap::internal_dlfragmentationinfo(&heap::state);
}

kxm::mallinfo dlmallinfo() {
    return heap::internal_mallinfo(&heap::state);
}

// Does not ask who holds the lock, or whether anyone does: it is for a caller that has abandoned a
// thread inside the heap. Called without need, it leaves the count one too low for good.
void dlmalloc_ReleaseLock() {
    if (heap::state.use_lock != 0) {
        mem_mlock_release(heap::state.mutex);
    }
}
