// The arithmetic that the pool classes share: the size of a block, and a pool's figures. Inline, since
// it is all that a pool costs. No pool takes a lock: figures are read and written whole, but a sum of
// two threads may lose one of them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem_Interface.h"
#include "platform/compiler.h"
#include "platform/relaxed_word.h"

namespace pool_account {

// Nothing tests that a block is the heap's; but one of another back end that begins a page may have
// nothing in front of it to read.
inline bool has_size_word(const void* ptr) {
    constexpr std::uintptr_t page_mask = 4095;
    const bool begins_page = (reinterpret_cast<std::uintptr_t>(ptr) & page_mask) == 0;
    return !begins_page || (ptr != nullptr && mem_usingDL() != 0);
}

/// The word in front of a heap block without its flag bits; 0 for null.
inline std::size_t alloc_size(const void* ptr) {
    constexpr std::uint64_t flag_bits = 3;
    return has_size_word(ptr)
               ? os::peek_word(static_cast<const std::uint64_t*>(ptr) - 1) & ~flag_bits
               : 0;
}

/// That less the chunk's header; 0 for null.
inline std::size_t actual_size_for_use(const void* ptr) {
    constexpr std::size_t chunk_header = 16;
    return has_size_word(ptr) ? alloc_size(ptr) - chunk_header : 0;
}

inline void raise(std::uint64_t& figure, std::uint64_t value) {
    if (value > os::relaxed_read(figure)) {
        os::relaxed_write(figure, value);
    }
}

/// Adds `size` to the present figure and raises the others to it, or takes it from the present one.
/// Does nothing for a pool that is not active.
inline void update(bool active, bool decrease, std::size_t size, std::uint64_t& current,
                   std::uint64_t& high_water, std::uint64_t& peak) {
    if (!active) {
        return;
    }
    const std::uint64_t before = os::relaxed_read(current);
    if (decrease) {
        // May wrap: a block from before the pool's activation takes the figure below zero. Meant.
        os::relaxed_write(current, before - size);
        return;
    }
    os::relaxed_write(current, before + size);
    raise(high_water, before + size);
    raise(peak, os::relaxed_read(high_water));
}

} // namespace pool_account
