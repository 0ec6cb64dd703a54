// The manager of a client's caches, as the pools know it: they keep the pointer that they are given and
// do nothing with it.
#pragma once

#include <cstddef>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperators.h"

class KXMBASMEM_API KXMBasMemCacheManager : public mem_AllocationOperators {
public:
    KXMBasMemCacheManager() {}
    virtual ~KXMBasMemCacheManager() = 0;

    /// Gives back what the client can do without, `wanted` bytes if it has so many, and answers how
    /// many it gave. Nothing in the library calls it.
    virtual std::size_t ReleaseCache(std::size_t wanted) = 0;
};
