// The program behind main: options, back end, limit, job, report, and the exit status of it all.
#pragma once

#include "team.h"

namespace elasticity {

/// Exit statuses. 3 is left out: it is what an abort ends with on Windows.
enum Status { done = 0, failed = 1, wrong_input = 2, out_of_memory = 4 };

/// Joins the team that the process is one of.
using JoinTeam = Team& (*)(int argc, char** argv);

int run_program(int argc, char** argv, JoinTeam join = nullptr);

} // namespace elasticity
