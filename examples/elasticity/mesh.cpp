// What must hold of a mesh before anything is computed with it, and the numbering of its nodes.
#include "mesh.h"

#include "input_error.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace elasticity {

namespace {

// The corners of the four faces of a tetrahedron, and the middles of the edges of each.
constexpr std::size_t face_nodes[4][6] = {
    {0, 1, 2, 4, 5, 6}, {0, 1, 3, 4, 7, 8}, {0, 2, 3, 6, 7, 9}, {1, 2, 3, 5, 8, 9}};

// What identifies an element or a face: its nodes, put in order.
template <std::size_t N> struct Key {
    std::array<std::int32_t, N> nodes;
    std::int32_t line;
    bool operator<(const Key& other) const {
        return nodes != other.nodes ? nodes < other.nodes : line < other.line;
    }
};

// Corners and middles are ordered each for themselves; first-order faces have -1 for the middles.
Key<6> face_key(const Mesh& mesh, std::array<std::int32_t, 6> nodes, std::int32_t line) {
    if (mesh.nodes_per_face() == 3)
        std::fill(nodes.begin() + 3, nodes.end(), -1);
    std::sort(nodes.begin(), nodes.begin() + 3);
    std::sort(nodes.begin() + 3, nodes.end());
    return {nodes, line};
}

Vector<Key<6>> sorted_keys(const Mesh& mesh, const Vector<Face>& faces) {
    Vector<Key<6>> keys;
    keys.reserve(faces.size());
    for (const Face& face : faces)
        keys.push_back(face_key(mesh, face.nodes, face.line));
    std::sort(keys.begin(), keys.end());
    return keys;
}

Key<6> element_face_key(const Mesh& mesh, std::size_t element, const std::size_t (&face)[6]) {
    std::array<std::int32_t, 6> nodes{};
    for (std::size_t i = 0; i < static_cast<std::size_t>(mesh.nodes_per_face()); ++i)
        nodes[i] = mesh.element(element)[face[i]];
    return face_key(mesh, nodes, 0);
}

template <class Keys>
void refuse_repeats(const Mesh& mesh, const Keys& keys, std::string_view what) {
    const auto twice = std::adjacent_find(
        keys.begin(), keys.end(), [](const auto& a, const auto& b) { return a.nodes == b.nodes; });
    if (twice != keys.end())
        throw InputError(mesh.file, (twice + 1)->line,
                         {what, " has the same nodes as the one at line ", Number(twice->line)});
}

void check_volumes(const Mesh& mesh) {
    for (std::size_t e = 0; e < mesh.element_count(); ++e) {
        const std::int32_t* node = mesh.element(e);
        const auto at = [&](int i) -> const Point& {
            return mesh.nodes[static_cast<std::size_t>(node[i])];
        };
        double longest = 0;
        for (int i = 0; i < 4; ++i)
            for (int j = 0; j < i; ++j)
                longest = std::max(
                    longest, std::hypot(at(i).x - at(j).x, at(i).y - at(j).y, at(i).z - at(j).z));
        const double six = six_volumes(at(0), at(1), at(2), at(3));
        const double negligible = 1e-10 * longest * longest * longest;
        if (six < -negligible)
            throw InputError(mesh.file, mesh.element_lines[e],
                             {"inverted tetrahedron (negative volume)"});
        // The negation catches a volume that is not a number, too.
        if (!(six > negligible))
            throw InputError(mesh.file, mesh.element_lines[e],
                             {"degenerate tetrahedron (zero volume)"});
    }
}

void check_repeated_elements(const Mesh& mesh) {
    Vector<Key<4>> keys;
    keys.reserve(mesh.element_count());
    for (std::size_t e = 0; e < mesh.element_count(); ++e) {
        const std::int32_t* node = mesh.element(e);
        Key<4> key{{node[0], node[1], node[2], node[3]}, mesh.element_lines[e]};
        std::sort(key.nodes.begin(), key.nodes.end());
        keys.push_back(key);
    }
    std::sort(keys.begin(), keys.end());
    refuse_repeats(mesh, keys, "tetrahedron");
}

// Each face of a group must be a face of an element: a face that touches the solid in a few nodes
// only would load or hold something else than what the user drew.
void check_group(const Mesh& mesh, const Vector<Face>& faces, std::string_view name) {
    if (faces.empty())
        throw InputError(mesh.file, 0,
                         {"no triangle belongs to a physical surface named \"", name, "\""});
    const Vector<Key<6>> keys = sorted_keys(mesh, faces);
    refuse_repeats(mesh, keys, "triangle");
    Vector<char> found(keys.size(), 0);
    for (std::size_t e = 0; e < mesh.element_count(); ++e)
        for (const auto& face : face_nodes) {
            const Key<6> key = element_face_key(mesh, e, face);
            const auto at = std::lower_bound(keys.begin(), keys.end(), key);
            if (at != keys.end() && at->nodes == key.nodes)
                found[static_cast<std::size_t>(at - keys.begin())] = 1;
        }
    const auto missing = std::find(found.begin(), found.end(), 0);
    if (missing != found.end())
        throw InputError(mesh.file, keys[static_cast<std::size_t>(missing - found.begin())].line,
                         {"triangle of group \"", name, "\" is not a face of any tetrahedron"});
}

// Sets of nodes joined by elements; the root of a set stands for it.
class Parts {
public:
    explicit Parts(std::size_t count) : parent_(count) {
        std::iota(parent_.begin(), parent_.end(), 0);
    }
    std::int32_t root(std::int32_t node) {
        while (up(node) != node)
            node = up(node) = up(up(node));
        return node;
    }
    void join(std::int32_t a, std::int32_t b) { up(root(a)) = root(b); }

private:
    std::int32_t& up(std::int32_t node) { return parent_[static_cast<std::size_t>(node)]; }
    Vector<std::int32_t> parent_;
};

void check_held(const Mesh& mesh) {
    Parts parts(mesh.nodes.size());
    for (std::size_t e = 0; e < mesh.element_count(); ++e)
        for (int i = 1; i < mesh.nodes_per_element; ++i)
            parts.join(mesh.element(e)[0], mesh.element(e)[i]);
    Vector<char> held(mesh.nodes.size(), 0);
    for (const Face& face : mesh.fixed)
        held[static_cast<std::size_t>(parts.root(face.nodes[0]))] = 1;
    for (std::size_t e = 0; e < mesh.element_count(); ++e)
        if (!held[static_cast<std::size_t>(parts.root(mesh.element(e)[0]))])
            throw InputError(mesh.file, mesh.element_lines[e],
                             {"the part of the mesh with this tetrahedron is not held: no face of "
                              "group \"fixed\" belongs to it"});
}

} // namespace

Box bounding_box(const Vector<Point>& points) {
    Box box{points.front(), points.front()};
    for (const Point& p : points) {
        box.low = {std::min(box.low.x, p.x), std::min(box.low.y, p.y), std::min(box.low.z, p.z)};
        box.high = {std::max(box.high.x, p.x), std::max(box.high.y, p.y),
                    std::max(box.high.z, p.z)};
    }
    return box;
}

double six_volumes(const Point& a, const Point& b, const Point& c, const Point& d) {
    const Point u{b.x - a.x, b.y - a.y, b.z - a.z};
    const Point v{c.x - a.x, c.y - a.y, c.z - a.z};
    const Point w{d.x - a.x, d.y - a.y, d.z - a.z};
    return u.x * (v.y * w.z - v.z * w.y) - u.y * (v.x * w.z - v.z * w.x) +
           u.z * (v.x * w.y - v.y * w.x);
}

void check_mesh(const Mesh& mesh) {
    check_volumes(mesh);
    check_repeated_elements(mesh);
    check_group(mesh, mesh.fixed, "fixed");
    check_group(mesh, mesh.load, "load");
    check_held(mesh);
}

void renumber(Mesh& mesh) {
    Vector<std::int32_t> number(mesh.nodes.size(), -1);
    for (const std::int32_t node : mesh.elements)
        number[static_cast<std::size_t>(node)] = 0;
    Vector<std::int32_t> order;
    for (std::size_t i = 0; i < number.size(); ++i)
        if (number[i] == 0)
            order.push_back(static_cast<std::int32_t>(i));

    Vector<Point> nodes(order.size());
    const auto gather = [&] {
        for (std::size_t i = 0; i < order.size(); ++i)
            nodes[i] = mesh.nodes[static_cast<std::size_t>(order[i])];
    };
    gather();
    const auto lengths = bounding_box(nodes).lengths();
    const auto axis = std::max_element(lengths.begin(), lengths.end()) - lengths.begin();
    const auto along = [&](std::int32_t node) {
        const Point& p = mesh.nodes[static_cast<std::size_t>(node)];
        return axis == 0 ? p.x : axis == 1 ? p.y : p.z;
    };
    std::sort(order.begin(), order.end(), [&](std::int32_t a, std::int32_t b) {
        return along(a) != along(b) ? along(a) < along(b) : a < b;
    });
    gather();
    for (std::size_t i = 0; i < order.size(); ++i)
        number[static_cast<std::size_t>(order[i])] = static_cast<std::int32_t>(i);

    mesh.nodes.swap(nodes);
    for (std::int32_t& node : mesh.elements)
        node = number[static_cast<std::size_t>(node)];
    for (Vector<Face>* faces : {&mesh.fixed, &mesh.load})
        for (Face& face : *faces)
            for (int i = 0; i < mesh.nodes_per_face(); ++i) {
                std::int32_t& node = face.nodes[static_cast<std::size_t>(i)];
                node = number[static_cast<std::size_t>(node)];
            }
}

} // namespace elasticity
