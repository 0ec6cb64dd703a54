// A pool with an account like KXMBasMemPool's and a growing table of cleared blocks of its own, for the
// solver to build on. The library makes none, and nothing here hands out memory.
//
// A pool belongs to one thread at a time. Sizes are bytes. The table's memory comes from mem_Calloc and
// goes back by mem_Free, which the aligned back end of Windows does not allow: not for that one.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"

class KXMBasMemCacheManager;

namespace kxm {
struct TruePoolInspector; // the library's own checks
} // namespace kxm

class KXMBASMEM_API KXMBasMemTruePool {
public:
    /// `id` and `name` are ignored; `manager` is kept and not used. The account is off, and there is
    /// one block. Memory that runs out ends the process (the table) or is std::bad_alloc (the block).
    KXMBasMemTruePool(int id, const char* name, KXMBasMemCacheManager* manager);
    /// As many cleared blocks as `other` has, and one more in the first entry, which is empty there.
    /// Their contents are not copied, nor are the limits. Memory that runs out ends the process.
    KXMBasMemTruePool(const KXMBasMemTruePool& other);
    /// Ends the process with a message: deliberately not implemented.
    KXMBasMemTruePool& operator=(const KXMBasMemTruePool& other);
    ~KXMBasMemTruePool();

    std::size_t MemoryCurrent();
    std::size_t MemoryPeak();
    /// The same as MemoryCurrent: the table's own blocks do not count.
    std::size_t MemoryInUse();
    int PoolID() { return 101; }
    char* PoolName(); ///< "KXMBasMemRegionAllocator"; static storage

    /// As KXMBasMemPool's.
    std::size_t AllocSize(void* ptr) const;
    std::size_t ActualSizeForUse(void* ptr) const;
    void SetMemoryLimit(std::size_t first, std::size_t second, double real);
    void MemoryReport() {} ///< does nothing

private:
    friend struct kxm::TruePoolInspector;

    struct Block {
        std::uint64_t contents[62]; // not for this class to interpret
    };
    static_assert(sizeof(Block) == 496, "the size that clients count with");

    enum IncreaseDecrease { increase, decrease };
    void UpdateMemoryInUse(IncreaseDecrease how, std::size_t size);
    void Grow();

    bool m_active = false;
    std::uint64_t m_memoryCurrent = 0; // bytes
    std::uint64_t m_memoryPeak = 0;    // bytes
    KXMBasMemCacheManager* m_cacheManager;
    std::uint64_t m_memoryHighWater = 0;
    std::uint64_t m_limitFirst = 0;
    std::uint64_t m_limitSecond = 0;
    double m_limitReal = 0.0;
    Block** m_tbl = nullptr;
    std::int32_t m_tblSize = 0;     // entries
    std::int32_t m_lastBlock = 0;   // index of the newest block
    std::int32_t m_usedInBlock = 0; // for the client's side of a block
};
