// The memory limit: its two copies and the moment each takes effect, the gate, refusals by limit
// and by system at every request of a history, and options out of their range.
#include "heap_fixture.h"

#include <cstring>
#include <limits>
#include <vector>

#include "heap/system_memory_gate.h"

namespace {

using test::Heap;
using Sizes = std::initializer_list<std::size_t>;

using test::SystemWatch;

constexpr std::size_t kib = 1024, mib = 1024 * kib, unit = 64 * kib;
constexpr std::size_t size_max = std::numeric_limits<std::size_t>::max();

TEST_F(Heap, TheCheckIncludesEqualityAndWraps) {
    EXPECT_EQ(heap::check_memory_limit(10, 90, 101), 1);
    EXPECT_EQ(heap::check_memory_limit(10, 90, 100), 0);
    EXPECT_EQ(error_memory_limit(), -1);
    EXPECT_EQ(heap::check_memory_limit(size_max - 10, 20, 100), 1) << "wraps to 9";
    EXPECT_EQ(error_memory_limit(), 0);
    EXPECT_EQ(heap::check_memory_limit(size_max, size_max, 0), 1) << "no limit";
}

TEST_F(Heap, TheGateChecksBeforeItAsks) {
    SystemWatch watch;
    heap::malloc_state other{};
    other.footprint = unit;
    other.memory_limit = 2 * unit;
    EXPECT_EQ(heap::call_check_mem_allocate(unit, &other, heap::mode_segment), heap::all_ones());
    EXPECT_EQ(error_memory_limit(), -1);
    EXPECT_EQ(watch.requests, 0U) << "a refusal costs no system call";
    for (const int mode : {heap::mode_core, 0, 4, -1}) {
        EXPECT_EQ(heap::call_check_mem_allocate(unit / 2, &other, mode), heap::all_ones());
        EXPECT_EQ(error_memory_limit(), 0) << "the check passed";
    }
    EXPECT_EQ(heap::call_check_mem_reallocate(nullptr, 1, unit + 1, 1, &other), heap::all_ones());
    EXPECT_EQ(error_memory_limit(), -1) << "for the sake of the word";
    EXPECT_EQ(heap::call_check_mem_reallocate(nullptr, unit + 1, 1, 1, &other), heap::all_ones());
    EXPECT_EQ(error_memory_limit(), -1) << "a shrink checks nothing";
    EXPECT_EQ(heap::call_check_mem_allocate(0, &other, heap::mode_core), heap::all_ones());
    EXPECT_EQ(error_memory_limit(), -1) << "nothing asks nobody";
    watch.refuse_from = 0;
    watch.refuse_count = 1;
    EXPECT_EQ(heap::call_check_mem_allocate(unit / 2, &other, heap::mode_direct), heap::all_ones());
    EXPECT_EQ(error_memory_limit(), 0) << "refused by the system";
    EXPECT_EQ(watch.requests, 1U);
}

TEST_F(Heap, UnmappingTakesWholeAllocationsOnly) {
    char* const range = heap::win32mmap(2 * unit);
    ASSERT_NE(range, heap::all_ones());
    EXPECT_EQ(heap::win32munmap(range + unit, unit), -1) << "a tail";
    EXPECT_EQ(heap::win32munmap(range, unit), -1) << "a part";
    EXPECT_EQ(heap::win32munmap(range, 2 * unit), 0);
    EXPECT_EQ(heap::win32munmap(range, 2 * unit), -1) << "gone";
    EXPECT_EQ(heap::win32mmap(size_max), heap::all_ones());
    EXPECT_EQ(heap::win32direct_mmap(size_max - unit), heap::all_ones());
}

TEST_F(Heap, ALimitIsShownAtOnceAndObeyedAtTheNextGrowth) {
    void* const first = dlmalloc(1);
    EXPECT_EQ(dlmallopt(-5, 4 * unit), 1);
    EXPECT_EQ(dlmalloc_memory_limit(), 4 * unit);
    EXPECT_EQ(heap::state.memory_limit, 0U);
    void* const second = dlmalloc(100 * kib); // 2 units: grows under the limit, and fetches it
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(heap::state.memory_limit, 4 * unit);
    EXPECT_EQ(dlmalloc_footprint(), 3 * unit);
    EXPECT_EQ(dlmalloc(100 * kib), nullptr) << "would reach the limit";
    EXPECT_EQ(error_memory_limit(), -1);
    void* const small = dlmalloc(10);
    EXPECT_NE(small, nullptr) << "the top serves it without a check";
    EXPECT_EQ(error_memory_limit(), -1) << "the word answers for the latest growth";
    EXPECT_EQ(dlmallopt(-5, 6 * unit), 1);
    void* const third = dlmalloc(100 * kib);
    EXPECT_NE(third, nullptr) << "raised, and in force at once";
    EXPECT_EQ(error_memory_limit(), 0);
    EXPECT_EQ(dlmallopt(-5, unit), 1); // below what is held: takes nothing back
    EXPECT_EQ(dlmalloc(3 * unit), nullptr);
    EXPECT_EQ(test::heap_fault(), "");
    for (void* const mem : {first, second, small, third}) {
        dlfree(mem);
    }
}

TEST_F(Heap, AllThreeWaysOutOfALimitWorkAtOnce) {
    dlmallopt(-5, 8 * mib);
    std::vector<void*> blocks;
    while (void* const mem = dlmalloc(mib)) {
        blocks.push_back(mem);
    }
    EXPECT_EQ(error_memory_limit(), -1);
    EXPECT_LT(dlmalloc_footprint(), 8 * mib);
    dlfree(blocks.back()); // releasing
    blocks.back() = dlmalloc(mib);
    EXPECT_NE(blocks.back(), nullptr);
    EXPECT_EQ(dlmalloc(mib), nullptr);

    dlmallopt(-5, 10 * mib); // raising
    void* const more = dlmalloc(mib);
    EXPECT_NE(more, nullptr);
    EXPECT_EQ(dlrealloc(more, 3 * mib), nullptr) << "growth is refused, the block stays";
    EXPECT_EQ(error_memory_limit(), -1);

    dlmallopt(-5, dlmalloc_footprint());
    blocks[0] = dlrealloc(blocks[0], 300 * kib); // trimming: first a range that can go
    dlfree(blocks[0]);
    EXPECT_EQ(dlmalloc(900 * kib),
              heap::chunk2mem(heap::align_as_chunk(heap::state.seg.next->base)))
        << "the range serves as it is";
    dlfree(heap::chunk2mem(heap::align_as_chunk(heap::state.seg.next->base)));
    EXPECT_EQ(dlmalloc(1200 * kib), nullptr);
    EXPECT_EQ(dlmalloc_trim(0), 1);
    dlmallopt(-5, dlmalloc_footprint() + 1400 * kib);
    blocks[0] = dlmalloc(1200 * kib);
    EXPECT_NE(blocks[0], nullptr);
    dlfree(more);
    for (void* const mem : blocks) {
        dlfree(mem);
    }
}

TEST_F(Heap, Options) {
    EXPECT_EQ(dlmallopt(-2, 3000), 0);
    EXPECT_EQ(dlmallopt(-2, 2048), 0) << "below the page";
    EXPECT_EQ(dlmallopt(-2, 0), 0);
    EXPECT_EQ(dlmallopt(-2, size_max), 0);
    EXPECT_EQ(heap::params.granularity, unit) << "unchanged";
    EXPECT_EQ(dlmallopt(-2, 4096), 1);
    for (const int unknown : {0, 1, -6, 5, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(dlmallopt(unknown, 1), 0);
    }
    dlfree(dlmalloc(1));
    EXPECT_EQ(dlmalloc_footprint(), 4096U) << "growth by the new unit";

    EXPECT_EQ(dlmallopt(-1, 5 * mib), 1);
    EXPECT_EQ(heap::state.trim_check, 2 * mib) << "until the top is next reset";
    EXPECT_EQ(dlmallopt(-3, mib), 1);
    void* const mem = dlmalloc(300 * kib);
    EXPECT_FALSE(test::is_direct(mem));
    EXPECT_EQ(heap::state.trim_check, 5 * mib);
    dlfree(mem);
}

// The word is read again when an entry leaves: what a growth refreshed counts.
TEST_F(Heap, LockingSwitchedInTheMiddleLeavesTheCountOff) {
    dlfree(dlmalloc(1));
    EXPECT_EQ(dlmallopt(-4, (std::size_t{1} << 32) | 0), 0) << "answers 0 and stores the low half";
    EXPECT_EQ(heap::state.use_lock, 2U);
    void* const mem = dlmalloc(unit); // taken with the lock, left without
    EXPECT_EQ(heap::state.use_lock, 0U);
    EXPECT_EQ(heap::state.mutex.count, 1);
    dlmallopt(-4, 3);
    EXPECT_EQ(heap::state.use_lock, 0U) << "an option carries over what was before it";
    void* const other = dlmalloc(3 * unit); // taken without, left with
    EXPECT_EQ(heap::state.use_lock, 3U);
    EXPECT_EQ(heap::state.mutex.count, 0);
    dlmallopt(-4, 0);
    dlmallopt(-4, 2); // between entries nothing is off
    dlfree(dlmalloc(1));
    EXPECT_EQ(heap::state.mutex.count, 0);
    dlmallopt(-1, 0); // carries the 2 over
    dlfree(mem);
    dlfree(other);
    EXPECT_EQ(heap::state.mutex.count, 0);
    dlmalloc_ReleaseLock();
    EXPECT_EQ(heap::state.mutex.count, -1) << "it does not ask who holds it";
    heap::state.use_lock = 0;
    dlmalloc_ReleaseLock();
    EXPECT_EQ(heap::state.mutex.count, -1) << "there is none";
    heap::state.use_lock = 2;
}

// A history that grows in every way there is. `refused` tells which results may be null.
struct Replay {
    std::vector<unsigned char*> blocks;

    bool keep(void* mem, std::size_t size) {
        if (mem == nullptr) {
            return false;
        }
        std::memset(mem, static_cast<int>(blocks.size() + 1), size);
        blocks.push_back(static_cast<unsigned char*>(mem));
        return true;
    }

    int run() {
        int refused = 0;
        for (const std::size_t size : Sizes{100, 70000, 20, 400000, 150000, 3000}) {
            refused += keep(dlmalloc(size), 20) ? 0 : 1;
            refused += keep(dlmemalign(4096, size), 20) ? 0 : 1;
            refused += keep(dlcalloc(size, 2), 20) ? 0 : 1;
            refused += keep(dlrealloc(dlmalloc(20), size), 20) ? 0 : 1;
            for (unsigned char*& mem : blocks) {
                void* const resized = dlrealloc(mem, size);
                refused += resized == nullptr ? 1 : 0;
                mem = resized != nullptr ? static_cast<unsigned char*>(resized) : mem;
            }
        }
        return refused;
    }

    bool intact() const {
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            for (int at = 0; at < 20; ++at) {
                if (blocks[i][at] != i + 1) {
                    return false;
                }
            }
        }
        return true;
    }
};

TEST_F(Heap, RefusalAtEveryRequestToTheSystem) {
    for (std::size_t n = 1;; ++n) { // the very first request makes the first segment
        test::reset_heap();
        SystemWatch watch;
        watch.refuse_from = n;
        watch.refuse_count = 2; // a mapping, and the segment in its stead
        dlfree(dlmalloc(1));
        Replay replay;
        const int refused = replay.run();
        watch.refuse_count = 0;
        ASSERT_EQ(test::heap_fault(), "") << "refusal of request " << n;
        ASSERT_TRUE(replay.intact()) << "refusal of request " << n;
        void* const next = dlmalloc(500000);
        ASSERT_NE(next, nullptr) << "the next request is served";
        dlfree(next);
        for (void* const mem : replay.blocks) {
            dlfree(mem);
        }
        ASSERT_EQ(test::direct_bytes(), 0U);
        if (watch.requests <= n) {
            EXPECT_EQ(refused, 0);
            EXPECT_GT(n, 20U);
            break;
        }
    }
}

} // namespace
