// The steps of a run, in order, each with its time and footprint.
#include "job.h"

#include "gmsh_reader.h"
#include "input_error.h"
#include "kernels.h"
#include "progress.h"
#include "tracking.h"
#include "vtk_writer.h"

#include <KXMBasMem.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>
#include <utility>

namespace elasticity {

namespace {

const char* step_name = "start";

// Times a step while it lives, which is a phase of tracked memory. The library's peak is, on most back ends, only as good as the calls
// to it are frequent.
class StepClock {
public:
    explicit StepClock(Step& step) : step_(step), phase_(step.name) { step_name = step.name; }
    StepClock(const StepClock&) = delete;
    StepClock& operator=(const StepClock&) = delete;
    ~StepClock() {
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin_;
        step_.seconds += passed.count();
        step_.footprint_kib = mem_Footprint();
        mem_MaxFootprint();
    }

private:
    Step& step_;
    Phase phase_;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

Mesh read_mesh(const Options& options, JobReport& report) {
    const StepClock clock(report.steps[step_read]);
    Mesh mesh = read_gmsh(options.mesh);
    check_mesh(mesh);
    renumber(mesh);
    if (options.cache_pool) {
        mesh.records = std::make_shared<Records>(mesh);
        if (!options.quiet)
            mesh.records->print();
    }
    report.nodes = mesh.nodes.size();
    report.elements = mesh.element_count();
    report.nodes_per_element = mesh.nodes_per_element;
    return mesh;
}

struct LinearSystem {
    Numbering numbering;
    SparseMatrix matrix;
    Vector<double> right;
    Vector<Point> positions;
};

RowLists couple(const Mesh& mesh, const Numbering& numbering, JobReport& report) {
    const StepClock clock(report.steps[step_couple]);
    return couple_rows(mesh, numbering);
}

LinearSystem assemble(const Mesh& mesh, const Options& options, const LoadVector& load,
                      JobReport& report) {
    LinearSystem system;
    system.numbering = number_unknowns(mesh);
    if (system.numbering.node_of_row.empty())
        throw InputError(mesh.file, 0, {"every node belongs to group \"fixed\": nothing can move"});
    RowLists lists = couple(mesh, system.numbering, report);
    const StepClock clock(report.steps[step_assemble]);
    system.matrix = matrix_pattern(std::move(lists));
    add_stiffness(mesh, system.numbering, options.material, system.matrix);
    for (const std::int32_t node : system.numbering.node_of_row) {
        const auto i = static_cast<std::size_t>(node);
        system.positions.push_back(mesh.nodes[i]);
        system.right.insert(system.right.end(), &load.force[3 * i], &load.force[3 * i] + 3);
    }
    report.unknowns = system.matrix.unknowns();
    report.nonzeros = system.matrix.nonzeros();
    return system;
}

// Displacements of all nodes, those of the fixed ones at zero.
Vector<double> solve_system(const LinearSystem& system, std::size_t nodes, const Options& options,
                            JobReport& report) {
    const StepClock clock(report.steps[step_solve]);
    Vector<double> x;
    Progress progress(options.quiet);
    report.solver = solve(
        system.matrix, system.positions, system.right, x, options.solver,
        [&](std::int64_t iteration, double residual) { progress.iteration(iteration, residual); });
    Vector<double> displacement(3 * nodes, 0.0);
    for (std::size_t row = 0; row < system.numbering.node_of_row.size(); ++row) {
        const auto node = static_cast<std::size_t>(system.numbering.node_of_row[row]);
        std::copy_n(&x[3 * row], 3, &displacement[3 * node]);
    }
    return displacement;
}

// The mean displacement of the loaded face along the load: the load's work, over its force.
double mean_deflection(const LoadVector& load, const Vector<double>& displacement, double force) {
    if (force == 0)
        return 0;
    return vector_dot(static_cast<std::int64_t>(displacement.size()), load.force.data(),
                      displacement.data()) /
           force;
}

void compare(const Mesh& mesh, const Options& options, const LoadVector& load,
             const Vector<double>& displacement, JobReport& report) {
    report.deflection = mean_deflection(load, displacement, options.load.force);
    for (std::size_t i = 0; i < displacement.size(); i += 3)
        report.displacement =
            std::max(report.displacement,
                     std::hypot(displacement[i], displacement[i + 1], displacement[i + 2]));
    if (!options.check) {
        report.known.reason = "not asked for";
        return;
    }
    report.known = known_solution(mesh, options.material, options.load, load.area);
    if (!report.known.applies)
        return;
    const double known = report.known.deflection;
    report.difference = known == 0 ? 0 : (report.deflection - known) / known;
    report.within_tolerance = std::abs(report.difference) <= options.check_tolerance;
}

Vector<double> compute_stress(const Mesh& mesh, const Options& options,
                              const Vector<double>& displacement, JobReport& report) {
    const StepClock clock(report.steps[step_stress]);
    Vector<double> stress = nodal_stress(mesh, options.material, displacement);
    for (std::size_t i = 0; i < stress.size(); i += 6)
        report.stress = std::max(report.stress, von_mises(&stress[i]));
    return stress;
}

} // namespace

const char* present_step() {
    return step_name;
}

void run_job(const Options& options, JobReport& report) {
    const Mesh mesh = read_mesh(options, report);
    // Opened before the long work, so that a name that cannot be written is told at once.
    std::optional<OutputFile> output;
    if (!options.output.empty())
        output.emplace(options.output);

    const LoadVector load = load_vector(mesh, options.load);
    Vector<double> displacement;
    {
        const LinearSystem system = assemble(mesh, options, load, report);
        displacement = solve_system(system, mesh.nodes.size(), options, report);
    }
    if (!report.solver.converged)
        return;
    compare(mesh, options, load, displacement, report);
    const Vector<double> stress = compute_stress(mesh, options, displacement, report);
    const StepClock clock(report.steps[step_write]);
    if (output) {
        write_vtk(*output, mesh, displacement, stress);
        output->commit();
    }
}

} // namespace elasticity
