// Return of memory to the system.
#pragma once

#include <cstddef>

namespace heap {

/// Gives back the end of the top beyond `pad` bytes, and empty segments. 1 if anything went back,
/// else 0. pre: the heap has been entered.
int sys_trim(std::size_t pad);

/// Gives back every segment but the newest that has no chunk in use; returns the bytes.
std::size_t release_unused_segments();

} // namespace heap
