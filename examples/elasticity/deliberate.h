// Mistakes on purpose, to see the library find them.
#pragma once

#include <cstddef>

namespace elasticity {

/// Forgets an array of `nodes` numbers, which it asked for as a vector does.
void leave_an_array_behind(std::size_t nodes);

/// Reads the middle of a block of which it has written the beginning and the end.
void read_what_was_never_written();

} // namespace elasticity
