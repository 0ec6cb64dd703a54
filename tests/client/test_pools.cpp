// Pools that account, and the category that error reports name.
#include "KXMBasMem.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

// A back end whose blocks have a heap chunk's head in front of them: the word that a pool reads.
alignas(64) std::uint64_t memory[8192];
std::size_t used_words = 8;

void* chunk_malloc(std::size_t size) {
    const std::size_t words = (size + 71) / 64 * 8;
    if (reinterpret_cast<std::uintptr_t>(memory + used_words) % 4096 == 0) {
        used_words += 8; // at the start of a page the word is not looked at
    }
    std::uint64_t* const block = memory + used_words;
    used_words += words + 8;
    block[-1] = words * 8 | 3;
    return block;
}

void chunk_free(void*) {}

class MemPool : public testing::Test {
protected:
    void SetUp() override {
        int status = 0;
        KXMBasAlloc_initialize(status); // loading has done it where the system loads a library
        real_malloc_ = mem_malloc;
        real_free_ = mem_free;
        mem_malloc = chunk_malloc;
        mem_free = chunk_free;
    }
    void TearDown() override {
        mem_malloc = real_malloc_;
        mem_free = real_free_;
        int status = 0;
        KXMBasAlloc_finalize(status);
    }

private:
    void* (*real_malloc_)(std::size_t) = nullptr;
    void (*real_free_)(void*) = nullptr;
};

TEST_F(MemPool, CountsFromItsActivationOn) {
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

    pool.SetMemoryLimit(1, 1, 0.0); // keeps the values and refuses nothing
    EXPECT_NE(pool.Alloc(5000), nullptr);
}

// Off the heap nothing may be mapped in front of such a block.
TEST_F(MemPool, DoesNotLookInFrontOfAPage) {
    KXMBasMemPool pool(1, "pages", nullptr);
    void* const page = reinterpret_cast<void*>(std::uintptr_t{0x100000});
    EXPECT_EQ(pool.AllocSize(page), 0U);
    EXPECT_EQ(pool.ActualSizeForUse(page), 0U);
}

TEST_F(MemPool, CutsALongNameAndKnowsItsProcessWideInstance) {
    const std::string name(3000, 'n');
    KXMBasMemPool pool(1, name.c_str(), nullptr);
    EXPECT_EQ(std::strlen(pool.PoolName()), 1023U);
    EXPECT_EQ(operatorNewPool.PoolID(), 1000);
    EXPECT_STREQ(operatorNewPool.PoolName(), "operator_new");
    EXPECT_EQ(operatorNewPool.Free(operatorNewPool.Alloc(64)), 128U)
        << "the library's start did not activate it";
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
