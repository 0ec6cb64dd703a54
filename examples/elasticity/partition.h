// A rank's part of the job: a slab of the body across its longest side.
//
// Nodes are numbered along that side, and each rank owns a run of them with its share of the unknowns.
// It computes the rows of its own nodes in full, from all elements that touch one of them: elements on a
// border are computed on both sides, and no part of the matrix has to be added up between ranks.
//
//   nodes  | own, in their order                | copies of others' nodes, in theirs |
//   rows   | own                                | of others, which are columns alone |
#pragma once

#include "assembly.h"
#include "team.h"

namespace elasticity {

struct Part {
    std::size_t own_nodes = 0;
    Vector<char> own_element; // of two ranks with the same element one owns it; empty: all
    Halo rows;
    Halo nodes;
};

/// The whole job as one part.
Part whole(const Mesh& mesh);

/// Cuts mesh, numbering and load of the whole body down to this rank's. The groups of faces go: what
/// they tell is in the numbering and the load. Throws InputError when there are not enough unknowns.
Part cut_out(Mesh& mesh, Numbering& numbering, LoadVector& load, const Team& team);

} // namespace elasticity
