// A pool that accounts: it allocates through the C allocation interface and keeps, under a number
// and a name, the bytes now held and the peak. It has no memory of its own.
//
// No pool takes a lock. The allocations are as safe as the C interface; the figures of a pool that
// several threads use are approximate.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBasMemCacheManager;

class KXMBASMEM_API KXMBasMemPool {
public:
    /// `name` is copied, cut to 1023 characters; null gives "unaccounted". `manager` is kept and
    /// not used. The pool is inactive: it allocates and does not count.
    KXMBasMemPool(int id, const char* name, KXMBasMemCacheManager* manager);
    ~KXMBasMemPool() {}

    /// Starts the accounting, for good. A block allocated before and released after makes the
    /// present figure wrap below zero.
    void Activate();

    /// mem_Malloc and an account of the block; null when memory is short. Given back by Free.
    void* Alloc(std::size_t size);
    /// Releases a block and returns what the account was lowered by: 0 for null or while inactive.
    std::size_t Free(void* ptr);

    std::size_t MemoryCurrent(); ///< bytes
    std::size_t MemoryPeak();    ///< bytes
    int PoolID() { return m_poolId; }
    char* PoolName() { return m_poolName; } ///< owned by the pool

    /// The size word in front of a block of the heap, header and rounding included; 0 for null.
    /// With another back end the word means something else, and so do the pool's figures; there a
    /// block that begins a page counts as 0, since nothing may be mapped in front of it. A block of
    /// the tiny block pool has no such word either, and what lies in front of it changes.
    std::size_t AllocSize(void* ptr) const;
    /// AllocSize less the 16 bytes of a chunk's header; 0 where AllocSize looks at nothing.
    std::size_t ActualSizeForUse(void* ptr) const;

    /// Keeps three values for the client. Nothing is enforced: the hard limit is the heap's.
    void SetMemoryLimit(std::size_t first, std::size_t second, double real);
    void MemoryReport() {} ///< does nothing

private:
    enum IncreaseDecrease { increase, decrease };
    void UpdateMemoryInUse(IncreaseDecrease how, std::size_t size);

    bool m_active = false;
    std::uint64_t m_memoryCurrent = 0; // bytes
    std::uint64_t m_memoryPeak = 0;    // bytes
    std::int32_t m_poolId;
    char m_poolName[1024];
    KXMBasMemCacheManager* m_cacheManager; // kept for the client
    std::uint64_t m_memoryHighWater = 0;
    std::uint64_t m_limitFirst = 0;
    std::uint64_t m_limitSecond = 0;
    double m_limitReal = 0.0;
};

/// The process-wide pool behind the tracking operators: number 1000, name "operator_new". It counts
/// from the end of the library's start on.
extern KXMBASMEM_API KXMBasMemPool operatorNewPool;
