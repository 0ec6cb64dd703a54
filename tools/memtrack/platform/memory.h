// Large pieces of zeroed memory. One source file per system, chosen by CMakeLists.txt.
#pragma once

#include <cstddef>

namespace memtrack::platform {

/// Zeros, in large pages if the system gives such; a power of two. Throws std::bad_alloc.
void* allocate_large(std::size_t bytes);
void free_large(void* memory); ///< null is fine

} // namespace memtrack::platform
