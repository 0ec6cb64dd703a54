// Identifiers, and what single operations of pool and clusters do.
#include "pool_fixture.h"

#include "cache/mem_Cluster.h"
#include "damage.h"
#include "mem_DLAllocator.h"
#include "recording_KX0CORE.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using test::cluster_of;
using test::ID;
using test::OwnPool;
using test::slot_of;

std::string printed(const mem_CachePool& pool, void (mem_CachePool::*print)() const) {
    testing::internal::CaptureStdout();
    (pool.*print)();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Fills clusters with chunks that leave them no room for a slot.
std::vector<ID> fill(OwnPool& own, int clusters) {
    std::vector<ID> ids;
    for (int i = 0; i < 15 * clusters; ++i) {
        ids.push_back(own->Alloc(16384));
    }
    return ids;
}

TEST(CachePoolID, IsOneWordOfThreeFields) {
    const mem_CachePoolID id(true, 0x18001, 64524);
    EXPECT_EQ(id.Value(), 1U | 0x8001U % 0x8000U << 1 | 64524U << 16);
    EXPECT_EQ(id.bits.cluster, 1U);
    EXPECT_EQ(id.bits.offset, 64524U);
    const mem_CachePoolID block(7U << 1);
    EXPECT_EQ(block.passThru.inCluster, 0U);
    EXPECT_EQ(block.passThru.block, 7U);
    EXPECT_TRUE(mem_CachePoolID(0U).IsNull());
    EXPECT_TRUE(id.HasValue());
    EXPECT_TRUE(ID(id) == mem_CachePoolIDTyp<void*>(id.Value()));
    EXPECT_TRUE(ID(id) != ID(block));
}

template <typename T> void expect_typed(OwnPool& own, ID id) {
    EXPECT_EQ(mem_CachePoolIDTyp<T>(0U).Ptr(own.pool), static_cast<T>(nullptr));
    EXPECT_EQ(mem_CachePoolIDTyp<T>(0U).Ptr(nullptr), static_cast<T>(nullptr));
    EXPECT_EQ(mem_CachePoolIDTyp<T>(id).Ptr(own.pool), static_cast<T>(own->Ptr(id)));
}

TEST(CachePoolID, ResolvesByTypeAndNullSafely) {
    OwnPool own;
    for (const ID id : {own->Alloc(16), own->Alloc(20000)}) {
        expect_typed<char*>(own, id);
        expect_typed<int*>(own, id);
        expect_typed<unsigned int*>(own, id);
        expect_typed<float*>(own, id);
        expect_typed<double*>(own, id);
        expect_typed<void*>(own, id);
    }
}

TEST(CachePool, AnswersNullWithoutASize) {
    OwnPool own;
    EXPECT_TRUE(own->Alloc(0).IsNull());
    own->Free(0U);
    EXPECT_TRUE(own->ReAlloc(0U, 100).IsNull());
    const ID id = own->Alloc(100);
    EXPECT_TRUE(own->ReAlloc(id, 0).IsNull());
    for (const int nowhere : {9, 0x7fff}) {
        EXPECT_TRUE(own->ReAlloc(mem_CachePoolID(true, nowhere, 0), 100).IsNull());
    }
    EXPECT_EQ(own.census().slots_used, 1);
    EXPECT_EQ(own->Allocator(), &own.allocator);
}

TEST(CachePool, ServesUpTo16384BytesFromClusters) {
    OwnPool own;
    const ID large = own->Alloc(16384), larger = own->Alloc(16385);
    EXPECT_EQ(large.bits.inCluster, 1U);
    EXPECT_EQ(cluster_of(large), 1);
    EXPECT_EQ(larger.bits.inCluster, 0U);
    OwnPool passing;
    EXPECT_EQ(passing->Alloc(16385).passThru.block, 1U);
    EXPECT_EQ(passing.census().stores, 1);
    EXPECT_EQ(passing->Alloc(16385).passThru.block, 3U) << "the store is block 2";
}

TEST(CachePool, LosesTheIndexOfADescriptorThatWasRefused) {
    OwnPool own;
    own.allocator.refuse_every = own.allocator.requests + 2; // the store, not the memory
    EXPECT_TRUE(own->Alloc(20000).IsNull());
    own.allocator.refuse_every = 0;
    EXPECT_EQ(own->Alloc(20000).passThru.block, 2U);
    EXPECT_EQ(own.census().lost_blocks, 1);
    own->Free(own->Alloc(8));
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugPrint), // and an emptied cluster
              "Allocated Regions:\nmem_Block: Size = 5000\nmem_Block: Size = 1024\n"
              "mem_Block: Size = 1024\n");
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugSummary),
              "Pool Summary: blockCount=5, clusterCount=1, passthruCount=1\n"
              "        PassthruSize=5000, ClusterAlloc=0\n");
}

TEST(CachePool, CutsFixedRegionsFromTheTop) {
    OwnPool own;
    const ID first = own->Alloc(100), second = own->Alloc(20), low = own->Alloc(200);
    EXPECT_EQ(first.bits.offset, 64524U);
    EXPECT_EQ(own->Alloc(3).bits.offset, 61U * 1024 + 10);
    EXPECT_EQ(second.bits.offset, 62U * 1024 + 12);
    EXPECT_EQ(low.bits.offset, 16U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(own->Ptr(first)) -
                  reinterpret_cast<std::uintptr_t>(own->Ptr(low)),
              4U * (64524 - 16));
    // An emptied region goes back at once, though another of its class has room.
    std::vector<ID> ids;
    for (int i = 0; i < 32; ++i) { // 31 slots of 128 bytes to a region
        ids.push_back(own->Alloc(128));
    }
    EXPECT_EQ(slot_of(ids.front()), 60);
    EXPECT_EQ(slot_of(ids.back()), 59);
    own->Free(ids.front());
    own->Free(ids.back());
    EXPECT_EQ(slot_of(own->Alloc(128)), 59) << "the current region is gone, so a new one is made";
    EXPECT_EQ(own.census().fixed_regions, 5);
}

TEST(CachePool, FindsRoomInAnotherRegionOfTheClass) {
    OwnPool own;
    std::vector<ID> ids;
    for (int i = 0; i < 3 * 31; ++i) {
        ids.push_back(own->Alloc(128));
    }
    own->Free(ids[1]);  // in slot 63, while 61 is current
    own->Free(ids[40]); // in 62
    EXPECT_EQ(own->Alloc(128), ids[1]) << "the highest first";
    EXPECT_EQ(own->Alloc(128), ids[40]);
    EXPECT_EQ(slot_of(own->Alloc(128)), 60);
}

TEST(CachePool, ResizesWithinItsClassAndOutOfIt) {
    OwnPool own;
    const ID a = own->Alloc(100);
    std::memset(own->Ptr(a), 7, 100);
    EXPECT_EQ(own->ReAlloc(a, 112), a) << "its slot";
    const ID moved = own->ReAlloc(a, 140);
    EXPECT_NE(moved, a);
    EXPECT_EQ(slot_of(moved), 0);
    EXPECT_EQ(own->ReAlloc(moved, 50), moved);
    const ID passing = own->ReAlloc(moved, 20000);
    EXPECT_EQ(passing.bits.inCluster, 0U);
    EXPECT_EQ(static_cast<char*>(own->Ptr(passing))[99], 7);
    EXPECT_EQ(own.census().clusters, 0) << "its last allocation left";
    EXPECT_EQ(own->ReAlloc(passing, 10).Value(), passing.Value()) << "stays, however small";
}

TEST(CachePool, ReportsAPassThroughBlockThatMoved) {
    OwnPool own;
    const ID id = own->Alloc(20000);
    const ID wall = own->Alloc(20000);
    const int before = recorded_fatal_errors();
    void* const old = own->Ptr(id);
    own->ReAlloc(id, 3000000);
    ASSERT_NE(own->Ptr(id), old);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:IsFree()");
    own->Free(id);
    own->Free(wall);
    EXPECT_EQ(own.census().pass_thru, 0);
    EXPECT_EQ(own.census().empty_blocks, 2);
}

TEST(CachePool, ReportsAPassThroughBlockThatIsReleasedTwice) {
    OwnPool own;
    const ID first = own->Alloc(20000), second = own->Alloc(20000);
    const int before = recorded_fatal_errors();
    for (const ID id :
         {first, second, second, first}) { // the latter two from the head and the end of the list
        own->Free(id);
    }
    EXPECT_EQ(recorded_fatal_errors(), before + 2);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:blk->BlockType() == mem_BLK_PASSTHRU");
    EXPECT_EQ(own.census().empty_blocks, 2);
    EXPECT_STREQ(own.census().fault, nullptr);
    EXPECT_EQ(own->Alloc(20000), first);
    EXPECT_EQ(own->Alloc(20000), second);
}

TEST(CachePool, ReportsAReleaseInAClusterThatIsGone) {
    for (const std::size_t size : {std::size_t{8}, std::size_t{1000}}) {
        OwnPool own;
        const ID id = own->Alloc(size);
        own->Free(id);
        const int before = recorded_fatal_errors();
        own->Free(id);
        EXPECT_EQ(recorded_fatal_errors(), before + 1);
        EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:rgn != 0");
        EXPECT_STREQ(own.census().fault, nullptr);
        EXPECT_EQ(own->Alloc(8).bits.cluster, id.bits.cluster) << "it serves again";
        EXPECT_STREQ(own.census().fault, nullptr);
    }
}

TEST(CachePool, KeepsItsCurrentClusterWhenThatIsReleased) {
    OwnPool own;
    own->Free(own->Alloc(1000));
    EXPECT_TRUE(cache::current_is_released(*own.pool));
    const int before = recorded_fatal_errors();
    const ID id = own->Alloc(1000);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:rgn != 0");
    EXPECT_TRUE(id.HasValue()) << "from a new cluster, should the report return";
    own->Free(id);
    own->Free(own->Alloc(8)); // a small one does not look there, and mends it while it lives
    const ID small = own->Alloc(8);
    EXPECT_TRUE(own->Alloc(1000).HasValue());
    own->Free(small);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);

    OwnPool full; // so that a resize has to allocate anew
    const ID record = full->Alloc(8);
    fill(full, 1);
    full->Free(full->Alloc(16384));
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_EQ(cluster_of(full->ReAlloc(record, 16384)), 2);
    EXPECT_EQ(recorded_fatal_errors(), before + 2);
}

TEST(CachePool, DoesNotSeeThatAnEmptiedClusterGotNoMemory) {
    OwnPool own;
    own->Free(own->Alloc(8));
    own.allocator.refuse_every = 1;
    const int before = recorded_fatal_errors();
    EXPECT_TRUE(own->Alloc(8).IsNull());
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:id.HasValue()");
    own.allocator.refuse_every = 0;
    const ID id = own->Alloc(8);
    EXPECT_EQ(cluster_of(id), 2);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_EQ(own.census().fault, nullptr);
    EXPECT_EQ(own.census().lost_clusters, 1);
}

// Its neighbours on the lists by size are those of its life before, and have moved on.
TEST(CachePool, LeavesOtherClustersListedWhenAnEmptiedOneGotNoMemory) {
    OwnPool own;
    const std::vector<ID> ids = fill(own, 3);
    own->Free(ids[14]);
    own->Free(ids[44]);
    for (std::size_t i = 29; i >= 15;
         --i) { // cluster 2 comes before cluster 3, and is emptied there
        own->Free(ids[i]);
    }
    EXPECT_EQ(cluster_of(own->Alloc(16384)), 3); // and leaves that list, to be behind cluster 1
    EXPECT_EQ(cluster_of(own->Alloc(16384)), 1);
    own.allocator.refuse_every = 1;
    EXPECT_TRUE(own->Alloc(16384).IsNull());
    EXPECT_STREQ(own.census().fault, nullptr);
}

TEST(CachePool, SpendsTwoSlotsOfAStoreOnEachDescriptorAfterTheFirst) {
    OwnPool own;
    std::vector<ID> ids;
    // 1002 words of slots: 125 of 8 words for blocks, 9 of 108 for clusters.
    for (int i = 0; i < 63; ++i) {
        ids.push_back(own->Alloc(20000));
    }
    EXPECT_EQ(own.census().stores, 1);
    ids.push_back(own->Alloc(20000));
    EXPECT_EQ(own.census().stores, 2);
    const int before = own.allocator.made["mem_FixedBlock"];
    fill(own, 5);
    EXPECT_EQ(own.allocator.made["mem_FixedBlock"], before + 1);
    fill(own, 1);
    EXPECT_EQ(own.allocator.made["mem_FixedBlock"], before + 2);
    for (const ID id : ids) {
        own->Free(id);
    }
    EXPECT_EQ(own->Alloc(20000), ids.back()) << "the latest descriptor that became free";
    EXPECT_EQ(own.census().fault, nullptr);
}

TEST(CachePool, AdoptsMemoryAndGivesAllBackInTheEnd) {
    OwnPool own;
    void* const memory = own.allocator.Malloc("client", 500);
    const ID id = own->Adopt(500, memory);
    EXPECT_EQ(own->Ptr(id), memory);
    own->Free(own->Adopt(300, own.allocator.Malloc("client", 300)));
    fill(own, 2);
    own->Alloc(50);
    own.end();
    EXPECT_TRUE(own.allocator.sizes.empty());
    EXPECT_EQ(own.allocator.unknown, 0);
    own.allocator.refuse_every = 1;
    EXPECT_EQ(mem_CachePool::CreatePool(&own.allocator), nullptr);
}

TEST(CachePool, PrintsToTheLetter) {
    OwnPool own;
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugSummary),
              "Pool Summary: blockCount=1, clusterCount=0, passthruCount=0\n"
              "        PassthruSize=0, ClusterAlloc=0\n");
    own->Alloc(20001);
    own->Alloc(100); // 28 words
    own->Alloc(129); // 36 words
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugSummary),
              "Pool Summary: blockCount=4, clusterCount=1, passthruCount=1\n"
              "        PassthruSize=5001, ClusterAlloc=64\n");
    const int before = recorded_fatal_errors();
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugPrint),
              "Allocated Regions:\n"
              "VariableRegion: Size=65536, Alloc=1060\n"
              "FixedRegion: AllocCount = 28\n"
              "mem_Block: Size = 5001\n"
              "mem_Block: Size = 1024\n"
              "mem_Block: Size = 1024\n");
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_STREQ(recorded_fatal_text(), "AssertionFailed:i == 1");
    // Sizes have 32 bits, and so has their sum.
    for (const std::size_t more : {std::size_t{1} << 33, std::size_t{1} << 34}) {
        own->Adopt(more, own.allocator.Malloc("client", 1));
    }
    own->Adopt(std::size_t{1} << 33, own.allocator.Malloc("client", 1));
    EXPECT_EQ(printed(*own.pool, &mem_CachePool::DebugSummary),
              "Pool Summary: blockCount=7, clusterCount=1, passthruCount=4\n"
              "        PassthruSize=5001, ClusterAlloc=64\n");
}

// A cluster without a pool.
class CacheCluster : public testing::Test {
protected:
    CacheCluster() { mem_Mallinfo::useDL = true; }
    ~CacheCluster() override {
        cluster->Delete(&allocator);
        cluster->~mem_Cluster();
        mem_Mallinfo::useDL = useDL_before;
    }

    const bool useDL_before = mem_Mallinfo::useDL;
    mem_DLAllocator allocator{};
    alignas(mem_Cluster) int place[sizeof(mem_Cluster) / sizeof(int)];
    mem_Cluster* cluster = mem_Cluster::CreateCluster(5, place, &allocator);
};

TEST_F(CacheCluster, LeavesItsLowestRegionCurrentAfterAVainSearch) {
    std::vector<mem_CachePoolID> ids;
    for (mem_CachePoolID id = cluster->Alloc(128); id.HasValue(); id = cluster->Alloc(128)) {
        ids.push_back(id);
    }
    ASSERT_EQ(ids.size(), 63U * 31);
    cluster->Free(ids[5]);
    EXPECT_EQ(cluster->Alloc(128).Value(), ids[5].Value()); // the highest is current
    EXPECT_TRUE(cluster->Alloc(128).IsNull());
    cluster->Free(ids[5]);
    cluster->Free(ids.back());
    EXPECT_EQ(cluster->Alloc(128).Value(), ids.back().Value());
}

TEST_F(CacheCluster, MakesARegionAtTheEndOfTheLargestChunkWhenThatIsMoreThanASlot) {
    std::vector<mem_CachePoolID> ids;
    for (int i = 0; i < 63 * 31; ++i) {
        ids.push_back(cluster->Alloc(128));
    }
    const auto empty = [&](int slot) {
        for (int i = (63 - slot) * 31; i < (64 - slot) * 31; ++i) {
            cluster->Free(ids[static_cast<std::size_t>(i)]);
        }
    };
    empty(63);
    EXPECT_EQ(slot_of(cluster->Alloc(4080)), 63); // so that the first try is in vain
    empty(30);
    EXPECT_EQ(cluster->LargestFree(), 1024);
    EXPECT_TRUE(cluster->Alloc(4).IsNull()) << "a slot, but not more";
    empty(31);
    EXPECT_EQ(slot_of(cluster->Alloc(4)), 31);
    EXPECT_TRUE(cluster->Alloc(8).IsNull());
}

TEST_F(CacheCluster, CountsAndPrints) {
    const mem_CachePoolID a = cluster->Alloc(4), b = cluster->Alloc(300);
    EXPECT_EQ(cluster_of(a), 5);
    EXPECT_EQ(cluster->AllocSize(a), 4U);
    EXPECT_EQ(cluster->AllocSize(b), 312U);
    int other = 1, allocated = 1;
    cluster->SummaryInfo(other, allocated);
    EXPECT_EQ(other, 0);
    EXPECT_EQ(allocated, 1 + 80);
    testing::internal::CaptureStdout();
    cluster->SummaryPrint();
    std::fflush(stdout);
    std::string zeros;
    for (int i = 0; i < 63; ++i) {
        zeros += "0 ";
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Cluster 5: alloc=" + std::to_string(allocated) + "\n" + zeros + "4 \n");
    EXPECT_FALSE(cluster->Free(a));
    EXPECT_TRUE(cluster->Free(b));
    const int before = recorded_fatal_errors();
    for (const auto& [size, type] :
         {std::pair{8U, 1}, {9U, 2}, {128U, 9}, {129U, 10}, {16384U, 10}}) {
        EXPECT_EQ(mem_Cluster::RegionType(size), type);
    }
    EXPECT_EQ(recorded_fatal_errors(), before);
    mem_Cluster::RegionType(0);
    mem_Cluster::RegionType(16385);
    EXPECT_EQ(recorded_fatal_errors(), before + 2);
    cluster->Delete(&allocator);
    cluster->SummaryInfo(other, allocated);
    EXPECT_EQ(allocated, 0);
}

// An entry of one of the pool's two tables, of which `words` tells the place in the pool.
void* entry(const mem_CachePool* pool, int words, unsigned index) {
    mem_Block*** table;
    std::memcpy(&table, reinterpret_cast<const char*>(pool) + 4 * words, sizeof table);
    return table[0][index];
}

TEST(CachePool, IsNotSoundToTheWalkerWithAnyWordWrong) {
    OwnPool own;
    own->Alloc(4); // slot 63
    const ID below = own->Alloc(8);
    own->Alloc(16); // slot 61
    ID last = own->Alloc(16384);
    while (cluster_of(last) < 3) {
        last = own->Alloc(16384);
    }
    const ID block = own->Alloc(20000), gone = own->Alloc(20000);
    own->Free(gone);
    own->Free(last);  // a cluster is emptied
    own->Free(below); // and slot 62 is a chunk
    auto* const memory = static_cast<int*>(own->Ptr(mem_CachePoolID(true, 1, 0)));
    int* const slot = memory + 63 * 1024;
    std::memcpy(memory + 1024, slot,
                4096); // in the first chunk of 16384 bytes, which has room for it
    void* const pool = own.pool;
    void *const one = entry(own.pool, 12, 1), *const two = entry(own.pool, 12, 2),
                *const emptied = entry(own.pool, 12, 3);
    void *const store = entry(own.pool, 2, 1),
                *const passing = entry(own.pool, 2, block.passThru.block),
                *const empty = entry(own.pool, 2, gone.passThru.block);
    constexpr int regions = 42, by_size = 32; // where m_clusterRegions and m_firstBySize begin
    test::expect_faults(
        {{"cluster index without a descriptor", {{pool, 20, 5}}},
         {"descriptor", {{one, 8, 2}}},
         {"end record", {{memory, 65535, 4}}},
         {"cluster's tables", {{one, regions, 3}}},
         {"chunk of a fixed region", {{one, regions + 62, 1}}},
         {"type of a fixed region", {{one, regions + 63, 5}}},
         {"link off a slot", {{slot, 7, 3}}},
         {"empty fixed region", {{slot, 7, 10}, {slot, 4, 0}, {slot, 10, -1}}},
         {"fixed region with room passed over", {{one, 107, 0}}},
         {"fixed region without a chunk", {{one, regions + 1, 0}, {one, 106, 2}}},
         {"current region of another type", {{one, 9 + 3, 63}}},
         {"list leads off the clusters", {{pool, by_size + 4, 99}}},
         {"emptied cluster on a list", {{pool, 21, 3}}},
         {"links disagree", {{one, 31, 2}}},
         {"links disagree", {{one, 20, 1}}},
         {"cluster on two lists by size", {{pool, by_size + 7, 1}}},
         {"cluster on a wrong list", {{pool, by_size + 4, -1}, {pool, by_size + 7, 1}}},
         {"cluster with room off the lists", {{pool, by_size + 4, -1}}},
         {"link of a cluster off its list", {{two, 20 + 5, 1}}},
         {"list of emptied clusters", {{pool, 40, 1}}},
         {"links of emptied clusters disagree", {{emptied, 6, 1}}},
         {"list of empty blocks", {{pool, 31, 99}}},
         {"empty block in use", {{empty, 7, mem_BLK_PASSTHRU}}},
         {"links of empty blocks disagree", {{empty, 6, 1}}},
         {"ring of stores", {{store, 8, 99}}},
         {"store", {{store, 7, mem_BLK_PASSTHRU}}},
         {"count of words in use", {{store, 10 + 4, 0}}},
         {"links of a ring disagree", {{store, 5, 99}}},
         {"pass-through block", {{passing, 5, 1}}}},
        [&] { return own.census().fault; });
}

} // namespace
