// Corruption ends the process, in a child of its own; and the walker, which the other tests rely
// on, sees every kind of damage.
#include "heap_fixture.h"

#include <functional>

#include "child.h"
#include "heap/malloc_bins.h"

namespace {

using test::Heap;

TEST(HeapCorruption, EndsTheProcess) {
    for (const char* const deed :
         {"double-free-small", "double-free-large", "double-free-of-the-last", "resize-after-free",
          "write-past-the-end", "head-loses-its-predecessor", "head-claims-a-huge-size",
          "free-list-overwritten", "tree-overwritten", "foreign-pointer", "pointer-into-a-block",
          "first-mapping-without-a-segment"}) {
        const test::ChildResult result =
            test::run_child({test::sibling_program("heap_probe"), {deed}, {}});
        EXPECT_TRUE(result.crashed) << deed;
        EXPECT_EQ(result.out, "begins\n") << deed;
    }
}

// One damage each to a heap with something of every kind in it.
TEST_F(Heap, TheWalkerSeesDamage) {
    void* block[12];
    for (std::size_t i = 0; i < 12; ++i) {
        block[i] = dlmalloc(i < 6 ? 56 : i * 500);
    }
    for (std::size_t i = 0; i < 12; i += 2) {
        dlfree(block[i]);
    }
    dlfree(block[11]);
    block[11] = dlmalloc(5000);
    block[3] = dlmalloc(100); // makes a victim
    ASSERT_NE(heap::state.dv, nullptr);
    void* const converted = dlrealloc(dlmalloc(1 << 20), 300000);
    ASSERT_EQ(test::heap_fault(), "");

    heap::malloc_chunk* const used = heap::mem2chunk(block[1]);
    heap::malloc_chunk* const small = heap::mem2chunk(block[4]);
    heap::malloc_tree_chunk* const tree = heap::as_tree(heap::mem2chunk(block[8]));
    heap::malloc_segment* const record = heap::state.seg.next;
    const auto seen = [](auto& word, auto value) {
        const auto before = word;
        word = value;
        const bool found = !heap::is_valid();
        word = before;
        EXPECT_TRUE(heap::is_valid());
        return found;
    };
    EXPECT_TRUE(seen(used->head, used->head ^ heap::CINUSE_BIT));
    EXPECT_TRUE(seen(used->head, used->head ^ heap::PINUSE_BIT));
    EXPECT_TRUE(seen(used->head, used->head + 64));
    EXPECT_TRUE(seen(used->head, std::size_t{3}));
    EXPECT_TRUE(seen(heap::next_chunk(small)->prev_foot, std::size_t{128}));
    EXPECT_TRUE(seen(small->fd, small));
    EXPECT_TRUE(seen(small->bk, used));
    EXPECT_TRUE(seen(tree->index, tree->index + 1));
    EXPECT_TRUE(seen(tree->fd, heap::as_tree(used)));
    EXPECT_TRUE(seen(tree->child[0], tree));
    EXPECT_TRUE(seen(tree->parent, tree));
    EXPECT_TRUE(seen(heap::state.smallmap, 0U));
    EXPECT_TRUE(seen(heap::state.treemap, heap::state.treemap | 1U << 31));
    EXPECT_TRUE(seen(heap::state.dvsize, std::size_t{0}));
    EXPECT_TRUE(seen(heap::state.topsize, heap::state.topsize - 64));
    EXPECT_TRUE(seen(heap::state.least_addr, heap::state.least_addr + 65536 * 1024));
    EXPECT_TRUE(seen(record->size, record->size - 65536));
    EXPECT_TRUE(seen(heap::chunk_behind(heap::mem2chunk(record), 96)->head, std::size_t{0}));
    dlfree(converted);
}

} // namespace
