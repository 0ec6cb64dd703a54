// The library's one static heap allocator object, from which the tiny block pool takes its pages.
#pragma once

#include "mem_DLAllocator.h"

namespace allocator_objects {

extern mem_DLAllocator heap;

} // namespace allocator_objects
