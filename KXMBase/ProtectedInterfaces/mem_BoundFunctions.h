/* The table of bound functions: twelve exported variables through which every allocation reaches
   the back end that the environment chose. They are filled once per process and never changed
   again; calling code goes through the capitalised entries of mem_Interface.h instead.

   Before binding only mem_malloc may be called: it binds the table by itself. The other eleven are
   null until then. Arguments and results are those of the capitalised entries, except that both
   footprints are bytes, and 0 on any back end but the heap. */
#ifndef mem_BoundFunctions_h
#define mem_BoundFunctions_h

#include <stddef.h>

#include "KXMBasMemExport.h"
#include "mem_Mallinfo.h"

#ifdef __cplusplus
extern "C" {
#endif

extern KXMBASMEM_API void* (*mem_malloc)(size_t size);
extern KXMBASMEM_API void* (*mem_calloc)(size_t count, size_t size);
extern KXMBASMEM_API void* (*mem_realloc)(void* ptr, size_t size);
extern KXMBASMEM_API void (*mem_free)(void* ptr);
extern KXMBASMEM_API int (*mem_trim)(size_t pad);
extern KXMBASMEM_API int (*mem_mallopt)(int param, size_t value);
extern KXMBASMEM_API size_t (*mem_footprint)(void);
extern KXMBASMEM_API size_t (*mem_maxfootprint)(void);
extern KXMBASMEM_API size_t (*mem_memorylimit)(void);
extern KXMBASMEM_API int (*mem_errormemorylimit)(void);
extern KXMBASMEM_API size_t (*mem_fragmentationinfo)(void);
#ifdef __cplusplus
extern KXMBASMEM_API kxm::mallinfo (*mem_dlmallinfo)(void);
}
#else
extern KXMBASMEM_API kxm_mallinfo (*mem_dlmallinfo)(void);
#endif

#endif
