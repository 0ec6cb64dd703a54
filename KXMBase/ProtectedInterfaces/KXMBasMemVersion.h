/* Which version of the library a process has loaded. For programs that print it, and for those that
   want to refuse another one than they were built with. */
#ifndef KXMBasMemVersion_h
#define KXMBasMemVersion_h

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The version of the loaded library, as "0.1.0": three numbers with dots between, of which a change of the
    first breaks programs that were linked before. A constant text that the library owns. From any
    thread, at any time after load; it allocates nothing and cannot fail. */
KXMBASMEM_API const char* KXMBasMemVersion(void);

#ifdef __cplusplus
}
#endif

#endif
