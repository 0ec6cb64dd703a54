// Events, locks and thread-local slots.
#include "platform/os.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

TEST(Event, RemembersOneWakeUpAndOneOnly) {
    std::FILE* const none = std::fopen("no such folder/file", "r"); // leaves an error to be kept
    const std::uint32_t error = os::last_error();
    const os::Event event = os::event_create();
    EXPECT_EQ(os::last_error(), error);
    ASSERT_EQ(none, nullptr);
    ASSERT_NE(error, 0U);
    ASSERT_NE(event, nullptr);
    os::event_set(event);
    os::event_set(event);
    os::event_wait(event); // given before anybody waited

    std::atomic<bool> passed = false;
    std::thread waiter([&] {
        os::event_wait(event);
        passed = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(passed) << "the second set was kept as well";
    os::event_set(event);
    waiter.join();
    EXPECT_TRUE(passed);
    os::event_close(event);
}

// Two sets in a row, with two threads already asleep: neither may be lost. Nothing tells from
// outside that a thread has gone to sleep, so on a busy machine some rounds may set too early; most
// do not.
TEST(Event, LetsOneWaiterThroughForEachSet) {
    const os::Event event = os::event_create();
    constexpr int rounds = 20;
    int both = 0;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<int> passed = 0;
        const auto wait = [&] {
            os::event_wait(event);
            ++passed;
        };
        std::thread first(wait), second(wait);
        std::this_thread::sleep_for(20ms);
        os::event_set(event);
        os::event_set(event);
        const auto deadline = std::chrono::steady_clock::now() + 300ms;
        while (passed < 2 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        both += passed == 2 ? 1 : 0;
        while (passed < 2) { // lets the round end
            os::event_set(event);
            std::this_thread::yield();
        }
        first.join();
        second.join();
        os::event_set(event); // leaves no permission behind
        os::event_wait(event);
    }
    EXPECT_GE(both, rounds * 3 / 4);
    os::event_close(event);
}

// Each set lets one of many waiters through; nobody is lost and nobody slips in.
TEST(Event, HandsOverBetweenManyThreads) {
    const os::Event event = os::event_create();
    constexpr int threads = 4, rounds = 2000;
    long counter = 0; // guarded by the event, used as a lock that starts free
    os::event_set(event);
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                os::event_wait(event);
                ++counter;
                os::event_set(event);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(counter, threads * rounds);
    os::event_close(event);
}

TEST(CriticalSection, IsRecursiveForItsOwnerAndShutsOutOthers) {
    os::CriticalSection section;
    os::critical_section_init(section);
    const auto another_gets_in = [&] {
        bool got = false;
        std::thread([&] {
            got = os::critical_section_try_enter(section);
            if (got) {
                os::critical_section_leave(section);
            }
        }).join();
        return got;
    };
    os::critical_section_enter(section);
    EXPECT_TRUE(os::critical_section_try_enter(section));
    EXPECT_FALSE(another_gets_in());
    os::critical_section_leave(section);
    EXPECT_FALSE(another_gets_in()) << "still held once";
    os::critical_section_leave(section);
    EXPECT_TRUE(another_gets_in());
    os::critical_section_delete(section);
}

TEST(ThreadLocalSlot, IsNeverZeroAndReadsNullInEveryNewThread) {
    int value = 0;
    const int slot = os::tls_alloc();
    ASSERT_GT(slot, 0);
    EXPECT_EQ(os::tls_get(slot), nullptr);
    os::tls_set(slot, &value);
    std::thread([&] { EXPECT_EQ(os::tls_get(slot), nullptr); }).join();
    EXPECT_EQ(os::tls_get(slot), &value);
    os::tls_free(slot);

    const int again = os::tls_alloc();
    ASSERT_GT(again, 0);
    EXPECT_EQ(os::tls_get(again), nullptr) << "a reused slot kept its old value";
    os::tls_free(again);

    std::vector<int> all; // there are so many and no more
    for (int next = os::tls_alloc(); next != -1; next = os::tls_alloc()) {
        all.push_back(next);
        ASSERT_LT(all.size(), 5000U);
    }
    for (const int none : {-1, 0, 100000}) {
        os::tls_set(none, &value);
        EXPECT_EQ(os::tls_get(none), nullptr);
        os::tls_free(none);
    }
    for (const int each : all) {
        os::tls_free(each);
    }
}

// Others' destructors may allocate then, and are to meet the thread's number.
TEST(ThreadLocalSlot, HoldsUntilItsThreadHasEnded) {
    static int slot = 0, value = 0;
    static void* seen = nullptr;
    pthread_key_t before = 0, after = 0;
    const auto look = [](void*) { seen = seen == nullptr ? os::tls_get(slot) : nullptr; };
    pthread_key_create(&before, look);
    slot = os::tls_alloc();
    pthread_key_create(&after, [](void*) { EXPECT_EQ(os::tls_get(slot), &value); });
    std::thread([&] {
        os::tls_set(slot, &value);
        pthread_setspecific(before, &value);
        pthread_setspecific(after, &value);
    }).join();
    EXPECT_EQ(seen, &value);
    pthread_key_delete(before);
    pthread_key_delete(after);
    os::tls_free(slot);
}

TEST(Threads, HaveNumbersOfTheirOwn) {
    const std::uint32_t own = os::thread_id();
    EXPECT_EQ(os::thread_id(), own);
    std::thread([&] {
        EXPECT_NE(os::thread_id(), own);
        EXPECT_FALSE(os::single_threaded());
    }).join();
}

} // namespace
