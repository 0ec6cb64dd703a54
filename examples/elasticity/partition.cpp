// Owners, the cut, and who needs what of whom.
#include "partition.h"

#include "input_error.h"

#include <algorithm>

namespace elasticity {

namespace {

std::size_t index(std::int32_t i) {
    return static_cast<std::size_t>(i);
}

// The rank of each node: equal shares of the free nodes, each with the fixed ones beside it.
Vector<int> owners(const Numbering& numbering, int ranks) {
    const auto all = static_cast<std::int64_t>(numbering.node_of_row.size());
    Vector<int> owner;
    owner.reserve(numbering.row_of_node.size());
    std::int64_t free_before = 0;
    for (const std::int32_t row : numbering.row_of_node) {
        owner.push_back(static_cast<int>(std::min(free_before, all - 1) * ranks / all));
        free_before += row >= 0;
    }
    return owner;
}

class Cut {
public:
    Cut(Mesh& mesh, Numbering& numbering, LoadVector& load, const Team& team)
        : mesh_(mesh), numbering_(numbering), load_(load), me_(team.rank()),
          owner_(owners(numbering, team.ranks())), local_(mesh.nodes.size(), -1),
          wanted_(static_cast<std::size_t>(team.ranks())) {}

    Part make() {
        choose_elements();
        choose_nodes();
        note_wanted();
        make_mesh();
        make_numbering();
        part_.nodes = halo(false);
        part_.rows = halo(true);
        return std::move(part_);
    }

private:
    std::size_t per_element() const { return index(mesh_.nodes_per_element); }
    int owner_of(std::size_t element, std::size_t node) const {
        return owner_[index(mesh_.element(element)[node])];
    }

    void choose_elements() {
        for (std::size_t e = 0; e < mesh_.element_count(); ++e) {
            bool touches = false;
            for (std::size_t i = 0; i < per_element(); ++i)
                touches = touches || owner_of(e, i) == me_;
            if (!touches)
                continue;
            elements_.push_back(e);
            const std::int32_t* node = mesh_.element(e);
            const std::int32_t lowest = *std::min_element(node, node + per_element());
            part_.own_element.push_back(owner_[index(lowest)] == me_ ? 1 : 0);
        }
    }

    void choose_nodes() {
        for (const std::size_t e : elements_)
            for (std::size_t i = 0; i < per_element(); ++i)
                local_[index(mesh_.element(e)[i])] = 0;
        for (const bool own : {true, false}) {
            for (std::size_t i = 0; i < local_.size(); ++i)
                if (local_[i] >= 0 && (owner_[i] == me_) == own)
                    nodes_.push_back(static_cast<std::int32_t>(i));
            if (own)
                part_.own_nodes = nodes_.size();
        }
        for (std::size_t i = 0; i < nodes_.size(); ++i)
            local_[index(nodes_[i])] = static_cast<std::int32_t>(i);
    }

    // A rank needs each node of this one's that shares an element with a node of its own.
    void note_wanted() {
        for (const std::size_t e : elements_)
            for (std::size_t i = 0; i < per_element(); ++i)
                for (std::size_t j = 0; j < per_element(); ++j)
                    if (owner_of(e, i) == me_ && owner_of(e, j) != me_)
                        wanted_[static_cast<std::size_t>(owner_of(e, j))].push_back(
                            local_[index(mesh_.element(e)[i])]);
        for (Vector<std::int32_t>& nodes : wanted_) {
            std::sort(nodes.begin(), nodes.end());
            nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
        }
    }

    void make_mesh() {
        Vector<std::int32_t> elements;
        Vector<std::int32_t> lines;
        elements.reserve(elements_.size() * per_element());
        lines.reserve(elements_.size());
        for (const std::size_t e : elements_) {
            for (std::size_t i = 0; i < per_element(); ++i)
                elements.push_back(local_[index(mesh_.element(e)[i])]);
            lines.push_back(mesh_.element_lines[e]);
        }
        mesh_.elements.swap(elements);
        mesh_.element_lines.swap(lines);
        Vector<Point> points;
        Vector<double> force;
        points.reserve(nodes_.size());
        force.reserve(3 * nodes_.size());
        for (const std::int32_t node : nodes_) {
            points.push_back(mesh_.nodes[index(node)]);
            const double* f = &load_.force[3 * index(node)];
            force.insert(force.end(), f, f + 3);
        }
        mesh_.nodes.swap(points);
        load_.force.swap(force);
        mesh_.fixed = {};
        mesh_.load = {};
    }

    void make_numbering() {
        Numbering local;
        for (std::size_t i = 0; i < nodes_.size(); ++i) {
            if (i == part_.own_nodes)
                local.rows = local.node_of_row.size();
            if (numbering_.row_of_node[index(nodes_[i])] < 0) {
                local.row_of_node.push_back(-1);
                continue;
            }
            local.row_of_node.push_back(static_cast<std::int32_t>(local.node_of_row.size()));
            local.node_of_row.push_back(static_cast<std::int32_t>(i));
        }
        numbering_ = std::move(local);
    }

    // Of all nodes, or of those with rows, by the numbers of rows. Copies are sorted by owner, since
    // owners are runs of nodes.
    Halo halo(bool of_rows) const {
        const auto number = [&](std::size_t node) {
            return of_rows ? numbering_.row_of_node[node] : static_cast<std::int32_t>(node);
        };
        Halo result;
        for (std::size_t rank = 0; rank < wanted_.size(); ++rank) {
            Neighbour neighbour{static_cast<int>(rank), {}, 0, 0};
            for (const std::int32_t node : wanted_[rank])
                if (number(index(node)) >= 0)
                    neighbour.wanted.push_back(number(index(node)));
            for (std::size_t i = part_.own_nodes; i < nodes_.size(); ++i) {
                if (owner_[index(nodes_[i])] != neighbour.rank || number(i) < 0)
                    continue;
                if (neighbour.copies++ == 0)
                    neighbour.first_copy = number(i);
            }
            if (!neighbour.wanted.empty() || neighbour.copies != 0)
                result.neighbours.push_back(std::move(neighbour));
        }
        return result;
    }

    Mesh& mesh_;
    Numbering& numbering_;
    LoadVector& load_;
    int me_;
    Vector<int> owner_;
    Vector<std::int32_t> local_; // number of each node of the body here, or -1
    Vector<std::size_t> elements_;
    Vector<std::int32_t> nodes_; // the body's number of each node here
    Vector<Vector<std::int32_t>> wanted_;
    Part part_;
};

} // namespace

Part whole(const Mesh& mesh) {
    Part part;
    part.own_nodes = mesh.nodes.size();
    return part;
}

Part cut_out(Mesh& mesh, Numbering& numbering, LoadVector& load, const Team& team) {
    if (numbering.rows < static_cast<std::size_t>(team.ranks()))
        throw InputError(mesh.file, 0, {"fewer nodes can move than there are ranks"});
    return Cut(mesh, numbering, load, team).make();
}

} // namespace elasticity
