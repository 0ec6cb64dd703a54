// Random histories of a pool beside a shadow of it.
// The walker goes over the whole pool as often as its size allows.
#include "pool_history.h"

#include "mem_DLAllocator.h"
#include "recording_KX0CORE.h"

#include <gtest/gtest.h>

#include <random>

namespace {

// With a random course of its own.
class History : public test::PoolHistory {
public:
    History(mem_CachePool& pool, unsigned seed, std::size_t most)
        : PoolHistory(
              pool, [random = std::mt19937(seed)]() mutable { return random(); }, most) {}
};

TEST(CacheHistories, HoldUnderTheWalker) {
    for (unsigned seed = 0; seed < unsigned{KXM_POOL_SEEDS}; ++seed) {
        test::OwnPool own;
        History history(*own.pool, seed, 20 + seed * 10);
        const int before = recorded_fatal_errors();
        for (int i = 0; i < 1500; ++i) {
            history.step();
            ASSERT_STREQ(history.differs(), nullptr) << "seed " << seed << " step " << i;
            ASSERT_EQ(recorded_fatal_errors() - before, history.expected_reports)
                << "seed " << seed << " step " << i << ": " << recorded_fatal_text();
        }
        history.release_all();
        EXPECT_EQ(history.damaged + history.misplaced + history.nulls + history.forgotten, 0);
        ASSERT_STREQ(history.differs(), nullptr);
        own.end();
        EXPECT_TRUE(own.allocator.sizes.empty() && own.allocator.unknown == 0) << "seed " << seed;
    }
}

TEST(CacheHistories, SurviveARefusalOfEveryNthRequest) {
    int nulls = 0;
    for (int every = 1; every <= 40; ++every) {
        test::OwnPool own;
        History history(*own.pool, static_cast<unsigned>(every), 300);
        own.allocator.refuse_every = every;
        for (int i = 0; i < 1500; ++i) {
            history.step();
            if (i % 10 == 0) {
                ASSERT_STREQ(history.differs(), nullptr) << "every " << every << " step " << i;
            }
        }
        nulls += history.nulls;
        EXPECT_EQ(history.damaged + history.forgotten, 0);
        own.end();
        EXPECT_TRUE(own.allocator.sizes.empty() && own.allocator.unknown == 0) << "every " << every;
    }
    EXPECT_GT(nulls, 1000);
}

// An allocator that throws has room for a cluster, or for a store of descriptors, but not for the table that it is to
// be entered in: the 64th cluster's, the 1024th block's.
TEST(CacheHistories, LoseNothingWhereATableIsRefused) {
    for (unsigned last = 1021; last < 1025; ++last) { // one of them has a store next
        test::OwnPool own;
        int refused = 0;
        const auto allocate = [&](std::size_t size) {
            own.allocator.throw_at_table = 1;
            try {
                return own->Alloc(size);
            } catch (const std::bad_alloc&) {
                ++refused;
                own.allocator.throw_at_table = 0;
                return own->Alloc(size);
            }
        };
        while (allocate(20000).passThru.block < last) {
        }
        for (int i = 0; i < 15 * 70; ++i) {
            EXPECT_TRUE(allocate(16384).HasValue());
        }
        EXPECT_EQ(refused, 2);
        EXPECT_STREQ(own.census().fault, nullptr);
        own.end();
        EXPECT_TRUE(own.allocator.sizes.empty()) << own.allocator.sizes.size() << ", " << last;
    }
}

// On the heap itself, with hundreds of clusters.
TEST(CacheHistories, HoldWithHundredsOfClusters) {
    mem_DLAllocator allocator;
    const bool useDL = mem_Mallinfo::useDL;
    mem_Mallinfo::useDL = true;
    mem_CachePool* const pool = mem_CachePool::CreatePool(&allocator);
    History history(*pool, 99, KXM_POOL_SEEDS * 2000);
    for (int i = 0; i < KXM_POOL_SEEDS * 6000; ++i) {
        history.step();
        if (i % 5000 == 0) {
            ASSERT_STREQ(history.differs(), nullptr) << i;
        }
    }
    EXPECT_GT(cache::take_census(*pool).clusters, KXM_POOL_SEEDS * 10);
    EXPECT_STREQ(history.differs(), nullptr);
    history.release_all();
    EXPECT_STREQ(history.differs(), nullptr);
    const cache::Census census = cache::take_census(*pool);
    EXPECT_EQ(census.clusters, census.drifted) << "what is kept is kept by its drifted count";
    EXPECT_EQ(history.damaged + history.misplaced + history.nulls + history.forgotten, 0);
    pool->Delete();
    mem_Mallinfo::useDL = useDL;
}

} // namespace
