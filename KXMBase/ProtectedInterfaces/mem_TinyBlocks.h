/* The tiny block pool: requests of at most 128 bytes from pages of equal slots, without a header per
   block. It works on the heap (KXQ_DLALLOCATOR) and is off until a client turns it on.

   While it is on, mem_Malloc takes such requests from it, and mem_Free, mem_MalignFree and
   mem_Realloc know its blocks by the page they lie in, also after it was turned off again. Blocks
   are aligned to 8 bytes and no more, those of 1 to 4 bytes to 4. A block that grows past 128 bytes
   leaves the pool for the heap.

   Threads: the pool starts without a lock, for programs with one thread. mem_TBThreadLock(true)
   makes it safe for several, but for mem_smallalloc, which never locks. The first use of the pool
   must not race with another, and the switches are for moments when no thread is inside. */
#ifndef mem_TinyBlocks_h
#define mem_TinyBlocks_h

#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "KXMBasMemExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Turns the pool on (any `mode` but 0) or off. Stays off when the heap is not the bound back end,
    or when KXQ_TBMALLOC, which is read at each call, begins with '0'. */
KXMBASMEM_API void mem_TBAllocator(int mode);

/** Turns the pool on or off for new requests without asking anybody: neither the environment nor
    the back end. On another back end than the heap a block that leaves the pool for the heap can
    not be released: prefer mem_TBAllocator. */
KXMBASMEM_API void newDeleteTinyBlock(bool on);

/** Turns the pool's lock on or off; does nothing while the pool is off. No other thread may be
    inside the pool meanwhile. */
KXMBASMEM_API void mem_TBThreadLock(bool on);

/** A block of `*size` bytes, 0 to 128, from the pool, whether it is on or off; null when memory is
    short. Takes no lock, whatever mem_TBThreadLock has set: for one thread, or under a lock of the
    caller's. A larger size is a fatal error. Arguments by reference, for numerical routines. */
KXMBASMEM_API void* mem_smallalloc(int* size);

/** Gives back the block `*ptr` of the pool and sets `*ptr` to null. Any other block is a
    fatal error, and null an access fault. A second release is not noticed: the slot is then handed
    out twice. Takes the lock if that is on. */
KXMBASMEM_API void mem_smallfree(void** ptr);

#ifdef __cplusplus
}
#endif

#endif
