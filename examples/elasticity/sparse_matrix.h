// The stiffness matrix in compressed rows of 3x3 blocks.
#pragma once

#include "memory.h"

#include <cstdint>

namespace elasticity {

/// Row i has the blocks start[i] to start[i + 1] - 1, by rising column; value holds nine numbers
/// for each, by columns. A symmetric matrix is stored in full.
struct SparseMatrix {
    std::int32_t rows = 0;
    Vector<std::int64_t> start;
    Vector<std::int32_t> column;
    Vector<double> value;

    std::int64_t unknowns() const { return std::int64_t{3} * rows; }
    std::int64_t nonzeros() const { return 9 * static_cast<std::int64_t>(column.size()); }
    /// y = A x
    void multiply(const Vector<double>& x, Vector<double>& y) const;
};

} // namespace elasticity
