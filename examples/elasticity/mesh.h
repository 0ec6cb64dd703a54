// A mesh of tetrahedra with the two groups of faces that a job needs, and what must hold of it.
#pragma once

#include "memory.h"
#include "records.h"

#include <array>
#include <cstdint>
#include <memory>

namespace elasticity {

struct Point {
    double x, y, z;
};

/// A triangle of three or six nodes: corners, then the middles of edges 01, 12 and 20.
struct Face {
    std::array<std::int32_t, 6> nodes;
    std::int32_t line;
};

/// Elements are tetrahedra of four or ten nodes: corners, then the middles of edges
/// 01, 12, 20, 03, 13 and 23. Each line number is where the element stands in `file`.
// NOLINTNEXTLINE(bugprone-exception-escape): its containers share their allocators, so to move one never throws
struct Mesh {
    String file;
    int nodes_per_element = 0;
    Vector<Point> nodes;
    Vector<std::int32_t> elements;
    Vector<std::int32_t> element_lines;
    Vector<Face> fixed;
    Vector<Face> load;
    std::shared_ptr<const Records> records; // of elements and their nodes; null: none

    std::size_t element_count() const { return element_lines.size(); }
    int nodes_per_face() const { return nodes_per_element == 10 ? 6 : 3; }
    const std::int32_t* element(std::size_t index) const {
        return elements.data() + index * static_cast<std::size_t>(nodes_per_element);
    }
    const Point& point(std::size_t index, std::size_t node) const {
        return records == nullptr ? nodes[static_cast<std::size_t>(element(index)[node])]
                                  : records->point(index, node);
    }
};

/// Smallest and largest coordinates.
struct Box {
    Point low, high;
    std::array<double, 3> lengths() const {
        return {high.x - low.x, high.y - low.y, high.z - low.z};
    }
};

Box bounding_box(const Vector<Point>& points);

/// Six times the signed volume of the tetrahedron of four corners.
double six_volumes(const Point& a, const Point& b, const Point& c, const Point& d);

/// Throws InputError unless the mesh can be computed with: positive volumes, no element or face
/// twice, group faces that are faces of elements, and every connected part held by a fixed face.
void check_mesh(const Mesh& mesh);

/// Drops nodes that no element uses and numbers the rest along the longest side of the mesh, so
/// that neighbours lie close in memory.
void renumber(Mesh& mesh);

} // namespace elasticity
