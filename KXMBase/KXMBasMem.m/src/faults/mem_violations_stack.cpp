// Faults of the stack: overruns of a local array into the caller's frame, and a stack so deep that it
// may run into a large block.
//
// The overrun, in bytes from the start of the array a, upward as addresses grow:
//
//     0         80            90   100       112 ...             128, 132
//     | a       | untouched   | x    x       | saved, return     | x, x: the caller's frame
//     <---------- what this function owns ---><-- not written -->
//
// On the reference system the caller's frame begins at 128 at the latest. Where a compiler lays it
// further off, the last two writes go to its first and fifth byte.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "KXMBasMemStackSweep.h"
#include "faults/real_faults.h"
#include "mem_Interface.h"
#include "mem_ProtectionPage.h"
#include "mem_violations.h"

using faults::hidden;
using faults::say;
using faults::shown;

KXM_NO_SANITIZE void mem_stack_overwrite1() {
    struct {
        char a[80];
        char behind[32]; // takes the two writes that are not the caller's
    } local;
    char* const a = hidden(local.a);
    std::printf("       a[0]   is at address 0x%08x\n", shown(a));
    std::printf("       a[80]  is at address 0x%08x\n", shown(a + 80));
    std::printf("       a[90]  is at address 0x%08x\n", shown(a + 90));
    std::printf("       a[100] is at address 0x%08x\n", shown(a + 100));
    const std::ptrdiff_t callers = std::max<std::ptrdiff_t>(128, KXM_CALLERS_FRAME() - a);
    auto* const out_of_bounds = reinterpret_cast<volatile unsigned char*>(a);
    out_of_bounds[90] = 255;
    out_of_bounds[100] = 255;
    out_of_bounds[callers] = 255;
    out_of_bounds[callers + 4] = 255;
}

KXM_NO_SANITIZE void mem_stack_overwrite_frame(int a, int b, int c, int d) {
    // At the end of this frame, where what a callee overruns comes first.
    auto* const i = static_cast<volatile int*>(KXM_STACK_BLOCK(2 * sizeof(int)));
    const volatile int *const arg_a = hidden(&a), *const arg_b = hidden(&b),
                              *const arg_c = hidden(&c), *const arg_d = hidden(&d);
    i[0] = 11;
    i[1] = 22;
    std::printf("   i[0]  is at address 0x%08x\n", shown(&i[0]));
    std::printf("   i[1]  is at address 0x%08x\n", shown(&i[1]));
    std::printf("   arg a is at address 0x%08x\n", shown(arg_a));
    std::printf("   arg d is at address 0x%08x\n", shown(arg_d));
    std::printf("   1) args   before: %d %d %d %d\n", *arg_a, *arg_b, *arg_c, *arg_d);
    std::printf("   1) values before: %d %d\n", i[0], i[1]);
    std::fflush(stdout);
    mem_stack_overwrite1();
    std::printf("   2) values after : %d %d\n", i[0], i[1]);
    std::fflush(stdout);
    std::printf("   1) args   after : %d %d %d %d\n", *arg_a, *arg_b, *arg_c, *arg_d);
    std::fflush(stdout);
}

KXM_NO_SANITIZE void mem_stack_overwrite2() {
    mem_stack_overwrite_frame(1, 2, 3, 4);
}

KXM_NO_SANITIZE void mem_stack_info() {
    const auto top = static_cast<std::uint32_t>(mem_getStackTop());
    const std::uint64_t depth = mem_getStackDepth();
    const float kilobytes = static_cast<float>(depth) / 1024;
    std::printf("%20s: 0x%8x %15s: %8d (%8.1f MB)\n", "Stack top", top, "Stack depth",
                static_cast<int>(depth), static_cast<double>(kilobytes / 1024));
    std::fflush(stdout);
}

namespace {

constexpr std::size_t level_bytes = 1048576;
constexpr int levels = 1200;

int s_levels = 0; // never reset: a second test goes through fewer levels

void print_end_of_block(const char* title, const char* end) {
    std::fputs(title, stdout);
    for (int i = 1; i <= 30; ++i) {
        std::printf("%c ", hidden(end)[-i]);
    }
    std::putchar('\n');
    std::fflush(stdout);
}

void fill_stack_beside(const char* end) {
    mem_stack_fill(levels);
    print_end_of_block("VALUES  AFTER RECURSION: ", end);
}

} // namespace

KXM_NO_SANITIZE void mem_stack_fill(int limit) {
    char level[level_bytes];
    std::memset(hidden(level), 'S', sizeof level);
    if (++s_levels > limit) {
        std::printf("\n   Recursion count %d reached.\n", limit);
        std::fflush(stdout);
        mem_stack_info();
    } else {
        mem_stack_fill(limit);
    }
    faults::decide_by(*hidden(level)); // the level stays until the deepest call has returned
}

KXM_NO_SANITIZE void mem_stack_corruption01() {
    constexpr std::size_t size = 2097152000;
    say(" Test mem_stack_corruption01\n");
    auto* const block = static_cast<char*>(mem_Malloc(size));
    if (block == nullptr) {
        say("    Attempt to allocate 2 GB failed. Memory is not available!\n");
        return;
    }
    char* const end = block + size;
    std::memset(block, 'A', size);
    std::printf("    Allocated 2 GB. start: 0x%08x end: 0x%08x\n", shown(block), shown(end));
    mem_stack_info();
    print_end_of_block("VALUES BEFORE RECURSION: ", end);
    fill_stack_beside(end);
}

KXM_NO_SANITIZE void mem_stack_corruption02() {
    constexpr std::size_t less = 20971520;
    std::size_t size = 2097152000;
    say(" Test mem_stack_corruption02\n");
    char* block = nullptr;
    while ((block = static_cast<char*>(mem_Malloc(size))) == nullptr) {
        say("    Attempt to allocate 2 GB failed. Reducing the request\n");
        size -= less; // below nothing it wraps, and is refused for ever: it never gives up
    }
    char* const end = block + size;
    std::memset(block, 'A', size);
    std::printf(" Allocated %d MB (%d bytes)\n", static_cast<int>(size / 1048576),
                static_cast<int>(size));
    std::printf("   start: 0x%08x\n", shown(block));
    std::printf("     end: 0x%08x\n", shown(end));
    mem_stack_info();
    print_end_of_block("VALUES BEFORE RECURSION: ", end);
    const auto* const page = new mem_ProtectionPage(end - 1048576, 1048576); // announces itself
    fill_stack_beside(end);
    delete page;
}
