// Assembly: numbering, pattern, values, loads; and stress, which runs over the elements likewise.
//
// Elements go to the kernels in batches, so that their numbers stay in the cache between the kernel
// that makes them and the loop that scatters them.
#include "assembly.h"

#include "input_error.h"
#include "kernels.h"

#include <algorithm>
#include <cmath>

namespace elasticity {

namespace {

constexpr std::size_t batch_size = 32;

std::size_t index(std::int32_t i) {
    return static_cast<std::size_t>(i);
}

void refuse_failure(const Mesh& mesh, std::size_t first, int failed) {
    if (failed < 0)
        throw std::bad_alloc{};
    if (failed > 0)
        throw InputError(mesh.file, mesh.element_lines[first + index(failed) - 1],
                         {"tetrahedron is turned inside out by its curved edges"});
}

// Calls body(first, count, coordinates) for batches of elements.
template <class Body> void for_batches(const Mesh& mesh, Body body) {
    const auto nodes = index(mesh.nodes_per_element);
    Vector<double> coordinates(batch_size * nodes * 3);
    for (std::size_t first = 0; first < mesh.element_count(); first += batch_size) {
        const std::size_t count = std::min(batch_size, mesh.element_count() - first);
        for (std::size_t i = 0; i < count * nodes; ++i) {
            const Point& p = mesh.point(first + i / nodes, i % nodes);
            coordinates[3 * i] = p.x;
            coordinates[3 * i + 1] = p.y;
            coordinates[3 * i + 2] = p.z;
        }
        body(first, count, coordinates);
    }
}

// Adds the block of nine numbers to the matrix at the given column of a row.
void add_block(SparseMatrix& matrix, std::int32_t row, std::int32_t column, const double* block) {
    const auto begin = matrix.column.begin() + matrix.start[index(row)];
    const auto end = matrix.column.begin() + matrix.start[index(row) + 1];
    const auto at = std::lower_bound(begin, end, column) - matrix.column.begin();
    double* value = matrix.value.data() + 9 * at;
    for (int i = 0; i < 9; ++i)
        value[i] += block[i];
}

// Shape functions of a triangle of three or six nodes and their derivatives, at (r, s).
struct TriangleShape {
    std::array<double, 6> value{}, by_r{}, by_s{};

    TriangleShape(int nodes, double r, double s) {
        const double t = 1 - r - s;
        if (nodes == 3) {
            value = {t, r, s};
            by_r = {-1, 1, 0};
            by_s = {-1, 0, 1};
            return;
        }
        value = {t * (2 * t - 1), r * (2 * r - 1), s * (2 * s - 1),
                 4 * t * r,       4 * r * s,       4 * s * t};
        by_r = {1 - 4 * t, 4 * r - 1, 0, 4 * (t - r), 4 * s, -4 * s};
        by_s = {1 - 4 * t, 0, 4 * s - 1, -4 * r, 4 * r, 4 * (t - s)};
    }
};

double area_element(const Mesh& mesh, const Face& face, const TriangleShape& shape) {
    Point u{}, v{};
    for (std::size_t i = 0; i < index(mesh.nodes_per_face()); ++i) {
        const Point& p = mesh.nodes[index(face.nodes[i])];
        u = {u.x + shape.by_r[i] * p.x, u.y + shape.by_r[i] * p.y, u.z + shape.by_r[i] * p.z};
        v = {v.x + shape.by_s[i] * p.x, v.y + shape.by_s[i] * p.y, v.z + shape.by_s[i] * p.z};
    }
    return std::hypot(u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x);
}

} // namespace

void SparseMatrix::multiply(const Vector<double>& x, Vector<double>& y) const {
    block_product(rows, start.data(), column.data(), value.data(), x.data(), y.data());
}

Numbering number_unknowns(const Mesh& mesh) {
    Numbering result;
    result.row_of_node.assign(mesh.nodes.size(), 0);
    for (const Face& face : mesh.fixed)
        for (std::size_t i = 0; i < index(mesh.nodes_per_face()); ++i)
            result.row_of_node[index(face.nodes[i])] = -1;
    for (std::size_t node = 0; node < mesh.nodes.size(); ++node) {
        if (result.row_of_node[node] < 0)
            continue;
        result.row_of_node[node] = static_cast<std::int32_t>(result.node_of_row.size());
        result.node_of_row.push_back(static_cast<std::int32_t>(node));
    }
    result.rows = result.node_of_row.size();
    return result;
}

RowLists couple_rows(const Mesh& mesh, const Numbering& numbering) {
    RowLists lists(numbering.rows);
    Vector<std::int32_t> rows;
    for (std::size_t e = 0; e < mesh.element_count(); ++e) {
        rows.clear();
        for (int i = 0; i < mesh.nodes_per_element; ++i) {
            const std::int32_t row = numbering.row_of_node[index(mesh.element(e)[i])];
            if (row >= 0)
                rows.push_back(row);
        }
        std::sort(rows.begin(), rows.end());
        for (const std::int32_t row : rows)
            if (index(row) < numbering.rows)
                lists.add(index(row), rows);
    }
    return lists;
}

SparseMatrix matrix_pattern(RowLists lists) {
    SparseMatrix matrix;
    matrix.rows = static_cast<std::int32_t>(lists.rows());
    matrix.start.reserve(lists.rows() + 1);
    matrix.start.push_back(0);
    matrix.column.reserve(lists.columns());
    for (std::size_t row = 0; row < lists.rows(); ++row) {
        lists.append_row(row, matrix.column);
        matrix.start.push_back(static_cast<std::int64_t>(matrix.column.size()));
    }
    lists.clear(); // before the values ask for far more
    matrix.value.assign(9 * matrix.column.size(), 0.0);
    return matrix;
}

void add_stiffness(const Mesh& mesh, const Numbering& numbering, const Material& material,
                   SparseMatrix& matrix) {
    const auto nodes = index(mesh.nodes_per_element);
    Vector<double> stiffness(batch_size * nodes * nodes * 9);
    for_batches(mesh, [&](std::size_t first, std::size_t count, const Vector<double>& coordinates) {
        int failed = 0;
        elasticity_stiffness(static_cast<int>(count), mesh.nodes_per_element, coordinates.data(),
                             material.lambda(), material.mu(), stiffness.data(), &failed);
        refuse_failure(mesh, first, failed);
        const double* block = stiffness.data();
        for (std::size_t e = 0; e < count; ++e)
            for (std::size_t b = 0; b < nodes; ++b)
                for (std::size_t a = 0; a < nodes; ++a, block += 9) {
                    const std::int32_t* node = mesh.element(first + e);
                    const std::int32_t row = numbering.row_of_node[index(node[a])];
                    const std::int32_t column = numbering.row_of_node[index(node[b])];
                    if (row >= 0 && row < matrix.rows && column >= 0)
                        add_block(matrix, row, column, block);
                }
    });
}

LoadVector load_vector(const Mesh& mesh, const Load& load) {
    constexpr double points[3][2] = {{1 / 6., 1 / 6.}, {2 / 3., 1 / 6.}, {1 / 6., 2 / 3.}};
    LoadVector result{Vector<double>(mesh.nodes.size() * 3, 0.0), 0};
    for (const Face& face : mesh.load)
        for (const auto& [r, s] : points) {
            const TriangleShape shape(mesh.nodes_per_face(), r, s);
            const double area = area_element(mesh, face, shape) / 6;
            result.area += area;
            for (std::size_t i = 0; i < index(mesh.nodes_per_face()); ++i)
                for (std::size_t c = 0; c < 3; ++c)
                    result.force[3 * index(face.nodes[i]) + c] +=
                        area * shape.value[i] * load.direction[c];
        }
    for (double& force : result.force)
        force *= load.force / result.area;
    return result;
}

Vector<double> nodal_stress(const Mesh& mesh, const Material& material,
                            const Vector<double>& displacement) {
    const auto nodes = index(mesh.nodes_per_element);
    Vector<double> local(batch_size * nodes * 3);
    Vector<double> stress(batch_size * nodes * 6);
    Vector<double> total(mesh.nodes.size() * 6, 0.0);
    Vector<double> weight(mesh.nodes.size(), 0.0);
    for_batches(mesh, [&](std::size_t first, std::size_t count, const Vector<double>& coordinates) {
        const std::int32_t* node = mesh.element(first);
        for (std::size_t i = 0; i < count * nodes; ++i)
            std::copy_n(&displacement[3 * index(node[i])], 3, &local[3 * i]);
        int failed = 0;
        elasticity_stress(static_cast<int>(count), mesh.nodes_per_element, coordinates.data(),
                          local.data(), material.lambda(), material.mu(), stress.data(), &failed);
        refuse_failure(mesh, first, failed);
        for (std::size_t i = 0; i < count * nodes; ++i) {
            const std::int32_t* corner = mesh.element(first + i / nodes);
            const double volume =
                six_volumes(mesh.nodes[index(corner[0])], mesh.nodes[index(corner[1])],
                            mesh.nodes[index(corner[2])], mesh.nodes[index(corner[3])]);
            weight[index(node[i])] += volume;
            for (std::size_t c = 0; c < 6; ++c)
                total[6 * index(node[i]) + c] += volume * stress[6 * i + c];
        }
    });
    for (std::size_t i = 0; i < total.size(); ++i)
        total[i] /= weight[i / 6];
    return total;
}

double von_mises(const double* s) {
    const double xy = s[0] - s[1], yz = s[1] - s[2], zx = s[2] - s[0];
    return std::sqrt((xy * xy + yz * yz + zx * zx) / 2 +
                     3 * (s[3] * s[3] + s[4] * s[4] + s[5] * s[5]));
}

} // namespace elasticity
