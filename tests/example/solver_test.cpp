// Where conjugate gradients must give up; that they are right is for the job to show, beside theory.
#include "assembly.h"
#include "cube_mesh.h"
#include "solver.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace elasticity;

namespace {

struct Problem {
    SparseMatrix matrix;
    Vector<Point> positions;
    Vector<double> right;

    Problem() {
        const Mesh mesh = test::CubeMesh(10).take();
        const Numbering numbering = number_unknowns(mesh);
        const Material material{1000, 0.25};
        matrix = matrix_pattern(couple_rows(mesh, numbering));
        add_stiffness(mesh, numbering, material, matrix);
        const LoadVector load = load_vector(mesh, {1, {0, 0, -1}});
        for (const std::int32_t node : numbering.node_of_row) {
            const auto i = static_cast<std::size_t>(node);
            positions.push_back(mesh.nodes[i]);
            right.insert(right.end(), &load.force[3 * i], &load.force[3 * i] + 3);
        }
    }
};

SolverResult run(const Problem& problem, const SolverSettings& settings, Vector<double>& x) {
    return solve(problem.matrix, problem.positions, problem.right, x, settings,
                 [](std::int64_t, double) {});
}

TEST(Solver, DoesNotClaimConvergence) {
    Vector<double> x;
    Problem problem;
    const SolverResult few = run(problem, {Preconditioner::two_level, 1e-12, 3}, x);
    EXPECT_FALSE(few.converged);
    EXPECT_EQ(few.iterations, 3);
    for (double& value : problem.matrix.value)
        value = -value;
    EXPECT_FALSE(run(problem, {Preconditioner::two_level, 1e-8, 100}, x).converged);
    problem.matrix.value.assign(problem.matrix.value.size(), std::nan(""));
    EXPECT_FALSE(run(problem, {Preconditioner::two_level, 1e-8, 100}, x).converged);
}

} // namespace
