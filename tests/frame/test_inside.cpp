// What is behind the interface: the guarded back end's layout, the table against its columns, the
// seams that wait, and the call that the system makes at load.
#include "KXMBasMem.h"
#include "frame/mem_Backends.h"
#include "frame/mem_Binding.h"
#include "frame/seam_tiny_pool.h"
#include "heap/dlmalloc.h"
#include "heap/malloc_state.h"
#include "platform/seam_library_entry.h"
#include "recording_KX0CORE.h"

#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

struct GuardedView {
    std::uint64_t size;
    std::string front, back;
};

GuardedView view(const void* block) {
    const auto* const data = static_cast<const char*>(block);
    GuardedView seen;
    std::memcpy(&seen.size, data - 24, sizeof seen.size);
    seen.front.assign(data - 16, 16);
    seen.back.assign(data + seen.size, 16);
    return seen;
}

void expect_guarded(const void* block, std::size_t size) {
    ASSERT_NE(block, nullptr);
    const GuardedView seen = view(block);
    EXPECT_EQ(seen.size, size);
    EXPECT_EQ(seen.front, "DEADBEEFDEADBEEF");
    EXPECT_EQ(seen.back, "DEADBEEFDEADBEEF");
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 8U);
}

TEST(GuardedBlock, HasTheSameLayoutFromEveryEntry) {
    void* block = myMalloc(0);
    expect_guarded(block, 0); // the two guards touch
    block = myRealloc(block, 1000);
    expect_guarded(block, 1000);
    block = myRealloc(block, 0); // keeps a block of overhead alone
    expect_guarded(block, 0);
    myFree(block);

    block = myRealloc(nullptr, 33);
    expect_guarded(block, 33);
    myFree(block);

    block = myCalloc(0, 8);
    expect_guarded(block, 0);
    myFree(block);
    for (const std::size_t size : {1U, 3U, 8U, 100U}) {
        auto* const cleared = static_cast<char*>(myCalloc(7, size));
        expect_guarded(cleared, 7 * size);
        for (std::size_t i = 0; i < 7 * size; ++i) {
            ASSERT_EQ(cleared[i], 0);
        }
        myFree(cleared);
    }
    myFree(nullptr);
}

// What the runtime is asked for where the sum with the guards would wrap: more than any has.
TEST(GuardedBlock, IsRefusedWhereItsSizeWouldWrap) {
    struct Asked {
        std::size_t size;
    };
    const os::RuntimeAllocator real = os::runtime_allocator;
    os::runtime_allocator.malloc = [](std::size_t size) -> void* { throw Asked{size}; };
    os::runtime_allocator.realloc = [](void*, std::size_t size) -> void* { throw Asked{size}; };
    os::runtime_allocator.calloc = [](std::size_t count, std::size_t) -> void* {
        throw Asked{count};
    };
    const auto asked = [](auto request) {
        try {
            request();
        } catch (const Asked& ask) {
            return ask.size;
        }
        return std::size_t{0};
    };
    EXPECT_EQ(asked([] { myMalloc(SIZE_MAX - 40); }), SIZE_MAX);
    EXPECT_EQ(asked([] { myMalloc(SIZE_MAX - 39); }), SIZE_MAX);
    EXPECT_EQ(asked([] { myMalloc(SIZE_MAX - 41); }), SIZE_MAX - 1);
    EXPECT_EQ(asked([] { myRealloc(nullptr, SIZE_MAX); }), SIZE_MAX);
    EXPECT_EQ(asked([] { myCalloc(1, SIZE_MAX - 30); }), SIZE_MAX) << "the rounding alone";
    EXPECT_EQ(asked([] { myCalloc(1, SIZE_MAX / 2); }), SIZE_MAX) << "with what is rounded";
    EXPECT_EQ(asked([] { myCalloc(SIZE_MAX - 40, 1); }), SIZE_MAX);
    EXPECT_EQ(asked([] { myCalloc(SIZE_MAX - 39, 1); }), SIZE_MAX);
    EXPECT_EQ(asked([] { myCalloc(std::size_t{1} << 62, 8); }), 5U) << "the product has wrapped";
    os::runtime_allocator = real;
}

// The table as it was, put back at the end of a test that binds another column.
class TableKeeper {
public:
    ~TableKeeper() {
        mem_Mallinfo::useDL = false;
        mem_bindFunctions(false);
    }
};

TEST(Table, LeadsToTheHeapsLock) {
    const TableKeeper keeper;
    mem_Mallinfo::useDL = true;
    mem_bindFunctions(false);
    mem_Free(mem_Malloc(1));
    mem_ReleaseMemoryLock(); // without need: one too low for good
    EXPECT_EQ(heap::state.mutex.count, -1);
    heap::state.mutex.count = 0;
}

TEST(Entry, WorksForLoadAndUnloadAlone) {
    int status = 0;
    DllMain(nullptr, 1, nullptr);
    KXMBasAlloc_initialize(status);
    EXPECT_EQ(status, 0) << "loading had not started the library";
    EXPECT_EQ(DllMain(nullptr, 2, nullptr), 1);
    EXPECT_EQ(DllMain(nullptr, 3, nullptr), 1);
    KXMBasAlloc_finalize(status);
    EXPECT_EQ(status, 0) << "a thread's coming or going stopped the library";
    EXPECT_EQ(DllMain(nullptr, 0, nullptr), 1);
    KXMBasAlloc_specific_initialize(status); // loading has done it before
    KXMBasAlloc_specific_finalize(status);
    EXPECT_EQ(status, 0);
}

// The library reports a failed invariant to whichever foundation library was found first, and goes
// on when that returns.
TEST(FoundationLibrary, IsTheSolversOwnWhereThatIsFoundFirst) {
    const int before = recorded_fatal_errors();
    EXPECT_EQ(tiny_seam::alloc(129), nullptr);
    EXPECT_EQ(recorded_fatal_errors(), before + 1);
    EXPECT_EQ(std::string(recorded_fatal_text()).substr(0, 16), "AssertionFailed:");
}

} // namespace
