// Proves what mem_Region.h states of a fixed region, and tells what is in it.
#pragma once

#include <bitset>

#include "blocks/mem_FixedBlock.h"

namespace blocks {

/// No region of up to 1024 words has more slots.
inline constexpr std::size_t most_slots = 1024;

struct Chain {
    const char* fault = nullptr;   ///< the first broken statement, or null
    int slots = 0;                 ///< that the region has room for
    int touched = 0;               ///< slots below the frontier: handed out at least once
    std::bitset<most_slots> links; ///< by slot number: released, and waiting in the chain
    int used() const { return touched - static_cast<int>(links.count()); }
};

Chain walk_region(const mem_FixedRegion& region);

inline Chain walk_region(const mem_FixedBlock& block) {
    return walk_region(*block.Region());
}

} // namespace blocks
