// The table of bound functions: twelve exported variables through which every allocation reaches
// the back end that the environment chose. They are filled once per process and never changed
// again; calling code goes through the capitalised entries of mem_Interface.h instead.
//
// Before binding only mem_malloc may be called: it binds the table by itself. The other eleven are
// null until then.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"
#include "mem_Mallinfo.h"

extern "C" {

extern KXMBASMEM_API void* (*mem_malloc)(std::size_t size);
extern KXMBASMEM_API void* (*mem_calloc)(std::size_t count, std::size_t size);
extern KXMBASMEM_API void* (*mem_realloc)(void* ptr, std::size_t size);
extern KXMBASMEM_API void (*mem_free)(void* ptr);
extern KXMBASMEM_API int (*mem_trim)(std::size_t pad);
extern KXMBASMEM_API int (*mem_mallopt)(int param, std::size_t value);
extern KXMBASMEM_API std::size_t (*mem_footprint)();
extern KXMBASMEM_API std::size_t (*mem_maxfootprint)();
extern KXMBASMEM_API std::size_t (*mem_memorylimit)();
extern KXMBASMEM_API int (*mem_errormemorylimit)();
extern KXMBASMEM_API std::size_t (*mem_fragmentationinfo)();
extern KXMBASMEM_API kxm::mallinfo (*mem_dlmallinfo)();

} // extern "C"
