// Captures of real stacks: C++, Fortran, a shared library; the main thread and workers; the context of a
// fault. The system's own debug help works here. Functions that stand in an expected text are plain
// names, which every debug help tells alike.
#include "KXMBasMem.h"
#include "capture_text.h"
#include "frames.h"
#include "system.h"

#include "heap/dlmalloc.h"
#include "heap/malloc_state.h"
#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using test::line;
using test::taken;
using Text = std::optional<std::string>;

thread_local Text captured;
volatile int one = 1; // keeps calls from being the last thing, and from being merged

bool on_windows() {
    return os::properties().directory_separator == '\\';
}

std::string program() {
    return on_windows() ? "test_callstack.exe" : "test_callstack";
}

} // namespace

thread_local int constructed_line = 0, called_line = 0;

extern "C" {

KXM_NEVER_INLINE int stack_constructs(int depth) {
    constructed_line = __LINE__ + 1;
    captured = taken(KXMBasCallStack(depth, nullptr).CStr());
    return one;
}

KXM_NEVER_INLINE int stack_calls(int (*callee)(int)) {
    called_line = __LINE__ + 1;
    return callee(20) + one;
}

// The name ends the walk, as the start of a thread would.
KXM_NEVER_INLINE int endthreadex(int (*callee)(int)) {
    return stack_calls(callee) + one;
}

KXM_NEVER_INLINE int stack_filter_captures(int depth) {
    captured = taken(KXMBasCallStack::ExceptionCallStack(nullptr, depth));
    return one;
}

KXM_NEVER_INLINE int SaveCurrentCallStack(int depth) {
    return stack_filter_captures(depth) + one;
}

KXM_NEVER_INLINE int stack_reads(int address) {
    return static_cast<int>(os::read_word_unchecked(reinterpret_cast<void*>(address / 100 * 8))) +
           one;
}

KXM_NEVER_INLINE int stack_calls_nowhere(int value) {
    int (*volatile nowhere)(int) = nullptr;
    return nowhere(value) + one;
}

} // extern "C"

namespace {

void expect_known_stack() {
    captured.reset();
    endthreadex(stack_constructs);
    const char file[] = "test_capture_real.cpp";
    EXPECT_EQ(captured, line(1, program(), "stack_constructs", file, constructed_line) +
                            line(2, program(), "stack_calls", file, called_line));
}

TEST(Capture, TellsAKnownStackToTheColumnOnMainAndOnWorkersAtOnce) {
    expect_known_stack();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 20; ++i) {
                expect_known_stack();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(Capture, OfAFilterBeginsAtTheCallersCallerAndShowsWhatAPlainOneHides) {
    endthreadex(SaveCurrentCallStack);
    ASSERT_TRUE(captured);
    EXPECT_EQ(captured->find("  1)  " + test::padded(program(), 26) + "  SaveCurrentCallStack "),
              0U)
        << *captured;
    EXPECT_NE(captured->find("  2)  " + test::padded(program(), 26) + "  stack_calls "),
              std::string::npos);
}

namespace solver {

struct Mesh {
    KXM_NEVER_INLINE static int refine(int value) { return stack_constructs(20) + value * one; }
};

template <class Real> KXM_NEVER_INLINE int assemble(int value) {
    return frames_in_library(Mesh::refine, value) + one;
}

int in_fortran(int) {
    return frames_in_fortran(assemble<double>, 3) + one;
}

} // namespace solver

// From the inside: C++, a shared library, C++, Fortran, C++.
TEST(Capture, NamesCxxFortranAndSharedLibraries) {
    endthreadex(solver::in_fortran);
    ASSERT_TRUE(captured);
    const auto has = [](const std::string& piece) {
        EXPECT_NE(captured->find(piece), std::string::npos) << piece << "\n" << *captured;
    };
    // Wine's debug help leaves unnamed namespaces out.
    has("  2)  " + test::padded(program(), 26) + "  " +
        (on_windows() ? "" : "(anonymous namespace)::") + "solver::Mesh::refine ");
    has("  3)  " + test::padded(on_windows() ? "kxm_frames.dll" : "libkxm_frames.so", 26) +
        "  frames_in_library                         frames_library.cpp (6)\n");
    has("solver::assemble<double> ");
    has("  5)  " + test::padded(program(), 26) +
        "  frames_in_fortran                         frames_fortran.f90 (16)\n");
}

// The last line is the thread's own code; on Windows the language's runtime may follow, unknown.
TEST(Capture, EndsAtTheStartOfAThread) {
    std::thread([] {
        stack_calls(stack_constructs);
        ASSERT_TRUE(captured) << "a start that no name ends";
        EXPECT_NE(captured->find("  2)  " + test::padded(program(), 26) + "  stack_calls "),
                  std::string::npos);
        EXPECT_EQ(captured->find("endthreadex"), std::string::npos);
        if (!on_windows()) {
            EXPECT_EQ(captured->find("  lib"), std::string::npos) << *captured;
        }
    }).join();
}

int late_capture(int) {
    return stack_constructs(20) + one;
}

// More often than debug information may be read anew: a library that comes again is known.
TEST(Capture, KnowsALibraryThatIsLoadedLate) {
    expect_known_stack();
    for (int i = 0; i < 40; ++i) {
        void* const library = test::load_library("kxm_late");
        ASSERT_NE(library, nullptr);
        const auto function = reinterpret_cast<int (*)(Callback, int)>(
            test::library_function(library, "frames_in_library"));
        captured.reset();
        function(late_capture, 1);
        test::unload_library(library);
        ASSERT_TRUE(captured);
        EXPECT_NE(captured->find(test::line(3, on_windows() ? "kxm_late.dll" : "kxm_late.so",
                                            "frames_in_library", "frames_library.cpp", 6)),
                  std::string::npos)
            << *captured;
    }
}

// ---- Faults: the walk begins at the caller of what failed.

Text seen;

void see(void* exception_pointers) {
    seen = taken(KXMBasCallStack::ExceptionCallStack(exception_pointers, 20));
}

TEST(CaptureOfAFault, BeginsAtTheCallerOfWhatFailed) {
    ASSERT_TRUE(test::with_fault([] { endthreadex(stack_reads); }, see));
    // os::read_word_unchecked failed.
    EXPECT_EQ(seen->find("  1)  " + test::padded(program(), 26) + "  stack_reads "), 0U);
    EXPECT_NE(seen->find("  2)  " + test::padded(program(), 26) + "  stack_calls "),
              std::string::npos);
    EXPECT_EQ(std::count(seen->begin(), seen->end(), '\n'), 2);

    seen.reset();
    ASSERT_TRUE(test::with_fault([] { endthreadex(stack_calls_nowhere); }, see));
    ASSERT_TRUE(seen);
    if (!on_windows()) { // Wine's debug help does not walk from nowhere
        EXPECT_EQ(seen->find("  1)  " + test::padded(program(), 26) + "  stack_calls_nowhere "), 0U)
            << "what failed, and is lost, is the place that was called";
    }
}

alignas(16) std::uint64_t broken_stack[512];

// A frame chain that was written over: return addresses and frames that are nowhere.
void see_broken(void* exception_pointers) {
    const std::uint64_t place = 0x00007ffffffe0000;
    for (std::uint64_t& word : broken_stack) {
        word = place;
    }
    // Inside a function that has a frame, with a stack that holds nothing sound.
    test::set_position(exception_pointers, reinterpret_cast<std::uint64_t>(&stack_calls) + 12,
                       reinterpret_cast<std::uint64_t>(&broken_stack[8]));
    seen = taken(KXMBasCallStack::ExceptionCallStack(exception_pointers, 20));
}

void see_unmapped(void* exception_pointers) {
    test::set_position(exception_pointers, reinterpret_cast<std::uint64_t>(&stack_calls) + 12,
                       0x00007ffffffe0000);
    seen = taken(KXMBasCallStack::ExceptionCallStack(exception_pointers, 20));
}

void see_nothing(void*) {
    seen = taken(KXMBasCallStack::ExceptionCallStack(reinterpret_cast<void*>(64), 20));
}

TEST(CaptureOfAFault, IsAbsentWhereTheStackIsDamagedAndTheNextOneSound) {
    for (int i = 0; i < 3; ++i) {
        std::thread([] { // in turn: a capture serves one thread at a time
            testing::internal::CaptureStdout();
            for (void (*const filter)(void*) : {see_broken, see_unmapped, see_nothing}) {
                seen = "not called";
                EXPECT_TRUE(test::with_fault([] { endthreadex(stack_reads); }, filter));
                EXPECT_EQ(seen, std::nullopt);
            }
            testing::internal::GetCapturedStdout(); // what a debug help refuses is told there
            expect_known_stack();
        })
            .join();
    }
}

// ---- What a capture takes

std::atomic<int> heap_calls{0};

// With the heap's lock held by this thread, and every road into the library's memory closed.
TEST(Capture, TakesOneBlockFromTheRuntimeAndNothingFromTheLibrary) {
    expect_known_stack();
    int status = 0;
    KXMBasAlloc_initialize(status);
    const auto real = std::tuple(mem_malloc, mem_calloc, mem_realloc, mem_free);
    mem_malloc = [](std::size_t) -> void* { return ++heap_calls, nullptr; };
    mem_calloc = [](std::size_t, std::size_t) -> void* { return ++heap_calls, nullptr; };
    mem_realloc = [](void*, std::size_t) -> void* { return ++heap_calls, nullptr; };
    mem_free = [](void*) { ++heap_calls; };
    const std::size_t footprint = dlmalloc_footprint();
    mem_mlock_acquire(heap::state.mutex);
    os::RuntimeHeap before{}, after{};
    os::runtime_heap(before);
    char* const text = KXMBasCallStack::ExceptionCallStack(nullptr, 20);
    os::runtime_heap(after);
    mem_mlock_release(heap::state.mutex);
    std::tie(mem_malloc, mem_calloc, mem_realloc, mem_free) = real;
    KXMBasAlloc_finalize(status);

    EXPECT_TRUE(taken(text));
    EXPECT_EQ(heap_calls, 0);
    EXPECT_EQ(dlmalloc_footprint(), footprint);
    if (after.used != 0) { // a checker's runtime tells nothing
        EXPECT_GE(after.used - before.used, 2000U);
        EXPECT_LE(after.used - before.used, 2064U);
    }
}

} // namespace
