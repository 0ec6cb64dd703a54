// The library's chained hash table. A client brings HashValue for its kind of key; the library has it
// for C strings:
//
//   HashTable<const char*, int> lines(2047);
//   lines["beam.dat"] = 120;
//   for (HashIterator<const char*, int> at = lines.begin(); !at.IsDone(); at.Next()) {
//       use(at.CurrentKey(), at.CurrentValue());
//   }
//
// TWO COMPARISONS: operator[] and find() compare keys by key_compare; Insert, LookUp and Delete by
// ==. For C strings the former looks at the texts and the latter at the addresses, so that two equal
// texts at two addresses are one key for find() and two for Insert. Keep to one of the two groups.
//
// The number of buckets is fixed. A position is a count along a chain and not a pointer: each step
// walks from the head of its bucket, and an entry added or deleted there moves the ones behind it.
// Keys are copied as they are; a table of C strings does not own the texts. Entries come from the
// class-level operator new, which throws std::bad_alloc; the table is then as it was.
//
// A position that leads nowhere ends the process with the C runtime's assertion. No lock: a table is
// for one thread at a time.
#pragma once

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperators.h"
#include "mem_AllocationOperatorsTiny.h"
#include "mem_Interface.h"

/// A key's bucket among `size`, which is not 0. Every kind of key needs a specialisation of its own.
template <class K> unsigned int HashValue(const K& key, unsigned int size) = delete;

/// Whether two keys are one for operator[] and find().
template <class K> bool key_compare(const K& one, const K& other) {
    return one == other;
}

/// Of a text of 29 characters and more, what follows the first 28, which in paths are often the same.
/// Its last character does not count, so that texts that differ only there share a bucket.
template <>
KXMBASMEM_API unsigned int HashValue<const char*>(const char* const& key, unsigned int size);
template <> inline bool key_compare<const char*>(const char* const& one, const char* const& other) {
    return std::strcmp(one, other) == 0;
}

namespace kxm {

/// Reports a broken rule of the table as the C runtime's own assertion does, and ends the process.
[[noreturn]] KXMBASMEM_API void hash_table_failed(const char* condition, unsigned int line);

template <class K, class V> struct HashTableFields {
    K key;
    V value;
    void* next;
};

/// The base that an entry of this size takes its operators from.
template <class K, class V>
using HashTableOperators =
    typename std::conditional<sizeof(HashTableFields<K, V>) <= 128, mem_AllocationOperatorsTiny,
                              mem_AllocationOperators>::type;

} // namespace kxm

template <class K, class V>
class KXMBASMEM_TEMPLATE HashTableEntry : public kxm::HashTableOperators<K, V> {
public:
    HashTableEntry(const K& entryKey, const V& entryValue, HashTableEntry* nextEntry)
        : key(entryKey), value(entryValue), next(nextEntry) {}

    K key;
    V value;
    HashTableEntry* next; ///< in the same bucket
};

/// The `offset`th entry of a bucket, counted from 1. The end is bucket 0 and offset 0.
struct iterState {
    unsigned int bucket;
    unsigned int offset;
};

template <class K, class V> class HashIterator;

template <class K, class V> class KXMBASMEM_TEMPLATE HashTable {
public:
    /// Throws std::bad_alloc when the array of buckets cannot be had. A table of no buckets is empty
    /// for good: to add to it is a broken rule.
    explicit HashTable(unsigned int size);
    ~HashTable();
    HashTable(const HashTable&) = delete;
    HashTable& operator=(const HashTable&) = delete;

    void Clear(); ///< deletes the entries; the buckets stay

    // By key_compare.
    V& operator[](const K& key); ///< the value; when absent a default one, at the head of its chain
    HashIterator<K, V> find(const K& key); ///< at the entry, or the end

    // By ==.
    void Insert(const K& key, const V& value); ///< adds at the head of the chain, or assigns
    void Delete(const K& key);                 ///< nothing when it is absent
    /// False, and `value` untouched, when the key is absent.
    bool LookUp(const K& key, V& value) const;

    HashIterator<K, V> begin() const;
    HashIterator<K, V> end() const;
    iterState First() const;
    iterState Next(const iterState& pos) const;
    const K& CurrentKey(const iterState& pos) const;
    V CurrentValue(const iterState& pos) const;
    HashTableEntry<K, V>& CurrentEntry(const iterState& pos) const;

    unsigned int size() const { return m_size; } ///< number of buckets, not of entries
    bool empty() const { return m_size == 0; }   ///< without buckets, whatever the entries
    void dump() const;                           ///< walks all entries and prints nothing

private:
    typedef HashTableEntry<K, V> Entry;

    static void Require(bool holds, const char* condition, unsigned int line) {
        if (!holds) {
            kxm::hash_table_failed(condition, line);
        }
    }
    struct Identical {
        bool operator()(const K& one, const K& other) const { return one == other; }
    };
    struct Alike {
        bool operator()(const K& one, const K& other) const { return key_compare<K>(one, other); }
    };

    // The link to the key's entry, or the one that ends its chain; null where there are no buckets.
    template <class Same> Entry** Link(const K& key, Same same) const {
        if (m_size == 0) {
            return nullptr;
        }
        Entry** link = &m_buckets[HashValue<K>(key, m_size)];
        while (*link != nullptr && !same((*link)->key, key)) {
            link = &(*link)->next;
        }
        return link;
    }

    V& Add(const K& key, const V& value) {
        Require(m_size != 0, "entry != 0", __LINE__);
        Entry*& head = m_buckets[HashValue<K>(key, m_size)];
        Entry* const entry = new Entry(key, value, head);
        Require(entry != nullptr, "entry != 0", __LINE__);
        head = entry;
        return entry->value;
    }

    // The first entry of this bucket or of one behind it.
    iterState FirstFrom(unsigned int bucket) const {
        while (bucket < m_size && m_buckets[bucket] == nullptr) {
            ++bucket;
        }
        const iterState found = {bucket, 1}, none = {0, 0};
        return bucket < m_size ? found : none;
    }

    Entry** m_buckets;
    unsigned int m_size;
};

/// A position together with its table, which must outlive it.
template <class K, class V> class KXMBASMEM_TEMPLATE HashIterator {
public:
    HashIterator(const HashTable<K, V>& table, const iterState& pos)
        : m_table(&table), m_state(pos) {}

    void First() { m_state = m_table->First(); }      ///< to the table's first entry
    void Next() { m_state = m_table->Next(m_state); } ///< to the one behind; not from the end
    void next() { Next(); }
    HashIterator begin() const { return m_table->begin(); }
    bool IsDone() const { return m_state.offset == 0; } ///< at the end

    const K& CurrentKey() const { return m_table->CurrentKey(m_state); }
    V CurrentValue() const { return m_table->CurrentValue(m_state); }
    HashTableEntry<K, V>& operator*() const { return m_table->CurrentEntry(m_state); }

    /// The positions alone: not the tables.
    bool operator==(const HashIterator& other) const {
        return m_state.bucket == other.m_state.bucket && m_state.offset == other.m_state.offset;
    }
    bool operator!=(const HashIterator& other) const { return !(*this == other); }

private:
    const HashTable<K, V>* m_table;
    iterState m_state;
};

template <class K, class V>
HashTable<K, V>::HashTable(unsigned int size)
    : m_buckets(static_cast<Entry**>(mem_Malloc(std::size_t{size} * sizeof(Entry*)))),
      m_size(size) {
    if (m_buckets == nullptr) {
        throw std::bad_alloc();
    }
    for (unsigned int i = 0; i < size; ++i) {
        m_buckets[i] = nullptr;
    }
}

template <class K, class V> HashTable<K, V>::~HashTable() {
    Clear();
    mem_Free(m_buckets);
}

template <class K, class V> void HashTable<K, V>::Clear() {
    for (unsigned int i = 0; i < m_size; ++i) {
        while (Entry* const entry = m_buckets[i]) {
            m_buckets[i] = entry->next;
            delete entry;
        }
    }
}

template <class K, class V> V& HashTable<K, V>::operator[](const K& key) {
    Entry** const link = Link(key, Alike());
    return link != nullptr && *link != nullptr ? (*link)->value : Add(key, V());
}

template <class K, class V> HashIterator<K, V> HashTable<K, V>::find(const K& key) {
    if (m_size == 0) {
        return end();
    }
    iterState pos = {HashValue<K>(key, m_size), 1};
    for (Entry* entry = m_buckets[pos.bucket]; entry != nullptr; entry = entry->next) {
        if (key_compare<K>(entry->key, key)) {
            return HashIterator<K, V>(*this, pos);
        }
        ++pos.offset;
    }
    return end();
}

template <class K, class V> void HashTable<K, V>::Insert(const K& key, const V& value) {
    Entry** const link = Link(key, Identical());
    if (link != nullptr && *link != nullptr) {
        (*link)->value = value;
    } else {
        Add(key, value);
    }
}

template <class K, class V> void HashTable<K, V>::Delete(const K& key) {
    Entry** const link = Link(key, Identical());
    if (link != nullptr && *link != nullptr) {
        Entry* const entry = *link;
        *link = entry->next;
        delete entry;
    }
}

template <class K, class V> bool HashTable<K, V>::LookUp(const K& key, V& value) const {
    Entry** const link = Link(key, Identical());
    if (link == nullptr || *link == nullptr) {
        return false;
    }
    value = (*link)->value;
    return true;
}

template <class K, class V> HashIterator<K, V> HashTable<K, V>::begin() const {
    return HashIterator<K, V>(*this, First());
}

template <class K, class V> HashIterator<K, V> HashTable<K, V>::end() const {
    const iterState none = {0, 0};
    return HashIterator<K, V>(*this, none);
}

template <class K, class V> iterState HashTable<K, V>::First() const {
    return FirstFrom(0);
}

template <class K, class V> iterState HashTable<K, V>::Next(const iterState& pos) const {
    Require(pos.offset != 0, "pos.offset != 0", __LINE__);
    if (CurrentEntry(pos).next == nullptr) {
        return FirstFrom(pos.bucket + 1);
    }
    const iterState next = {pos.bucket, pos.offset + 1};
    return next;
}

template <class K, class V> const K& HashTable<K, V>::CurrentKey(const iterState& pos) const {
    Require(pos.offset != 0, "pos.offset != 0", __LINE__);
    return CurrentEntry(pos).key;
}

template <class K, class V> V HashTable<K, V>::CurrentValue(const iterState& pos) const {
    return CurrentEntry(pos).value;
}

template <class K, class V>
HashTableEntry<K, V>& HashTable<K, V>::CurrentEntry(const iterState& pos) const {
    Entry* entry = pos.offset != 0 && pos.bucket < m_size ? m_buckets[pos.bucket] : nullptr;
    for (unsigned int i = 1; i < pos.offset && entry != nullptr; ++i) {
        entry = entry->next;
    }
    Require(entry != nullptr, "entry != 0", __LINE__);
    return *entry;
}

template <class K, class V> void HashTable<K, V>::dump() const {
    for (iterState pos = First(); pos.offset != 0; pos = Next(pos)) {
        CurrentEntry(pos);
    }
}
