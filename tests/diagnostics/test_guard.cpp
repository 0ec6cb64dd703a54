// The guarded call: every kind of fault, nested, in a handler, in several threads; and faults that are
// none of its business. What ends a process runs in children, the routines that fail on purpose too.
#include "child.h"
#include "system.h"

#include "platform/os.h"

#include <atomic>
#include <cstdint>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

volatile int zero = 0, many = 1000;
volatile int result = 0;

void read_null(void*) {
    result = static_cast<int>(os::read_word_unchecked(reinterpret_cast<void*>(8)));
}

void call_null(void*) {
    void (*volatile nowhere)() = nullptr;
    nowhere();
}

KXM_NO_SANITIZE void divide(void*) {
    result = many / zero;
}

void illegal(void*) {
    __asm__ volatile("ud2");
}

// Frames of a page, so that an overflow comes soon.
KXM_NO_SANITIZE int overflow_stack(int depth) {
    volatile char page[4096];
    page[depth & 4095] = 1;
    if (depth < 0) {
        return 0; // for the compiler's peace
    }
    return overflow_stack(depth + 1) + page[0];
}

void overflow(void*) {
    result = overflow_stack(0);
}

void nest(void* done) {
    EXPECT_FALSE(os::guarded_call(read_null, nullptr));
    EXPECT_TRUE(os::guarded_call([](void* flag) { *static_cast<bool*>(flag) = true; }, done));
    read_null(nullptr); // the outer guard still stands
}

constexpr void (*faults[])(void*) = {read_null, call_null, divide, illegal, overflow};

TEST(GuardedCall, EndsAtEveryFaultAndServesAgain) {
    for (int i = 0; i < 3; ++i) {
        for (void (*const fault)(void*) : faults) {
            EXPECT_FALSE(os::guarded_call(fault, nullptr));
        }
    }
    bool done = false;
    EXPECT_FALSE(os::guarded_call(nest, &done));
    EXPECT_TRUE(done);
}

TEST(GuardedCall, ServesThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> caught{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&caught, t] {
            for (int i = 0; i < 50; ++i) {
                caught += os::guarded_call(faults[(i + t) % 4], nullptr) ? 0 : 1;
                caught += os::guarded_call([](void*) {}, nullptr) ? 1 : 0;
            }
            caught += os::guarded_call(overflow, nullptr) ? 0 : 1;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(caught, 4 * 101);
}

std::atomic<int> filtered{0};
std::atomic<bool> inside{false}, leave{false};

void stay(void*) {
    inside = true;
    while (!leave) {
        std::this_thread::yield();
    }
}

TEST(GuardedCall, LeavesFaultsOfOthersToTheirHandlers) {
    // After a guarded fault, and while another thread is inside a guarded call.
    std::thread other;
    static std::thread* const running = &other;
    EXPECT_TRUE(test::with_fault(
        [] {
            EXPECT_FALSE(os::guarded_call(read_null, nullptr));
            *running = std::thread([] { os::guarded_call(stay, nullptr); });
            while (!inside) {
                std::this_thread::yield();
            }
            filtered = 0;
            read_null(nullptr);
        },
        [](void*) {
            // In a handler the signal is blocked; a guarded fault must not end the process there.
            EXPECT_FALSE(os::guarded_call(read_null, nullptr));
            ++filtered;
        }));
    EXPECT_EQ(filtered, 1);
    leave = true;
    other.join();
}

test::ChildResult probe(const char* mode, const char* depth = nullptr) {
    test::ChildRequest request{test::sibling_program("callstack_probe"), {mode}, {}};
    request.environment.emplace_back(
        "KXA_CALLSTACK_DEPTH", depth != nullptr ? std::optional<std::string>(depth) : std::nullopt);
    return test::run_child(request);
}

TEST(GuardedCall, LetsAnUnguardedFaultEndTheProcess) {
    EXPECT_TRUE(probe("fault-after-guard").crashed);
    EXPECT_TRUE(probe("fault-beside-guard").crashed);
}

TEST(DeliberateFaults, Fail) {
    EXPECT_TRUE(probe("error01").crashed);
    EXPECT_TRUE(probe("error02").crashed);
    EXPECT_EQ(probe("error03").out, "FatalError 101\n");
}

TEST(DepthSetting, IsTheEnvironmentsUnlessItIsZero) {
    EXPECT_EQ(probe("depth").out, "20 1 20\n") << "the constructor's own depth does not count";
    EXPECT_EQ(probe("depth", "4").out, "4 1 4\n");
    EXPECT_EQ(probe("depth", "0").out, "0 1 7\n");
    EXPECT_EQ(probe("depth", "deep").out, "0 1 7\n");
    EXPECT_EQ(probe("depth", "-1").out, "-1 1 0\n") << "an empty text, and available";
}

TEST(LoadDBHELP, CutsUpThePathWhereItIsSearched) {
    const bool searched = os::debug_help().in_path;
    EXPECT_EQ(probe("path").out, searched ? "loaded, cut\n" : "loaded, whole\n");
}

} // namespace
