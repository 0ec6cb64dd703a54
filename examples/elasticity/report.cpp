// The three forms of the report.
#include "report.h"

#include "backend.h"
#include "container_memory.h"
#include "input_error.h"
#include "output_file.h"
#include "rescue.h"

#include <KXMBasMem.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <limits>

namespace elasticity {

namespace {

constexpr double mebibyte = 1048576.0;

double mib(double bytes) {
    return bytes / mebibyte;
}

void print_mesh(const JobReport& report) {
    std::printf("mesh             %zu nodes, %zu tetrahedra of %d nodes\n", report.nodes,
                report.elements, report.nodes_per_element);
    std::printf("system           %" PRId64 " unknowns, %" PRId64 " nonzeros\n", report.unknowns,
                report.nonzeros);
    std::printf("solver           %s after %" PRId64 " iterations, relative residual %.2e\n",
                report.solver.converged ? "converged" : "NOT CONVERGED", report.solver.iterations,
                report.solver.residual);
}

void print_solution(const Options& options, const JobReport& report) {
    if (!report.solver.converged)
        return;
    std::printf("displacement     %.6e m at most\n", report.displacement);
    std::printf("von Mises stress %.6e Pa at most\n", report.stress);
    std::printf("deflection       %.6e m, mean of the loaded face along the load\n",
                report.deflection);
    if (!report.known.applies) {
        std::printf("beam theory      not compared: %s\n", report.known.reason);
        return;
    }
    std::printf("beam theory      %.6e m\n", report.known.deflection);
    std::printf("difference       %+.3f %%, tolerance %.3f %%: %s\n", 100 * report.difference,
                100 * options.check_tolerance, report.within_tolerance ? "passed" : "FAILED");
    if (!report.within_tolerance && report.nodes_per_element == 4)
        std::printf("                 (first-order tetrahedra are too stiff in bending unless the "
                    "mesh is very fine)\n");
}

void print_steps(const JobReport& report) {
    std::printf("\nstep          time s   footprint MiB\n");
    double total = 0;
    for (const Step& step : report.steps) {
        std::printf("%-10s %9.3f %15.1f\n", step.name, step.seconds,
                    static_cast<double>(step.footprint_kib) / 1024);
        total += step.seconds;
    }
    std::printf("%-10s %9.3f\n", "total", total);
}

void print_ranks(const JobReport& report) {
    if (report.ranks.empty())
        return;
    std::printf("\nrank     unknowns   tetrahedra   held at most MiB   footprint at most MiB\n");
    for (std::size_t rank = 0; rank < report.ranks.size(); ++rank) {
        const RankFigures& figures = report.ranks[rank];
        std::printf("%-4zu %12" PRId64 " %12" PRId64 " %18.1f %23.1f\n", rank, figures.unknowns,
                    figures.elements, mib(static_cast<double>(figures.peak_bytes)),
                    mib(static_cast<double>(figures.max_footprint)));
    }
}

void print_pools() {
    if (!pools_count()) {
        std::puts(
            "\npools            not told: a pool reads a block's size from the heap's word in "
            "front "
            "of it,\n                 which those of other back ends and of the tiny block pool "
            "do not have");
        return;
    }
    std::printf("\npool                 number    present bytes       peak bytes\n");
    for (const PoolFigures& pool : pool_figures())
        std::printf("%-20s %6d %16zu %16zu\n", pool.name, pool.number, pool.present, pool.peak);
}

void print_memory(const Options& options, bool several) {
    const MemoryFigures figures = memory_figures();
    std::printf("\nmemory%s, back end %s\n", several ? " of rank 0" : "", present_backend());
    std::printf("  requests of this program  %12" PRIu64 "\n", figures.requests);
    std::printf("  of at most 128 bytes      %12" PRIu64 "%s\n", figures.small_requests,
                options.tiny_pool ? ", from the tiny block pool" : "");
    std::printf("  asked for in all          %12.1f MiB\n",
                mib(static_cast<double>(figures.bytes_asked)));
    std::printf("  held at most at once      %12.1f MiB\n",
                mib(static_cast<double>(figures.peak_bytes)));
    std::printf("  footprint now             %12.1f MiB\n",
                static_cast<double>(mem_Footprint()) / 1024);
    std::printf("  footprint at most         %12.1f MiB\n",
                mib(static_cast<double>(mem_MaxFootprint())));
    if (rescues() != 0)
        std::printf("  refusals survived         %12d\n", rescues());
    print_pools();
}

class JsonObject {
public:
    explicit JsonObject(OutputFile& file) : file_(file) { file_.write({"{"}); }
    void finish() { file_.write({"\n}\n"}); }

    void text(std::string_view name, std::string_view value) {
        key(name);
        file_.write({"\"", value, "\""});
    }
    void truth(std::string_view name, bool value) {
        key(name);
        file_.write({value ? "true" : "false"});
    }
    template <class T> void number(std::string_view name, T value) {
        key(name);
        // JSON has no infinities.
        if (std::isfinite(static_cast<double>(value)))
            file_.write({Number(value)});
        else
            file_.write({"null"});
    }

private:
    void key(std::string_view name) {
        file_.write({first_ ? "\n  \"" : ",\n  \"", name, "\": "});
        first_ = false;
    }
    OutputFile& file_;
    bool first_ = true;
};

void write_figures(JsonObject& json, const Options& options, const JobReport& report,
                   const std::array<PoolFigures, 3>& pools) {
    json.text("backend", present_backend());
    json.number("nodes", report.nodes);
    json.number("elements", report.elements);
    json.number("nodes_per_element", report.nodes_per_element);
    json.number("unknowns", report.unknowns);
    json.number("nonzeros", report.nonzeros);
    json.truth("converged", report.solver.converged);
    json.number("iterations", report.solver.iterations);
    json.number("residual", report.solver.residual);
    json.number("deflection_m", report.deflection);
    json.number("displacement_max_m", report.displacement);
    json.number("von_mises_max_pa", report.stress);
    json.truth("compared", report.known.applies);
    json.number("known_deflection_m", report.known.deflection);
    json.number("difference", report.difference);
    json.number("check_tolerance", options.check_tolerance);
    json.truth("passed", report.succeeded());
    for (const Step& step : report.steps) {
        String name(step.name);
        json.number(name + "_seconds", step.seconds);
        json.number(name + "_footprint_kib", step.footprint_kib);
    }
    json.number("ranks", std::max<std::size_t>(1, report.ranks.size()));
    std::size_t rank_footprint = mem_MaxFootprint();
    for (const RankFigures& rank : report.ranks)
        rank_footprint = std::max(rank_footprint, rank.max_footprint);
    json.number("largest_rank_footprint_bytes", rank_footprint);
    const MemoryFigures figures = memory_figures();
    json.number("requests", figures.requests);
    json.number("small_requests", figures.small_requests);
    json.truth("tiny_pool", options.tiny_pool);
    json.number("asked_bytes", figures.bytes_asked);
    json.number("peak_held_bytes", figures.peak_bytes);
    json.number("footprint_kib", mem_Footprint());
    json.number("max_footprint_bytes", mem_MaxFootprint());
    json.number("refusals_survived", rescues());
    constexpr double unknown = std::numeric_limits<double>::quiet_NaN();
    for (const PoolFigures& pool : pools) {
        const String name = String("pool_") + pool.name;
        json.number(name + "_bytes", pools_count() ? static_cast<double>(pool.present) : unknown);
        json.number(name + "_peak_bytes", pools_count() ? static_cast<double>(pool.peak) : unknown);
    }
}

} // namespace

void print_report(const Options& options, const JobReport& report) {
    print_mesh(report);
    print_solution(options, report);
    print_steps(report);
    print_ranks(report);
    print_memory(options, !report.ranks.empty());
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw InputError({"standard output cannot be written"});
}

void write_json(const Options& options, const JobReport& report) {
    const std::array<PoolFigures, 3> pools = pool_figures(); // before the file takes a buffer
    OutputFile file(options.json);
    JsonObject json(file);
    write_figures(json, options, report, pools);
    json.finish();
    file.commit();
}

void print_refusal(const char* title, const Refusal& refusal) {
    const char* reason = "the system has no more, or the request is impossible";
    if (refusal.by_budget)
        reason = "it would go above --memory-limit";
    else if (refusal.by_limit())
        reason = "it would go above the library's memory limit";
    char text[640];
    std::snprintf(text, sizeof text,
                  "%s in step \"%s\"\n"
                  "  refused request   %zu bytes: %s\n"
                  "  limit error       %d\n"
                  "  limit             %zu bytes (0: none)\n"
                  "  library footprint %zu KiB, %zu bytes at most\n"
                  "  largest free      %zu bytes in one chunk\n"
                  "  held by this job  %" PRIu64 " bytes, %" PRIu64 " at most\n",
                  title, present_step(), refusal.bytes, reason, refusal.limit_error, refusal.limit,
                  refusal.footprint_kib, refusal.peak_footprint, refusal.largest_free,
                  refusal.live_bytes, memory_figures().peak_bytes);
    std::fputs(text, stderr);
}

void print_out_of_memory() {
    print_refusal("elasticity: out of memory", last_refusal());
    char text[120];
    std::snprintf(text, sizeof text,
                  "  footprint now     %zu KiB: what the job held was given back\n"
                  "  back end          %s\n",
                  mem_Footprint(), present_backend());
    std::fputs(text, stderr);
}

} // namespace elasticity
