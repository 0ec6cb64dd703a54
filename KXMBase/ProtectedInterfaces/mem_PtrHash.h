// The tracker's table from addresses to small integers: open addresses, double hashing, memory from
// the bound functions directly, so that it never enters the tracker. No lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "KXMBasMemExport.h"

/// One slot.
struct mem_HashEntry {
    std::int64_t key; ///< an address, or one of the two states below
    std::int32_t value;
};

class KXMBASMEM_API mem_PtrHash {
public:
    // Keys that mark a slot, and so cannot be stored. The first is also LookUp's answer for an absent
    // key: values stay below e_deletedKey.
    enum { e_emptyKey = 0x7FFFFFFF, e_deletedKey = 0x7FFFFFFE };

    /// Room for `expected` entries at once; 0 leaves that to the first Add.
    explicit mem_PtrHash(int expected);
    ~mem_PtrHash();

    /// Enters the key, or replaces its value.
    void Add(long long key, int value);
    void Delete(long long key); ///< nothing when it is absent
    int LookUp(long long key) const;

    /// The mean number of slots that a search looked at, 1 at best, in spite of the name; 0 before
    /// the first search.
    float HitRate() const;

    /// The values of all live entries, in an array that the caller gives back through mem_free; null
    /// and a count of 0 when there are none.
    int* CheckForLeaks(int& count);
    std::size_t MemoryUse(); ///< bytes of the table
    void MemorySummary(std::FILE* stream);

private:
    mem_PtrHash(const mem_PtrHash&);
    mem_PtrHash& operator=(const mem_PtrHash&);
    void Initialize(int expected);
    void Resize();
    void MakeTable(long long wanted);
    void InsertInTable(long long key, int value);
    mem_HashEntry* FindSlot(long long key) const;

    mem_HashEntry* m_table;
    std::int32_t m_filled;  // live and deleted slots
    std::int32_t m_entries; // live ones; a replaced value counts again: meant
    std::int32_t m_size;
    mutable std::int32_t m_lookups;
    mutable std::int32_t m_probes;
    bool m_resized;
    std::uint64_t m_memoryUse;
};
