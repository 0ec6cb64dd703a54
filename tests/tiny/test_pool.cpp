// The pool's edges: sizes, switches, what is reported and what happens then, and which pointers are
// taken for its blocks.
#include "KXMBasMem.h"
#include "damage.h"
#include "frame/mem_Backends.h"
#include "frame/mem_TinySwitches.h"
#include "heap/dlmalloc.h"
#include "pool_fixture.h"
#include "recording_KX0CORE.h"
#include "tiny/pool_walk.h"
#include "tiny/test_seam.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace {

using test::Pool;

mem_TBPool& pool() {
    return mem_TBPool::Instance();
}

TEST_F(Pool, TellsItsNameAndNumberAndNeverItsSize) {
    void* const slot = pool().Alloc(100, false);
    EXPECT_EQ(pool().PoolID(), 3000);
    EXPECT_STREQ(pool().PoolName(), "TinyBlockAllocator");
    EXPECT_EQ(pool().MemoryCurrent(), 0U);
    EXPECT_EQ(pool().MemoryPeak(), 0U);
    pool().Free(slot);
}

TEST_F(Pool, ReportsARequestThatIsTooLargeUnderItsLock) {
    mem_TBAllocator(1);
    mem_TBThreadLock(true);
    EXPECT_EQ(pool().Alloc(129, true), nullptr);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:siz < 129");
    EXPECT_EQ(tiny::TestAccess::lock().count, 0) << "left behind";
    int negative = -1; // extended by its sign
    EXPECT_EQ(mem_smallalloc(&negative), nullptr);
}

TEST_F(Pool, ReportsAPointerThatIsNoSlotAndGoesOn) {
    auto* const first = static_cast<char*>(pool().Alloc(16, false));
    auto* const second = static_cast<char*>(pool().Alloc(16, false));
    pool().Free(second + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:blk->Ptr(offset) == ptr");
    EXPECT_EQ(pool().Alloc(16, false), second) << "freed by its truncated offset";
    const int before = recorded_fatal_errors();
    pool().Free(first + 8); // in the middle of a slot: not seen
    EXPECT_EQ(recorded_fatal_errors(), before);
    EXPECT_EQ(pool().Alloc(16, false), first + 8);
    pool().Free(first - 104 + 8); // in the tag: two reports, and the second word is overwritten
    EXPECT_EQ(recorded_fatal_errors(), before + 2);
    EXPECT_FALSE(tiny::is_page(tiny::page_of(first)));
    for (const bool lock : {false, true}) { // a slot of a page that is not recognised any more
        mem_TBPool::ThreadLock(lock);
        pool().Free(first + 8);
        EXPECT_EQ(pool().Alloc(16, lock), first + 8);
    }
    EXPECT_EQ(recorded_fatal_errors(), before + 6)
        << "the tag each time, and its place in the chain";
    EXPECT_EQ(tiny::TestAccess::lock().count, 0);
    tiny::page_of(first)->mark = tiny::page_tag;
    pool().Alloc(16, false); // takes the tag for a slot, and says so
    EXPECT_EQ(recorded_fatal_errors(), before + 8);
    tiny::page_of(first)->mark = tiny::page_tag;
    test::reset_pool(); // sound or not
}

// Up to the edge of the pool and 72 bytes beyond, through the interface.
TEST_F(Pool, ResizesFromEverySizeToEveryOther) {
    mem_TBAllocator(1);
    const auto slot_bytes = [](std::size_t size) {
        return size <= 4 ? 4 : size <= 8 ? 8 : (size + 15) / 16 * 16;
    };
    const auto is_slot = [](const void* block) { return tiny::is_page(tiny::page_of(block)); };
    for (std::size_t from = 0; from <= 200; ++from) {
        for (std::size_t to = 1; to <= 200; ++to) {
            auto* const block = static_cast<unsigned char*>(mem_Malloc(from));
            ASSERT_EQ(is_slot(block), from <= 128) << from;
            std::memset(block, static_cast<int>(to), from);
            auto* const moved = static_cast<unsigned char*>(mem_Realloc(block, to));
            ASSERT_TRUE(std::all_of(moved, moved + std::min(from, to),
                                    [to](unsigned char byte) { return byte == to; }))
                << from << " to " << to;
            if (from <= 128) {
                ASSERT_EQ(moved == block, to <= slot_bytes(from)) << from << " to " << to;
                ASSERT_EQ(is_slot(moved), to <= 128) << from << " to " << to;
            } else { // the heap's, which does not go back to the pool
                ASSERT_FALSE(is_slot(moved));
            }
            std::memset(moved, 0xFF, to);
            mem_Free(moved);
        }
        ASSERT_EQ(test::pool_fault(), "") << from;
    }
}

TEST_F(Pool, KeepsItsLastPageAndDestroysTheTagOfOthers) {
    test::PageWatch watch;
    void* const alone = pool().Alloc(64, false);
    pool().Free(alone);
    EXPECT_EQ(pool().Alloc(64, false), alone);
    EXPECT_EQ(watch.asked, 1U);
    std::vector<void*> slots{alone};
    while (slots.size() < 63) {
        slots.push_back(pool().Alloc(64, false));
    }
    EXPECT_EQ(watch.asked, 2U);
    tiny::Tag* const page = tiny::page_of(slots.back());
    EXPECT_TRUE(tiny::is_page(page));
    pool().Free(alone); // on the list again, so that the other is not alone
    pool().Free(slots.back());
    EXPECT_EQ(os::read_word_unchecked(&page->self), tiny::dead_tag);
    EXPECT_EQ(os::read_word_unchecked(&page->mark), tiny::dead_tag);
    EXPECT_EQ(tiny::take_census().free_indices, 1U);
}

TEST_F(Pool, SurvivesThousandsOfRefusedPages) {
    test::PageWatch watch;
    watch.refuse_every = 1;
    for (int i = 0; i < 20000; ++i) { // beyond what one growth of the table covers
        ASSERT_EQ(pool().Alloc(8, false), nullptr);
    }
    watch.refuse_every = 0;
    void* const slot = pool().Alloc(8, false);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(tiny::block_in(tiny::page_of(slot))->BlockIndex(), 20000);
    EXPECT_EQ(tiny::take_census().lost_indices, 20000U);
    // An index that is lost after its page was given back keeps a link, which is larger than any offset in a
    // page by now, and still no page.
    std::vector<void*> slots;
    for (int i = 0; i < 3 * 31; ++i) {
        slots.push_back(pool().Alloc(128, false));
    }
    for (void* const each : slots) {
        pool().Free(each);
    }
    ASSERT_EQ(tiny::take_census().free_indices, 2U);
    watch.refuse_every = 1;
    EXPECT_EQ(pool().Alloc(40, false), nullptr);
    EXPECT_EQ(tiny::take_census().lost_indices, 20001U);
} // and the pool ends

// With the counter raised as by another thread, and no event to be had. Each entry that locks tells
// four times: no event and no wait, and no event and no wake-up.
TEST_F(Pool, ReportsALockThatTheSystemRefusesAndGoesOn) {
    mem_TBAllocator(1);
    mem_TBThreadLock(true);
    tiny::TestAccess::lock().count = 1;
    tiny::test_seam::refuse_events = true;
    auto reports = [before = recorded_fatal_errors()]() mutable {
        return recorded_fatal_errors() - std::exchange(before, recorded_fatal_errors());
    };
    void* slot = mem_Malloc(8);
    EXPECT_NE(slot, nullptr);
    EXPECT_EQ(reports(), 4);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:rv");
    EXPECT_STREQ(recorded_fatal_source(), "mem_TBPool");
    slot = mem_Realloc(slot, 20);
    EXPECT_EQ(reports(), 4) << "once, although it allocates";
    mem_Free(slot);
    EXPECT_EQ(reports(), 4);
    int size = 8;
    slot = mem_smallalloc(&size);
    EXPECT_EQ(reports(), 0) << "never locks";
    mem_smallfree(&slot);
    EXPECT_EQ(reports(), 4);
    tiny::test_seam::refuse_events = false;
    mem_TBThreadLock(true);
    EXPECT_EQ(tiny::TestAccess::lock().count, 1) << "it was on";
    mem_TBThreadLock(false);
    EXPECT_EQ(tiny::TestAccess::lock().count, 0);
}

TEST_F(Pool, BeginsWithAFreeLockAndEndsWithNothing) {
    tiny::TestAccess::lock().count = 3;
    const std::uint64_t in_use = dlmallinfo().uordblks;
    for (const std::size_t size : {8U, 8U, 100U}) {
        EXPECT_NE(pool().Alloc(size, false), nullptr);
    }
    EXPECT_EQ(tiny::TestAccess::lock().count, 0);
    tiny::TestAccess::end();
    EXPECT_EQ(dlmallinfo().uordblks, in_use);
}

TEST_F(Pool, IsSwitchedByItsClients) {
    const auto from_pool = [](std::size_t size) {
        void* const block = mem_Malloc(size);
        const bool tiny = tiny::is_page(tiny::page_of(block));
        mem_Free(block);
        return tiny;
    };
    mem_TBThreadLock(true); // nothing while the pool is off
    EXPECT_EQ(tiny::TestAccess::instance(), nullptr);
    EXPECT_FALSE(from_pool(8));
    mem_TBAllocator(0);
    EXPECT_FALSE(mem_tinyBlocksUsed);
    mem_TBAllocator(2);
    EXPECT_TRUE(from_pool(0));
    EXPECT_TRUE(from_pool(128));
    EXPECT_FALSE(from_pool(129));
    void* cleared = mem_Calloc(1, 8);
    EXPECT_FALSE(tiny::is_page(tiny::page_of(cleared)));
    cleared = mem_Realloc(mem_Realloc(cleared, 500), 8);
    EXPECT_FALSE(tiny::is_page(tiny::page_of(cleared))) << "stays out";
    mem_Free(cleared);
    void* const early = mem_Malloc(20);
    mem_TBAllocator(0);
    EXPECT_FALSE(from_pool(8));
    EXPECT_EQ(mem_Realloc(early, 31), early) << "still known";
    mem_Free(early);
    EXPECT_EQ(tiny::take_census().slots_used[3], 0U) << "came home after the pool went off";
    mem_Mallinfo::useDL = false; // the pool needs the heap
    mem_TBAllocator(1);
    EXPECT_FALSE(mem_tinyBlocksOn);
    mem_Mallinfo::useDL = true;
    newDeleteTinyBlock(false);
    EXPECT_TRUE(mem_tinyBlocksUsed);
}

// Read only, written, poisoned, freed or of another thread: looking at a page's first words harms
// nobody, and only the pool's pages are taken for one.
TEST_F(Pool, TakesNoOtherPageForItsOwn) {
    mem_TBAllocator(1);
    mem_Free(mem_Malloc(8));
    const auto known = [](const void* p) { return tiny::is_page(tiny::page_of(p)); };
    std::vector<void*> heap_blocks, runtime_blocks;
    for (std::size_t size = 1; size < 20000; size = size * 3 / 2 + 1) {
        heap_blocks.push_back(dlmalloc(size));
        heap_blocks.push_back(dlmemalign(4096, size));
        runtime_blocks.push_back(std::malloc(size));
        for (const void* block : {heap_blocks.back(), *(heap_blocks.end() - 2)}) {
            EXPECT_FALSE(known(block));
        }
        EXPECT_FALSE(known(runtime_blocks.back()));
        void* const guarded = myMalloc(size);
        void* const aligned = mem_Malign(size, 4096);
        EXPECT_FALSE(known(guarded));
        EXPECT_FALSE(known(aligned));
        myFree(guarded);
        mem_MalignFree(aligned);
    }
    for (void* const block : heap_blocks) {
        mem_Free(block);
    }
    for (void* const block : runtime_blocks) {
        std::free(block);
    }
    static int written = 1;
    int local = 2;
    EXPECT_FALSE(known(&written) || known(&local) || known("in the program's file"));
    EXPECT_FALSE(known(reinterpret_cast<const void*>(&std::strlen)));

    auto* const page = static_cast<tiny::Tag*>(os::vm_allocate(8192, os::Placement::direct));
    page->self = reinterpret_cast<std::uintptr_t>(page);
    page->mark = tiny::page_tag | std::uint64_t{1} << 32; // all but the zero extension
    EXPECT_FALSE(known(page + 3));
    page->mark = tiny::page_tag;
    EXPECT_TRUE(known(page + 3));
    static void* released = nullptr;
    void (*const real_free)(void*) = std::exchange(mem_free, [](void* ptr) { released = ptr; });
    mem_tinyBlocksUsed = false; // then no page is looked at
    mem_Free(page + 3);
    mem_tinyBlocksUsed = true;
    mem_free = real_free;
    EXPECT_EQ(released, page + 3);
    EXPECT_FALSE(known(page + 256)) << "the tag is another page's";
    std::memcpy(page + 256, page, sizeof *page);
    EXPECT_FALSE(known(page + 256)) << "a copy of a page's start";
    os::vm_release(page);
}

TEST_F(Pool, IsNotSoundToTheWalkerWithAnyWordWrong) {
    mem_FixedBlock* const listed = tiny::block_in(tiny::page_of(pool().Alloc(32, false)));
    std::vector<void*> slots; // two full pages and a slot
    for (int i = 0; i < 2 * 31 + 1; ++i) {
        slots.push_back(pool().Alloc(128, false));
    }
    pool().Free(slots.front());
    pool().Free(slots.back()); // its page goes, and leaves its index
    mem_FixedBlock* const full = tiny::block_in(tiny::page_of(slots[40]));
    int* const free_index = &tiny::TestAccess::free_index();
    int* const head = &tiny::TestAccess::head(3);
    auto* const first = &tiny::first_page[3];
    test::expect_faults(
        {{"stack of free indices", {{free_index, 0, 100}}},
         {"free index with a page", {{free_index, 0, 1}}},
         {"tag", {{tiny::page_of(listed), 2, 0}}},
         {"descriptor", {{listed, 8, 7}}},
         {"class", {{listed, 10 + 3, mem_RGN_SPECIAL}}},
         {"count of words in use", {{listed, 10 + 4, 0}}},
         {"first page is not the list's head", {{first, 0, 0}, {first, 1, 0}}},
         {"list leads off the pages", {{listed, 5, 99}}},
         {"list leads off the pages", {{listed, 5, listed->BlockIndex()}}},
         {"links disagree", {{listed, 6, 2}}},
         {"page on another class's list", {{listed, 10 + 3, 4}}},
         {"link off the lists", {{full, 5, 0}}},
         {"page with room off its list", {{head, 0, -1}, {first, 0, 0}, {first, 1, 0}}}},
        [] { return tiny::take_census().fault; });
}

} // namespace
