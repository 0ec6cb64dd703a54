// A unit cube of irregular tetrahedra, for tests that need a small conforming mesh.
#pragma once

#include "mesh.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <utility>

namespace test {

/// 2x2x2 cells of six tetrahedra with the middle node moved off its place; x = 0 is fixed and x = 1
/// loaded. `nodes_per_element` is 4 or 10.
class CubeMesh {
public:
    explicit CubeMesh(int nodes_per_element) {
        mesh_.file = "cube";
        mesh_.nodes_per_element = nodes_per_element;
        for (int cell = 0; cell < 8; ++cell)
            add_cell({cell / 4, cell / 2 % 2, cell % 2});
        for (int x : {0, 2})
            for (int cell = 0; cell < 4; ++cell)
                add_faces(x, cell / 2, cell % 2, x == 0 ? mesh_.fixed : mesh_.load);
    }
    elasticity::Mesh take() { return std::move(mesh_); }

private:
    using Corner = std::array<int, 3>;

    static elasticity::Point place(const Corner& c) {
        if (c == Corner{1, 1, 1})
            return {0.55, 0.42, 0.61};
        return {c[0] / 2.0, c[1] / 2.0, c[2] / 2.0};
    }

    // The node between two corners, or at one when both are the same.
    std::int32_t node(Corner a, Corner b) {
        if (b < a)
            std::swap(a, b);
        const auto next = static_cast<std::int32_t>(mesh_.nodes.size());
        const auto [at, is_new] = numbers_.try_emplace({a, b}, next);
        if (is_new) {
            const elasticity::Point p = place(a), q = place(b);
            mesh_.nodes.push_back({(p.x + q.x) / 2, (p.y + q.y) / 2, (p.z + q.z) / 2});
        }
        return at->second;
    }

    void add_cell(const Corner& low) {
        static constexpr std::size_t paths[6][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1},
                                                    {0, 2, 1}, {1, 0, 2}, {2, 1, 0}};
        static constexpr std::size_t edges[6][2] = {{0, 1}, {1, 2}, {2, 0}, {0, 3}, {1, 3}, {2, 3}};
        for (int path = 0; path < 6; ++path) {
            Corner b = low, c{low[0] + 1, low[1] + 1, low[2] + 1};
            const Corner d = c;
            ++b[paths[path][0]];
            --c[paths[path][2]];
            if (path >= 3)
                std::swap(b, c);
            const Corner corners[4] = {low, b, c, d};
            for (const Corner& corner : corners)
                mesh_.elements.push_back(node(corner, corner));
            for (const auto& edge : edges)
                if (mesh_.nodes_per_element == 10)
                    mesh_.elements.push_back(node(corners[edge[0]], corners[edge[1]]));
            mesh_.element_lines.push_back(static_cast<std::int32_t>(mesh_.element_lines.size()) +
                                          1);
        }
    }

    void add_faces(int x, int j, int k, elasticity::Vector<elasticity::Face>& faces) {
        const Corner low{x, j, k}, high{x, j + 1, k + 1};
        for (const Corner& side : {Corner{x, j + 1, k}, Corner{x, j, k + 1}}) {
            elasticity::Face face{{}, 1};
            face.nodes = {node(low, low), node(side, side), node(high, high), -1, -1, -1};
            if (mesh_.nodes_per_element == 10) {
                face.nodes[3] = node(low, side);
                face.nodes[4] = node(side, high);
                face.nodes[5] = node(high, low);
            }
            faces.push_back(face);
        }
    }

    elasticity::Mesh mesh_;
    std::map<std::pair<Corner, Corner>, std::int32_t> numbers_;
};

} // namespace test
