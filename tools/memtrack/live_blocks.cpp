// See live_blocks.h.
#include "live_blocks.h"

namespace memtrack {

void LiveBlocks::grow() {
    std::vector<Block> entries(entries_.size() * 2);
    entries_.swap(entries);
    --shift_;
    most_ *= 2;
    for (const Block& block : entries) {
        if (block.address != 0) {
            entries_[slot_of(block.address)] = block;
        }
    }
}

} // namespace memtrack
