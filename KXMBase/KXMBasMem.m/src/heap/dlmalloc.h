// The heap's public entries: what stands in the heap column of the table of bound functions, and
// the aligned allocation and the size query beside it. Any thread may call them; sizes are bytes.
//
// A failure is a null return and nothing else; error_memory_limit tells whether it was the limit. A
// pointer that is not a live block of this heap ends the process where that is noticed.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"
#include "mem_Mallinfo.h"

extern "C" {

/// A block of at least `size` bytes on a 64-byte boundary, or null. Zero gets the smallest block.
KXMBASMEM_API void* dlmalloc(std::size_t size);
/// The same, cleared, for `count` elements; null when the product overflows.
KXMBASMEM_API void* dlcalloc(std::size_t count, std::size_t size);
/// Resizes a block, moving it if it must; on null the old block stays as it is. A null `ptr`
/// allocates; a zero `size` releases and returns null.
KXMBASMEM_API void* dlrealloc(void* ptr, std::size_t size);
/// A block at a multiple of `alignment`, which is raised to a power of two, and to 64 at least.
KXMBASMEM_API void* dlmemalign(std::size_t alignment, std::size_t size);
/// Releases a block; null is allowed.
KXMBASMEM_API void dlfree(void* ptr);
/// Bytes usable in a live block; 0 for null. Does not enter the heap.
KXMBASMEM_API std::size_t dlmalloc_usable_size(void* ptr);
/// Gives memory back to the system, keeping `pad` bytes at the top: 1 if any went, else 0.
KXMBASMEM_API int dlmalloc_trim(std::size_t pad);

/// Sets an option and returns 1; 0 for an unknown option or a refused value, and always for -4.
///   -1 trim threshold    reaches the heap when its top is next reset
///   -2 granularity       a power of two, at least the page
///   -3 mapping threshold
///   -4 locking           zero for none; reaches the heap at its next growth
///   -5 memory limit      zero for none; reaches the heap at its next growth
KXMBASMEM_API int dlmallopt(int param, std::size_t value);

KXMBASMEM_API std::size_t dlmalloc_footprint();     ///< held from the system now
KXMBASMEM_API std::size_t dlmalloc_max_footprint(); ///< the highest that ever was
KXMBASMEM_API std::size_t dlmalloc_memory_limit();  ///< as the option last set it
KXMBASMEM_API int error_memory_limit(); ///< -1 when the limit refused the latest growth, else 0
KXMBASMEM_API std::size_t dlfragmentationinfo(); ///< largest free chunk beside the top
KXMBASMEM_API kxm::mallinfo dlmallinfo();
/// Gives up the heap's lock on behalf of a thread that holds it and will not come back.
KXMBASMEM_API void dlmalloc_ReleaseLock();

} // extern "C"
