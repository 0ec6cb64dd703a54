// The walker: goes over every chunk, bin, tree and segment, the victim, the top and the footprint,
// and proves what malloc_chunk.h, malloc_state.h, malloc_bins.h and malloc_segment.h state. Tests
// run it after each operation; the checked build runs it after each growth, trim and conversion.
#pragma once

#include <cstddef>

#include "heap/malloc_state.h"

namespace heap {

/// What the walker met.
struct Census {
    const char* fault = nullptr; ///< the first broken invariant, or null
    const void* where = nullptr; ///< the chunk, bin or record in question
    std::size_t segments = 0;
    std::size_t segment_bytes = 0; ///< the rest of the footprint is in direct mappings
    std::size_t chunks = 0;        ///< without the top
    std::size_t free_chunks = 0;
    std::size_t free_bytes = 0;
    std::size_t largest_free = 0;
    std::size_t hidden_starts = 0; ///< stale heads met, each in front of a chunk it hides
};

/// An aligned block whose mapping becomes a segment leaves behind, at `stale`, the head it had before
/// it was moved up to `real`. No later walk can tell that head from a chunk in use, so the walker
/// is told. A segment that begins so never goes back to the system.
void note_hidden_start(const malloc_chunk* stale, const malloc_chunk* real);
void forget_hidden_starts(); ///< for a heap that begins anew

/// pre: nobody else is in the heap, or the caller holds its lock.
Census take_census();

inline bool is_valid() {
    return take_census().fault == nullptr;
}

#if defined(NDEBUG)
inline constexpr bool checked_build = false;
#else
inline constexpr bool checked_build = true;
#endif

/// In the checked build, ends the process when the heap is not sound. A walk touches every chunk,
/// so large heaps are left alone.
inline void check_while_small() {
    constexpr std::size_t small_heap = std::size_t{16} << 20;
    if constexpr (checked_build) {
        require(state.footprint > small_heap || is_valid());
    }
}

} // namespace heap
