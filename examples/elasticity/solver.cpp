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

// Boxes of a regular grid over the nodes, near to cubes, and each node's arm from its box's middle.
struct Boxes {
    std::int32_t count = 0;
    Vector<std::int32_t> of_row;
    Vector<double> arm;

    explicit Boxes(const Vector<Point>& positions) : of_row(positions.size()) {
        lay_grid(positions);
        measure_arms(positions);
    }

private:
    void lay_grid(const Vector<Point>& positions);
    void measure_arms(const Vector<Point>& positions);
};

void Boxes::lay_grid(const Vector<Point>& positions) {
    const Box around = bounding_box(positions);
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
    Vector<std::int32_t> number(index(cells[0]) * index(cells[1]) * index(cells[2]), -1);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const Point& p = positions[i];
        const std::int32_t place =
            (cell(p.x - around.low.x, 0) * cells[1] + cell(p.y - around.low.y, 1)) * cells[2] +
            cell(p.z - around.low.z, 2);
        std::int32_t& box = number[index(place)];
        // Grid cells without nodes get no number.
        if (box < 0)
            box = count++;
        of_row[i] = box;
    }
}

void Boxes::measure_arms(const Vector<Point>& positions) {
    Vector<Point> middle(index(count), Point{0, 0, 0});
    Vector<double> members(index(count), 0.0);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        Point& m = middle[index(of_row[i])];
        m = {m.x + positions[i].x, m.y + positions[i].y, m.z + positions[i].z};
        members[index(of_row[i])] += 1;
    }
    arm.reserve(3 * positions.size());
    for (std::size_t i = 0; i < positions.size(); ++i) {
        const Point& m = middle[index(of_row[i])];
        const double n = members[index(of_row[i])];
        const Point& p = positions[i];
        arm.insert(arm.end(), {p.x - m.x / n, p.y - m.y / n, p.z - m.z / n});
    }
}

class Preconditioning {
public:
    Preconditioning(const SparseMatrix& matrix, const Vector<Point>& positions,
                    Preconditioner kind);
    bool usable() const { return usable_; }
    std::int32_t boxes() const { return coarse_.empty() ? 0 : boxes_.count; }
    void apply(const Vector<double>& r, Vector<double>& z) const;

private:
    std::int32_t rows_;
    bool usable_;
    Vector<double> inverse_;
    Boxes boxes_;
    Vector<double> coarse_;
};

Preconditioning::Preconditioning(const SparseMatrix& matrix, const Vector<Point>& positions,
                                 Preconditioner kind)
    : rows_(matrix.rows), inverse_(9 * index(matrix.rows)), boxes_(positions) {
    std::int32_t failed = 0;
    block_diagonal_inverse(rows_, matrix.start.data(), matrix.column.data(), matrix.value.data(),
                           inverse_.data(), &failed);
    usable_ = failed == 0;
    if (kind == Preconditioner::jacobi || !usable_)
        return;
    const std::size_t size = 6 * index(boxes_.count);
    coarse_.resize(size * size);
    coarse_project(rows_, matrix.start.data(), matrix.column.data(), matrix.value.data(),
                   boxes_.of_row.data(), boxes_.arm.data(), boxes_.count, coarse_.data());
    coarse_factor(6 * boxes_.count, coarse_.data());
}

void Preconditioning::apply(const Vector<double>& r, Vector<double>& z) const {
    block_diagonal_apply(rows_, inverse_.data(), r.data(), z.data());
    if (coarse_.empty())
        return;
    int failed = 0;
    coarse_apply(rows_, boxes_.of_row.data(), boxes_.arm.data(), boxes_.count, coarse_.data(),
                 r.data(), z.data(), &failed);
    if (failed != 0)
        throw std::bad_alloc{};
}

double norm(const Vector<double>& x) {
    return std::sqrt(vector_dot(static_cast<std::int64_t>(x.size()), x.data(), x.data()));
}

double true_residual(const SparseMatrix& matrix, const Vector<double>& right,
                     const Vector<double>& x, Vector<double>& work) {
    matrix.multiply(x, work);
    vector_xpby(matrix.unknowns(), right.data(), -1.0, work.data());
    return norm(work);
}

// One run of the iteration from the present solution: x and its residual r are carried along until
// the residual meets the tolerance, the iterations are used up, or the numbers break down.
void iterate(const SparseMatrix& matrix, const Preconditioning& preconditioning, Vector<double>& x,
             Vector<double>& r, double scale, const SolverSettings& settings,
             const SolverProgress& progress, SolverResult& result) {
    const std::int64_t n = matrix.unknowns();
    Vector<double> z(r.size()), p(r.size(), 0.0), q(r.size());
    double rho = 1;
    bool first = true;
    while (result.iterations < settings.iterations) {
        preconditioning.apply(r, z);
        const double rho_before = rho;
        rho = vector_dot(n, r.data(), z.data());
        vector_xpby(n, z.data(), first ? 0.0 : rho / rho_before, p.data());
        first = false;
        matrix.multiply(p, q);
        const double curvature = vector_dot(n, p.data(), q.data());
        // Also false for a value that is not a number.
        if (!(curvature > 0 && rho > 0))
            return;
        vector_axpy(n, rho / curvature, p.data(), x.data());
        vector_axpy(n, -rho / curvature, q.data(), r.data());
        ++result.iterations;
        const double residual = norm(r) / scale;
        progress(result.iterations, residual);
        if (residual <= settings.tolerance)
            return;
    }
}

} // namespace

SolverResult solve(const SparseMatrix& matrix, const Vector<Point>& positions,
                   const Vector<double>& right, Vector<double>& x, const SolverSettings& settings,
                   const SolverProgress& progress) {
    SolverResult result;
    x.assign(right.size(), 0.0);
    const double scale = norm(right);
    result.converged = scale == 0;
    if (result.converged)
        return result;
    const Preconditioning preconditioning(matrix, positions, settings.preconditioner);
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
        iterate(matrix, preconditioning, x, r, scale, settings, progress, result);
        result.residual = true_residual(matrix, right, x, r) / scale;
        result.converged = result.residual <= settings.tolerance;
    } while (!result.converged && result.iterations < settings.iterations &&
             result.residual < before / 2);
    return result;
}

} // namespace elasticity
