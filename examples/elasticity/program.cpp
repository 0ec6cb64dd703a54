// Turns what can happen into messages and exit statuses.
#include "program.h"

#include "backend.h"
#include "container_memory.h"
#include "deliberate.h"
#include "input_error.h"
#include "report.h"
#include "rescue.h"
#include "tracking.h"

#include <KXMBasMem.h>

#include <cinttypes>
#include <cstdio>
#include <new>

namespace elasticity {

namespace {

Team* team = nullptr; // once it is joined

bool speaks() {
    return team == nullptr || team->rank() == 0;
}

// Where there are several processes, an error tells whose it is.
void print_error(const char* text) {
    if (team == nullptr || team->ranks() == 1)
        std::fprintf(stderr, "elasticity: %s\n", text);
    else
        std::fprintf(stderr, "elasticity: rank %d: %s\n", team->rank(), text);
}

int run_unguarded(int argc, char** argv, JoinTeam join) {
    Options options = parse_options(argc, argv);
    if (options.help)
        print_help();
    if (options.version)
        std::puts("elasticity 1.0");
    if (options.help || options.version)
        return done;
    if (const std::optional<int> status = use_backend(options.backend, argv))
        return *status;
    team = join != nullptr ? &join(argc, argv) : &alone(); // after a start anew
    options.quiet = options.quiet || !speaks();
    if (options.tiny_pool) {
        if (mem_usingDL() == 0)
            throw InputError({"--tiny-pool needs --backend heap"});
        mem_TBAllocator(1);
    }
    start_container_memory(options.tiny_pool, options.leak); // its objects before there is a limit
    if (options.memory_limit != 0 && !set_memory_limit(options.memory_limit))
        throw InputError({"--memory-limit: the memory library does not take this limit"});
    prepare_rescue({options.memory_limit, options.raise_limit, options.reserve});
    start_tracking(options.tracking, options.quiet, *team);
    JobReport report;
    run_job(options, report, *team);
    if (options.leak)
        leave_an_array_behind(report.nodes);
    if (options.uninitialised_read)
        read_what_was_never_written();
    if (!options.json.empty() && speaks())
        write_json(options, report);
    if (!options.quiet)
        print_report(options, report);
    if (!speaks())
        return report.succeeded() ? done : failed;
    if (!report.solver.converged && report.solver.iterations < options.solver.iterations)
        std::fprintf(stderr,
                     "elasticity: the solver did not converge: rounding stops it at a relative "
                     "residual of %.1e, above --tolerance; no result is written\n",
                     report.solver.residual);
    else if (!report.solver.converged)
        std::fprintf(stderr,
                     "elasticity: the solver did not converge in %" PRId64
                     " iterations; no result is written\n",
                     options.solver.iterations);
    else if (!report.within_tolerance)
        std::fprintf(stderr, "elasticity: the deflection differs from beam theory by %.2f %%\n",
                     100 * report.difference);
    return report.succeeded() ? done : failed;
}

int run_caught(int argc, char** argv, JoinTeam join) {
    try {
        return run_unguarded(argc, argv, join);
    } catch (const InputError& error) {
        print_error(error.what());
        return wrong_input;
    } catch (const std::bad_alloc&) {
        if (team != nullptr && team->ranks() > 1)
            print_error("ends the job");
        print_out_of_memory();
        return out_of_memory;
    }
}

} // namespace

int run_program(int argc, char** argv, JoinTeam join) {
    const int status = run_caught(argc, argv, join);
    end_container_memory();
    end_tracking(); // also of a run that was refused memory
    return team != nullptr ? team->end(status) : status;
}

} // namespace elasticity
