// Segments: the ranges that the heap holds from the system. The newest is described by the state's
// own record and holds the top at its end; each other record lies in an in-use chunk at the end of
// the range that it describes:
//
//     newest   | 48 | chunks ...                     | top ...        | 176: head, room for a
//     record | others   | 48 | chunks ... | record chunk (64) | fenceposts to the end |
//
// When a range is added, the top of the range before becomes an ordinary free chunk, shortened by
// the record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "heap/malloc_chunk.h"
#include "heap/malloc_state.h"

namespace heap {

inline std::uintptr_t segment_end(const malloc_segment* segment) {
    return address_of(segment->base) + segment->size;
}

inline bool segment_holds(const malloc_segment* segment, const void* place) {
    return address_of(place) - address_of(segment->base) < segment->size;
}

/// True when the range came from the system and the heap may give it back, or let it grow.
inline bool is_own_mapping(const malloc_segment* segment) {
    return (segment->sflags & IS_MMAPPED_BIT) != 0 && (segment->sflags & EXTERN_BIT) == 0;
}

/// The record of the segment that holds `place`, or null.
malloc_segment* segment_holding(const void* place);

/// True when some record's own address lies inside `segment`, which must stay then.
bool has_segment_link(const malloc_segment* segment);

/// Makes `size` bytes from `p` the top, behind which TOP_FOOT_SIZE bytes are free, and lets the
/// trim threshold in force reach trim_check.
void init_top(malloc_chunk* p, std::size_t size);

/// Empties the small bins.
void init_bins();

/// Makes a new range the newest segment. pre: there is a top.
void add_segment(char* base, std::size_t size, std::uint32_t mark);

/// Fencepost heads every 8 bytes from the chunk position `from` to the end of the range.
void write_fenceposts(std::uintptr_t from, std::uintptr_t end);

} // namespace heap
