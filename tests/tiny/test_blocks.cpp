// Blocks, containers and fixed regions by themselves, on either road to memory.
#include "KXMBasMem.h"
#include "blocks/mem_FixedBlock.h"
#include "blocks/region_walk.h"
#include "damage.h"
#include "mem_DLAllocator.h"
#include "pool_fixture.h"
#include "recording_KX0CORE.h"

#include <array>
#include <cstdio>
#include <optional>

namespace {

// What `work` reported, or nothing; the source that it names is looked at as well.
template <typename Work> std::string reported(Work work, const char* source = "mem_Block") {
    const int before = recorded_fatal_errors();
    work();
    if (recorded_fatal_errors() == before) {
        return "";
    }
    EXPECT_STREQ(recorded_fatal_source(), source);
    return recorded_fatal_text();
}

template <typename Work> std::string printed(Work work) {
    testing::internal::CaptureStdout();
    work();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class Blocks : public testing::TestWithParam<bool> {
protected:
    Blocks() {
        if (GetParam()) {
            heap_.emplace();
        }
    }
    std::optional<test::HeapBound> heap_;
    mem_DLAllocator heap_allocator_;
    mem_Allocator general_allocator_;
    mem_Allocator* allocator_ =
        GetParam() ? static_cast<mem_Allocator*>(&heap_allocator_) : &general_allocator_;
};

std::string road_name(const testing::TestParamInfo<bool>& info) {
    return info.param ? "Heap" : "Interface";
}

INSTANTIATE_TEST_SUITE_P(Roads, Blocks, testing::Bool(), road_name);

TEST_P(Blocks, AContainerGrowsByOneIncrement) {
    mem_BlockContainer container(8, 32, allocator_);
    mem_Block block(0, nullptr, mem_BLK_EMPTY);
    container.SetBlockPtr(8191, &block); // the last that needs no growth
    EXPECT_EQ(container.Block(8191), &block);
    EXPECT_EQ(container.Block(8190), nullptr);
    container.SetBlockPtr(8192, &block);
    EXPECT_EQ(container.Block(8192), &block);
    EXPECT_EQ(container.Block(8193), nullptr);
    EXPECT_EQ(container.Block(8191), &block) << "lost by growing";
    EXPECT_EQ(container.BlockOrNull(16383), nullptr);
    EXPECT_EQ(container.BlockOrNull(16384), nullptr);
    container.SetBlockPtr(40000, &block); // as after many refused pages
    EXPECT_EQ(container.Block(40000), &block);
}

TEST_P(Blocks, ABlockTakesAndGivesMemory) {
    const auto memory = [this] { return static_cast<int*>(allocator_->Malloc("test", 64)); };
    mem_Block block(0, nullptr, mem_BLK_EMPTY);
    EXPECT_TRUE(block.IsFree());
    EXPECT_EQ(block.NextBlock(), -1);
    EXPECT_EQ(block.LastBlock(), -1);
    block.SetBlock(16, memory());
    EXPECT_EQ(block.BlockType(), mem_BLK_PASSTHRU);
    EXPECT_EQ(block.Offset(block.Ptr(5)), 5);
    EXPECT_EQ(block.Offset(reinterpret_cast<char*>(block.Ptr(5)) + 3), 5);
    EXPECT_EQ(block.Offset(reinterpret_cast<char*>(block.Ptr(0)) - 1), -1);
    block.FreeBlock(allocator_);
    EXPECT_TRUE(block.IsFree());
    EXPECT_EQ(block.BlockType(), mem_BLK_PASSTHRU) << "until the next SetBlock";
    EXPECT_EQ(reported([&] { block.FreeBlock(allocator_); }), "AssertionFailed:!IsFree()");
    block.SetBlock(0, nullptr);
    EXPECT_EQ(block.BlockType(), mem_BLK_EMPTY);
    block.SetBlock(1, nullptr);
    EXPECT_FALSE(block.IsFree()) << "a size without memory";
    EXPECT_EQ(reported([&] { block.SetBlock(0, nullptr); }), "AssertionFailed:IsFree()");

    // The descriptor's own storage goes with its memory.
    auto* const storage = memory();
    auto* const placed = new (storage) mem_Block(16, memory(), mem_BLK_CLUSTER);
    EXPECT_EQ(reported([&] { placed->Delete(allocator_); }), "");

    int words[4];
    {
        mem_Block empty(4, words, mem_BLK_EMPTY);
        empty.FreeBlock(allocator_); // looks at the type alone
        EXPECT_EQ(empty.Ptr(0), words);
        EXPECT_EQ(reported([&] { empty.SetBlock(4, words); }), "AssertionFailed:IsFree()");
    }
    EXPECT_EQ(std::string(recorded_fatal_text()), "AssertionFailed:m_blockMemory == 0");
    mem_Block cluster(0, nullptr, mem_BLK_CLUSTER);
    cluster.SetBlock(0, nullptr);
    EXPECT_EQ(cluster.BlockType(), mem_BLK_CLUSTER) << "for its whole life";
}

// Asks, when memory comes back, whether the block that it came from has let go of it: it may lie there.
struct ReleaseWatch : mem_DLAllocator {
    void Free(const char* tag, void* ptr) override {
        EXPECT_STREQ(tag, "mem_Block");
        EXPECT_TRUE(block->IsFree());
        mem_DLAllocator::Free(tag, ptr);
    }
    const mem_Block* block = nullptr;
};

TEST(FixedBlock, LetsGoOfItsMemoryBeforeItIsReleased) {
    const test::HeapBound heap;
    ReleaseWatch watch;
    watch.block = mem_FixedBlock::CreateFixedBlock(0, &watch, mem_RegionTypeEnm{3}, 0);
    const_cast<mem_Block*>(watch.block)->Delete(&watch);
}

TEST_P(Blocks, AFixedBlockLivesInItsOwnMemory) {
    mem_FixedBlock* block = mem_FixedBlock::CreateFixedBlock(7, allocator_, mem_RGN_VARIABLE, 230);
    EXPECT_EQ(static_cast<void*>(block->Ptr(0)), block);
    EXPECT_EQ(block->BlockSize(), 1024);
    EXPECT_EQ(block->BlockIndex(), 7);
    EXPECT_EQ(block->Region()->RegionType(), mem_RGN_SPECIAL);
    EXPECT_EQ(block->Alloc(), 10 + 12);
    EXPECT_EQ(block->Alloc(), 10 + 12 + 58); // 230 bytes are 58 words
    EXPECT_EQ(block->Region(), block->RegionQuick());
    block->Delete(allocator_);

    block = mem_FixedBlock::CreateFixedBlock(0, allocator_, mem_RegionTypeEnm{3}, 0);
    for (int slot = 0; slot < (1014 - 12) / 8; ++slot) {
        EXPECT_EQ(block->Alloc(), 22 + 8 * slot);
    }
    EXPECT_EQ(block->Alloc(), -1);
    EXPECT_EQ(blocks::walk_region(*block).fault, nullptr);
    block->Delete(allocator_);
}

// Any block of words will do for a region.
struct Place {
    explicit Place(int type, int words, int slot)
        : block((std::fill(memory.begin(), memory.end(), 0x5a5a5a5a),
                 new (memory.data())
                     mem_FixedBlock(0, memory.data(), words + 10, mem_RegionTypeEnm{type}, slot))) {
    }
    alignas(16) std::array<int, 1040> memory;
    mem_FixedBlock* block;
};

TEST(FixedRegion, FillsToTheLastWordAndNoFurther) {
    Place place(0, 1022, 1);
    mem_FixedRegion& region = *place.block->Region();
    for (int i = 0; i < 1012; ++i) {
        ASSERT_EQ(region.Alloc(place.block, 1), 20 + i);
    }
    EXPECT_EQ(region.Alloc(place.block, 1), -1);
    EXPECT_EQ(place.memory[1032], 0x5a5a5a5a) << "the word behind the region";
    EXPECT_EQ(blocks::walk_region(*place.block).used(), 1012);
    EXPECT_EQ(region.AllocCount(), 1012);
    EXPECT_EQ(printed([&] { region.DebugPrint(place.block); }), "FixedRegion: AllocCount = 1012\n");
    EXPECT_EQ(printed([&] { place.block->DebugPrint(); }), "mem_Block: Size = 1032\n");
}

TEST(FixedRegion, ReportsWhatCannotBe) {
    EXPECT_EQ(reported([] { Place place(3, 1010, 9); }, "mem_Region"),
              "AssertionFailed:m_regionType == mem_RGN_SPECIAL || fixedSize[m_regionType] == "
              "m_fixedSize");
    EXPECT_EQ(reported([] { Place place(mem_RGN_SPECIAL, 1010, 9); }), "");
    Place place(2, 1010, 4);
    mem_FixedRegion& region = *place.block->Region();
    const int slot = region.Alloc(place.block, 1);
    const char* const range =
        "AssertionFailed:offset >= m_reserveOffset && offset <= m_regionSize-m_fixedSize";
    EXPECT_EQ(reported([&] { region.Free(place.block, slot - 1); }, "mem_Region"), range);
    EXPECT_EQ(reported([&] { region.Alloc(place.block, 1); }, "mem_Region"), range)
        << "went on all the same";
    region.Free(place.block, slot);
    place.memory[static_cast<std::size_t>(slot)] = 5;
    EXPECT_EQ(region.AllocQuick(), nullptr) << "left to the form with checks";
    EXPECT_EQ(reported([&] { region.Alloc(place.block, 1); }, "mem_Region"),
              "AssertionFailed:free == -1 || (free >= m_reserveOffset && free <= m_regionSize)");
}

TEST(FixedRegion, IsNotSoundToTheWalkerWithAnyWordWrong) {
    Place place(9, 1010, 32);
    mem_FixedRegion& region = *place.block->Region();
    const auto walk = [&] { return blocks::walk_region(region).fault; };
    const auto slot = [](int number) { return 12 + 32 * number; };
    for (int i = 0; i < 3; ++i) {
        region.Alloc(place.block, 1);
    }
    region.Free(place.block, 10 + slot(0));
    test::expect_faults(
        {{"region header", {{&region, 8, 0}}},
         {"region header", {{&region, 5, 11}}},
         {"link off a slot", {{&region, 7, slot(0) + 1}}},
         {"link off a slot", {{&region, slot(0), slot(-1)}}},
         {"slot twice in the chain", {{&region, slot(0), slot(0)}}},
         {"frontier behind the region", {{&region, 7, slot(32)}}},
         {"link above the frontier", {{&region, slot(0), slot(5)}, {&region, slot(5), slot(3)}}},
         {"count of words in use", {{&region, 4, 96}}}},
        walk);
    while (region.Alloc(place.block, 1) != -1) {
    }
    test::expect_faults({{"frontier not marked", {{&region, slot(31), slot(3)}}}}, walk);
}

} // namespace
