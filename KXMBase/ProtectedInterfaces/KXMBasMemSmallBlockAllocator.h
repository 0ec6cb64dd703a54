// The tiny block pool, directly: whatever the switches of mem_TinyBlocks.h say, and on every back end.
#pragma once

#include "KXMBasMemExport.h"

class mem_TBPool;

class KXMBASMEM_API KXMBasMemSmallBlockAllocator {
public:
    KXMBasMemSmallBlockAllocator(); ///< makes the pool if need be
    ~KXMBasMemSmallBlockAllocator();

    /// A block of `size` bytes, 0 (as 1) to 128; null when memory is short. Any other size is a fatal
    /// error. Takes no lock, whatever mem_TBThreadLock has set: for one thread, or under a lock of the
    /// caller's.
    static void* allocate(int size);
    /// Gives back a block of the pool; any other is a fatal error, and null an access fault. Takes the
    /// lock if that is on.
    static void deallocate(void* p);

private:
    mem_TBPool* m_pool; // the two above do not need it
};
