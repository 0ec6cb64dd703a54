// Started by a test with tracking on: runs the job, keeps some blocks, and prints what it holds then by its
// own count, in C++ and Fortran alike.
#include "job.h"
#include "tracking.h"

#include <cinttypes>
#include <cstdio>

using namespace elasticity;

int main(int, char** argv) {
    Vector<Vector<double>> kept;
    Options options;
    options.mesh = argv[1];
    options.quiet = true;
    start_tracking(argv[2], true);
    const MemoryFigures before =
        memory_figures(); // made under tracking too, but for the name's phase
    {
        const Phase phase("kept");
        for (std::size_t i = 1; i < 40; ++i)
            kept.emplace_back(i * 50);
    }
    JobReport report;
    run_job(options, report);
    const MemoryFigures after = memory_figures();
    end_tracking();
    std::printf("live %" PRIu64 "\npeak %" PRIu64 "\nrequests %" PRIu64 "\nkept %zu\n",
                after.live_bytes, after.peak_bytes, after.requests, kept.size());
    return report.succeeded() && before.live_bytes <= after.live_bytes ? 0 : 1;
}
