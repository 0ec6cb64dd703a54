// Resizing. In place only a shrink, or a growth into the top; a free neighbour in a bin is never
// taken, so a block that grows beside one moves.
//
// The system cannot remap a range, so a direct mapping that shrinks by much is turned into a
// segment of the heap: the block becomes its first chunk, what it no longer needs becomes a free
// chunk, and the room kept at the mapping's end takes the segment's record. The footprint stays the
// same, since the mapping is still held whole.
//
//     before   | offset | block                             | 176: fencepost, zero               |
//     after    | offset | block (nb) | free chunk           | record chunk (64) | fenceposts 112 |
//
// A block that dlmemalign moved up in its mapping becomes a chunk that is not at the place where
// walks look for a segment's first one. They meet the head that the block had before it was moved,
// which spans the range as one chunk in use: figures miss the free chunk, and the segment is never
// given back as a whole. Left so: a caller is not to resize such a block and then ask for figures.
#include "heap/dlmalloc.h"

#include <algorithm>
#include <cstring>

#include "heap/heap_walk.h"
#include "heap/malloc_bins.h"
#include "heap/malloc_chunk.h"
#include "heap/malloc_segment.h"
#include "heap/malloc_state.h"
#include "heap/system_memory_gate.h"

namespace heap {
namespace {

// pre: the mapping is larger than nb by more than two units of granularity.
void convert_to_segment(malloc_chunk* p, std::size_t nb, std::size_t mmsize) {
    const std::size_t offset = p->prev_foot & ~IS_MMAPPED_BIT;
    const std::uintptr_t start = address_of(p) - offset;
    const std::uintptr_t end = start + mmsize;
    malloc_chunk* const record = chunk_at<malloc_chunk>(end - MMAP_FOOT_PAD);
    malloc_chunk* const rest = chunk_behind(p, nb);
    const std::size_t rsize = address_of(record) - address_of(rest);

    if (malloc_chunk* const first = align_as_chunk(chunk_at<char>(start)); first != p) {
        note_hidden_start(first, p);
    }
    p->prev_foot = 0;
    set_inuse_front(p, nb);
    rest->head = rsize | PINUSE_BIT;
    insert_large_chunk(as_tree(rest), rsize);

    record->prev_foot = rsize;
    record->head = MIN_CHUNK_SIZE | CINUSE_BIT;
    auto* const segment = static_cast<malloc_segment*>(chunk2mem(record));
    *segment = {reinterpret_cast<char*>(start), mmsize, state.seg.next,
                static_cast<std::uint32_t>(IS_MMAPPED_BIT)};
    state.seg.next = segment;
    write_fenceposts(address_of(record) + MIN_CHUNK_SIZE, end);
    check_while_small();
}

// The chunk if it may stay where it is, or null if the block must move.
malloc_chunk* mmap_resize(malloc_chunk* oldp, std::size_t nb) {
    if (is_small(nb)) {
        return nullptr;
    }
    const std::size_t oldsize = chunk_size(oldp);
    if (oldsize >= nb + 8 && (oldsize - nb) / 2 <= params.granularity) {
        return oldp; // close enough; two units may be more than a number holds
    }
    const std::size_t offset = oldp->prev_foot & ~IS_MMAPPED_BIT;
    const std::size_t oldmmsize = oldsize + offset + MMAP_FOOT_PAD;
    const std::size_t newmmsize = granularity_align(
        nb + MMAP_FOOT_PAD + MMAP_CHUNK_OVERHEAD + CHUNK_ALIGN_MASK, params.granularity);
    // Cannot succeed; it leaves the limit's verdict on a growth in the error word.
    call_check_mem_reallocate(chunk_before(oldp, offset), oldmmsize, newmmsize, 1, &state);
    if (oldsize <= nb) {
        return nullptr;
    }
    convert_to_segment(oldp, nb, oldmmsize);
    return oldp;
}

/// What became of a block under the lock.
struct Resized {
    bool in_place;
    void* tail;             // to be released outside the lock, or null
    std::size_t old_usable; // bytes
};

void shrink(malloc_chunk* p, std::size_t oldsize, std::size_t nb, Resized& result) {
    if (oldsize - nb >= MIN_CHUNK_SIZE) {
        malloc_chunk* const tail = chunk_behind(p, nb);
        set_inuse(p, nb);
        set_inuse(tail, oldsize - nb);
        result.tail = chunk2mem(tail);
    }
}

void grow_into_top(malloc_chunk* p, std::size_t oldsize, std::size_t nb) {
    state.topsize = oldsize + state.topsize - nb;
    state.top = chunk_behind(p, nb);
    state.top->head = state.topsize | PINUSE_BIT;
    p->head = (p->head & PINUSE_BIT) | nb | CINUSE_BIT;
}

Resized resize_in_place(malloc_chunk* p, std::size_t nb) {
    const std::size_t oldsize = chunk_size(p);
    malloc_chunk* const next = chunk_behind(p, oldsize);
    require(ok_address(p) && cinuse(p) && address_of(p) < address_of(next) && pinuse(next));

    Resized result{true, nullptr, oldsize - overhead_of(p)};
    if (is_mmapped(p)) {
        result.in_place = mmap_resize(p, nb) != nullptr;
    } else if (oldsize >= nb) {
        shrink(p, oldsize, nb, result);
    } else if (next == state.top && oldsize + state.topsize > nb) { // strict, as in dlmalloc
        grow_into_top(p, oldsize, nb);
    } else {
        result.in_place = false;
    }
    return result;
}

void* internal_realloc(void* mem, std::size_t bytes) {
    if (bytes >= MAX_REQUEST) {
        return nullptr;
    }
    Resized result{};
    {
        const Entry entry;
        result = resize_in_place(mem2chunk(mem), request2size(bytes));
    }
    if (result.in_place) {
        dlfree(result.tail);
        return mem;
    }
    void* const moved = dlmalloc(bytes);
    if (moved != nullptr) {
        std::memcpy(moved, mem, std::min(bytes, result.old_usable));
        dlfree(mem);
    }
    return moved;
}

} // namespace
} // namespace heap

void* dlrealloc(void* mem, std::size_t bytes) {
    if (mem == nullptr) {
        return dlmalloc(bytes);
    }
    if (bytes == 0) {
        dlfree(mem);
        return nullptr;
    }
    return heap::internal_realloc(mem, bytes);
}
