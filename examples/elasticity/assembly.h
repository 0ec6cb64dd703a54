// From mesh to linear system: matrix, load vector, and the stress of its solution.
#pragma once

#include "mesh.h"
#include "row_lists.h"
#include "sparse_matrix.h"

namespace elasticity {

struct Material {
    double young; // Pa
    double poisson;

    double lambda() const { return young * poisson / ((1 + poisson) * (1 - 2 * poisson)); }
    double mu() const { return young / (2 * (1 + poisson)); }
};

/// A total force in N, spread evenly over the area of the loaded faces.
struct Load {
    double force;
    std::array<double, 3> direction; // of length 1
};

/// Which row of the system a node has; nodes of fixed faces have none (-1), since their
/// displacements are known to be zero.
struct Numbering {
    Vector<std::int32_t> row_of_node;
    Vector<std::int32_t> node_of_row;
    std::size_t rows = 0; // of the system; what follows are columns alone
};

Numbering number_unknowns(const Mesh& mesh);

/// For each row the rows that it couples with, which are those that share an element with it.
RowLists couple_rows(const Mesh& mesh, const Numbering& numbering);

/// The matrix of that pattern, with the values at zero.
SparseMatrix matrix_pattern(RowLists lists);

/// Adds the stiffness of all elements. Throws InputError at an element that is turned inside out
/// somewhere.
void add_stiffness(const Mesh& mesh, const Numbering& numbering, const Material& material,
                   SparseMatrix& matrix);

struct LoadVector {
    Vector<double> force; // three components for each node
    double area;          // of the loaded faces
};

LoadVector load_vector(const Mesh& mesh, const Load& load);

/// Components xx, yy, zz, xy, yz, zx for each node, averaged over its elements by their volume.
Vector<double> nodal_stress(const Mesh& mesh, const Material& material,
                            const Vector<double>& displacement);

double von_mises(const double* stress);

} // namespace elasticity
