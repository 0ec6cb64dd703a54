// The program behind main: options, back end, limit, job, report, and the exit status of it all.
#pragma once

namespace elasticity {

/// Exit statuses. 3 is left out: it is what an abort ends with on Windows.
enum Status { done = 0, failed = 1, wrong_input = 2, out_of_memory = 4 };

int run_program(int argc, char** argv);

} // namespace elasticity
