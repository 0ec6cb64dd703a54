// Statistics that another room or a test asks of a state directly.
#pragma once

#include <cstddef>

#include "heap/malloc_state.h"
#include "mem_Mallinfo.h"

namespace heap {

/// Bytes of the largest free chunk, without the top: what can be had without touching the top or
/// the system. Enters the heap.
std::size_t internal_dlfragmentationinfo(malloc_state* m);

/// The statistics; all zero before the first segment. Enters the heap.
kxm::mallinfo internal_mallinfo(malloc_state* m);

} // namespace heap
