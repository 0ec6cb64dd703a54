// The processes of an MPI job as a team.
#pragma once

#include "team.h"

namespace elasticity {

/// Starts MPI, which Team::end ends.
Team& join_mpi_team(int argc, char** argv);

} // namespace elasticity
