/* The tracker for C and for numerical code, and the entries of an outside memory checker. Any thread
   may call them. */
#ifndef mem_TrackerC_h
#define mem_TrackerC_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Id of the next transaction. Creates the tracker, over twenty megabytes, even with tracking off;
    the answer is 0 then. */
KXMBASMEM_API int mem_TrackerC_CurrTransactionId(void);

/** Enters or leaves a phase of the calling thread, told on standard error, and returns
    mem_TrackerC_CurrTransactionId(), with all that it does. */
KXMBASMEM_API int mem_TrackerC_EnterPhase(const char* name);
KXMBASMEM_API int mem_TrackerC_ExitPhase(void);

/** For numerical code: arguments by reference, texts of `length` characters without a terminator,
    at most 118; a longer one is a fatal error, with tracking off too. `*print` not 0: told on standard
    error. They create the tracker in any case, and do nothing more while tracking is off. */
KXMBASMEM_API void mem_tracker_enterphase(const int* print, const char* text, int length);
KXMBASMEM_API void mem_tracker_exitphase(const int* print);
KXMBASMEM_API void mem_tracker_printtransaction(const char* text, int length);

/** Place holders to which a memory checker outside the library attaches. They do nothing, and the
    one with a result returns 0. */
KXMBASMEM_API void MemoryCheckerActivate(void);
KXMBASMEM_API void MemoryCheckerDeactivate(void);
KXMBASMEM_API int MemoryCheckerCurrentTransaction(void* unused);
KXMBASMEM_API void KXMBasMemCheckerActivate(void);
KXMBASMEM_API void KXMBasMemCheckerDeactivate(void);
KXMBASMEM_API void KXMBasMemCheckerCurrentTrans(void* unused);

#ifdef __cplusplus
}
#endif

#endif
