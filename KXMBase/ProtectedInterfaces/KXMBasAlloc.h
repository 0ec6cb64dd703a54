/* Start and stop of the library. Loading starts it and unloading stops it, so most clients never
   call these; one that does calls them in matched pairs, on one thread at a time.

   Each layer counts: only the first start and the last stop do any work, and each layer that works
   adds one to (start) or takes one from (stop) the caller's `status`. A first
   KXMBasAlloc_initialize raises it by three; loading has made that first start, so a client's
   own pair changes nothing. The status is counted, never tested, and no error is
   reported through it. C++ has all of it; C has the entries with plain names. */
#ifndef KXMBasAlloc_h
#define KXMBasAlloc_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
/// Outer start and stop: the memory layer, then the innermost layer; stop in reverse.
KXMBASMEM_API void KXMBasAlloc_initialize(int& status);
KXMBASMEM_API void KXMBasAlloc_finalize(int& status);

/// The memory layer by itself. The first start binds the table of functions, once per process: a
/// start after a complete stop leaves it as it is, and the environment is not read again.
KXMBASMEM_API void KXMBasMem_initialize(int& status);
KXMBASMEM_API void KXMBasMem_finalize(int& status);

/// The innermost layer, which only counts.
KXMBASMEM_API void KXMBasAlloc_specific_initialize(int& status);
KXMBASMEM_API void KXMBasAlloc_specific_finalize(int& status);

/// Hooks of the foundation component. They return at once and leave the argument untouched.
KXMBASMEM_API void KX0CORE_initialize(int& status);
KXMBASMEM_API void KX0CORE_finalize(int& status);

extern "C" {
#endif

/** KXMBasAlloc_initialize and KXMBasAlloc_finalize with a status of the library's own, for callers
    in other languages. */
KXMBASMEM_API void KXMBasAlloc_initializeC(void);
KXMBASMEM_API void KXMBasAlloc_finalizeC(void);

/** Does nothing; kept, with its name, for components that call it. */
KXMBASMEM_API void KXMBasMem_formalize(void);

/** Marks the component for the solver's loader. Returns 1 and does nothing else. */
KXMBASMEM_API int KESTRIX_WORKS_KCA2_INTERNAL_KXMBasAlloc(void);

/** The environment variable of the same name as it was at load, or null. For clients; nothing in
   the library reads it. */
extern KXMBASMEM_API const char* KXA_PARALLEL_DEBUG;

/** KXM_SINGLETON_REGISTRY as it was at load, or null. */
extern KXMBASMEM_API const char* m_registEnv;

#ifdef __cplusplus
}
#endif

#endif
