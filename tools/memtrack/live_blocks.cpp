// See live_blocks.h.
#include "live_blocks.h"

namespace memtrack {

void LiveBlocks::grow() {
    const Entries old = std::exchange(entries_, allocate(count_ * 2));
    const std::size_t old_count = std::exchange(count_, count_ * 2);
    --shift_;
    most_ *= 2;
    for (std::size_t i = 0; i < old_count; ++i) {
        if (old[i].address != 0) {
            entries_[slot_of(old[i].address)] = old[i];
        }
    }
}

} // namespace memtrack
