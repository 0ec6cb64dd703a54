// The iteration, and the two preconditioners it may use.
#include "solver.h"

#include "kernels.h"

#include <algorithm>
#include <cmath>

namespace elasticity {

namespace {

// The dense coarse matrix has six rows for each box: its factor costs little up to here.
constexpr double wanted_boxes = 64;

std::size_t index(std::int32_t i) {
    return static_cast<std::size_t>(i);
}

// Boxes of a regular grid over the nodes of all processes, near to cubes, and each node's arm from its
// box's middle. Own rows come first; the rest are other processes'.
struct Boxes {
    std::int32_t count = 0;
    Vector<std::int32_t> of_row;
    Vector<double> arm;

    Boxes(const Vector<Point>& positions, std::size_t own, Team& team) : of_row(positions.size()) {
        lay_grid(positions, team);
        measure_arms(positions, own, team);
    }

private:
    void lay_grid(const Vector<Point>& positions, Team& team);
    void measure_arms(const Vector<Point>& positions, std::size_t own, Team& team);
};

Box box_of_all(const Vector<Point>& positions, Team& team) {
    const Box own = bounding_box(positions);
    double ends[] = {-own.low.x, -own.low.y, -own.low.z, own.high.x, own.high.y, own.high.z};
    team.largest(ends, 6);
    return {{-ends[0], -ends[1], -ends[2]}, {ends[3], ends[4], ends[5]}};
}

void Boxes::lay_grid(const Vector<Point>& positions, Team& team) {
    const Box around = box_of_all(positions, team);
    std::array<double, 3> lengths = around.lengths();
    double longest = *std::max_element(lengths.begin(), lengths.end());
    // A single node has no extent.
    if (longest == 0)
        longest = 1;
    double volume = 1; // in terms of the longest side, whose cube may be too small for a number
    for (double& length : lengths) {
        length = std::max(length, longest / wanted_boxes);
        volume *= length / longest;
    }
    const double side = longest * std::cbrt(volume / wanted_boxes);
    std::array<std::int32_t, 3> cells{};
    std::transform(lengths.begin(), lengths.end(), cells.begin(), [&](double length) {
        return std::max(1, static_cast<std::int32_t>(std::lround(length / side)));
    });
    const auto cell = [&](double from_low, std::size_t axis) {
        const double place = from_low / lengths[axis] * cells[axis];
        return std::clamp(static_cast<std::int32_t>(place), 0, cells[axis] - 1);
    };
    Vector<double> used(index(cells[0]) * index(cells[1]) * index(cells[2]), 0.0);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const Point& p = positions[i];
        of_row[i] =
            (cell(p.x - around.low.x, 0) * cells[1] + cell(p.y - around.low.y, 1)) * cells[2] +
            cell(p.z - around.low.z, 2);
        used[index(of_row[i])] = 1;
    }
    team.largest(used.data(), used.size());
    // Grid cells without nodes get no number.
    Vector<std::int32_t> number;
    for (const double nodes : used)
        number.push_back(nodes > 0 ? count++ : -1);
    for (std::int32_t& box : of_row)
        box = number[index(box)];
}

void Boxes::measure_arms(const Vector<Point>& positions, std::size_t own, Team& team) {
    // Sums of the coordinates and the number of the nodes of each box.
    Vector<double> sums(4 * index(count), 0.0);
    for (std::size_t i = 0; i < own; ++i) {
        double* const box = &sums[4 * index(of_row[i])];
        box[0] += positions[i].x;
        box[1] += positions[i].y;
        box[2] += positions[i].z;
        box[3] += 1;
    }
    team.sum(sums.data(), sums.size());
    arm.reserve(3 * positions.size());
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const double* const box = &sums[4 * index(of_row[i])];
        const Point& p = positions[i];
        arm.insert(arm.end(),
                   {p.x - box[0] / box[3], p.y - box[1] / box[3], p.z - box[2] / box[3]});
    }
}

class Preconditioning {
public:
    Preconditioning(const SparseMatrix& matrix, const Vector<Point>& positions, Preconditioner kind,
                    Team& team);
    bool usable() const { return usable_; }
    std::int32_t boxes() const { return coarse_.empty() ? 0 : boxes_.count; }
    void apply(const Vector<double>& r, Vector<double>& z) const;

private:
    Team& team_;
    std::int32_t rows_;
    bool usable_;
    Vector<double> inverse_;
    Boxes boxes_;
    Vector<double> coarse_;
};

Preconditioning::Preconditioning(const SparseMatrix& matrix, const Vector<Point>& positions,
                                 Preconditioner kind, Team& team)
    : team_(team), rows_(matrix.rows), inverse_(9 * index(matrix.rows)),
      boxes_(positions, index(matrix.rows), team) {
    std::int32_t failed = 0;
    block_diagonal_inverse(rows_, matrix.start.data(), matrix.column.data(), matrix.value.data(),
                           inverse_.data(), &failed);
    usable_ = team.largest(failed == 0 ? 0.0 : 1.0) == 0;
    if (kind == Preconditioner::jacobi || !usable_)
        return;
    const std::size_t size = 6 * index(boxes_.count);
    coarse_.resize(size * size);
    coarse_project(rows_, matrix.start.data(), matrix.column.data(), matrix.value.data(),
                   boxes_.of_row.data(), boxes_.arm.data(), boxes_.count, coarse_.data());
    team.sum(coarse_.data(), coarse_.size());
    coarse_factor(6 * boxes_.count, coarse_.data());
}

void Preconditioning::apply(const Vector<double>& r, Vector<double>& z) const {
    block_diagonal_apply(rows_, inverse_.data(), r.data(), z.data());
    if (coarse_.empty())
        return;
    const Combine combine = [](double* values, std::int32_t count, void* team) {
        static_cast<Team*>(team)->sum(values, index(count));
    };
    int failed = 0;
    coarse_apply(rows_, boxes_.of_row.data(), boxes_.arm.data(), boxes_.count, coarse_.data(),
                 r.data(), z.data(), combine, &team_, &failed);
    if (failed != 0)
        throw std::bad_alloc{};
}

// Over this process's own rows, which are the first, and those of all others.
double dot(const Vector<double>& x, const Vector<double>& y, std::int64_t own, Team& team) {
    return team.sum(vector_dot(own, x.data(), y.data()));
}

double norm(const Vector<double>& r, Team& team) {
    return std::sqrt(dot(r, r, static_cast<std::int64_t>(r.size()), team));
}

// y = A x, once the others' part of x is here.
void multiply(const SparseMatrix& matrix, Vector<double>& x, Vector<double>& y,
              const Others& others) {
    others.team.exchange(others.rows, x.data(), 3);
    matrix.multiply(x, y);
}

double true_residual(const SparseMatrix& matrix, const Vector<double>& right, Vector<double>& x,
                     Vector<double>& work, const Others& others) {
    multiply(matrix, x, work, others);
    vector_xpby(matrix.unknowns(), right.data(), -1.0, work.data());
    return norm(work, others.team);
}

// One run of the iteration from the present solution: x and its residual r are carried along until
// the residual meets the tolerance, the iterations are used up, or the numbers break down.
void iterate(const SparseMatrix& matrix, const Preconditioning& preconditioning, Vector<double>& x,
             Vector<double>& r, double scale, const SolverSettings& settings,
             const SolverProgress& progress, const Others& others, SolverResult& result) {
    const std::int64_t n = matrix.unknowns();
    Vector<double> z(r.size()), p(x.size(), 0.0), q(r.size());
    double rho = 1;
    bool first = true;
    while (result.iterations < settings.iterations) {
        preconditioning.apply(r, z);
        const double rho_before = rho;
        rho = dot(r, z, n, others.team);
        vector_xpby(n, z.data(), first ? 0.0 : rho / rho_before, p.data());
        first = false;
        multiply(matrix, p, q, others);
        const double curvature = dot(p, q, n, others.team);
        // Also false for a value that is not a number.
        if (!(curvature > 0 && rho > 0))
            return;
        vector_axpy(n, rho / curvature, p.data(), x.data());
        vector_axpy(n, -rho / curvature, q.data(), r.data());
        ++result.iterations;
        const double residual = norm(r, others.team) / scale;
        progress(result.iterations, residual);
        if (residual <= settings.tolerance)
            return;
    }
}

} // namespace

SolverResult solve(const SparseMatrix& matrix, const Vector<Point>& positions,
                   const Vector<double>& right, Vector<double>& x, const SolverSettings& settings,
                   const SolverProgress& progress, const Others& others) {
    SolverResult result;
    x.assign(3 * positions.size(), 0.0);
    const double scale = norm(right, others.team);
    result.converged = scale == 0;
    if (result.converged)
        return result;
    const Preconditioning preconditioning(matrix, positions, settings.preconditioner, others.team);
    result.boxes = preconditioning.boxes();
    result.residual = 1;
    if (!preconditioning.usable())
        return result;
    // The residual that the iteration carries along drifts from the true one by rounding, much so
    // for nearly incompressible bodies: it starts again from the true one as long as that gains
    // something.
    Vector<double> r(right);
    double before = 0;
    do {
        before = result.residual;
        iterate(matrix, preconditioning, x, r, scale, settings, progress, others, result);
        result.residual = true_residual(matrix, right, x, r, others) / scale;
        result.converged = result.residual <= settings.tolerance;
    } while (!result.converged && result.iterations < settings.iterations &&
             result.residual < before / 2);
    return result;
}

SolverResult solve(const SparseMatrix& matrix, const Vector<Point>& positions,
                   const Vector<double>& right, Vector<double>& x, const SolverSettings& settings,
                   const SolverProgress& progress) {
    Halo nobody;
    return solve(matrix, positions, right, x, settings, progress, {alone(), nobody});
}

} // namespace elasticity
