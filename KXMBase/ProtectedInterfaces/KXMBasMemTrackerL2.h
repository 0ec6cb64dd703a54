// A table of files and a number for each, which other components fill.
#pragma once

#include <cstdint>

#include "KXMBasHashTable.h"
#include "KXMBasMemExport.h"
#include "mem_AllocationOperatorsTiny.h"
#include "omi_SingletonBase.h"

/// A file's name and a number.
class KXMBASMEM_API KXMBasMemFileHashEntry {
public:
    /// `name` is copied, cut to 183 characters; null gives an empty one.
    explicit KXMBasMemFileHashEntry(const char* name = nullptr, long long value = 0);

    const char* Name() const { return m_name; }
    long long Value() const { return m_value; }

private:
    char m_name[184];
    std::int64_t m_value;
};

class KXMBasMemTrackerL2;
template <> KXMBASMEM_API KXMBasMemTrackerL2* omi_SingletonBase<KXMBasMemTrackerL2>::instance;

/// The table's owner: KXMBasMemTrackerL2::Instance() makes it at first use, and
/// omi_SingletonBase<KXMBasMemTrackerL2>::Finalize() ends it. For one thread at a time.
class KXMBASMEM_API KXMBasMemTrackerL2 : public omi_Singleton<KXMBasMemTrackerL2>,
                                         public mem_AllocationOperatorsTiny {
public:
    KXMBasMemTrackerL2();
    ~KXMBasMemTrackerL2();

    /// For the components that fill it, by file name; the names are theirs.
    HashTable<const char*, KXMBasMemFileHashEntry> m_files;
};
