// What the pool's tests stand on: the heap bound, and a pool that is as at load for every test.
#pragma once

#include <gtest/gtest.h>
#include <string>

#include "tiny/mem_TBPool.h"

struct tiny::TestAccess {
    static mem_TBPool* instance() { return mem_TBPool::theInstance; }
    static mem_mlock& lock() { return mem_TBPool::theLock; }
    static std::int32_t& head(int type) { return mem_TBPool::theInstance->m_firstBlock[type]; }
    static std::int32_t& free_index() { return mem_TBPool::theInstance->m_freeIndex; }
    /// Ends the pool, whatever is in it.
    static void end() {
        delete mem_TBPool::theInstance;
        mem_TBPool::theInstance = nullptr;
    }
};

namespace test {

/// Binds the heap, and in the end the C runtime again.
class HeapBound {
public:
    HeapBound();
    ~HeapBound();
    HeapBound(const HeapBound&) = delete;
    HeapBound& operator=(const HeapBound&) = delete;
};

/// Pool, switches, latch and lock as at load.
void reset_pool();

/// Empty when the pool is sound, else what is broken.
std::string pool_fault();

/// While it lives, every page is asked for here.
class PageWatch {
public:
    PageWatch();
    ~PageWatch();
    PageWatch(const PageWatch&) = delete;
    PageWatch& operator=(const PageWatch&) = delete;

    std::size_t asked = 0;
    std::size_t refuse_every = 0; ///< each n-th page is refused; 0: none
};

class Pool : public testing::Test {
protected:
    void SetUp() override { reset_pool(); }
    void TearDown() override {
        EXPECT_EQ(pool_fault(), "");
        reset_pool();
    }
    HeapBound heap_;
};

} // namespace test
