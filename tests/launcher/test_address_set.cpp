// The set of blocks that recordings stand on, against the standard one: with many collisions, as it grows and as
// holes close behind what is taken out.
#include "preload/address_set.h"

#include <gtest/gtest.h>
#include <random>
#include <unordered_set>

namespace {

TEST(AddressSet, HoldsWhatASetHolds) {
    static kxmrun::AddressSet set; // as it stands in the preloaded library: zeroed
    std::mt19937 random(5);
    for (const std::size_t most : {3000U, 60000U}) {
        std::unordered_set<const void*> model;
        for (int step = 0; step < 400000; ++step) {
            const void* const block =
                reinterpret_cast<const void*>((1 + random() % (2 * most)) * 16);
            if (random() % 2 == 0 && model.insert(block).second) {
                set.insert(block);
            } else {
                ASSERT_EQ(set.remove(block), model.erase(block) == 1) << most << ", step " << step;
            }
        }
        for (const void* const block : model) {
            ASSERT_TRUE(set.remove(block));
            ASSERT_FALSE(set.remove(block));
        }
        set.clear();
    }
}

} // namespace
