// Pools that account, and the category that error reports name.
#include "client_probe.h"
#include "sized_back_end.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

namespace {

using kxm::TruePoolInspector;
using test::Sized_back_end;

TEST(MemPool, CountsFromItsActivationOn) {
    Sized_back_end back_end;
    KXMBasMemPool pool(77, nullptr, nullptr);
    EXPECT_EQ(pool.PoolID(), 77);
    EXPECT_STREQ(pool.PoolName(), "unaccounted");
    void* const early = pool.Alloc(100);
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    void* const early_too = pool.Alloc(100);
    EXPECT_EQ(pool.Free(early), 0U);

    pool.Activate();
    void* const block = pool.Alloc(1000);
    EXPECT_EQ(pool.AllocSize(block), 1024U);
    EXPECT_EQ(pool.ActualSizeForUse(block), 1008U);
    EXPECT_EQ(pool.MemoryCurrent(), 1024U);
    EXPECT_EQ(pool.Free(block), 1024U);
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(pool.MemoryPeak(), 1024U);
    EXPECT_EQ(pool.Free(nullptr), 0U);
    EXPECT_EQ(pool.AllocSize(nullptr), 0U);
    EXPECT_EQ(pool.ActualSizeForUse(nullptr), 0U);
    // A block from before the activation takes the figure below zero, where it wraps.
    EXPECT_EQ(pool.Free(early_too), 128U);
    EXPECT_EQ(pool.MemoryCurrent(), std::size_t{0} - 128);

    EXPECT_EQ(pool.MemoryPeak(), 1024U);

    KXMBasMemPool limited(78, "limited", nullptr);
    limited.Activate();
    limited.SetMemoryLimit(1, 1, 0.0); // keeps the values and refuses nothing
    limited.MemoryReport();
    void* const large = limited.Alloc(5000);
    EXPECT_NE(large, nullptr);
    back_end.refuse(1);
    EXPECT_EQ(limited.Alloc(1000), nullptr); // and no word about it
    EXPECT_EQ(limited.MemoryCurrent(), Sized_back_end::chunk(5000));
    limited.Free(large);
    EXPECT_EQ(back_end.live(), 0U);
}

// Off the heap nothing may be mapped in front of such a block.
TEST(MemPool, DoesNotLookInFrontOfAPage) {
    KXMBasMemPool pool(1, "pages", nullptr);
    void* const page = reinterpret_cast<void*>(std::uintptr_t{0x100000});
    EXPECT_EQ(pool.AllocSize(page), 0U);
    EXPECT_EQ(pool.ActualSizeForUse(page), 0U);
}

TEST(MemPool, CutsALongNameAndKnowsItsProcessWideInstance) {
    const Sized_back_end back_end;
    const std::string name(3000, 'n');
    KXMBasMemPool pool(1, name.c_str(), nullptr);
    EXPECT_EQ(std::strlen(pool.PoolName()), 1023U);
    EXPECT_EQ(operatorNewPool.PoolID(), 1000);
    EXPECT_STREQ(operatorNewPool.PoolName(), "operator_new");
    EXPECT_EQ(operatorNewPool.Free(operatorNewPool.Alloc(64)), 128U)
        << "the library's start did not activate it";
}

TEST(TruePool, HasItsFirstBlockInTheSecondEntryAndACopyOneMore) {
    Sized_back_end back_end;
    {
        KXMBasMemTruePool pool(5, "ignored", nullptr);
        TruePoolInspector inside(pool);
        EXPECT_EQ(pool.PoolID(), 101);
        EXPECT_STREQ(pool.PoolName(), "KXMBasMemRegionAllocator");
        EXPECT_EQ(pool.MemoryInUse(), 0U);
        EXPECT_EQ(inside.capacity(), 256);
        EXPECT_EQ(inside.last(), 1);
        EXPECT_EQ(inside.table()[0], nullptr);
        ASSERT_NE(inside.table()[1], nullptr);
        std::memset(inside.table()[1], 1, 496);
        EXPECT_EQ(pool.AllocSize(inside.table()[1]), Sized_back_end::chunk(496));
        EXPECT_EQ(pool.ActualSizeForUse(inside.table()[1]), Sized_back_end::chunk(496) - 16);
        pool.SetMemoryLimit(1, 1, 0.0); // refuses nothing
        pool.MemoryReport();

        inside.update(true, 100); // not active
        EXPECT_EQ(pool.MemoryCurrent(), 0U);
        inside.activate();
        inside.update(true, 100);
        inside.update(false, 40);
        inside.used_in_block() = 9;
        const KXMBasMemTruePool copy(pool);
        TruePoolInspector in_copy(const_cast<KXMBasMemTruePool&>(copy));
        EXPECT_EQ(const_cast<KXMBasMemTruePool&>(copy).MemoryInUse(), 60U);
        EXPECT_EQ(const_cast<KXMBasMemTruePool&>(copy).MemoryPeak(), 100U);
        EXPECT_EQ(in_copy.high_water(), 0U);
        EXPECT_EQ(in_copy.used_in_block(), 9);
        EXPECT_EQ(in_copy.last(), 1);
        EXPECT_EQ(in_copy.capacity(), 256);
        const std::string cleared(496, '\0');
        for (int i = 0; i < 2; ++i) {
            ASSERT_NE(in_copy.table()[i], nullptr);
            EXPECT_EQ(std::memcmp(in_copy.table()[i], cleared.data(), 496), 0);
        }
        EXPECT_EQ(in_copy.table()[2], nullptr);
        inside.update(false, 100);
        EXPECT_EQ(pool.MemoryInUse(), std::size_t{0} - 40); // it wraps
    }
    EXPECT_EQ(back_end.live(), 0U);
}

TEST(TruePool, KeepsAnEighthOfATableThatGrows) {
    Sized_back_end back_end;
    KXMBasMemTruePool pool(5, nullptr, nullptr);
    TruePoolInspector inside(pool);
    while (inside.last() < 255) {
        inside.grow();
    }
    EXPECT_EQ(inside.capacity(), 256);
    const std::vector<void*> before(inside.table(), inside.table() + 256);
    inside.used_in_block() = 9;
    inside.grow();
    EXPECT_EQ(inside.capacity(), 512);
    EXPECT_EQ(inside.last(), 256);
    EXPECT_EQ(inside.used_in_block(), 0);
    for (std::size_t i = 0; i < 256; ++i) {
        EXPECT_EQ(inside.table()[i], i < 32 ? before[i] : nullptr) << i;
    }
    EXPECT_NE(inside.table()[256], nullptr);
}

TEST(TruePool, TellsWhetherARefusedBlockCouldBeHadNowAndThrowsAllTheSame) {
    Sized_back_end back_end;
    KXMBasMemTruePool pool(5, nullptr, nullptr);
    TruePoolInspector inside(pool);
    inside.used_in_block() = 9;
    const std::size_t live = back_end.live();
    const auto refused = [&](int times, auto request) {
        back_end.refuse(times, times == 3 ? 1 : 0);
        testing::internal::CaptureStderr();
        EXPECT_THROW(request(), std::bad_alloc);
        return testing::internal::GetCapturedStderr();
    };
    const std::string report =
        "\r?\n\\*\\*\\* Error: Cannot allocate memory; 496 bytes requested\r?\n"
        "\\*\\*\\* File: KXMBasMemRegionAllocator, line \\d+\r?\n"
        "\\*\\*\\* Current Memory Footprint from OS: \\d+ MB\r?\n\r?\n"
        "\\*\\*\\* Current Memory Footprint from DL: \\d+ MB\r?\n\r?\n";
    const std::string succeeded = "\\+\\+\\+ Repeated request succeeded! \\+\\+\\+\r?\n";
    const auto grow = [&] { inside.grow(); };
    EXPECT_TRUE(std::regex_match(refused(2, grow), std::regex(report)));
    EXPECT_EQ(back_end.requests(), 2);
    EXPECT_EQ(back_end.live(), live);
    EXPECT_TRUE(std::regex_match(refused(1, grow), std::regex(report + succeeded)));
    EXPECT_EQ(back_end.requests(), 2);
    EXPECT_EQ(back_end.live(), live + 1) << "the block of the second request is nobody's";
    EXPECT_EQ(inside.last(), 1);
    EXPECT_EQ(inside.table()[2], nullptr);
    EXPECT_EQ(inside.used_in_block(), 9);
    // In a constructor, which gets its table and then no block.
    EXPECT_TRUE(std::regex_match(refused(3, [] { KXMBasMemTruePool(1, "", nullptr); }),
                                 std::regex(report)));
    EXPECT_EQ(back_end.live(), live + 1);
}

TEST(TruePool, EndsAProcessThatAssignsOneOrHasNoTable) {
    const auto expect_death = [](const char* mode, const std::string& error) {
        const test::ChildResult result = test::run_probe({mode});
        EXPECT_TRUE(result.crashed) << mode;
        EXPECT_EQ(result.err.substr(0, error.size()), error) << result.err;
    };
    const std::string file = ", file KXMBasMemRegionAllocator, line ";
    expect_death("assign", "*** Error: KXMBasMemTruePool::operator= is not implemented.\n");
    expect_death("no-table", "Assertion failed: m_tbl != 0" + file);
    expect_death("no-table-for-copy", "Assertion failed: m_tbl != 0" + file);
    expect_death("no-block-for-copy", "Assertion failed: m_tbl[i]" + file);
    expect_death("no-larger-table", "Assertion failed: newTbl != 0" + file);
}

class Manager : public KXMBasMemCacheManager {
public:
    std::size_t ReleaseCache(std::size_t wanted) override { return wanted; }
};

TEST(CacheManager, IsMadeByTheLibrarysOperators) {
    Sized_back_end back_end;
    KXMBasMemCacheManager* const manager = new Manager;
    EXPECT_EQ(back_end.live(), 1U);
    const KXMBasMemPool pool(1, "managed", manager);
    delete manager;
    EXPECT_EQ(back_end.live(), 0U);
}

TEST(ErrorContext, NamesWhatTheSolverIsDoing) {
    EXPECT_STREQ(KXMBasErrorStack::ContextAsString(), "UNKNOWN");
    KXMBasErrorCategory(6);
    EXPECT_STREQ(KXMBasErrorStack::ContextAsString(), "ITERATIVE SOLVER");
    KXMBasErrorStack::Context(KXMBasErrorContext::cfd);
    EXPECT_STREQ(KXMBasErrorStack::ContextAsString(), "CFD");
    KXMBasErrorStack::Context(KXMBasErrorContext::unknown);
}

} // namespace
