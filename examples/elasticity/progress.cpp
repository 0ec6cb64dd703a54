// Progress of the solver, told at intervals of time and not of work.
#include "progress.h"

#include "system.h"

#include <cinttypes>
#include <cstdio>

namespace elasticity {

using namespace std::chrono_literals;

Progress::Progress(bool quiet) : quiet_(quiet), terminal_(system::error_stream_is_terminal()) {
    interval_ = terminal_ ? Clock::duration(250ms) : Clock::duration(5s);
}

Progress::~Progress() {
    if (shown_ && terminal_)
        std::fprintf(stderr, "\r%60s\r", "");
}

void Progress::iteration(std::int64_t number, double residual) {
    if (quiet_ || Clock::now() - last_ < interval_)
        return;
    last_ = Clock::now();
    shown_ = true;
    std::fprintf(stderr,
                 terminal_ ? "\rsolving: iteration %" PRId64 ", residual %.2e  "
                           : "solving: iteration %" PRId64 ", residual %.2e\n",
                 number, residual);
}

} // namespace elasticity
