/* Hooks of memory-checking tools. */
#ifndef KXMBasMemoryCheck_h
#define KXMBasMemoryCheck_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The environment variable MC_RESULT as it was at load, or null. */
extern KXMBASMEM_API const char* const MC_RESULT;

/** A place holder for a tool's print routine: prints nothing and returns 1. */
KXMBASMEM_API int memcheck_debug_printf(const char* format, ...);

#ifdef __cplusplus
}

/// The print routine that a tool supplies; none is looked for, so always null.
KXMBASMEM_API int (*locateMemCheckPrintf())(const char* format, ...);
#endif

#endif
