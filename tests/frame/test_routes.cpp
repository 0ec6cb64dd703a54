// The road of a request: which go to the tiny pool, how its blocks are known on release, and what
// the tracker is told, when, and for how long. This program brings the pool and the tracker itself;
// both only record.
#include "KXMBasMem.h"
#include "frame/mem_TinySwitches.h"
#include "frame/seam_tiny_pool.h"
#include "frame/seam_tracker.h"
#include "platform/os.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using Log = std::vector<std::string>;
Log events;
tracker_seam::Use use = tracker_seam::unknown;
char tiny_block[8];

std::string text(const char* what, const void* ptr, std::size_t a = 0, std::size_t b = 0) {
    return what + std::string(" ") + std::to_string(reinterpret_cast<std::uintptr_t>(ptr)) + " " +
           std::to_string(a) + " " + std::to_string(b);
}

std::size_t as_number(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

Log taken() {
    Log result;
    result.swap(events);
    return result;
}

} // namespace

namespace tiny_seam {

void* alloc(std::size_t size) {
    events.push_back(text("tiny alloc", nullptr, size));
    return tiny_block;
}

void* realloc(void* ptr, std::size_t size) {
    events.push_back(text("tiny realloc", ptr, size));
    return tiny_block;
}

void free(void* ptr) {
    events.push_back(text("tiny free", ptr));
}

// No test here forks.
void lock_for_fork() {}
void unlock_in_parent() {}
void renew_in_child() {}

} // namespace tiny_seam

namespace tracker_seam {

Use check_for_tracking() {
    events.push_back("decides"); // at the start alone, and never in an entry
    return use;
}

Use check_use_flag() {
    return use;
}

void start_thread_identity() {}

void malloc_call(void* result, std::size_t size) {
    events.push_back(text("malloc", result, size));
}

void calloc_call(void* result, std::size_t count, std::size_t size) {
    events.push_back(text("calloc", result, count, size));
}

void realloc_call(void* result, void* old, std::size_t size) {
    events.push_back(text("realloc", result, as_number(old), size));
}

void free_call(void* ptr) {
    events.push_back(text("free", ptr));
}

void release_call(void* ptr) {
    events.push_back(text("release", ptr));
}

void acquire_call(void* ptr) {
    events.push_back(text("acquire", ptr));
}

// No test here forks.
void lock_for_fork() {}
void unlock_in_parent() {}
void renew_in_child() {}

} // namespace tracker_seam

namespace {

void recording_free(void* ptr) {
    events.push_back(text("back end free", ptr));
}

class Routes : public testing::Test {
protected:
    void SetUp() override {
        int status = 0;
        KXMBasMem_initialize(status); // binds the table where loading has not
        real_free_ = mem_free;
        taken();
    }
    void TearDown() override {
        mem_tinyBlocksOn = false;
        mem_tinyBlocksUsed = false;
        mem_free = real_free_;
        int status = 0;
        KXMBasMem_finalize(status);
    }
    void (*real_free_)(void*) = nullptr;
};

TEST_F(Routes, RequestsBelow129BytesGoToThePoolWhileItIsOn) {
    mem_tinyBlocksOn = true;
    for (const std::size_t size : {0U, 1U, 128U}) {
        EXPECT_EQ(mem_Malloc(size), tiny_block);
        EXPECT_EQ(taken(), Log{text("tiny alloc", nullptr, size)});
    }
    void* const large = mem_Malloc(129);
    void* const cleared = mem_Calloc(1, 8); // never tiny
    void* const aligned = mem_Malign(8, 8);
    EXPECT_EQ(taken(), Log{});
    mem_Free(mem_Realloc(large, 8)); // what is not tiny never becomes so
    mem_Free(cleared);
    mem_MalignFree(aligned);
    EXPECT_EQ(taken(), Log{});
    mem_tinyBlocksOn = false;
    mem_Free(mem_Malloc(8));
    EXPECT_EQ(taken(), Log{});
}

TEST_F(Routes, ATinyBlockIsKnownByItsPagesFirstTwoWords) {
    struct Release {
        void* memory = os::vm_allocate(8192, os::Placement::direct);
        ~Release() { os::vm_release(memory); }
    } const pages;
    auto* const words = static_cast<std::uint64_t*>(pages.memory);
    void* const block = words + 100;
    mem_free = recording_free;
    const auto freed_to = [&](std::uint64_t first, std::uint64_t second, void* ptr) {
        words[0] = first;
        words[1] = second;
        mem_Free(ptr);
        return taken();
    };
    const std::uint64_t self = as_number(words);
    const Log home{text("tiny free", block)}, away{text("back end free", block)};

    EXPECT_EQ(freed_to(self, 0xabababab, block), away) << "the pool was never used";
    mem_tinyBlocksUsed = true; // stays so when the pool is off
    EXPECT_EQ(freed_to(self, 0xabababab, block), home);
    EXPECT_EQ(freed_to(self + 8, 0xabababab, block), away);
    EXPECT_EQ(freed_to(self, 0xabababac, block), away);
    EXPECT_EQ(freed_to(self, 0xabababab00000000, block), away);
    EXPECT_EQ(freed_to(self, 0xabababab, words + 512 + 3), Log{text("back end free", words + 515)})
        << "the next page carries no tag";
    EXPECT_EQ(freed_to(self, 0xabababab, nullptr), Log{text("back end free", nullptr)});
    void* const in_first_page = reinterpret_cast<void*>(std::uintptr_t{4000});
    EXPECT_EQ(freed_to(self, 0xabababab, in_first_page), Log{text("back end free", in_first_page)})
        << "read without a test";

    words[1] = 0xabababab;
    EXPECT_EQ(mem_Realloc(block, 77), tiny_block);
    mem_MalignFree(block);
    EXPECT_EQ(taken(), (Log{text("tiny realloc", block, 77), text("tiny free", block)}));
}

// One test, because each entry's decision is kept for the life of the process: undecided, on, the
// tracker gone, and off for good.
TEST_F(Routes, TheTrackerIsToldFromItsDecisionToItsEnd) {
    const auto use_all = [] {
        void* block = mem_Malloc(200);
        void* const moved = mem_Realloc(block, 300);
        void* const cleared = mem_Calloc(3, 7);
        void* const aligned = mem_Malign(40, 64);
        mem_Release(moved);
        mem_Acquire(moved);
        Log expected{text("malloc", block, 200),    text("realloc", moved, as_number(block), 300),
                     text("calloc", cleared, 3, 7), text("malloc", aligned, 40),
                     text("release", moved),        text("acquire", moved),
                     text("free", moved),           text("free", cleared),
                     text("free", aligned)};
        mem_Free(moved);
        mem_Free(cleared);
        mem_MalignFree(aligned);
        return expected;
    };
    use = tracker_seam::unknown;
    use_all();
    EXPECT_EQ(taken(), Log{}) << "told before the decision";

    use = tracker_seam::on;
    const Log expected = use_all();
    EXPECT_EQ(taken(), expected);

    volatile std::size_t too_much = SIZE_MAX / 2;
    EXPECT_EQ(mem_Malloc(too_much), nullptr);
    EXPECT_EQ(taken(), Log{text("malloc", nullptr, too_much)}) << "a failure is told too";
    mem_free = recording_free;
    mem_Free(nullptr);
    EXPECT_EQ(taken(), (Log{text("free", nullptr), text("back end free", nullptr)}))
        << "the hook comes before the release";
    mem_free = real_free_;

    use = tracker_seam::finished;
    use_all();
    EXPECT_EQ(taken(), Log{});
    use = tracker_seam::on;
    use_all();
    EXPECT_EQ(taken(), Log{}) << "once off, always off";
    use = tracker_seam::off;
}

} // namespace
