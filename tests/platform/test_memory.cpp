// Virtual memory as the heap relies on it: whole allocations alone are released, a query tells an
// allocation's start from its middle, segments join and direct mappings stand apart.
#include "platform/granule_map.h"
#include "platform/os.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

constexpr std::size_t kib = 1024, mib = 1024 * kib;

std::uintptr_t number(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

bool all_zero(const unsigned char* memory, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        if (memory[i] != 0) {
            return false;
        }
    }
    return true;
}

TEST(VirtualMemory, IsZeroedWritableAndOnTheGranularity) {
    const std::size_t granularity = os::properties().allocation_granularity;
    EXPECT_EQ(granularity, 65536U); // the same everywhere, so that footprints agree
    for (const auto placement : {os::Placement::segment, os::Placement::direct}) {
        for (const std::size_t size : {std::size_t{1}, 64 * kib, 65 * kib, 5 * mib}) {
            auto* const block = static_cast<unsigned char*>(os::vm_allocate(size, placement));
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(number(block) % granularity, 0U);
            EXPECT_TRUE(all_zero(block, size));
            std::memset(block, 0xa5, size);
            EXPECT_TRUE(os::vm_release(block));
        }
    }
}

TEST(VirtualMemory, CostsLittleBesidesWhatWasAskedFor) {
    os::ProcessMemory before{}, after{};
    ASSERT_TRUE(os::process_memory(before));
    void* const block = os::vm_allocate(64 * kib, os::Placement::segment);
    ASSERT_TRUE(os::process_memory(after));
    EXPECT_LE(after.private_bytes, before.private_bytes + 512 * kib);
    EXPECT_TRUE(os::vm_release(block));
}

TEST(VirtualMemory, RefusesTheImpossible) {
    for (const auto placement : {os::Placement::segment, os::Placement::direct}) {
        EXPECT_EQ(os::vm_allocate(0, placement), nullptr);
        EXPECT_EQ(os::vm_allocate(SIZE_MAX, placement), nullptr);
        EXPECT_EQ(os::vm_allocate(SIZE_MAX / 2, placement), nullptr);
    }
}

TEST(VirtualMemory, QueryTellsStartAndMiddleApart) {
    auto* const block = static_cast<char*>(os::vm_allocate(256 * kib, os::Placement::direct));
    ASSERT_NE(block, nullptr);
    os::Region region{};
    ASSERT_TRUE(os::vm_query(block, region));
    EXPECT_EQ(region.base, number(block));
    EXPECT_EQ(region.allocation_base, number(block));
    EXPECT_EQ(region.size, 256 * kib);
    EXPECT_EQ(region.state, os::state_commit);
    EXPECT_EQ(region.type, os::type_private);

    ASSERT_TRUE(os::vm_query(block + 64 * kib + 5, region));
    EXPECT_EQ(region.base, number(block) + 64 * kib);
    EXPECT_EQ(region.allocation_base, number(block));
    EXPECT_EQ(region.size, 192 * kib);
    EXPECT_TRUE(os::vm_release(block));

    ASSERT_TRUE(os::vm_query(block, region));
    EXPECT_EQ(region.state, os::state_free);
    EXPECT_EQ(region.allocation_base, 0U);
}

TEST(VirtualMemory, ReleasesWholeAllocationsOnly) {
    auto* const block = static_cast<char*>(os::vm_allocate(128 * kib, os::Placement::segment));
    ASSERT_NE(block, nullptr);
    int local = 0;
    EXPECT_FALSE(os::vm_release(block + 64 * kib)) << "the tail of an allocation";
    EXPECT_FALSE(os::vm_release(&local)) << "memory that is not ours";
    EXPECT_FALSE(os::vm_release(nullptr));
    block[0] = 1; // still there
    EXPECT_TRUE(os::vm_release(block));
    EXPECT_FALSE(os::vm_release(block)) << "a second time";
}

// A run of neighbours goes at once, and ends at a hole, at a part and at what is not ours.
TEST(VirtualMemory, ReleasesRunsOfNeighbours) {
    constexpr std::size_t unit = 64 * kib;
    std::vector<char*> block;
    for (int i = 0; i < 6; ++i) {
        block.push_back(static_cast<char*>(os::vm_allocate(unit, os::Placement::segment)));
        ASSERT_NE(block.back(), nullptr);
    }
    for (std::size_t i = 1; i < block.size(); ++i) {
        if (block[i] != block[i - 1] + unit) {
            GTEST_SKIP() << "the system places units apart";
        }
    }
    EXPECT_EQ(os::vm_release_run(block[0] + 4096, unit), 0U) << "a tail";
    EXPECT_EQ(os::vm_release_run(block[0], unit - 4096), 0U) << "a part";
    EXPECT_EQ(os::vm_release_run(block[0], unit + unit / 2), unit) << "the next is a part";
    EXPECT_TRUE(os::vm_release(block[3]));
    EXPECT_EQ(os::vm_release_run(block[1], 5 * unit), 2 * unit) << "up to the hole";
    EXPECT_EQ(os::vm_release_run(block[4], 2 * unit), 2 * unit);
    os::Region region{};
    ASSERT_TRUE(os::vm_query(block[5], region));
    EXPECT_EQ(region.state, os::state_free);
    auto* const again = static_cast<char*>(os::vm_allocate(unit, os::Placement::segment));
    ASSERT_TRUE(all_zero(reinterpret_cast<unsigned char*>(again), unit));
    EXPECT_TRUE(os::vm_release(again));
}

TEST(VirtualMemory, SegmentsJoinAndDirectMappingsStandApart) {
    std::vector<char*> segments, direct;
    for (int i = 0; i < 8; ++i) {
        segments.push_back(static_cast<char*>(os::vm_allocate(128 * kib, os::Placement::segment)));
        direct.push_back(static_cast<char*>(os::vm_allocate(320 * kib, os::Placement::direct)));
        ASSERT_NE(segments.back(), nullptr);
        ASSERT_NE(direct.back(), nullptr);
    }
    int joined = 0;
    for (std::size_t i = 1; i < segments.size(); ++i) {
        joined += segments[i] == segments[i - 1] + 128 * kib ? 1 : 0;
    }
    for (char* const block : direct) {
        for (char* const segment : segments) {
            EXPECT_NE(block, segment + 128 * kib) << "a direct mapping blocks a segment's growth";
        }
    }
    // Where other mappings lie in the way a segment may start afresh, but not as a rule.
    EXPECT_GE(joined, 5);
    for (char* const block : segments) {
        EXPECT_TRUE(os::vm_release(block));
    }
    for (char* const block : direct) {
        EXPECT_TRUE(os::vm_release(block));
    }
}

// A long random history against a model: no overlap, no loss, no foreign byte.
TEST(VirtualMemory, KeepsItsTableUnderRandomUse) {
    struct Block {
        unsigned char* base;
        std::size_t size;
        unsigned char mark;
    };
    std::vector<Block> live;
    std::mt19937 random(20230611);
    for (int step = 0; step < 4000; ++step) {
        if (live.size() < 60 && random() % 2 == 0) {
            const std::size_t size = (random() % 40 + 1) * 16 * kib;
            const auto placement =
                random() % 2 == 0 ? os::Placement::segment : os::Placement::direct;
            auto* const base = static_cast<unsigned char*>(os::vm_allocate(size, placement));
            ASSERT_NE(base, nullptr);
            ASSERT_EQ(base[0], 0);
            ASSERT_EQ(base[size - 1], 0);
            const auto mark = static_cast<unsigned char>(random() % 255 + 1);
            base[0] = base[size - 1] = mark;
            live.push_back({base, size, mark});
        } else if (!live.empty()) {
            const std::size_t index = random() % live.size();
            const Block block = live[index];
            ASSERT_EQ(block.base[0], block.mark);
            ASSERT_EQ(block.base[block.size - 1], block.mark);
            os::Region region{};
            ASSERT_TRUE(os::vm_query(block.base + block.size / 2, region));
            ASSERT_EQ(region.allocation_base, number(block.base));
            ASSERT_TRUE(os::vm_release(block.base));
            live[index] = live.back();
            live.pop_back();
        }
    }
    for (const Block& block : live) {
        EXPECT_TRUE(os::vm_release(block.base));
    }
}

TEST(VirtualMemory, KnowsThousandsOfAllocations) {
    std::vector<char*> blocks(9000);
    for (char*& block : blocks) {
        block = static_cast<char*>(os::vm_allocate(4 * kib, os::Placement::direct));
        ASSERT_NE(block, nullptr);
    }
    for (std::size_t i = 0; i < blocks.size(); i += 97) {
        os::Region region{};
        ASSERT_TRUE(os::vm_query(blocks[i] + 100, region));
        ASSERT_EQ(region.allocation_base, reinterpret_cast<std::uintptr_t>(blocks[i])) << i;
    }
    for (char* const block : blocks) {
        ASSERT_TRUE(os::vm_release(block));
    }
}

TEST(VirtualMemory, KnowsMemoryThatItDidNotHandOut) {
    os::Region region{};
    int on_stack = 0;
    ASSERT_TRUE(os::vm_query(&on_stack, region));
    EXPECT_EQ(region.state, os::state_commit);
    EXPECT_EQ(region.type, os::type_private);

    ASSERT_TRUE(os::vm_query(reinterpret_cast<const void*>(&number), region));
    EXPECT_EQ(region.state, os::state_commit);
    EXPECT_EQ(region.type, os::type_image);

    ASSERT_TRUE(os::vm_query(nullptr, region));
    EXPECT_EQ(region.state, os::state_free);
    EXPECT_GT(region.size, 0U);

    void* const reserved = os::vm_reserve(64 * mib);
    ASSERT_NE(reserved, nullptr);
    ASSERT_TRUE(os::vm_query(reserved, region));
    EXPECT_EQ(region.state, os::state_reserve);
    os::Region middle{};
    char* const inside = static_cast<char*>(reserved) + 16 * mib;
    ASSERT_TRUE(os::vm_query(inside + 5, middle));
    EXPECT_EQ(middle.base, reinterpret_cast<std::uintptr_t>(inside));
    EXPECT_EQ(middle.base + middle.size, region.base + region.size);

    EXPECT_FALSE(os::vm_query(reinterpret_cast<const void*>(UINTPTR_MAX), region));
}

// Told without a lock, for each granule that an allocation touches, and for no other.
TEST(VirtualMemory, TellsWhoseAnAddressIsWithoutALock) {
    constexpr std::size_t granule = 65536, size = 70 * granule + 100;
    auto* const first = static_cast<char*>(os::vm_allocate(size, os::Placement::segment));
    auto* const second = static_cast<char*>(os::vm_allocate(granule, os::Placement::direct));
    ASSERT_TRUE(first != nullptr && second != nullptr);
    const os::GranuleMap* const map = os::vm_granules();
    const bool kept = map != nullptr; // not on every system
    const int local = 0;
    for (std::size_t at = 0; kept && at < size; at += granule / 2) {
        EXPECT_TRUE(map->holds(first + at));
    }
    EXPECT_FALSE(kept && (map->holds(first - 1) || map->holds(first + 71 * granule)));
    EXPECT_FALSE(kept && (map->holds(&local) || map->holds(nullptr)));
    EXPECT_FALSE(kept && map->holds(reinterpret_cast<void*>(~std::uintptr_t{0})));
    EXPECT_TRUE(os::vm_release(first));
    for (std::size_t at = 0; kept && at < size; at += granule / 2) {
        EXPECT_FALSE(map->holds(first + at));
    }
    EXPECT_EQ(kept, kept && map->holds(second));
    EXPECT_TRUE(os::vm_release(second));
}

} // namespace
