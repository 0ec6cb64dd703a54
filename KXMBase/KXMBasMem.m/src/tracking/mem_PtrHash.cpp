// See mem_PtrHash.h.
#include "mem_PtrHash.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>

#include "mem_BoundFunctions.h"
#include "tracking/double_hash.h"

static_assert(sizeof(mem_HashEntry) == 16);

namespace {

// Searched from the front for the first that is large enough. 13107 stands out of order and is not
// prime, so it is never chosen: kept as it is, and so no table has about 131 thousand slots.
constexpr std::int32_t table_sizes[] = {15683,   19609,    31397,    65521,    13107,
                                        262139,  524287,   1048573,  2097143,  4194301,
                                        8388593, 16777213, 33554393, 67108859, 134217757};

std::int32_t table_size_for(long long wanted) {
    const auto* const found = std::find_if(std::begin(table_sizes), std::end(table_sizes),
                                           [wanted](std::int32_t size) { return size >= wanted; });
    if (found == std::end(table_sizes)) {
        tracking::fatal("AssertionFailed:wanted <= 134217757", "mem_PtrHash", __LINE__);
        return table_sizes[std::size(table_sizes) - 1];
    }
    return *found;
}

} // namespace

mem_PtrHash::mem_PtrHash(int expected)
    : m_table(nullptr), m_filled(0), m_entries(0), m_size(0), m_lookups(0), m_probes(0),
      m_resized(false), m_memoryUse(0) {
    if (expected > 0) {
        Initialize(expected);
    }
}

mem_PtrHash::~mem_PtrHash() {
    if (m_table != nullptr) { // a table that never was needs no bound function either
        mem_free(m_table);
    }
}

void mem_PtrHash::Initialize(int expected) {
    MakeTable(2LL * expected);
}

void mem_PtrHash::MakeTable(long long wanted) {
    m_size = table_size_for(wanted);
    m_memoryUse = static_cast<std::uint64_t>(m_size) * sizeof(mem_HashEntry);
    m_table = static_cast<mem_HashEntry*>(mem_malloc(m_memoryUse)); // a null is not tested for
    std::fill_n(m_table, m_size, mem_HashEntry{e_emptyKey, 0});
    m_filled = 0;
    m_entries = 0;
}

void mem_PtrHash::Resize() {
    mem_HashEntry* const old = m_table;
    const std::int32_t old_size = m_size;
    MakeTable(2LL * m_entries); // live ones alone, so that it may stay as it was, or shrink
    m_resized = true;
    for (std::int32_t i = 0; i < old_size; ++i) {
        if (old[i].key != e_emptyKey && old[i].key != e_deletedKey) {
            InsertInTable(old[i].key, old[i].value);
        }
    }
    if (old != nullptr) {
        mem_free(old);
    }
}

mem_HashEntry* mem_PtrHash::FindSlot(long long key) const {
    tracking::count_up(m_lookups);
    const auto state_of = [this, key](std::uint32_t index) {
        const std::int64_t found = m_table[index].key;
        return found == e_emptyKey     ? tracking::SlotState::empty
               : found == e_deletedKey ? tracking::SlotState::deleted
               : found == key          ? tracking::SlotState::match
                                       : tracking::SlotState::other;
    };
    return m_table + tracking::find_slot(static_cast<std::uint32_t>(key),
                                         static_cast<std::uint32_t>(m_size), m_probes,
                                         "mem_PtrHash", state_of);
}

void mem_PtrHash::InsertInTable(long long key, int value) {
    mem_HashEntry* const slot = FindSlot(key);
    if (slot->key == e_emptyKey) {
        ++m_filled;
    }
    *slot = {key, value};
    ++m_entries; // for a key that was there already, too: kept so simple on purpose
}

void mem_PtrHash::Add(long long key, int value) {
    if (tracking::at_load_limit(m_filled, m_size)) { // also with no table at all
        Resize();
    }
    InsertInTable(key, value);
}

void mem_PtrHash::Delete(long long key) {
    if (m_table == nullptr) {
        return;
    }
    mem_HashEntry* const slot = FindSlot(key);
    if (slot->key == key) {
        *slot = {e_deletedKey, 0};
        --m_entries;
    }
}

int mem_PtrHash::LookUp(long long key) const {
    if (m_filled == 0) {
        return e_emptyKey;
    }
    const mem_HashEntry* const slot = FindSlot(key);
    return slot->key == e_emptyKey || slot->key == e_deletedKey ? int{e_emptyKey} : slot->value;
}

float mem_PtrHash::HitRate() const {
    return tracking::hit_rate(m_lookups, m_probes);
}

int* mem_PtrHash::CheckForLeaks(int& count) {
    count = 0;
    if (m_entries == 0) {
        return nullptr;
    }
    const auto live = [](const mem_HashEntry& slot) {
        return slot.key != e_emptyKey && slot.key != e_deletedKey;
    };
    count = static_cast<int>(std::count_if(m_table, m_table + m_size, live));
    auto* const values =
        static_cast<int*>(mem_malloc(static_cast<std::size_t>(count) * sizeof(int)));
    int* next = values;
    for (std::int32_t i = 0; i < m_size; ++i) {
        if (live(m_table[i])) {
            *next++ = m_table[i].value;
        }
    }
    return values;
}

std::size_t mem_PtrHash::MemoryUse() {
    return m_memoryUse;
}

void mem_PtrHash::MemorySummary(std::FILE* stream) {
    std::fprintf(stream, "\nHASHING INFORMATION\n");
    std::fprintf(stream, "%s",
                 m_resized ? "   HASH TABLE WAS RESIZED\n" : "   Hash Table was not Resized\n");
    std::fprintf(stream, "   Hit Rate = %f\n", static_cast<double>(HitRate()));
    std::fprintf(stream, "   m_table  = %p\n", static_cast<void*>(m_table));
    // As "%ld", which on one of the systems would take 32 bits alone.
    std::fprintf(stream, "   Memory Used for Hash Table = %" PRIu64 "\n", m_memoryUse);
}
