// The tracker's table from phase paths to their identifiers, which also writes the .phaseStack file
// (docs/tracking-files.md). It lives inside its object and allocates only when the texts of the paths
// outgrow 32768 bytes. No lock of its own.
#pragma once

#include <cstdint>

#include "KXMBasMemExport.h"

/// One slot: the key points into the pool of texts, or at one of the two state texts.
struct mem_StackHashEntry {
    const char* key;
    std::int32_t value;
};

class KXMBASMEM_API mem_StackHash {
public:
    mem_StackHash();
    ~mem_StackHash();

    /// Enters a path; the text is copied. At 3992 paths the table is full: the process ends with a
    /// message and status 0.
    void Add(const char* key, int value);
    bool IsFull() const; ///< the next path would be too many

    /// The path's identifier, or 0x7FFFFFFF for an unknown one.
    int LookUp(const char* key);

    /// Writes `baseName`.phaseStack. A file that cannot be written is silently missing. pre: a
    /// converter is registered with mem_ToOs.
    void WriteToDisk(const char* baseName);

    float HitRate() const; ///< as mem_PtrHash::HitRate

private:
    enum { e_slots = 5987, e_poolStep = 32768 };

    mem_StackHash(const mem_StackHash&);
    mem_StackHash& operator=(const mem_StackHash&);
    void InsertInTable(const char* key, int value);
    void AddKey(mem_StackHashEntry& slot, const char* key);
    void GrowKeyPool();
    mem_StackHashEntry* FindSlot(const char* key);
    bool IsLive(const mem_StackHashEntry& slot) const {
        return slot.key != m_emptyKey && slot.key != m_deletedKey; // by address, not by text
    }

    mem_StackHashEntry m_table[e_slots];
    std::int32_t m_filled;
    std::int32_t m_entries;
    std::int32_t m_size;
    std::int32_t m_lookups;
    std::int32_t m_probes;
    std::int32_t m_keyPoolUsed;
    char m_initialKeyPool[e_poolStep];
    std::int32_t m_keyPoolSize;
    char* m_keyPool;
    char m_emptyKey[6];
    char m_deletedKey[8];
};
