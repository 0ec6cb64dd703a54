// Element stiffness and stress against what elasticity demands of any element: rigid motions cost
// no energy, and a uniform strain is met exactly on an irregular mesh (the patch test).
#include "assembly.h"
#include "cube_mesh.h"
#include "kernels.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace elasticity;

namespace {

const Material material{200.0, 0.3};

class Element : public testing::TestWithParam<int> {
protected:
    const Mesh mesh = test::CubeMesh(GetParam()).take();
};

// All nodes free, so that the forces of any displacement can be seen.
SparseMatrix free_stiffness(const Mesh& mesh, Numbering& numbering) {
    Mesh loose = mesh;
    loose.fixed.clear();
    numbering = number_unknowns(loose);
    SparseMatrix matrix = matrix_pattern(couple_rows(loose, numbering));
    add_stiffness(loose, numbering, material, matrix);
    return matrix;
}

Vector<double> field(const Mesh& mesh, const double (&gradient)[3][3]) {
    Vector<double> u;
    for (const Point& p : mesh.nodes)
        for (const auto& row : gradient)
            u.push_back(0.5 + row[0] * p.x + row[1] * p.y + row[2] * p.z);
    return u;
}

double largest(const Vector<double>& values) {
    double result = 0;
    for (const double value : values)
        result = std::max(result, std::abs(value));
    return result;
}

TEST_P(Element, RigidMotionsCostNothingAndTheMatrixIsSymmetric) {
    Numbering numbering;
    const SparseMatrix matrix = free_stiffness(mesh, numbering);
    const double turns[3][3][3] = {{{0, 0, 0}, {0, 0, -1}, {0, 1, 0}},
                                   {{0, 0, 1}, {0, 0, 0}, {-1, 0, 0}},
                                   {{0, -1, 0}, {1, 0, 0}, {0, 0, 0}}};
    Vector<double> force(3 * mesh.nodes.size());
    for (const auto& turn : turns) {
        matrix.multiply(field(mesh, turn), force);
        EXPECT_LT(largest(force), 1e-11 * material.young);
    }
    Vector<double> x, y, ax(force.size()), ay(force.size());
    for (std::size_t i = 0; i < force.size(); ++i) {
        x.push_back(std::sin(static_cast<double>(i)));
        y.push_back(std::cos(static_cast<double>(3 * i)));
    }
    matrix.multiply(x, ax);
    matrix.multiply(y, ay);
    const auto n = static_cast<std::int64_t>(x.size());
    EXPECT_NEAR(vector_dot(n, y.data(), ax.data()), vector_dot(n, x.data(), ay.data()), 1e-9);
    EXPECT_GT(vector_dot(n, x.data(), ax.data()), 0);
}

TEST_P(Element, PassesThePatchTest) {
    const double gradient[3][3] = {{2, 1, -3}, {0.5, -1, 4}, {1, 2, 3}};
    const Vector<double> u = field(mesh, gradient);
    Numbering numbering;
    const SparseMatrix matrix = free_stiffness(mesh, numbering);
    Vector<double> force(u.size());
    matrix.multiply(u, force);
    std::size_t inner = 0;
    for (std::size_t i = 0; i < mesh.nodes.size(); ++i) {
        const Point& p = mesh.nodes[i];
        if (std::min({p.x, p.y, p.z, 1 - p.x, 1 - p.y, 1 - p.z}) < 1e-9)
            continue;
        ++inner;
        for (std::size_t c = 0; c < 3; ++c)
            EXPECT_NEAR(force[3 * i + c], 0, 1e-10);
    }
    EXPECT_GT(inner, 0U);

    // Hooke's law with Young's modulus and Poisson's ratio themselves.
    const double e = material.young, nu = material.poisson;
    const double factor = e / ((1 + nu) * (1 - 2 * nu)), shear = e / (2 * (1 + nu));
    const double exact[6] = {factor * ((1 - nu) * 2 + nu * (-1 + 3)),
                             factor * ((1 - nu) * -1 + nu * (2 + 3)),
                             factor * ((1 - nu) * 3 + nu * (2 - 1)),
                             shear * (1 + 0.5),
                             shear * (4 + 2),
                             shear * (1 - 3)};
    const Vector<double> stress = nodal_stress(mesh, material, u);
    for (std::size_t i = 0; i < stress.size(); ++i)
        EXPECT_NEAR(stress[i], exact[i % 6], 1e-10 * e);
}

TEST_P(Element, TheLoadAddsUpToTheForce) {
    const LoadVector load = load_vector(mesh, {12, {0, 0.6, -0.8}});
    EXPECT_NEAR(load.area, 1, 1e-12);
    double total[3] = {0, 0, 0}, moment = 0;
    for (std::size_t i = 0; i < load.force.size(); ++i)
        total[i % 3] += load.force[i];
    for (std::size_t i = 0; i < mesh.nodes.size(); ++i)
        moment += mesh.nodes[i].y * load.force[3 * i + 2];
    EXPECT_NEAR(total[0], 0, 1e-12);
    EXPECT_NEAR(total[1], 7.2, 1e-12);
    EXPECT_NEAR(total[2], -9.6, 1e-12);
    EXPECT_NEAR(moment, -9.6 / 2, 1e-12);
}

INSTANTIATE_TEST_SUITE_P(Orders, Element, testing::Values(4, 10));

TEST(CurvedElement, TurnedInsideOutIsReportedByNumber) {
    const Mesh mesh = test::CubeMesh(10).take();
    double coordinates[2][10][3];
    for (auto& element : coordinates)
        for (std::size_t i = 0; i < 10; ++i) {
            const Point& p = mesh.nodes[static_cast<std::size_t>(mesh.element(0)[i])];
            element[i][0] = p.x;
            element[i][1] = p.y;
            element[i][2] = p.z;
        }
    for (double& c : coordinates[1][4])
        c += 3;
    Vector<double> stiffness(2 * 900);
    int failed = 0;
    elasticity_stiffness(2, 10, &coordinates[0][0][0], 1, 1, stiffness.data(), &failed);
    EXPECT_EQ(failed, 2);
}

} // namespace
