// Allocation: how a request becomes a chunk. The order of search is
//
//     small (at most 184 bytes)   its bin; the victim; the next bin that has anything; the smallest
//                                 chunk of the trees; the top; the system
//     large                       the best fit of the trees, unless the victim fits better; the
//                                 victim; the top; the system
//
// The remainder of a small request's split becomes the victim, so that small requests in a row are
// served side by side; a large one's remainder goes to its bin.
#include "heap/dlmalloc.h"

#include <bit>
#include <cstring>

#include "heap/malloc_bins.h"
#include "heap/malloc_chunk.h"
#include "heap/malloc_grow.h"
#include "heap/malloc_state.h"

namespace heap {
namespace {

// The first chunk of a bin whose chunks fit exactly.
inline void* take_exact(unsigned index) {
    malloc_chunk* const bin = smallbin_at(index);
    malloc_chunk* const p = bin->fd;
    unlink_first_small_chunk(bin, p, index);
    set_inuse_and_pinuse(p, small_index2size(index));
    return chunk2mem(p);
}

// Gives `nb` bytes of the free chunk p, which has left its bin, to the user. The rest of it becomes
// the victim, unless it is too small for a chunk.
inline void* split_to_dv(malloc_chunk* p, std::size_t nb, std::size_t excess) {
    if (excess < MIN_CHUNK_SIZE) {
        set_inuse_and_pinuse(p, nb + excess);
    } else {
        malloc_chunk* const rest = chunk_behind(p, nb);
        set_inuse_front(p, nb);
        set_free_tags(rest, excess);
        replace_dv(rest, excess);
    }
    return chunk2mem(p);
}

// From the lowest bin above `index` that has anything. `smallbits` is the map from `index` on.
inline void* take_from_larger_bin(std::size_t nb, unsigned index, std::uint32_t smallbits) {
    const unsigned found = index + static_cast<unsigned>(std::countr_zero(smallbits));
    malloc_chunk* const bin = smallbin_at(found);
    malloc_chunk* const p = bin->fd;
    unlink_first_small_chunk(bin, p, found);
    return split_to_dv(p, nb, small_index2size(found) - nb);
}

inline void* take_from_dv(std::size_t nb) {
    malloc_chunk* const p = state.dv;
    const std::size_t excess = state.dvsize - nb;
    if (excess >= MIN_CHUNK_SIZE) {
        malloc_chunk* const rest = chunk_behind(p, nb);
        state.dv = rest;
        state.dvsize = excess;
        set_free_tags(rest, excess);
        set_inuse_front(p, nb);
    } else {
        const std::size_t whole = state.dvsize;
        state.dvsize = 0;
        state.dv = nullptr;
        set_inuse_and_pinuse(p, whole);
    }
    return chunk2mem(p);
}

/// The best chunk met so far for a request, and by how much it exceeds the request. A chunk that
/// is too small has, unsigned, an excess larger than any that is kept.
struct Candidate {
    malloc_tree_chunk* chunk;
    std::size_t excess;
    std::size_t wanted;

    void consider(malloc_tree_chunk* node) {
        // Selected without a branch, which no processor could foresee.
        const std::size_t excess_of_node = chunk_size(node) - wanted;
        const bool better = excess_of_node < excess;
        chunk = better ? node : chunk;
        excess = better ? excess_of_node : excess;
    }

    // Everything below and beside a tree's leftmost path is larger than something on it.
    void consider_leftmost_path(malloc_tree_chunk* node) {
        for (; node != nullptr; node = leftmost_child(node)) {
            consider(node);
        }
    }

    void check() const {
        const std::uintptr_t at = address_of(chunk);
        require(ok_address(chunk) && at + wanted > at);
    }
};

// The smallest chunk of the lowest tree bin that has any. pre: treemap is not zero.
KXM_NEVER_INLINE void* tmalloc_small(std::size_t nb) {
    malloc_tree_chunk* const root = state.treebins[std::countr_zero(state.treemap)];
    Candidate best{root, chunk_size(root) - nb, nb};
    best.consider_leftmost_path(leftmost_child(root));
    best.check();
    unlink_large_chunk(best.chunk);
    return split_to_dv(as_chunk(best.chunk), nb, best.excess);
}

// Follows the bits of the wanted size from the root down. Returns the subtree to go on with: the
// deepest one to the right of the path, all of which is large enough; null after an exact fit.
malloc_tree_chunk* descend(malloc_tree_chunk* root, unsigned index, Candidate& best) {
    malloc_tree_chunk* right = nullptr;
    std::size_t bits = best.wanted << leftshift_for_tree_index(index);
    for (malloc_tree_chunk* node = root; node != nullptr; bits <<= 1) {
        best.consider(node);
        if (best.excess == 0) {
            return nullptr;
        }
        malloc_tree_chunk* const larger = node->child[1];
        node = node->child[bits >> 63];
        const bool passed = (larger != nullptr) & (larger != node);
        right = passed ? larger : right;
    }
    return right;
}

// The root of the lowest tree bin above `index` that has any, or null.
malloc_tree_chunk* root_above(unsigned index) {
    const std::uint32_t above = state.treemap & ~((2U << index) - 1);
    return above != 0 ? state.treebins[std::countr_zero(above)] : nullptr;
}

// Best fit from the trees, or null when they have none or the victim fits at least as well.
KXM_NEVER_INLINE void* tmalloc_large(std::size_t nb) {
    Candidate best{nullptr, 0 - nb, nb};
    const unsigned index = compute_tree_index(nb);
    malloc_tree_chunk* rest = nullptr;
    if (state.treebins[index] != nullptr) {
        rest = descend(state.treebins[index], index, best);
    }
    if (rest == nullptr && best.chunk == nullptr) {
        rest = root_above(index);
    }
    best.consider_leftmost_path(rest);
    // Unsigned on purpose: a victim smaller than the request makes the right side huge.
    if (best.chunk == nullptr || best.excess >= state.dvsize - nb) {
        return nullptr;
    }
    best.check();
    unlink_large_chunk(best.chunk);
    malloc_chunk* const p = as_chunk(best.chunk);
    if (best.excess < MIN_CHUNK_SIZE) {
        set_inuse_and_pinuse(p, nb + best.excess);
    } else {
        malloc_chunk* const remainder = chunk_behind(p, nb);
        set_inuse_front(p, nb);
        set_free_tags(remainder, best.excess);
        insert_chunk(remainder, best.excess); // never the victim
    }
    return chunk2mem(p);
}

// All of dlmalloc between entering and leaving.
KXM_ALWAYS_INLINE void* allocate(std::size_t bytes) {
    std::size_t nb = impossible_size;
    if (bytes <= maxSmallRequest) {
        nb = request2size(bytes);
        const unsigned index = small_index(nb);
        const std::uint32_t smallbits = state.smallmap >> index;
        if ((smallbits & 3) != 0) {
            // The neighbour is 8 bytes larger and, sizes being what they are, never has a chunk.
            // The test keeps the general form.
            return take_exact(index + (~smallbits & 1));
        }
        if (nb > state.dvsize) {
            if (smallbits != 0) {
                return take_from_larger_bin(nb, index, smallbits);
            }
            if (state.treemap != 0) {
                return tmalloc_small(nb);
            }
        }
    } else if (bytes < MAX_REQUEST) {
        nb = pad_request(bytes);
        if (state.treemap != 0) {
            if (void* const mem = tmalloc_large(nb)) {
                return mem;
            }
        }
    }
    if (nb <= state.dvsize) {
        return take_from_dv(nb);
    }
    if (nb < state.topsize) {
        return split_top(nb);
    }
    return sys_alloc(nb);
}

// The product, or zero for no elements, or all ones when it overflows: no heap has that much.
std::size_t array_bytes(std::size_t count, std::size_t size) {
    const std::size_t product = count * size;
    if (count != 0 && (count | size) > 0xFFFF && product / count != size) {
        return ~std::size_t{0};
    }
    return product;
}

} // namespace
} // namespace heap

void* dlmalloc(std::size_t bytes) {
    const heap::Entry entry;
    return heap::allocate(bytes);
}

void* dlcalloc(std::size_t count, std::size_t size) {
    const std::size_t bytes = heap::array_bytes(count, size);
    void* mem = nullptr;
    bool zeroed = false;
    {
        // Asked inside: a neighbour's release may change the tags that tell.
        const heap::Entry entry;
        mem = heap::allocate(bytes);
        zeroed = mem != nullptr && heap::is_mmapped(heap::mem2chunk(mem));
    }
    if (mem != nullptr && !zeroed) { // a direct mapping is zero as the system gives it
        std::memset(mem, 0, bytes);
    }
    return mem;
}
