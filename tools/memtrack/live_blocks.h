// The blocks that are held at one moment, by address: an open-addressing table of 32-byte entries, which
// are the blocks themselves. Linear probing from a multiplicative hash, at most five eighths full; a block
// that goes is closed over by those behind it, so there are no graves and a search ends at the first
// empty entry. Memory: 32 bytes an entry, 51 to 102 bytes a block of the most that were held.
#pragma once

#include "platform/compiler.h"
#include "platform/memory.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace memtrack {

struct Block {
    std::uint64_t address = 0; ///< 0: an empty entry
    std::uint64_t size = 0;
    std::uint64_t number = 0; ///< of the event that made it
    std::uint32_t phase = 0;  ///< these two as the History of the run counts them
    std::uint32_t thread = 0;
};
static_assert(sizeof(Block) == 32);

class LiveBlocks {
public:
    LiveBlocks() : entries_(allocate(std::size_t{1} << first_bits)) {}

    std::size_t size() const { return size_; }

    /// The block at this address, or null. Valid until the table changes.
    const Block* find(std::uint64_t address) const {
        const std::size_t at = slot_of(address);
        return entries_[at].address != 0 ? &entries_[at] : nullptr;
    }

    /// Holds `block`, whose address is not 0. If one was held there, it goes, into `before`: true then.
    bool put(const Block& block, Block& before) {
        const std::size_t at = slot_of(block.address);
        const bool there = entries_[at].address != 0;
        before = entries_[at];
        entries_[at] = block;
        if (!there && ++size_ > most_) {
            grow();
        }
        return there;
    }

    /// Takes the block at this address out, into `block`; false when none is held there.
    bool take(std::uint64_t address, Block& block) {
        std::size_t hole = slot_of(address);
        if (entries_[hole].address == 0) {
            return false;
        }
        block = entries_[hole];
        for (std::size_t at = next(hole); entries_[at].address != 0; at = next(at)) {
            // An entry may move up into the hole unless its own search begins behind it.
            const std::size_t home = home_of(entries_[at].address);
            if (((at - home) & mask()) >= ((at - hole) & mask())) {
                entries_[hole] = entries_[at];
                hole = at;
            }
        }
        entries_[hole].address = 0;
        --size_;
        return true;
    }

    /// Fetches what a coming search for this address will look at.
    void prefetch(std::uint64_t address) const { platform::prefetch(&entries_[home_of(address)]); }

    template <class Each> void for_each(Each&& each) const {
        for (std::size_t i = 0; i < count_; ++i) {
            if (entries_[i].address != 0) {
                each(entries_[i]);
            }
        }
    }

private:
    static constexpr int first_bits = 10;

    struct Free {
        void operator()(Block* entries) const { platform::free_large(entries); }
    };
    using Entries = std::unique_ptr<Block[], Free>;
    /// All empty: an entry of zeros is one. In large pages where the system has such: searches go all over it.
    static Entries allocate(std::size_t count) {
        return Entries(static_cast<Block*>(platform::allocate_large(count * sizeof(Block))));
    }

    std::size_t mask() const { return count_ - 1; }
    std::size_t next(std::size_t at) const { return (at + 1) & mask(); }
    std::size_t home_of(std::uint64_t address) const {
        return static_cast<std::size_t>((address * 0x9E3779B97F4A7C15U) >> shift_);
    }
    // Where the address is, or would be put.
    std::size_t slot_of(std::uint64_t address) const {
        std::size_t at = home_of(address);
        while (entries_[at].address != address && entries_[at].address != 0) {
            at = next(at);
        }
        return at;
    }

    void grow();

    std::size_t count_ = std::size_t{1} << first_bits; // a power of two
    Entries entries_;
    std::size_t size_ = 0, most_ = (std::size_t{1} << first_bits) / 8 * 5;
    int shift_ = 64 - first_bits;
};

} // namespace memtrack
