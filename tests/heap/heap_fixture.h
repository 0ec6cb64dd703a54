// What the heap's tests stand on: a heap that is as at load for every test, a watch on its requests
// to the system, and words for what the walker found.
#pragma once

#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <string>

#include "heap/dlmalloc.h"
#include "heap/heap_walk.h"

namespace test {

/// Gives all segments back to the system and sets state and parameters to zero, as at load. Direct
/// mappings must have been released before, or they stay mapped for good.
void reset_heap();

/// Empty when the heap is sound, else what is broken.
std::string heap_fault();

/// Bytes of direct mappings: what of the footprint is not in segments.
std::size_t direct_bytes();

/// Bytes of the mapping that `mem` is in. pre: is_direct(mem).
std::size_t mapping_bytes(const void* mem);
bool is_direct(const void* mem);
bool is_aligned(const void* mem, std::size_t alignment);

/// Stands between the heap and the system while it lives.
class SystemWatch {
public:
    SystemWatch();
    ~SystemWatch();
    SystemWatch(const SystemWatch&) = delete;
    SystemWatch& operator=(const SystemWatch&) = delete;

    std::size_t requests = 0;                  ///< made to the system
    std::size_t releases = 0;                  ///< tried
    std::size_t refuse_from = ~std::size_t{0}; ///< number of the first request refused, from 0 on
    std::size_t refuse_count = 0;              ///< how many are refused from there
    void* supply = nullptr;                    ///< what the next request gets, if not null
    bool refuse_releases = false;
    std::size_t releases_refused = 0;
};

class Heap : public testing::Test {
protected:
    void SetUp() override { reset_heap(); }
    void TearDown() override {
        EXPECT_EQ(heap_fault(), "");
        reset_heap();
    }
};

} // namespace test
