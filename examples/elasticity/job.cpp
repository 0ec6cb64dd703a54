// The steps of a run, in order, each with its time and footprint.
#include "job.h"

#include "gmsh_reader.h"
#include "input_error.h"
#include "kernels.h"
#include "partition.h"
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
    Mesh mesh = read_gmsh(options.mesh);
    check_mesh(mesh);
    renumber(mesh);
    report.nodes = mesh.nodes.size();
    report.elements = mesh.element_count();
    report.nodes_per_element = mesh.nodes_per_element;
    return mesh;
}

// The body, or this rank's part of it, and what is known of the whole.
struct Model {
    Mesh mesh;
    LoadVector load;
    Numbering numbering;
    Part part;
};

// Whether the load is on a node that can move.
bool moves(const Model& model) {
    const Vector<double>& force = model.load.force;
    return std::any_of(model.numbering.node_of_row.begin(),
                       model.numbering.node_of_row.begin() +
                           static_cast<std::ptrdiff_t>(model.numbering.rows),
                       [&](std::int32_t node) {
                           const auto* const of_node = &force[3 * static_cast<std::size_t>(node)];
                           return of_node[0] != 0 || of_node[1] != 0 || of_node[2] != 0;
                       });
}

Model make_model(const Options& options, JobReport& report, const Team& team) {
    const StepClock clock(report.steps[step_read]);
    Model model;
    model.mesh = read_mesh(options, report);
    Mesh& mesh = model.mesh;
    model.load = load_vector(mesh, options.load);
    if (options.check)
        report.known = known_solution(mesh, options.material, options.load, model.load.area);
    else
        report.known.reason = "not asked for";
    model.numbering = number_unknowns(mesh);
    if (model.numbering.rows == 0)
        throw InputError(mesh.file, 0, {"every node belongs to group \"fixed\": nothing can move"});
    if (options.load.force != 0 && !moves(model))
        throw InputError(mesh.file, 0,
                         {"every loaded node belongs to group \"fixed\" too: nothing is deformed"});
    model.part = team.ranks() == 1 ? whole(mesh) : cut_out(mesh, model.numbering, model.load, team);
    if (options.cache_pool) {
        mesh.records = std::make_shared<Records>(mesh);
        if (!options.quiet)
            mesh.records->print();
    }
    return model;
}

struct LinearSystem {
    SparseMatrix matrix;
    Vector<double> right;
    Vector<Point> positions; // of the columns, the rows first
};

RowLists couple(const Model& model, JobReport& report) {
    const StepClock clock(report.steps[step_couple]);
    return couple_rows(model.mesh, model.numbering);
}

LinearSystem assemble(const Model& model, const Options& options, JobReport& report, Team& team) {
    LinearSystem system;
    RowLists lists = couple(model, report);
    const StepClock clock(report.steps[step_assemble]);
    system.matrix = matrix_pattern(std::move(lists));
    add_stiffness(model.mesh, model.numbering, options.material, system.matrix);
    for (const std::int32_t node : model.numbering.node_of_row) {
        const auto i = static_cast<std::size_t>(node);
        const double* force = &model.load.force[3 * i];
        if (system.positions.size() < model.numbering.rows)
            system.right.insert(system.right.end(), force, force + 3);
        system.positions.push_back(model.mesh.nodes[i]);
    }
    double figures[] = {static_cast<double>(system.matrix.unknowns()),
                        static_cast<double>(system.matrix.nonzeros())};
    team.sum(figures, 2);
    report.unknowns = static_cast<std::int64_t>(figures[0]);
    report.nonzeros = static_cast<std::int64_t>(figures[1]);
    return system;
}

// Displacements of all nodes here, those of the fixed ones at zero.
Vector<double> solve_system(Model& model, const LinearSystem& system, const Options& options,
                            JobReport& report, Team& team) {
    const StepClock clock(report.steps[step_solve]);
    Vector<double> x;
    Progress progress(options.quiet);
    report.solver = solve(
        system.matrix, system.positions, system.right, x, options.solver,
        [&](std::int64_t iteration, double residual) { progress.iteration(iteration, residual); },
        {team, model.part.rows});
    Vector<double> displacement(3 * model.mesh.nodes.size(), 0.0);
    for (std::size_t row = 0; row < model.numbering.node_of_row.size(); ++row) {
        const auto node = static_cast<std::size_t>(model.numbering.node_of_row[row]);
        std::copy_n(&x[3 * row], 3, &displacement[3 * node]);
    }
    return displacement;
}

// The mean displacement of the loaded face along the load: the load's work, over its force.
double mean_deflection(const Model& model, const Vector<double>& displacement, double force,
                       Team& team) {
    if (force == 0)
        return 0;
    return team.sum(vector_dot(static_cast<std::int64_t>(3 * model.part.own_nodes),
                               model.load.force.data(), displacement.data())) /
           force;
}

void compare(const Model& model, const Options& options, const Vector<double>& displacement,
             JobReport& report, Team& team) {
    report.deflection = mean_deflection(model, displacement, options.load.force, team);
    for (std::size_t i = 0; i < 3 * model.part.own_nodes; i += 3)
        report.displacement =
            std::max(report.displacement,
                     std::hypot(displacement[i], displacement[i + 1], displacement[i + 2]));
    report.displacement = team.largest(report.displacement);
    if (!report.known.applies)
        return;
    const double known = report.known.deflection;
    report.difference = known == 0 ? 0 : (report.deflection - known) / known;
    report.within_tolerance = std::abs(report.difference) <= options.check_tolerance;
}

Vector<double> compute_stress(Model& model, const Options& options,
                              const Vector<double>& displacement, JobReport& report, Team& team) {
    const StepClock clock(report.steps[step_stress]);
    Vector<double> stress = nodal_stress(model.mesh, options.material, displacement);
    team.exchange(model.part.nodes, stress.data(), 6); // a copy's elements are not all here
    for (std::size_t i = 0; i < 6 * model.part.own_nodes; i += 6)
        report.stress = std::max(report.stress, von_mises(&stress[i]));
    report.stress = team.largest(report.stress);
    return stress;
}

// Each rank's figures in its own place, zeros elsewhere: the sum has them all.
void gather_figures(const Model& model, JobReport& report, Team& team) {
    constexpr std::size_t figures = 4;
    Vector<double> all(figures * static_cast<std::size_t>(team.ranks()), 0.0);
    double* const own = &all[figures * static_cast<std::size_t>(team.rank())];
    own[0] = 3 * static_cast<double>(model.numbering.rows);
    own[1] = static_cast<double>(model.mesh.element_count());
    own[2] = static_cast<double>(memory_figures().peak_bytes);
    own[3] = static_cast<double>(mem_MaxFootprint());
    team.sum(all.data(), all.size());
    for (std::size_t i = 0; i < all.size(); i += figures)
        report.ranks.push_back(
            {static_cast<std::int64_t>(all[i]), static_cast<std::int64_t>(all[i + 1]),
             static_cast<std::uint64_t>(all[i + 2]), static_cast<std::size_t>(all[i + 3])});
}

} // namespace

const char* present_step() {
    return step_name;
}

void run_job(const Options& options, JobReport& report, Team& team) {
    Model model = make_model(options, report, team);
    // Opened before the long work, so that a name that cannot be written is told at once.
    std::optional<ResultFile> output;
    if (!options.output.empty())
        output.emplace(options.output, team);

    Vector<double> displacement;
    {
        const LinearSystem system = assemble(model, options, report, team);
        displacement = solve_system(model, system, options, report, team);
    }
    if (report.solver.converged) {
        compare(model, options, displacement, report, team);
        const Vector<double> stress = compute_stress(model, options, displacement, report, team);
        const StepClock clock(report.steps[step_write]);
        if (output)
            output->write(model.mesh, model.part.own_element, displacement, stress);
    }
    if (team.ranks() > 1)
        gather_figures(model, report, team);
}

} // namespace elasticity
