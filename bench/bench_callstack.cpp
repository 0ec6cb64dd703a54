// What a capture of 20 frames costs, with files and lines, beside the C library's backtrace with
// symbols, which has neither; and the first capture, which reads the debug information.
#include "KXMBasCallStack.h"
#include "measure.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>

namespace {

volatile int one = 1;

// Called by its own kind 20 deep, so that every frame is another address only in its depth.
__attribute__((noinline)) int deep(int frames, void (*work)(std::size_t), std::size_t count) {
    if (frames > 0) {
        return deep(frames - 1, work, count) + one;
    }
    work(count);
    return one;
}

void capture(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const KXMBasCallStack callstack(20, nullptr);
        bench::escape(callstack.CStr());
        callstack.DeleteCStr(callstack.CStr());
    }
}

void runtime_backtrace(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        void* addresses[20];
        char** const symbols = backtrace_symbols(addresses, backtrace(addresses, 20));
        bench::escape(symbols);
        std::free(symbols);
    }
}

template <void (*Work)(std::size_t)> void at_depth(std::size_t count) {
    deep(25, Work, count);
}

template <void (*Work)(std::size_t)> double once() {
    return bench::nanoseconds(at_depth<Work>, 1) / 1000;
}

} // namespace

int main() {
    const double first = once<capture>(), first_runtime = once<runtime_backtrace>();
    const std::vector<double> ns =
        bench::measure({{"library", at_depth<capture>}, {"runtime", at_depth<runtime_backtrace>}});
    std::puts("A call stack of 20 frames, microseconds (medians; the first one once)\n");
    std::puts("                                   first     after      ratio");
    std::printf("backtrace and backtrace_symbols %8.0f  %8.2f\n", first_runtime, ns[1] / 1000);
    std::printf("this library, with lines        %8.0f  %8.2f   %8.2f\n", first, ns[0] / 1000,
                ns[0] / ns[1]);
    return 0;
}
