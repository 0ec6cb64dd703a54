// The C allocation interface in this process, on whatever back end it has; the stand-in for the
// foundation library; a client in C.
#include "probe.h"
#include "recording_KX0CORE.h"

#include "KXMBasMem.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <new>
#include <thread>
#include <vector>

namespace {

// For a size that no system has, which a compiler must not see through.
volatile std::size_t too_much = SIZE_MAX / 2;

TEST(Interface, AnswersRefusalWithNull) {
    EXPECT_EQ(mem_Malloc(too_much), nullptr);
    EXPECT_EQ(mem_Calloc(too_much, 4), nullptr);
    EXPECT_EQ(mem_Malign(too_much, 64), nullptr);
    EXPECT_EQ(mem_Malign(100, 48), nullptr) << "no power of two";
    auto* const block = static_cast<char*>(mem_Malloc(10));
    std::strcpy(block, "kept");
    EXPECT_EQ(mem_Realloc(block, too_much), nullptr);
    EXPECT_STREQ(block, "kept");
    mem_Free(block);
}

TEST(Interface, AlignsByAnyPowerOfTwo) {
    for (std::size_t alignment = 1; alignment <= 1 << 20; alignment *= 2) {
        for (const std::size_t edge : {std::size_t{100}, alignment + 72}) {
            for (std::size_t size = edge - 72; size <= edge + 72; ++size) {
                void* const block = mem_Malign(size, alignment);
                void* const other = mem_alignedAlloc(size, alignment);
                ASSERT_TRUE(block != nullptr && other != nullptr) << size << " on " << alignment;
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U) << size;
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(other) % alignment, 0U) << size;
                std::memset(block, 1, size);
                std::memset(other, 2, size);
                mem_MalignFree(block);
                mem_free_aligned(other);
            }
        }
    }
    mem_MalignFree(nullptr);
}

// For the thread checker above all: the entries share nothing that needs a lock.
TEST(Interface, ServesManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const char mark = static_cast<char>('a' + t);
            for (int i = 0; i < 500; ++i) {
                auto* block = static_cast<char*>(mem_Malloc(100));
                std::memset(block, mark, 100);
                block = static_cast<char*>(mem_Realloc(block, 300));
                EXPECT_EQ(block[99], mark);
                mem_Free(block);
                mem_Free(mem_Calloc(10, 10));
                mem_MalignFree(mem_Malign(100, 64));
                operatorNewPool.Free(operatorNewPool.Alloc(50));
                if (i % 100 == 0) {
                    EXPECT_GT(mem_MaxFootprint(), 0U);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Part of the contract with callers that come from another back end: what size 0 means differs.
TEST(Interface, ReleasesAtSizeZeroOnTheRuntime) {
    void* const block = mem_Malloc(24);
    EXPECT_EQ(mem_Realloc(block, 0), nullptr); // released: a leak checker would tell otherwise
}

int handler_calls = 0;

TEST(Interface, CallsTheNewHandlerOnceAndLeavesItInstalled) {
    const std::new_handler handler = [] { ++handler_calls; };
    const std::new_handler before = std::set_new_handler(handler);
    EXPECT_EQ(mem_Malloc_Handled(too_much), nullptr);
    EXPECT_EQ(handler_calls, 1);
    EXPECT_EQ(std::get_new_handler(), handler);
    mem_Free(mem_Malloc_Handled(10));
    EXPECT_EQ(handler_calls, 1) << "called although the request was served";
    std::set_new_handler(nullptr);
    EXPECT_EQ(mem_Malloc_Handled(too_much), nullptr);
    std::set_new_handler(before);
}

TEST(Interface, AnswersForThisProcessOutsideTheHeap) {
    ASSERT_EQ(mem_usingDL(), 0);
    constexpr std::size_t size = std::size_t{128} << 20;
    const std::size_t before = mem_Footprint();
    EXPECT_GE(mem_MaxFootprint(), before * 1024);
    void* const block = mem_Malloc(size);
    std::memset(block, 1, size); // Wine counts what was touched, a real system what was asked
    EXPECT_GE(mem_Footprint(), before + size / 1024); // kibibytes
    const std::size_t peak = mem_MaxFootprint();      // bytes
    EXPECT_GE(peak, before * 1024 + size);
    mem_Free(block);
    EXPECT_EQ(mem_MaxFootprint(), peak);
    EXPECT_GE(mem_MaxFootprintFromResources() * 1024 + 4096, peak);

    EXPECT_EQ(mem_Trim(0), 0);
    EXPECT_EQ(mem_Mallopt(-1, 0), 0);
    EXPECT_EQ(mem_MemoryLimit(), 0U);
    EXPECT_EQ(mem_ErrorMemoryLimit(), 0);
    EXPECT_EQ(mem_FragmentationInfo(), 0U);
    EXPECT_EQ(mem_nofragmentationinfo(), 0U);
    const mem_DLMallinfoType info = mem_DLMallinfo();
    const mem_DLMallinfoType zero{};
    EXPECT_EQ(std::memcmp(&info, &zero, sizeof info), 0);
    mem_ReleaseMemoryLock();
}

TEST(AlignedBackend, ResizesByTheNewLengthAndKeepsTheBlockForSizeZero) {
    auto* const block = static_cast<char*>(mem_malign(4096));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 64, 0U);
    std::memset(block, 5, 4096);
    EXPECT_EQ(mem_realign(block, 0), nullptr);
    EXPECT_EQ(block[4095], 5) << "still allocated";
    EXPECT_EQ(mem_realign(block, too_much), nullptr);
    auto* const smaller = static_cast<char*>(mem_realign(block, 100));
    ASSERT_NE(smaller, nullptr);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(smaller[i], 5);
    }
    // Growing reads past the old block's end: that is this back end's way, and must be survived.
    auto* const larger = static_cast<char*>(mem_realign(smaller, 400));
    EXPECT_EQ(larger[99], 5);
    mem_free_aligned(larger);
    mem_free_aligned(mem_realign(nullptr, 10));
    mem_free_aligned(nullptr);
}

TEST(OtherBackends, ServeTheSameInterface) {
    const auto c_client = test::run_child(test::clean_request("c_client", {}));
    EXPECT_EQ(c_client.out, "from C\n");
    EXPECT_EQ(c_client.exit_code, 0);
    const auto guarded = test::run_child(test::clean_request("c_client", {}, {"KXA_DEADBEEF"}));
    EXPECT_EQ(guarded.out, "from C\n");
    EXPECT_EQ(guarded.exit_code, 0) << guarded.err;
}

TEST(FoundationStandIn, WritesWhatFailedAndEndsTheProcess) {
    const auto result = test::run_child(test::clean_request("standin/fatal_probe", {}));
    EXPECT_TRUE(result.crashed);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("AssertionFailed:probe"), std::string::npos);
    EXPECT_NE(result.err.find("fatal_probe, line 42"), std::string::npos);
}

} // namespace
