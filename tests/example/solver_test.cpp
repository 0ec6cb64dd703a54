// Conjugate gradients against a dense solution by elimination, and where they must give up.
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

// Gauss elimination with pivoting on the matrix, column by column from unit vectors.
Vector<double> dense_solution(const Problem& problem) {
    const std::size_t n = problem.right.size();
    std::vector<Vector<double>> a(n, Vector<double>(n + 1));
    Vector<double> unit(n, 0.0), column(n);
    for (std::size_t j = 0; j < n; ++j) {
        unit[j] = 1;
        problem.matrix.multiply(unit, column);
        unit[j] = 0;
        for (std::size_t i = 0; i < n; ++i)
            a[i][j] = column[i];
        a[j][n] = problem.right[j];
    }
    for (std::size_t k = 0; k < n; ++k) {
        for (std::size_t i = k + 1; i < n; ++i)
            if (std::abs(a[i][k]) > std::abs(a[k][k]))
                std::swap(a[i], a[k]);
        for (std::size_t i = k + 1; i < n; ++i)
            for (std::size_t j = n + 1; j-- > k;)
                a[i][j] -= a[i][k] / a[k][k] * a[k][j];
    }
    Vector<double> x(n);
    for (std::size_t i = n; i-- > 0;) {
        x[i] = a[i][n];
        for (std::size_t j = i + 1; j < n; ++j)
            x[i] -= a[i][j] * x[j];
        x[i] /= a[i][i];
    }
    return x;
}

SolverResult run(const Problem& problem, const SolverSettings& settings, Vector<double>& x) {
    return solve(problem.matrix, problem.positions, problem.right, x, settings,
                 [](std::int64_t, double) {});
}

TEST(Solver, AgreesWithADenseSolution) {
    const Problem problem;
    const Vector<double> exact = dense_solution(problem);
    for (const Preconditioner kind : {Preconditioner::jacobi, Preconditioner::two_level}) {
        Vector<double> x;
        const SolverResult result = run(problem, {kind, 1e-12, 2000}, x);
        EXPECT_TRUE(result.converged);
        EXPECT_GT(result.iterations, 0);
        EXPECT_LE(result.residual, 2e-12);
        for (std::size_t i = 0; i < x.size(); ++i)
            ASSERT_NEAR(x[i], exact[i], 1e-10 * std::abs(exact.back()) + 1e-13);
    }
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

TEST(Solver, NoForceGivesNoDisplacement) {
    Problem problem;
    problem.right.assign(problem.right.size(), 0.0);
    Vector<double> x;
    const SolverResult result = run(problem, SolverSettings{}, x);
    EXPECT_TRUE(result.converged);
    EXPECT_EQ(std::count(x.begin(), x.end(), 0.0), static_cast<std::ptrdiff_t>(x.size()));
}

} // namespace
