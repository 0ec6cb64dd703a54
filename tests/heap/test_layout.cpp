// Arithmetic of sizes and places, at the values where it turns.
#include "heap_fixture.h"

#include "heap/malloc_bins.h"

namespace {

using test::Heap;

using namespace heap;

TEST(HeapLayout, RequestsArePaddedToWholeLines) {
    EXPECT_EQ(request2size(0), 64U);
    EXPECT_EQ(request2size(54), 64U);
    EXPECT_EQ(request2size(55), 64U) << "padded, and the same";
    EXPECT_EQ(request2size(56), 64U);
    EXPECT_EQ(request2size(57), 128U);
    EXPECT_EQ(request2size(184), 192U);
    EXPECT_EQ(request2size(185), 256U);
    EXPECT_EQ(pad_request(MAX_REQUEST - 1), 0xFFFFFFFFFFFFFF40U) << "the largest does not wrap";
}

TEST(HeapLayout, OffsetsAndUnits) {
    EXPECT_EQ(align_offset(0), 0U);
    EXPECT_EQ(align_offset(1), 63U);
    EXPECT_EQ(align_offset(63), 1U);
    EXPECT_EQ(align_offset(128), 0U);
    EXPECT_EQ(granularity_align(1, 65536), 65536U);
    EXPECT_EQ(granularity_align(65535, 65536), 65536U);
    EXPECT_EQ(granularity_align(65536, 65536), 131072U) << "a multiple gains one more unit";
}

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

// The heads of the small bins overlap, and each may be written without touching its neighbours.
TEST_F(Heap, SmallBinHeadsKeepApart) {
    for (unsigned index = 0; index < numSmallbins; ++index) {
        malloc_chunk* const bin = smallbin_at(index);
        bin->fd = bin;
        bin->bk = bin;
    }
    for (unsigned index = 0; index < numSmallbins; ++index) {
        EXPECT_EQ(smallbin_at(index)->fd, smallbin_at(index));
        EXPECT_EQ(smallbin_at(index)->bk, smallbin_at(index));
    }
    EXPECT_EQ(state.treebins[0], nullptr);
}

} // namespace
