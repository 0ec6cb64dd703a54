// One computation from mesh file to result file.
#pragma once

#include "known_solution.h"
#include "options.h"
#include "team.h"

#include <cstdint>

namespace elasticity {

struct Step {
    const char* name;
    double seconds = 0;
    std::size_t footprint_kib = 0; // of the process at its end, as the library tells
};

enum StepNumber {
    step_read,
    step_couple,
    step_assemble,
    step_solve,
    step_stress,
    step_write,
    step_count
};

/// What one of several processes had to do and to hold.
struct RankFigures {
    std::int64_t unknowns = 0;
    std::int64_t elements = 0; // those on a border are two ranks'
    std::uint64_t peak_bytes = 0;
    std::size_t max_footprint = 0; // bytes
};

/// Everything that is told of a run; of several ranks together, but for steps.
struct JobReport {
    Step steps[step_count] = {{"read"}, {"couple"}, {"assemble"}, {"solve"}, {"stress"}, {"write"}};
    std::size_t nodes = 0;
    std::size_t elements = 0;
    int nodes_per_element = 0;
    std::int64_t unknowns = 0;
    std::int64_t nonzeros = 0;
    SolverResult solver;
    double deflection = 0;   // m, mean over the loaded face along the load
    double displacement = 0; // m, largest of any node
    double stress = 0;       // Pa, largest von Mises
    KnownSolution known;
    double difference = 0; // relative, of deflection and known.deflection
    bool within_tolerance = true;
    Vector<RankFigures> ranks{}; // when there are several, gathered at the end

    bool succeeded() const { return solver.converged && within_tolerance; }
};

/// Runs this rank's share of the job and fills `report` as it goes, so that what is known stays known when it throws:
/// InputError for wrong input or an output that cannot be written, std::bad_alloc when memory is
/// refused. Results are written only if the solver converged.
void run_job(const Options& options, JobReport& report, Team& team = alone());

/// Name of the step that is running, or ran last.
const char* present_step();

} // namespace elasticity
