// Operations on the bins, and the designated victim. The small ones are inline: they are the hot
// path of every small request. See malloc_state.h for what the bins hold.
//
// A tree bin is a trie on the bits of the size below those that the bin fixes. Bin i, with
// h = i / 2 + 8, holds sizes of [2^h, 1.5 * 2^h) for even i and [1.5 * 2^h, 2^(h+1)) for odd i; the last one
// holds everything above. From the root down, at depth d:
//
//     (size << leftshift_for_tree_index(i) << d) >> 63   is the child that leads to it
//
// A node's own size may lie anywhere in its subtree's range, so a descent looks at each on its way.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "heap/malloc_chunk.h"
#include "heap/malloc_state.h"

namespace heap {

constexpr bool is_small(std::size_t size) {
    return size < MIN_LARGE_SIZE;
}

constexpr unsigned small_index(std::size_t size) {
    return static_cast<unsigned>(size >> smallbinShift);
}

constexpr std::size_t small_index2size(unsigned index) {
    return std::size_t{index} << smallbinShift;
}

constexpr unsigned compute_tree_index(std::size_t size) {
    const std::size_t x = size >> treebinShift;
    if (x == 0) {
        return 0;
    }
    if (x > 0xFFFF) {
        return numTreebins - 1;
    }
    const auto k = static_cast<unsigned>(std::bit_width(x)) - 1;
    return 2 * k + static_cast<unsigned>((size >> (k + treebinShift - 1)) & 1);
}

constexpr unsigned leftshift_for_tree_index(unsigned index) {
    return index == numTreebins - 1 ? 0 : 63 - (index / 2 + treebinShift - 2);
}

static_assert(compute_tree_index(256) == 0 && compute_tree_index(384) == 1);
static_assert(compute_tree_index(512) == 2 && compute_tree_index(12582912) == 31);

inline malloc_chunk* smallbin_at(unsigned index) {
    return reinterpret_cast<malloc_chunk*>(&state.smallbins[std::size_t{2} * index]);
}

// ---------------------------------------------------------------------------------------------
// Small bins

inline void insert_small_chunk(malloc_chunk* p, std::size_t size) {
    const unsigned index = small_index(size);
    malloc_chunk* const bin = smallbin_at(index);
    malloc_chunk* forward = bin;
    if ((state.smallmap & (1U << index)) == 0) {
        state.smallmap |= 1U << index; // an empty bin's own links may be stale
    } else {
        forward = bin->fd;
        require(ok_address(forward));
    }
    bin->fd = p;
    forward->bk = p;
    p->fd = forward;
    p->bk = bin;
}

inline void unlink_small_chunk(malloc_chunk* p, std::size_t size) {
    const unsigned index = small_index(size);
    malloc_chunk* const bin = smallbin_at(index);
    malloc_chunk* const forward = p->fd;
    malloc_chunk* const back = p->bk;
    if (forward == back) {
        state.smallmap &= ~(1U << index);
        return;
    }
    require((forward == bin || ok_address(forward)) && (back == bin || ok_address(back)));
    forward->bk = back;
    back->fd = forward;
}

/// pre: p is the first chunk of `bin`, which is number `index`.
inline void unlink_first_small_chunk(malloc_chunk* bin, malloc_chunk* p, unsigned index) {
    malloc_chunk* const forward = p->fd;
    if (forward == bin) {
        state.smallmap &= ~(1U << index);
        return;
    }
    require(ok_address(forward));
    bin->fd = forward;
    forward->bk = bin;
}

// ---------------------------------------------------------------------------------------------
// Tree bins

void insert_large_chunk(malloc_tree_chunk* x, std::size_t size);
void unlink_large_chunk(malloc_tree_chunk* x);

inline malloc_tree_chunk* leftmost_child(const malloc_tree_chunk* node) {
    return node->child[0] != nullptr ? node->child[0] : node->child[1];
}

// ---------------------------------------------------------------------------------------------
// Either kind

inline void insert_chunk(malloc_chunk* p, std::size_t size) {
    if (is_small(size)) {
        insert_small_chunk(p, size);
    } else {
        insert_large_chunk(as_tree(p), size);
    }
}

inline void unlink_chunk(malloc_chunk* p, std::size_t size) {
    if (is_small(size)) {
        unlink_small_chunk(p, size);
    } else {
        unlink_large_chunk(as_tree(p));
    }
}

/// Installs a new victim. pre: the present one, if any, is small.
inline void replace_dv(malloc_chunk* p, std::size_t size) {
    if (state.dvsize != 0) {
        insert_small_chunk(state.dv, state.dvsize);
    }
    state.dvsize = size;
    state.dv = p;
}

} // namespace heap
