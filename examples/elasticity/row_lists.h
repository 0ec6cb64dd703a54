// The pattern of a matrix while it is being found: for each row a linked list of its columns, rising,
// with one small node each. Elements add to it in any order; once all have, the lists are compressed
// into the rows of the matrix. How long a row will be is not known before, and a list needs no room
// for it: only the nodes that there are, which the tiny block pool keeps without a header.
#pragma once

#include "memory.h"

namespace elasticity {

class RowLists {
public:
    explicit RowLists(std::size_t rows) : first_(rows, nullptr) {}
    ~RowLists() { clear(); }
    RowLists(RowLists&& other) noexcept = default;
    RowLists(const RowLists&) = delete;
    RowLists& operator=(const RowLists&) = delete;

    std::size_t rows() const { return first_.size(); }
    std::size_t columns() const { return columns_; } // of all rows together

    /// Adds to a row those of `columns`, which rise, that it has not yet.
    void add(std::size_t row, const Vector<std::int32_t>& columns);
    void append_row(std::size_t row, Vector<std::int32_t>& target) const;
    void clear() noexcept;

private:
    struct Column {
        Column* next;
        std::int32_t number;
    };

    Vector<Column*> first_;
    std::size_t columns_ = 0;
};

} // namespace elasticity
