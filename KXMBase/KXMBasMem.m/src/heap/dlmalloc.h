// The heap's public entries: what stands in the heap column of the table of bound functions.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"
#include "mem_Mallinfo.h"

extern "C" {

KXMBASMEM_API void* dlmalloc(std::size_t size);
KXMBASMEM_API void* dlcalloc(std::size_t count, std::size_t size);
KXMBASMEM_API void* dlrealloc(void* ptr, std::size_t size);
KXMBASMEM_API void dlfree(void* ptr);
KXMBASMEM_API int dlmalloc_trim(std::size_t pad);
KXMBASMEM_API int dlmallopt(int param, std::size_t value);
KXMBASMEM_API std::size_t dlmalloc_footprint();
KXMBASMEM_API std::size_t dlmalloc_max_footprint();
KXMBASMEM_API std::size_t dlmalloc_memory_limit();
KXMBASMEM_API int error_memory_limit();
KXMBASMEM_API std::size_t dlfragmentationinfo();
KXMBASMEM_API kxm::mallinfo dlmallinfo();
KXMBASMEM_API void dlmalloc_ReleaseLock();

} // extern "C"
