// The arithmetic that the pool classes share: the size of a block, and a pool's figures. No pool takes
// a lock: figures are read and written whole, but a sum of two threads may lose one of them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pool_account {

/// The word in front of a heap block without its flag bits, and that less the chunk's header; 0 for
/// null.
std::size_t alloc_size(void* ptr);
std::size_t actual_size_for_use(void* ptr);

struct Figures {
    std::uint64_t& current;
    std::uint64_t& high_water;
    std::uint64_t& peak;
};

/// Adds `size` to the present figure and raises the others to it, or takes it from the present one.
/// Does nothing for a pool that is not active.
void update(bool active, bool decrease, std::size_t size, Figures figures);

} // namespace pool_account
