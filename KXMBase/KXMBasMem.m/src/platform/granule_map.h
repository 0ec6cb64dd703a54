// Which parts of the address space the virtual memory of this room holds, in granules of 64 KiB, for
// readers who must know within a few instructions whose memory an address is, and may take no lock.
//
//     address   | 0 (17 bits) | leaf (16 bits) | bit (15 bits) | in the granule (16 bits) |
//
// A leaf is a page of bits for 2 GiB, made when the first of them is set, and never given back. Writers
// hold a lock of their own. A bit is set before anybody is told the address and cleared before the
// memory goes, so that for an address in use the answer is never in doubt.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace os {

struct GranuleMap {
    using Word = std::atomic<std::uint64_t>;
    static constexpr unsigned granule_bits = 16, leaf_bits = 15, address_bits = 47;
    static constexpr std::size_t leaves = std::size_t{1}
                                          << (address_bits - granule_bits - leaf_bits);
    static constexpr std::size_t leaf_bytes = (std::size_t{1} << leaf_bits) / 8;

    std::atomic<Word*> leaf[leaves];

    bool holds(const void* place) const {
        const auto address = reinterpret_cast<std::uintptr_t>(place);
        const std::uintptr_t index = address >> (granule_bits + leaf_bits);
        if (index >= leaves) [[unlikely]] {
            return false;
        }
        const Word* const words = leaf[index].load(std::memory_order_acquire);
        if (words == nullptr) {
            return false;
        }
        const std::uintptr_t granule = address >> granule_bits;
        const std::uint64_t word =
            words[granule / 64 % (leaf_bytes / 8)].load(std::memory_order_relaxed);
        return (word >> (granule % 64) & 1) != 0;
    }
};
static_assert(sizeof(GranuleMap) == std::size_t{512} * 1024 && GranuleMap::leaf_bytes == 4096);

} // namespace os
