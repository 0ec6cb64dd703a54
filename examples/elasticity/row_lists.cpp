// See row_lists.h.
#include "row_lists.h"

namespace elasticity {

// One walk along the list for all of the columns.
void RowLists::add(std::size_t row, const Vector<std::int32_t>& columns) {
    Column** link = &first_[row];
    for (const std::int32_t column : columns) {
        while (*link != nullptr && (*link)->number < column)
            link = &(*link)->next;
        if (*link == nullptr || (*link)->number != column) {
            *link = new (allocate(sizeof(Column))) Column{*link, column};
            ++columns_;
        }
    }
}

void RowLists::append_row(std::size_t row, Vector<std::int32_t>& target) const {
    for (const Column* column = first_[row]; column != nullptr; column = column->next)
        target.push_back(column->number);
}

// Backwards: what is asked for last is nearest to the heap's end, which only shrinks from there. The
// one page that the tiny block pool keeps is then an early one.
void RowLists::clear() noexcept {
    for (; !first_.empty(); first_.pop_back())
        for (Column* column = first_.back(); column != nullptr;) {
            Column* const next = column->next;
            release(column, sizeof(Column));
            column = next;
        }
    columns_ = 0;
}

} // namespace elasticity
