// Preconditioned conjugate gradients for the stiffness matrix.
#pragma once

#include "mesh.h"
#include "sparse_matrix.h"
#include "team.h"

#include <functional>

namespace elasticity {

enum class Preconditioner {
    jacobi,    // the inverted 3x3 blocks of the diagonal
    two_level, // and a coarse correction by rigid motions of boxes of nodes
};

struct SolverSettings {
    Preconditioner preconditioner = Preconditioner::two_level;
    double tolerance = 1e-8;         // of the residual, relative to the right-hand side
    std::int64_t iterations = 10000; // at most
};

struct SolverResult {
    bool converged = false;
    std::int64_t iterations = 0;
    double residual = 0;    // relative, computed anew from the solution
    std::int32_t boxes = 0; // of the coarse correction
};

/// Called after each iteration with its number and the relative residual.
using SolverProgress = std::function<void(std::int64_t, double)>;

/// Who else solves, and what this process needs of them.
struct Others {
    Team& team;
    Halo& rows;
};

/// Solves matrix * x = right from x = 0. `positions` are those of the matrix's columns, its rows first;
/// x is as long, with the others' rows renewed. A matrix that is not positive definite ends the
/// iteration without convergence.
SolverResult solve(const SparseMatrix& matrix, const Vector<Point>& positions,
                   const Vector<double>& right, Vector<double>& x, const SolverSettings& settings,
                   const SolverProgress& progress, const Others& others);
/// The same in one process.
SolverResult solve(const SparseMatrix& matrix, const Vector<Point>& positions,
                   const Vector<double>& right, Vector<double>& x, const SolverSettings& settings,
                   const SolverProgress& progress);

} // namespace elasticity
