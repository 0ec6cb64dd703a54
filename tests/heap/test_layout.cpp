// Arithmetic of sizes and places, at the values where it turns.
#include "heap_fixture.h"

#include "heap/malloc_bins.h"

namespace {

using test::Heap;

using namespace heap;

TEST(HeapLayout, TreeBinsBeginWhereTheyShould) {
    for (unsigned index = 0; index < numTreebins; ++index) {
        const std::size_t power = std::size_t{1} << (index / 2 + treebinShift);
        const std::size_t first = index % 2 == 0 ? power : power + power / 2;
        EXPECT_EQ(compute_tree_index(first), index);
        if (index > 0) {
            EXPECT_EQ(compute_tree_index(first - 64), index - 1);
        }
        if (index < numTreebins - 1) { // the first bit that the bin leaves open comes out on top
            const std::size_t open = power >> 2;
            EXPECT_EQ((first | open) << leftshift_for_tree_index(index) >> 63, 1U);
            EXPECT_EQ(first << leftshift_for_tree_index(index) >> 63, 0U);
        }
    }
    EXPECT_EQ(compute_tree_index(255), 0U);
    EXPECT_EQ(compute_tree_index(SIZE_MAX), 31U);
}

} // namespace
