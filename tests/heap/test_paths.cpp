// The roads through the heap: where a request is served from, what a release does, when a resize
// stays in place, what goes back to the system, and every odd value of an argument.
#include "heap_fixture.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "heap/malloc_segment.h"

namespace {

using test::Heap;
using Sizes = std::initializer_list<std::size_t>;

using test::direct_bytes;
using test::is_aligned;
using test::is_direct;

constexpr std::size_t kib = 1024, mib = 1024 * kib, unit = 64 * kib;
constexpr std::size_t size_max = std::numeric_limits<std::size_t>::max();

bool all_bytes(const void* mem, std::size_t size, unsigned char value) {
    const auto* const at = static_cast<const unsigned char*>(mem);
    return std::all_of(at, at + size, [value](unsigned char c) { return c == value; });
}

// A chunk's bytes, and a null test, as one.
std::size_t usable(void* mem) {
    EXPECT_NE(mem, nullptr);
    EXPECT_TRUE(is_aligned(mem, 64));
    return dlmalloc_usable_size(mem);
}

TEST_F(Heap, NullZeroAndImpossibleEverywhere) {
    const std::vector<std::size_t> impossible{size_max, size_max - 63, heap::MAX_REQUEST,
                                              heap::MAX_REQUEST + 1};
    dlfree(nullptr);
    EXPECT_EQ(heap::params.page_size, 0U) << "not even the parameters are set up";
    EXPECT_EQ(dlmalloc_usable_size(nullptr), 0U);
    EXPECT_EQ(dlmalloc_trim(0), 0);
    EXPECT_EQ(dlmalloc_trim(size_max), 0);
    for (const std::size_t size : impossible) {
        EXPECT_EQ(dlmalloc(size), nullptr);
        EXPECT_EQ(dlrealloc(nullptr, size), nullptr);
        EXPECT_EQ(dlmemalign(4096, size), nullptr);
        EXPECT_EQ(dlmemalign(0, size), nullptr);
        EXPECT_EQ(dlcalloc(1, size), nullptr);
        EXPECT_EQ(dlcalloc(size, 16), nullptr);
        EXPECT_EQ(dlcalloc(16, size), nullptr);
    }
    EXPECT_EQ(dlcalloc(std::size_t{1} << 32, std::size_t{1} << 32), nullptr);
    EXPECT_EQ(dlcalloc((std::size_t{1} << 60) + 1, 16), nullptr) << "wraps to 16";
    EXPECT_EQ(dlmalloc_footprint(), 0U) << "nothing was touched";
    EXPECT_EQ(error_memory_limit(), 0);

    for (void* const mem :
         {dlmalloc(0), dlcalloc(0, 0), dlcalloc(0, 100), dlcalloc(100, 0), dlrealloc(nullptr, 0),
          dlmemalign(0, 0), dlmemalign(1, 0), dlmalloc(56)}) {
        EXPECT_EQ(usable(mem), 56U);
        EXPECT_EQ(dlrealloc(mem, 0), nullptr) << "released";
    }
    void* const mem = dlmalloc(57);
    EXPECT_EQ(usable(mem), 120U);
    std::memset(mem, 7, 57);
    for (const std::size_t size : impossible) {
        EXPECT_EQ(dlrealloc(mem, size), nullptr);
    }
    EXPECT_EQ(dlmalloc(heap::MAX_REQUEST - 1), nullptr) << "possible in form, too large in fact";
    EXPECT_EQ(dlrealloc(mem, heap::MAX_REQUEST - 1), nullptr);
    EXPECT_EQ(dlmemalign(size_max, 1), nullptr);
    EXPECT_EQ(dlmemalign(size_max / 2 + 2, 1), nullptr);
    EXPECT_EQ(dlmemalign(size_max / 2 + 1, 1), nullptr);
    EXPECT_TRUE(all_bytes(mem, 57, 7)) << "a failed resize leaves the block";
    dlfree(mem);
}

TEST_F(Heap, FirstLargeRequestMakesASegmentBeforeItsMapping) {
    void* const mem = dlmalloc(mib);
    EXPECT_TRUE(is_direct(mem));
    EXPECT_EQ(dlmalloc_footprint(), unit + mib + unit);
    EXPECT_EQ(heap::state.topsize, unit - 48 - 176) << "the first request went back to the top";
    EXPECT_EQ(dlmalloc_usable_size(mem), mib + unit - 48 - 176 - 16);
    dlfree(mem);
    EXPECT_EQ(dlmalloc_footprint(), unit);
}

TEST_F(Heap, SmallRequestsAreServedInTheOrderOfSearch) {
    void* block[8];
    for (void*& mem : block) {
        mem = dlmalloc(56);
    }
    dlfree(block[1]);
    dlfree(block[3]);
    EXPECT_EQ(dlmalloc(56), block[3]) << "an exact bin, the latest first";
    void* const large = dlmalloc(184); // from the top
    void* const guard = dlmalloc(100);
    dlfree(large);
    EXPECT_EQ(dlmalloc(100), large) << "the next larger bin, split";
    EXPECT_EQ(heap::state.dvsize, 64U) << "the rest became the victim";
    EXPECT_EQ(dlmalloc(10), block[1]) << "an exact bin goes before the victim";
    EXPECT_EQ(static_cast<char*>(dlmalloc(10)), static_cast<char*>(large) + 128) << "the victim";
    EXPECT_EQ(heap::state.dv, nullptr);

    void* const tree = dlmalloc(1000);
    void* const guard2 = dlmalloc(0);
    dlfree(tree);
    EXPECT_EQ(dlmalloc(20), tree) << "the smallest of the trees";
    EXPECT_EQ(heap::state.dvsize, 1024U - 64);
    EXPECT_EQ(test::heap_fault(), "");
    EXPECT_NE(guard, nullptr);
    EXPECT_NE(guard2, nullptr);
}

TEST_F(Heap, LargeRequestsTakeTheBestFitAndLeaveTheVictim) {
    std::vector<void*> freed;
    for (const std::size_t size : Sizes{3000, 700, 5000, 1200, 1100, 1100, 40000}) {
        freed.push_back(dlmalloc(size));
        dlmalloc(0); // keeps them apart
    }
    for (void* const mem : freed) {
        dlfree(mem);
    }
    EXPECT_EQ(test::heap_fault(), "");
    EXPECT_EQ(dlmalloc(1100), freed[4] < freed[5] ? freed[4] : freed[5]);
    EXPECT_EQ(dlmalloc(1110), freed[4] < freed[5] ? freed[5] : freed[4])
        << "same size, on the list";
    EXPECT_EQ(dlmalloc(1110), freed[3]);
    EXPECT_EQ(dlmalloc(4000), freed[2]);
    EXPECT_EQ(heap::state.dv, nullptr) << "a remainder of a large request goes to its bin";
    EXPECT_EQ(dlmalloc(900), static_cast<char*>(freed[2]) + 4032) << "the remainder";
    EXPECT_EQ(test::heap_fault(), "");
}

TEST_F(Heap, AVictimThatFitsGoesFirst) {
    void* const in_tree = dlmalloc(1000);
    dlmalloc(100);
    void* const small = dlmalloc(184);
    dlmalloc(100);
    void* const other = dlmalloc(1000 + 128);
    dlmalloc(100);
    dlfree(other);
    EXPECT_EQ(dlmalloc(100), other); // its rest, as large as the chunk of 1000, is the victim
    dlfree(in_tree);
    ASSERT_EQ(heap::state.dvsize, 1024U);
    void* const from_victim = static_cast<char*>(other) + 128;
    EXPECT_EQ(dlmalloc(1000), from_victim) << "it wins a tie against the trees";
    EXPECT_EQ(dlmalloc(900), in_tree) << "the rest of 64 is a chunk of its own";
    EXPECT_EQ(dlmalloc_usable_size(in_tree), 960U - 8);
    void* const rest = static_cast<char*>(in_tree) + 960;
    EXPECT_EQ(dlmalloc(1), rest);
    dlfree(small);
    dlfree(dlmalloc(57)); // 128 of the 192: the victim is 64, and then whole again
    EXPECT_EQ(dlmalloc(184), small);
    dlfree(small);
    dlfree(from_victim);
    EXPECT_EQ(dlmalloc(120), small) << "a bin goes before the trees";
    ASSERT_EQ(heap::state.dvsize, 64U);
    EXPECT_EQ(dlmalloc(1), static_cast<char*>(small) + 128) << "exactly the victim, no other split";
}

// Free chunks of many sizes: each large request takes the smallest that holds it.
TEST_F(Heap, TheTreesGiveTheBestFit) {
    dlmallopt(-3, size_max);
    dlmallopt(-2, 64 * mib); // one segment, so that no other chunk is free
    std::mt19937 random(7);
    std::vector<void*> blocks;
    for (int i = 0; i < 3000; ++i) {
        blocks.push_back(dlmalloc(200 + random() % (i % 4 == 0 ? 100000 : 3000)));
        dlmalloc(1);
    }
    std::multimap<std::size_t, void*> free_chunks;
    for (void* const mem : blocks) {
        free_chunks.emplace(dlmalloc_usable_size(mem) + 8, mem);
        dlfree(mem);
    }
    ASSERT_EQ(heap::state.dv, nullptr);
    for (int i = 0; i < 6000; ++i) {
        const std::size_t nb = heap::request2size(200 + random() % (i % 4 == 0 ? 90000 : 4000));
        const auto best = free_chunks.lower_bound(nb);
        if (best == free_chunks.end()) {
            break;
        }
        void* const mem = dlmalloc(nb - 8);
        const auto taken = std::find_if(best, free_chunks.upper_bound(best->first),
                                        [mem](const auto& chunk) { return chunk.second == mem; });
        ASSERT_NE(taken, free_chunks.upper_bound(best->first)) << i;
        if (taken->first - nb >= 256) { // the rest is in the trees again
            free_chunks.emplace(taken->first - nb, static_cast<char*>(mem) + nb);
        }
        free_chunks.erase(taken);
    }
    EXPECT_EQ(test::heap_fault(), "");
}

// The system's memory is clean, so a mapping is not cleared again: here it is seen to be left.
TEST_F(Heap, AFreshMappingIsNotClearedTwice) {
    dlfree(dlmalloc(1));
    test::SystemWatch watch;
    watch.supply = os::vm_allocate(320 * kib, os::Placement::direct);
    std::memset(watch.supply, 0xee, 320 * kib);
    void* const mem = dlcalloc(300, kib);
    ASSERT_TRUE(is_direct(mem));
    EXPECT_TRUE(all_bytes(mem, 300 * kib, 0xee));
    dlfree(mem);
}

TEST_F(Heap, ResizeInPlaceAndByMoving) {
    char* const a = static_cast<char*>(dlmalloc(1000));
    EXPECT_EQ(dlrealloc(a, 30000), a) << "into the top";
    char* const b = static_cast<char*>(dlmalloc(1000));
    EXPECT_EQ(dlrealloc(a, 100), a) << "a shrink stays";
    EXPECT_EQ(dlmalloc_usable_size(a), 120U);
    EXPECT_EQ(dlrealloc(a, 57), a) << "too little over for a chunk";
    std::memset(a, 9, 120);
    char* const moved = static_cast<char*>(dlrealloc(a, 2000));
    EXPECT_NE(moved, a) << "a free neighbour in a bin is never taken";
    EXPECT_TRUE(all_bytes(moved, 120, 9));
    EXPECT_EQ(dlmalloc_usable_size(a), 0U) << "not in use";
    dlfree(moved);
    dlfree(b);
    test::reset_heap();
    void* const last = dlmalloc(1);
    const std::size_t most = heap::state.topsize + 64 - 32 - 8; // the top keeps its odd 32 bytes
    EXPECT_EQ(dlrealloc(last, most), last);
    EXPECT_EQ(heap::state.topsize, 32U);
    EXPECT_NE(dlrealloc(last, most + 1), last);
}

// A resized mapping asks the gate about its new size, which tells in the error word, even where a
// free chunk then serves the request.
TEST_F(Heap, AMappingsGrowthLeavesTheLimitsVerdict) {
    void* mem = dlmalloc(mib);
    dlmallopt(-3, size_max);
    void* const room = dlmalloc(5 * mib / 2); // for what grows, but no mapping's worth beside it
    dlmalloc(1);                              // keeps it from the top
    dlfree(room);
    dlmallopt(-3, 256 * kib);
    const std::size_t footprint = dlmalloc_footprint();
    // From one size of mapping to the other: what 2 MiB - 256 + 255 bytes round up to, and one
    // chunk more.
    for (const std::size_t more : Sizes{mib - unit, mib}) {
        const std::size_t size = more == mib ? 2 * mib - 192 - 8 : 2 * mib - 256 - 8;
        for (const int verdict : {-1, 0}) {
            dlmallopt(-5, footprint + more + (verdict == 0 ? 1 : 0));
            dlmallopt(-5, footprint + more + (verdict == 0 ? 1 : 0)); // carries the first
            void* const grown = dlrealloc(mem, size);
            EXPECT_EQ(error_memory_limit(), verdict) << more;
            EXPECT_EQ(grown, room) << "served all the same";
            dlmallopt(-5, 0);
            mem = dlmalloc(mib);
            ASSERT_TRUE(is_direct(mem));
            dlfree(grown);
        }
    }
    dlfree(mem);
}

TEST_F(Heap, ShrunkMappingBecomesASegment) {
    auto* const mem = static_cast<char*>(dlmalloc(4 * mib));
    std::memset(mem, 5, mib);
    const std::size_t footprint = dlmalloc_footprint();
    const std::size_t old_usable = dlmalloc_usable_size(mem);
    EXPECT_EQ(dlrealloc(mem, old_usable - 2 * unit + 64), mem) << "close enough";
    EXPECT_TRUE(is_direct(mem));
    EXPECT_EQ(dlmalloc_usable_size(mem), old_usable);
    EXPECT_EQ(heap::state.seg.next, nullptr);
    auto* const just = static_cast<char*>(dlmalloc(4 * mib));
    EXPECT_EQ(dlrealloc(just, old_usable - 2 * unit - 64), just);
    EXPECT_FALSE(is_direct(just)) << "a line more, and it is not";
    dlfree(just);
    dlmalloc_trim(0);
    ASSERT_EQ(dlmalloc_footprint(), footprint);

    EXPECT_EQ(dlrealloc(mem, mib), mem);
    EXPECT_FALSE(is_direct(mem));
    EXPECT_EQ(dlmalloc_usable_size(mem), mib + 56);
    EXPECT_EQ(dlmalloc_footprint(), footprint);
    EXPECT_EQ(direct_bytes(), 0U);
    EXPECT_EQ(heap::take_census().segments, 2U);
    EXPECT_EQ(test::heap_fault(), "");

    char* const tail = static_cast<char*>(dlmalloc(200 * kib));
    EXPECT_EQ(tail, mem + mib + 64) << "the tail serves later requests";
    EXPECT_TRUE(all_bytes(mem, mib, 5));
    dlfree(mem);
    dlfree(tail);
    EXPECT_EQ(heap::take_census().free_chunks, 1U) << "one free chunk spans the range";
    EXPECT_EQ(dlmalloc_trim(0), 1);
    EXPECT_EQ(dlmalloc_footprint(), footprint - (4 * mib + unit));
    EXPECT_EQ(heap::take_census().segments, 1U);
}

// The range's last chunk has a size that no request has; its pieces go through small bins that are
// never used otherwise.
TEST_F(Heap, PiecesOfAConvertedMappingAreUsedUp) {
    void* const mem = dlrealloc(dlmalloc(mib), 300 * kib);
    std::vector<void*> blocks;
    while (dlmalloc_footprint() == unit + mib + unit) {
        blocks.push_back(dlmalloc(blocks.size() % 3 * 64 + 1));
        ASSERT_EQ(test::heap_fault(), "");
        if (blocks.size() % 5 == 0) {
            dlfree(blocks[blocks.size() - 2]);
            blocks[blocks.size() - 2] = nullptr;
        }
    }
    dlfree(mem);
    for (void* const block : blocks) {
        dlfree(block);
    }
}

TEST_F(Heap, OtherResizesOfMappings) {
    void* small = dlrealloc(dlmalloc(mib), 180);
    EXPECT_FALSE(is_direct(small));
    EXPECT_EQ(direct_bytes(), 0U) << "moved into the bins, and unmapped";
    auto* const mem = static_cast<char*>(dlmalloc(mib));
    std::memset(mem, 3, mib);
    auto* const grown = static_cast<char*>(dlrealloc(mem, 2 * mib));
    EXPECT_NE(grown, mem);
    EXPECT_TRUE(all_bytes(grown, mib, 3));
    EXPECT_EQ(direct_bytes(), 2 * mib + unit);
    EXPECT_EQ(dlmallopt(-2, size_max / 2 + 1), 1);
    EXPECT_EQ(dlrealloc(grown, mib), grown);
    EXPECT_TRUE(is_direct(grown)) << "less than two units, which no number holds, go";
    EXPECT_EQ(dlmallopt(-2, unit), 1);
    dlfree(grown);
    dlfree(small);

    // Moved up in its mapping by its alignment, then converted: the heap stays sound, the range
    // is used, and only what walks it misses the free part.
    auto* const aligned = static_cast<char*>(dlmemalign(16 * kib, 2 * mib));
    EXPECT_EQ(dlrealloc(aligned, mib), aligned);
    EXPECT_EQ(test::heap_fault(), "");
    EXPECT_EQ(heap::take_census().hidden_starts, 1U);
    EXPECT_EQ(dlmalloc(400 * kib), aligned + mib + 64);
    EXPECT_EQ(dlfragmentationinfo(), 0U);
    dlfree(aligned);
    EXPECT_EQ(dlmalloc_trim(0), 0) << "such a segment never goes back as a whole";
}

// Grows the heap unit by unit to eight of them, and frees all. False where the system did not place
// them side by side.
bool eight_free_units() {
    std::vector<void*> blocks;
    while (dlmalloc_footprint() < 8 * unit) {
        blocks.push_back(dlmalloc(8 * kib - 8));
    }
    const bool joined = heap::take_census().segments == 1;
    for (void* const mem : blocks) {
        dlfree(mem);
    }
    return joined;
}

TEST_F(Heap, TopGoesBackInWholeAllocations) {
    struct Case {
        std::size_t pad, kept; // units
    };
    // What is kept besides the pad: 48 bytes in front, 176 behind, and 176 once more.
    for (const Case& c : {Case{0, 1}, Case{unit - 401, 1}, Case{unit - 400, 2}, Case{unit, 2},
                          Case{7 * unit - 400, 8}, Case{9 * unit, 8}}) {
        test::reset_heap();
        if (!eight_free_units()) {
            GTEST_SKIP() << "the system places units apart";
        }
        EXPECT_EQ(dlmalloc_trim(c.pad), c.kept < 8 ? 1 : 0) << c.pad;
        EXPECT_EQ(dlmalloc_footprint(), c.kept * unit) << c.pad;
        EXPECT_EQ(heap::state.topsize, c.kept * unit - 224) << c.pad;
        EXPECT_EQ(heap::state.trim_check, c.kept < 8 ? 2 * mib : size_max) << c.pad;
    }
    // By itself, when more than the threshold is free.
    test::reset_heap();
    dlmallopt(-1, 6 * unit);
    test::SystemWatch watch;
    ASSERT_TRUE(eight_free_units());
    EXPECT_GT(watch.releases, 0U);
    EXPECT_LE(dlmalloc_footprint(), 6 * unit + unit);
    // A segment that is not the heap's own neither shrinks nor goes.
    dlmallopt(-1, size_max);
    test::reset_heap();
    ASSERT_TRUE(eight_free_units());
    heap::state.seg.sflags |= heap::EXTERN_BIT;
    EXPECT_EQ(dlmalloc_trim(0), 0);
    EXPECT_EQ(dlmalloc_footprint(), 8 * unit);
}

// Two ranges that the system is made to place as the test wants them: side by side or apart.
struct Ranges {
    char* low = nullptr;
    char* high = nullptr;
};

Ranges neighbours(std::size_t low, std::size_t high) {
    const Ranges ranges{static_cast<char*>(os::vm_allocate(low, os::Placement::segment)),
                        static_cast<char*>(os::vm_allocate(high, os::Placement::segment))};
    if (ranges.low + low == ranges.high) {
        return ranges;
    }
    os::vm_release(ranges.low);
    os::vm_release(ranges.high);
    return {};
}

// Above a segment that is not the heap's own, or that the top has left, it becomes one of its own.
TEST_F(Heap, ARangeAboveTheTopJoinsIt) {
    enum class Low { own, external, left };
    for (const Low low : {Low::own, Low::external, Low::left}) {
        test::reset_heap();
        const Ranges ranges = neighbours(unit, 2 * unit);
        if (ranges.low == nullptr) {
            GTEST_SKIP() << "the system places them apart";
        }
        test::SystemWatch watch;
        watch.supply = ranges.low;
        dlmalloc(1000);
        heap::state.seg.sflags |= low == Low::external ? heap::EXTERN_BIT : 0;
        if (low == Low::left) {
            watch.supply = os::vm_allocate(2 * unit, os::Placement::direct);
            dlmalloc(unit);
        }
        const std::size_t topsize = heap::state.topsize;
        watch.supply = ranges.high;
        void* const mem = dlmalloc(low == Low::left ? unit + 1000 : unit);
        const heap::Census census = heap::take_census();
        if (low == Low::own) {
            EXPECT_EQ(mem, ranges.low + 64 + 1024) << "in both";
            EXPECT_EQ(heap::state.topsize, topsize + 2 * unit - unit - 64);
            EXPECT_EQ(census.segments, 1U);
            EXPECT_EQ(census.free_chunks, 0U);
        } else {
            EXPECT_EQ(mem, ranges.high + 64);
            EXPECT_EQ(census.segments, low == Low::left ? 3U : 2U);
        }
    }
}

// What is left of the old top, in front of its segment's record, becomes a free chunk.
TEST_F(Heap, ARangeApartBecomesTheNewestSegment) {
    for (const std::size_t left : Sizes{unit - 224 - 64, 32}) {
        test::reset_heap();
        dlmalloc(1);
        if (left == 32) {
            dlmalloc(heap::state.topsize - 32 - 8);
        }
        ASSERT_EQ(heap::state.topsize, left);
        char* const old = heap::state.seg.base;
        test::SystemWatch watch;
        watch.supply = os::vm_allocate(2 * unit, os::Placement::direct);
        void* const given = watch.supply;
        dlmalloc(unit);
        EXPECT_EQ(heap::state.seg.base, given);
        ASSERT_NE(heap::state.seg.next, nullptr);
        EXPECT_EQ(static_cast<void*>(heap::state.seg.next), old + unit - 128) << left;
        EXPECT_EQ(dlfragmentationinfo(), left + 32) << left;
    }
}

// The unit's last request, and the first that takes a second one.
TEST_F(Heap, ANewSegmentHoldsItsRequestAndTheFoot) {
    dlmalloc(unit - 256 - 8);
    EXPECT_EQ(dlmalloc_footprint(), unit);
    test::reset_heap();
    dlmalloc(unit - 192 - 8);
    EXPECT_EQ(dlmalloc_footprint(), 2 * unit);
}

TEST_F(Heap, PartOfAnAllocationNeverGoesBackAndIsTriedOnce) {
    dlmallopt(-1, 100 * kib);
    test::SystemWatch watch;
    dlfree(dlmalloc(200 * kib)); // the first segment: one allocation
    EXPECT_EQ(watch.releases, 1U);
    EXPECT_EQ(heap::state.trim_check, size_max) << "no more attempts";
    dlfree(dlmalloc(180 * kib));
    EXPECT_EQ(watch.releases, 1U);
    EXPECT_EQ(dlmalloc_footprint(), 4 * unit);
    dlmallopt(-3, size_max);
    dlfree(dlmalloc(mib)); // the top grows, and is reset
    EXPECT_GT(watch.releases, 1U);
}

TEST_F(Heap, WhatTheSystemDoesNotTakeBackStaysSound) {
    test::SystemWatch watch;
    void* const direct = dlmalloc(mib);
    void* const converted = dlrealloc(dlmalloc(2 * mib), mib);
    const std::size_t footprint = dlmalloc_footprint();
    watch.refuse_releases = true;
    dlfree(direct);
    EXPECT_EQ(dlmalloc_footprint(), footprint) << "still mapped, still counted";
    dlfree(converted);
    EXPECT_EQ(dlmalloc_trim(0), 0);
    EXPECT_EQ(dlmalloc_footprint(), footprint);
    EXPECT_EQ(test::heap_fault(), "");
    watch.refuse_releases = false;
    EXPECT_EQ(dlmalloc_trim(0), 1);
    EXPECT_EQ(dlmalloc_footprint(), footprint - 2 * mib - unit);
    heap::state.footprint -= mib + unit; // lost for good by the refusal
}

TEST_F(Heap, VictimInAnEmptySegmentGoesToATreeWhenTheSystemRefuses) {
    void* const converted = dlrealloc(dlmalloc(2 * mib), mib);
    dlfree(converted);
    void* const mem = dlmalloc(1); // splits the one free chunk: the rest is the victim
    ASSERT_NE(heap::state.dv, nullptr);
    dlfree(mem); // merges into the victim, which spans the segment again
    ASSERT_EQ(heap::state.dv, heap::align_as_chunk(heap::state.seg.next->base));
    {
        test::SystemWatch watch;
        watch.refuse_releases = true;
        EXPECT_EQ(dlmalloc_trim(0), 0);
    }
    EXPECT_EQ(heap::state.dv, nullptr);
    EXPECT_EQ(test::heap_fault(), "");
    EXPECT_EQ(dlmalloc_trim(0), 1);
}

TEST_F(Heap, Figures) {
    const kxm::mallinfo none = dlmallinfo();
    EXPECT_EQ(none.arena + none.ordblks + none.hblkhd + none.usmblks + none.keepcost, 0U);
    EXPECT_EQ(dlfragmentationinfo(), 0U);
    void* const a = dlmalloc(1000);
    EXPECT_EQ(dlfragmentationinfo(), 0U) << "the top does not count";
    void* const b = dlmalloc(mib);
    void* const c = dlmalloc(0);
    dlfree(a);
    const kxm::mallinfo info = dlmallinfo();
    EXPECT_EQ(info.arena, unit - 48) << "without the lead before the first chunk";
    EXPECT_EQ(info.hblkhd, mib + unit + 48) << "which shows here";
    EXPECT_EQ(info.ordblks, 2U);
    EXPECT_EQ(info.keepcost, heap::state.topsize);
    EXPECT_EQ(info.fordblks, heap::state.topsize + 176 + 1024);
    EXPECT_EQ(info.uordblks, dlmalloc_footprint() - info.fordblks);
    EXPECT_EQ(info.usmblks, dlmalloc_max_footprint());
    EXPECT_EQ(dlfragmentationinfo(), 1024U);
    dlfree(b);
    dlfree(c);
}

// A range that the system places directly below a segment: the request is cut from it, and the rest
// merges with what the segment begins with.
TEST_F(Heap, ARangeBelowASegmentJoinsItsFirstChunk) {
    for (const char* const first : {"top", "victim", "free", "in use"}) {
        test::reset_heap();
        test::SystemWatch watch;
        const auto [low, high] = neighbours(4 * unit, unit);
        if (low == nullptr) {
            GTEST_SKIP() << "the system places them apart";
        }
        watch.supply = high;
        void* const begin = dlmalloc(1000);
        void* const behind = dlmalloc(1);
        if (first != std::string("in use")) {
            dlfree(begin);
        }
        if (first == std::string("victim")) {
            dlfree(dlmalloc(1)); // split from the free chunk, and back into the victim
            ASSERT_NE(heap::state.dv, nullptr);
        } else if (first == std::string("top")) {
            dlfree(behind);
        }
        watch.supply = low;
        const std::size_t free_before = heap::take_census().free_bytes + heap::state.topsize;
        auto* const mem = static_cast<char*>(dlmalloc(200 * kib));
        EXPECT_EQ(mem, low + 64) << first;
        EXPECT_EQ(test::heap_fault(), "") << first;
        const heap::Census census = heap::take_census();
        EXPECT_EQ(census.segments, 1U) << first;
        EXPECT_EQ(census.free_bytes + heap::state.topsize,
                  free_before + 4 * unit - dlmalloc_usable_size(mem) - 8)
            << first;
        EXPECT_EQ(census.free_chunks, first == std::string("top") ? 0U : 1U) << first;
    }
}

TEST_F(Heap, AMappingOfItsOwnMayLieBelowAllSegments) {
    const Ranges ranges = neighbours(5 * unit, unit);
    if (ranges.low == nullptr) {
        GTEST_SKIP() << "the system places them apart";
    }
    test::SystemWatch watch;
    watch.supply = ranges.high;
    dlfree(dlmalloc(1));
    watch.supply = ranges.low;
    void* const mem = dlrealloc(dlmalloc(256 * kib), 257 * kib);
    EXPECT_TRUE(is_direct(mem) && mem == ranges.low + 64);
    dlfree(mem);
    EXPECT_EQ(dlmalloc_footprint(), unit);
}

// A range below a segment that begins with the stale head of a block that was moved up.
TEST_F(Heap, ARangeBelowAStaleHeadLeavesTheHeapSound) {
    dlfree(dlmalloc(1));
    const Ranges ranges = neighbours(4 * unit, 4 * mib + unit);
    if (ranges.low == nullptr) {
        GTEST_SKIP() << "the system places them apart";
    }
    test::SystemWatch watch;
    watch.supply = ranges.high;
    void* const mem = dlmemalign(64 * kib, 4 * mib - 64 * kib);
    ASSERT_TRUE(is_direct(mem));
    ASSERT_EQ(dlrealloc(mem, mib), mem);
    watch.supply = ranges.low;
    dlmallopt(-3, size_max);
    while (watch.supply != nullptr) { // first the free part of the mapping is used up
        dlmalloc(200 * kib);          // four units
        ASSERT_EQ(test::heap_fault(), "");
    }
    EXPECT_EQ(heap::take_census().hidden_starts, 1U);
    dlfree(mem);
}

} // namespace
