// Pools that account, and the category that error reports name.
#include "KXMBasMem.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

TEST(MemPool, CountsFromItsActivationOn) {
    KXMBasMemPool pool(77, nullptr, nullptr);
    EXPECT_EQ(pool.PoolID(), 77);
    EXPECT_STREQ(pool.PoolName(), "unaccounted");
    void* const early = pool.Alloc(100);
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(pool.Free(early), 0U);

    pool.Activate();
    // A block that begins a page counts as nothing, whichever allocator put it there.
    std::vector<void*> at_page_start;
    void* block = pool.Alloc(1000);
    while (reinterpret_cast<std::uintptr_t>(block) % 4096 == 0) {
        EXPECT_EQ(pool.AllocSize(block), 0U);
        EXPECT_EQ(pool.ActualSizeForUse(block), 0U);
        at_page_start.push_back(block);
        block = pool.Alloc(1000);
    }
    const std::size_t size = pool.AllocSize(block);
    EXPECT_EQ(pool.MemoryCurrent(), size);
    EXPECT_EQ(pool.ActualSizeForUse(block), size - 16);
    EXPECT_EQ(pool.Free(block), size);
    EXPECT_EQ(pool.MemoryCurrent(), 0U);
    EXPECT_EQ(pool.MemoryPeak(), size);
    EXPECT_EQ(pool.Free(nullptr), 0U);
    for (void* const counted_as_nothing : at_page_start) {
        EXPECT_EQ(pool.Free(counted_as_nothing), 0U);
    }
    EXPECT_EQ(pool.AllocSize(nullptr), 0U);
    EXPECT_EQ(pool.ActualSizeForUse(nullptr), 0U);

    pool.SetMemoryLimit(1, 1, 0.0); // keeps the values and refuses nothing
    void* const beyond = pool.Alloc(5000);
    EXPECT_NE(beyond, nullptr);
    pool.Free(beyond);
}

TEST(MemPool, CutsALongNameAndKnowsItsProcessWideInstance) {
    const std::string name(3000, 'n');
    KXMBasMemPool pool(1, name.c_str(), nullptr);
    EXPECT_EQ(std::strlen(pool.PoolName()), 1023U);
    EXPECT_EQ(operatorNewPool.PoolID(), 1000);
    EXPECT_STREQ(operatorNewPool.PoolName(), "operator_new");
    std::vector<void*> blocks; // one may lie where its size is not looked at
    for (int i = 0; i < 8; ++i) {
        blocks.push_back(operatorNewPool.Alloc(64));
    }
    EXPECT_GT(operatorNewPool.MemoryPeak(), 0U) << "the library's start did not activate it";
    for (void* const block : blocks) {
        operatorNewPool.Free(block);
    }
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
