// Recognises a cantilever beam and computes its deflection.
//
// The comparison takes the mean displacement of the loaded face along the load, which is what the
// load's work measures, and on which the stress concentration at the held end has little effect.
#include "known_solution.h"

#include <algorithm>
#include <cmath>

namespace elasticity {

namespace {

constexpr double same = 1e-6; // relative difference up to which lengths count as equal
constexpr double slender = 5; // length over thickness from which beam theory is good to a percent

double coordinate(const Point& p, std::size_t axis) {
    return axis == 0 ? p.x : axis == 1 ? p.y : p.z;
}

bool lie_at(const Mesh& mesh, const Vector<Face>& faces, std::size_t axis, double place,
            double tolerance) {
    return std::all_of(faces.begin(), faces.end(), [&](const Face& face) {
        return std::all_of(face.nodes.begin(), face.nodes.begin() + mesh.nodes_per_face(),
                           [&](std::int32_t node) {
                               const Point& p = mesh.nodes[static_cast<std::size_t>(node)];
                               return std::abs(coordinate(p, axis) - place) <= tolerance;
                           });
    });
}

bool is_box(const Mesh& mesh, const std::array<double, 3>& lengths) {
    double volume = 0;
    for (std::size_t e = 0; e < mesh.element_count(); ++e) {
        const auto at = [&](int i) {
            return mesh.nodes[static_cast<std::size_t>(mesh.element(e)[i])];
        };
        volume += six_volumes(at(0), at(1), at(2), at(3)) / 6;
    }
    const double full = lengths[0] * lengths[1] * lengths[2];
    return std::abs(volume - full) <= same * full;
}

double flat_area(const Mesh& mesh, const Vector<Face>& faces) {
    double area = 0;
    for (const Face& face : faces) {
        const auto at = [&](std::size_t i) {
            return mesh.nodes[static_cast<std::size_t>(face.nodes[i])];
        };
        const Point a = at(0), b = at(1), c = at(2);
        const Point u{b.x - a.x, b.y - a.y, b.z - a.z}, v{c.x - a.x, c.y - a.y, c.z - a.z};
        area += std::hypot(u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x) / 2;
    }
    return area;
}

// Displacement of the free end along the load: the parts along the axis and across it superpose.
double beam_deflection(const std::array<double, 3>& lengths, std::size_t axis,
                       const Material& material, const Load& load) {
    const double length = lengths[axis];
    const double area = lengths[(axis + 1) % 3] * lengths[(axis + 2) % 3];
    const double shear_factor = 10 * (1 + material.poisson) / (12 + 11 * material.poisson);
    const double shear = length / (shear_factor * material.mu() * area);
    double compliance = 0;
    for (std::size_t c = 0; c < 3; ++c) {
        const double share = load.direction[c] * load.direction[c];
        const double inertia = area * lengths[c] * lengths[c] / 12;
        compliance +=
            c == axis ? share * length / (material.young * area)
                      : share * (length * length * length / (3 * material.young * inertia) + shear);
    }
    return load.force * compliance;
}

} // namespace

KnownSolution known_solution(const Mesh& mesh, const Material& material, const Load& load,
                             double loaded_area) {
    KnownSolution result;
    const Box box = bounding_box(mesh.nodes);
    const std::array<double, 3> lengths = box.lengths();
    const auto axis = static_cast<std::size_t>(std::max_element(lengths.begin(), lengths.end()) -
                                               lengths.begin());
    const double low = coordinate(box.low, axis), high = coordinate(box.high, axis);
    const double tolerance = same * lengths[axis];
    const double section = lengths[(axis + 1) % 3] * lengths[(axis + 2) % 3];
    const bool at_ends = (lie_at(mesh, mesh.fixed, axis, low, tolerance) &&
                          lie_at(mesh, mesh.load, axis, high, tolerance)) ||
                         (lie_at(mesh, mesh.fixed, axis, high, tolerance) &&
                          lie_at(mesh, mesh.load, axis, low, tolerance));
    if (!is_box(mesh, lengths))
        result.reason = "the body is not a straight box";
    else if (!at_ends || std::abs(flat_area(mesh, mesh.fixed) - section) > same * section ||
             std::abs(loaded_area - section) > same * section)
        result.reason = "it is not held over one whole end and loaded over the other";
    else if (lengths[axis] < slender * std::max(lengths[(axis + 1) % 3], lengths[(axis + 2) % 3]))
        result.reason = "the body is too stout for beam theory";
    else {
        result.applies = true;
        result.deflection = beam_deflection(lengths, axis, material, load);
    }
    return result;
}

} // namespace elasticity
