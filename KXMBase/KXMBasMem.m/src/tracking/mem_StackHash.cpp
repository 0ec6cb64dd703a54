// See mem_StackHash.h.
#include "mem_StackHash.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mem_BoundFunctions.h"
#include "mem_PhaseStack.h"
#include "mem_ToOs.h"
#include "objects/operator_new_loop.h"
#include "tracking/double_hash.h"
#include "tracking/test_seam.h"

namespace {

constexpr std::int32_t absent = 0x7FFFFFFF;
constexpr std::int64_t file_header_bytes = 4; // the number of records, written last
constexpr std::size_t path_bytes = mem_PhaseStack::e_maxPathSize;
static_assert(path_bytes == 131072);
constexpr std::size_t largest_base_name = 2048;

// As new (mem_BUILTIN) char[] with its failure report, but past the C interface: what the tracker
// takes for itself is no event.
char* allocate_untracked(std::size_t bytes) {
    return static_cast<char*>(operator_new::loop<operator_new::Without_handler::throws>(
        bytes, [](std::size_t size) { return mem_malloc(size); }));
}

} // namespace

// cppcheck-suppress uninitMemberVar ; pool words beyond what is used are not read
mem_StackHash::mem_StackHash()
    : m_filled(0), m_entries(0), m_size(e_slots), m_lookups(0), m_probes(0), m_keyPoolUsed(0),
      m_keyPoolSize(e_poolStep), m_keyPool(m_initialKeyPool), m_emptyKey("EMPTY"),
      m_deletedKey("DELETED") {
    for (mem_StackHashEntry& slot : m_table) {
        slot = {m_emptyKey, 0};
    }
}

mem_StackHash::~mem_StackHash() {
    if (m_keyPool != m_initialKeyPool) {
        mem_free(m_keyPool);
    }
}

mem_StackHashEntry* mem_StackHash::FindSlot(const char* key) {
    std::uint32_t sum = 0;
    for (const char* c = key; *c != '\0'; ++c) {
        sum += static_cast<std::uint32_t>(static_cast<signed char>(*c) - 48);
    }
    tracking::count_up(m_lookups);
    const auto state_of = [this, key](std::uint32_t index) {
        const char* const found = m_table[index].key;
        return found == m_emptyKey            ? tracking::SlotState::empty
               : found == m_deletedKey        ? tracking::SlotState::deleted
               : std::strcmp(found, key) == 0 ? tracking::SlotState::match
                                              : tracking::SlotState::other;
    };
    return m_table + tracking::find_slot(sum, static_cast<std::uint32_t>(m_size), m_probes,
                                         "mem_StackHash", state_of);
}

void mem_StackHash::GrowKeyPool() {
    std::fprintf(stderr, "\n\nWARNING: Memory tracking. Forced to resize mem_StackHash.\n");
    std::fprintf(stderr, "Memory use from tracking code may change allocation patterns.\n\n");
    const std::int32_t size = m_keyPoolSize + e_poolStep;
    char* const pool = allocate_untracked(static_cast<std::size_t>(size));
    std::memcpy(pool, m_keyPool, static_cast<std::size_t>(m_keyPoolUsed));
    for (mem_StackHashEntry& slot : m_table) {
        if (IsLive(slot)) {
            slot.key = pool + (slot.key - m_keyPool);
        }
    }
    if (m_keyPool != m_initialKeyPool) {
        mem_free(m_keyPool);
    }
    m_keyPool = pool;
    m_keyPoolSize = size;
}

void mem_StackHash::AddKey(mem_StackHashEntry& slot, const char* key) {
    const std::size_t length = std::strlen(key) + 1;
    // One step at a time; a path longer than a step takes several.
    while (static_cast<std::size_t>(m_keyPoolUsed) + length >
           static_cast<std::size_t>(m_keyPoolSize)) {
        GrowKeyPool();
    }
    char* const copy = m_keyPool + m_keyPoolUsed;
    std::memcpy(copy, key, length);
    slot.key = copy;
    m_keyPoolUsed += static_cast<std::int32_t>(length);
}

void mem_StackHash::InsertInTable(const char* key, int value) {
    mem_StackHashEntry& slot = *FindSlot(key);
    const bool fresh = slot.key == m_emptyKey;
    AddKey(slot, key); // a refusal of memory leaves the table as it was
    m_filled += fresh ? 1 : 0;
    slot.value = value;
    ++m_entries; // for a path that was there already, too, as in mem_PtrHash
}

bool mem_StackHash::IsFull() const {
    return tracking::at_load_limit(m_filled, m_size);
}

void mem_StackHash::Add(const char* key, int value) {
    if (!IsFull()) {
        InsertInTable(key, value);
        return;
    }
    // The other table's name, and a status that tells of no error: both are kept as they are.
    std::fprintf(stderr,
                 "mem_PtrHash::Add  --  ERROR  --  Stack hash table has been overfilled.\n");
    std::exit(0);
}

int mem_StackHash::LookUp(const char* key) {
    if (m_filled == 0) {
        return absent;
    }
    const mem_StackHashEntry* const slot = FindSlot(key);
    return IsLive(*slot) ? slot->value : absent;
}

float mem_StackHash::HitRate() const {
    return tracking::hit_rate(m_lookups, m_probes);
}

// No result is checked, which is meant: what cannot be written is missing, and memtrack tells a table of the wrong length.
void mem_StackHash::WriteToDisk(const char* baseName) {
    char name[largest_base_name + sizeof ".phaseStack"];
    std::snprintf(name, sizeof name, "%s.phaseStack", baseName);
    unsigned short buffer[1024];
    const unsigned short* const wide = mem_ToOs::ToUTF16(name, buffer, 1024);
    const os::File file = wide != nullptr ? os::file_create_wide(wide) : -1;
    if (file < 0) {
        return;
    }
    os::file_seek(file, file_header_bytes);
    std::int32_t count = 0;
    // Static, since a thread's whole stack may be smaller; trackers end one at a time.
    static char path[path_bytes];
    for (const mem_StackHashEntry& slot : m_table) {
        if (!IsLive(slot)) {
            continue;
        }
        ++count;
        tracking::test_seam::write(file, &slot.value, sizeof slot.value);
        std::strncpy(path, slot.key, path_bytes - 1); // clears the rest, too
        path[path_bytes - 1] = '\0';
        tracking::test_seam::write(file, path, path_bytes);
    }
    os::file_seek(file, 0);
    tracking::test_seam::write(file, &count, sizeof count);
    os::file_close(file);
}
