// Several threads at once: the lock under contention, and the heap below it.
#include "heap_fixture.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "heap/mem_mlock.h"

namespace {

using test::Heap;

TEST(HeapLock, LetsOneInAtATimeAndEveryoneInTheEnd) {
    mem_mlock lock{};
    std::size_t shared = 0; // torn, and a data race, if two are ever inside
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                EXPECT_TRUE(mem_mlock_acquire(lock));
                shared = shared + 1;
                mem_mlock_release(lock);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared, 80000U);
    EXPECT_EQ(lock.count, 0);
}

TEST(HeapLock, MakesItsEventAtTheFirstCollisionAndKeepsAWakeUp) {
    mem_mlock lock{};
    mem_mlock_acquire(lock); // perhaps with a plain add, while there is one thread
    EXPECT_EQ(lock.event, nullptr);
    std::atomic<bool> inside = false;
    std::thread other([&] {
        mem_mlock_acquire(lock);
        inside = true;
        mem_mlock_release(lock);
    });
    while (lock.count.load() < 2) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(inside);
    mem_mlock_release(lock); // the other may not wait yet: the event remembers
    other.join();
    EXPECT_TRUE(inside);
    EXPECT_NE(lock.event, nullptr);
    EXPECT_EQ(lock.count, 0);
    os::event_close(lock.event);
}

TEST_F(Heap, ReleaseLockLetsAWaiterIn) {
    dlfree(dlmalloc(1));
    mem_mlock_acquire(heap::state.mutex); // as by a thread that was ended inside the heap
    std::thread waiter([] { dlfree(dlmalloc(1)); });
    while (heap::state.mutex.count.load() < 2) {
        std::this_thread::yield();
    }
    dlmalloc_ReleaseLock();
    waiter.join();
    EXPECT_EQ(heap::state.mutex.count, 0);
}

// Blocks pass between threads through a table of shared places.
class Exchange {
public:
    unsigned char* swap(std::size_t place, unsigned char* mine) {
        return places_[place % places_.size()].exchange(mine);
    }
    std::array<std::atomic<unsigned char*>, 64>& places() { return places_; }

private:
    std::array<std::atomic<unsigned char*>, 64> places_{};
};

// The first bytes of a block hold its size and a mark of it.
constexpr std::size_t label_bytes = 16;

unsigned char* labelled(void* mem, std::size_t size) {
    if (mem != nullptr) {
        std::memcpy(mem, &size, sizeof size);
        std::memset(static_cast<unsigned char*>(mem) + 8, static_cast<int>(size % 251), 8);
    }
    return static_cast<unsigned char*>(mem);
}

bool label_intact(const unsigned char* mem) {
    std::size_t size = 0;
    std::memcpy(&size, mem, sizeof size);
    for (std::size_t i = 8; i < label_bytes; ++i) {
        if (mem[i] != size % 251) {
            return false;
        }
    }
    return dlmalloc_usable_size(const_cast<unsigned char*>(mem)) >= size;
}

unsigned char* make_block(std::mt19937& random) {
    const std::size_t size =
        label_bytes + (random() % 50 == 0 ? random() % 600000 : random() % 3000);
    switch (random() % 4) {
    case 0:
        return labelled(dlcalloc(size, 1), size);
    case 1:
        return labelled(dlmemalign(256, size), size);
    case 2:
        return labelled(dlrealloc(dlmalloc(40), size), size);
    default:
        return labelled(dlmalloc(size), size);
    }
}

void work(Exchange& exchange, unsigned seed, std::atomic<int>& damaged) {
    std::mt19937 random(seed);
    for (int i = 0; i < 6000; ++i) {
        unsigned char* const taken = exchange.swap(random(), make_block(random));
        if (taken != nullptr && !label_intact(taken)) {
            ++damaged;
        }
        dlfree(taken);
        if (i % 1000 == 0) {
            dlmalloc_trim(0);
            dlmallopt(-5, std::size_t{1} << 40);
            EXPECT_GT(dlmallinfo().arena, 0U);
            EXPECT_GE(dlmalloc_max_footprint(), 65536U);
            EXPECT_EQ(error_memory_limit(), 0);
        }
    }
}

TEST_F(Heap, ServesSeveralThreadsAtOnce) {
    Exchange exchange;
    std::atomic<int> damaged = 0;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) { // all of them race to set the heap up, too
        threads.emplace_back(work, std::ref(exchange), t, std::ref(damaged));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(damaged, 0);
    EXPECT_EQ(heap::state.mutex.count, 0);
    EXPECT_EQ(test::heap_fault(), "");
    for (auto& place : exchange.places()) {
        dlfree(place.load());
    }
    EXPECT_EQ(test::direct_bytes(), 0U);
}

} // namespace
