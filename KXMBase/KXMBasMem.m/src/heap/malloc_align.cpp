// Allocation at a stronger alignment than the heap's own: a larger block is taken, and what lies
// before the aligned place and behind its end is given back.
//
//     | leader, given back | aligned block of nb bytes | tail, given back |
//     ^ block of dlmalloc  ^ multiple of alignment
#include "heap/dlmalloc.h"

#include <bit>

#include "heap/malloc_chunk.h"
#include "heap/malloc_state.h"

namespace heap {
namespace {

constexpr std::size_t highest_power = std::size_t{1} << 63;

// The chunk of the first aligned place in the block that leaves room for a whole chunk in front; that is the
// first one, as long as no chunk is smaller than what blocks are aligned to.
malloc_chunk* aligned_chunk(const malloc_chunk* p, std::size_t alignment) {
    const std::uintptr_t mem = address_of(p) + 16;
    const std::uintptr_t aligned = (mem + alignment - 1) & ~(alignment - 1);
    const std::uintptr_t place = aligned - 16;
    return chunk_at<malloc_chunk>(place - address_of(p) >= MIN_CHUNK_SIZE ? place
                                                                          : place + alignment);
}

struct Parts {
    malloc_chunk* block;
    void* leader; // user pointers of what is to be released, or null
    void* tail;
};

// Moves the chunk's start up to an aligned place.
void cut_leader(Parts& parts, std::size_t alignment) {
    malloc_chunk* const p = parts.block;
    malloc_chunk* const moved = aligned_chunk(p, alignment);
    const std::size_t lead = address_of(moved) - address_of(p);
    const std::size_t rest = chunk_size(p) - lead;
    if (is_mmapped(p)) {
        // A direct mapping keeps its lead, and the mapping's start is still found from the chunk.
        moved->prev_foot = p->prev_foot + lead;
        moved->head = rest | CINUSE_BIT;
    } else {
        moved->head = CINUSE_BIT;
        set_inuse(moved, rest);
        set_inuse(p, lead);
        parts.leader = chunk2mem(p);
    }
    parts.block = moved;
}

void cut_tail(Parts& parts, std::size_t nb) {
    malloc_chunk* const p = parts.block;
    const std::size_t size = chunk_size(p);
    // What was asked for the alignment exceeds the longest leader by a chunk, so that there always is a tail.
    if (is_mmapped(p) || size <= nb + MIN_CHUNK_SIZE) {
        return;
    }
    malloc_chunk* const tail = chunk_behind(p, nb);
    set_inuse(p, nb);
    set_inuse(tail, size - nb);
    parts.tail = chunk2mem(tail);
}

void* allocate_aligned(std::size_t alignment, std::size_t bytes) {
    const std::size_t nb = request2size(bytes);
    // A minimum chunk less the overhead guarantees that a whole chunk can be given back in front.
    void* const mem = dlmalloc(nb + alignment + MIN_CHUNK_SIZE - CHUNK_OVERHEAD);
    if (mem == nullptr) {
        return nullptr;
    }
    Parts parts{mem2chunk(mem), nullptr, nullptr};
    {
        const Entry entry;
        if (address_of(mem) % alignment != 0) {
            cut_leader(parts, alignment);
        }
        cut_tail(parts, nb);
    }
    dlfree(parts.leader); // outside the lock, which dlfree takes itself
    dlfree(parts.tail);
    return chunk2mem(parts.block);
}

} // namespace
} // namespace heap

void* dlmemalign(std::size_t alignment, std::size_t bytes) {
    using namespace heap;
    if (alignment <= MALLOC_ALIGNMENT) {
        return dlmalloc(bytes);
    }
    if (alignment > highest_power) {
        return nullptr; // there is no power of two to raise it to
    }
    alignment = std::bit_ceil(alignment);
    return bytes < MAX_REQUEST - alignment ? allocate_aligned(alignment, bytes) : nullptr;
}
