// Long histories against the shadow model, and several threads under the lock.
#include "KXMBasMem.h"
#include "pool_fixture.h"
#include "pool_operations.h"
#include "tiny/pool_walk.h"

#include <array>
#include <atomic>
#include <cstring>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

namespace {

using test::Pool;

TEST_F(Pool, RandomHistoriesAgreeWithTheModel) {
    for (std::uint32_t seed = 1; seed <= 60; ++seed) {
        std::mt19937 random(seed);
        std::vector<std::uint8_t> bytes(600);
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(random());
        }
        ASSERT_EQ(test::run_pool_operations(bytes.data(), bytes.size()), "") << "seed " << seed;
    }
}

// Blocks pass between threads through shared places; each holds its size and a mark of it.
using Places = std::array<std::atomic<unsigned char*>, 256>;

unsigned char* labelled(void* mem, std::size_t size) {
    std::memset(mem, static_cast<int>(size), size);
    return static_cast<unsigned char*>(mem);
}

bool intact(const unsigned char* mem) {
    for (std::size_t i = 0; i < *mem; ++i) {
        if (mem[i] != *mem) {
            return false;
        }
    }
    return true;
}

void exchange(Places& places, unsigned seed, std::atomic<int>& damaged) {
    std::mt19937 random(seed);
    for (int i = 0; i < 20000; ++i) {
        const std::size_t size = 1 + random() % 128;
        unsigned char* mem = labelled(mem_Malloc(size), size);
        if (i % 8 == 0) {
            mem = labelled(mem_Realloc(mem, 200), 200);
        } else if (i % 8 == 1) {
            const std::size_t larger = std::min<std::size_t>(size + 16, 128);
            mem = labelled(mem_Realloc(mem, larger), larger);
        }
        unsigned char* const taken = places[random() % places.size()].exchange(mem);
        if (taken != nullptr) {
            damaged += intact(taken) ? 0 : 1;
            mem_Free(taken);
        }
    }
}

TEST_F(Pool, ServesSeveralThreadsUnderItsLock) {
    mem_TBAllocator(1);
    mem_TBThreadLock(true);
    Places places{};
    std::atomic<int> damaged = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back(exchange, std::ref(places), t, std::ref(damaged));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(damaged, 0);
    EXPECT_EQ(tiny::TestAccess::lock().count, 0);
    EXPECT_EQ(test::pool_fault(), "");
    for (auto& place : places) {
        mem_Free(place.load());
    }
    const auto& used = tiny::take_census().slots_used;
    EXPECT_EQ(std::accumulate(used.begin(), used.end(), std::size_t{0}), 0U);
}

// A pool that was refused its memory when the lock went on is made by whoever asks next, which may be all at once.
TEST_F(Pool, IsMadeOnceByThreadsThatWereRefusedBefore) {
    for (int round = 0; round < 300; ++round) {
        mem_TBAllocator(1);
        mem_TBThreadLock(true);
        tiny::TestAccess::end();
        std::atomic<int> ready = 0, nulls = 0;
        const auto work = [&] {
            for (++ready; ready < 4;) {
            }
            for (int i = 0; i < 20; ++i) {
                void* const block = mem_Malloc(8);
                nulls += block == nullptr ? 1 : 0;
                mem_Free(block);
            }
        };
        std::array<std::thread, 4> threads{std::thread(work), std::thread(work), std::thread(work),
                                           std::thread(work)};
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(tiny::TestAccess::lock().count, 0) << round;
        ASSERT_EQ(nulls, 0);
        ASSERT_EQ(test::pool_fault(), "");
        ASSERT_EQ(tiny::take_census().slots_used[1], 0U);
        test::reset_pool();
    }
}

} // namespace
