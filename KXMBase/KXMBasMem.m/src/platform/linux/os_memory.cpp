// Virtual memory on Linux, made to behave as the heap needs it: allocations start on 64 KiB
// boundaries, a release succeeds on whole allocations alone, and a query tells an allocation's
// start from its middle. The kernel knows none of that (it merges neighbours and unmaps any range),
// so this file keeps a table of what it handed out, sorted by address, in memory of its own.
//
// Placement. Segments grow upward through a zone of their own, each directly behind the last one,
// so that the heap's growth joins its top chunk. Direct mappings are placed downward from the top
// of a second zone, in the highest gap that fits. Both zones begin at a place that varies with the
// process's own address layout. Where a zone is taken (a checker's shadow memory, a limited address
// space), the kernel chooses, and only the joining is lost.
//
// Small segments are populated as they are mapped, and neighbours are unmapped in one call: growing
// and trimming by 64 KiB at a time would cost a fault a page and a call a unit.
//
// Mappings of 4 MiB and more start on 2 MiB and are advised for huge pages: a solver's arrays are
// touched whole, and one fault then serves 2 MiB. A segment that continues its predecessor keeps
// its place, since joining is worth more to it.
#include "platform/os.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/granule_map.h"
#include "platform/linux/fork_parts.h"
#include "platform/linux/proc_maps.h"

namespace os {
namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t granularity = 65536;
constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr std::size_t huge_advice_from = std::size_t{4} << 20;
// A segment is asked for because the heap is about to hand its first part out. One of no more than
// this gets its pages with the mapping, for about half of what their faults would cost one by one.
constexpr std::size_t populated_up_to = std::size_t{256} << 10;

// Where segments start upward and direct mappings downward, before the random part is added.
struct Zones {
    std::uintptr_t segments, direct_top, spread;
};
constexpr Zones plain_zones{0x2000'0000'0000, 0x5000'0000'0000, 0x100'0000'0000};
// ThreadSanitizer ends a process that maps outside the ranges it knows; these lie in its lowest.
constexpr Zones thread_checker_zones{0x10'0000'0000, 0x70'0000'0000, 0x4'0000'0000};

struct Allocation {
    std::uintptr_t base;
    std::size_t size;
};

// The table begins with room for so many entries, and doubles when it is full. Nothing is set aside for it: where
// address space is limited, that would be taken from the client.
constexpr std::size_t first_capacity = 4096; // entries; 64 KiB

extern "C" void __tsan_init() __attribute__((weak)); // there when a client was built with it

Zones zones = plain_zones;
pthread_mutex_t table_lock = PTHREAD_MUTEX_INITIALIZER;
Allocation* table = nullptr;
std::size_t table_count = 0;
std::size_t table_capacity = 0;
std::uintptr_t next_segment = 0;
std::uintptr_t direct_top = 0;
std::atomic<GranuleMap*> granules{nullptr};

class TableGuard {
public:
    TableGuard() { pthread_mutex_lock(&table_lock); }
    ~TableGuard() { pthread_mutex_unlock(&table_lock); }
    TableGuard(const TableGuard&) = delete;
    TableGuard& operator=(const TableGuard&) = delete;
};

constexpr std::uintptr_t round_up(std::uintptr_t value, std::size_t unit) {
    return (value + unit - 1) & ~(static_cast<std::uintptr_t>(unit) - 1);
}

constexpr std::uintptr_t round_down(std::uintptr_t value, std::size_t unit) {
    return value & ~(static_cast<std::uintptr_t>(unit) - 1);
}

void* map(std::uintptr_t hint, std::size_t size, int protection, int extra_flags) {
    void* const where = reinterpret_cast<void*>(hint);
    void* const got =
        mmap(where, size, protection, MAP_PRIVATE | MAP_ANONYMOUS | extra_flags, -1, 0);
    return got == MAP_FAILED ? nullptr : got;
}

// Maps exactly at `base` or not at all; errno is EEXIST when something else is there.
bool map_at(std::uintptr_t base, std::size_t size, int extra_flags = 0) {
    void* const got = map(base, size, PROT_READ | PROT_WRITE, MAP_FIXED_NOREPLACE | extra_flags);
    if (reinterpret_cast<std::uintptr_t>(got) == base) {
        return true;
    }
    if (got != nullptr) { // a kernel or checker that takes the address as a hint only
        munmap(got, size);
        errno = EEXIST;
    }
    return false;
}

// Wherever the kernel likes, at a multiple of `alignment`.
std::uintptr_t map_anywhere(std::size_t size, std::size_t alignment) {
    const std::size_t padded = size + alignment - page;
    if (padded < size) {
        return 0;
    }
    const auto got = reinterpret_cast<std::uintptr_t>(map(0, padded, PROT_READ | PROT_WRITE, 0));
    if (got == 0) {
        return 0;
    }
    const std::uintptr_t base = round_up(got, alignment);
    const std::uintptr_t end = base + size;
    const std::uintptr_t padded_end = got + padded;
    const auto cut = [](std::uintptr_t from, std::uintptr_t to) {
        return from == to || munmap(reinterpret_cast<void*>(from), to - from) == 0;
    };
    if (!cut(got, base) || !cut(end, padded_end)) {
        munmap(reinterpret_cast<void*>(got), padded); // the kernel's count of mappings is exhausted
        return 0;
    }
    return base;
}

bool grow_table() {
    const std::size_t capacity = std::max(first_capacity, 2 * table_capacity);
    void* const got = map(0, capacity * sizeof(Allocation), PROT_READ | PROT_WRITE, 0);
    if (got == nullptr) {
        return false;
    }
    if (table != nullptr) {
        std::memcpy(got, table, table_count * sizeof(Allocation));
        munmap(table, table_capacity * sizeof(Allocation));
    }
    table = static_cast<Allocation*>(got);
    table_capacity = capacity;
    return true;
}

bool prepare_table() {
    if (table != nullptr) {
        return true;
    }
    void* const bits = map(0, sizeof(GranuleMap), PROT_READ | PROT_WRITE, MAP_NORESERVE);
    if (bits == nullptr) {
        return false;
    }
    if (!grow_table()) {
        munmap(bits, sizeof(GranuleMap));
        return false;
    }
    granules.store(new (bits) GranuleMap, std::memory_order_release);
    // The table's own address varies as the kernel varies every process's layout, and does not
    // where that is switched off, so the zones follow the user's choice.
    if (__tsan_init != nullptr) {
        zones = thread_checker_zones;
    }
    constexpr std::uintptr_t steps = 0x4000;
    const std::uintptr_t step = (reinterpret_cast<std::uintptr_t>(table) / page) % steps;
    const std::uintptr_t shift = step * (zones.spread / steps);
    next_segment = zones.segments + shift;
    direct_top = zones.direct_top - shift;
    return true;
}

// Sets or clears the bits of a range. False when a page for them cannot be had, which clearing never needs.
bool mark(std::uintptr_t base, std::size_t size, bool held) {
    GranuleMap& map_of_bits = *granules.load(std::memory_order_relaxed);
    constexpr unsigned bits = GranuleMap::granule_bits;
    const std::uintptr_t end = round_up(base + size, granularity) >> bits;
    for (std::uintptr_t granule = base >> bits; granule < end;) {
        std::atomic<GranuleMap::Word*>& leaf = map_of_bits.leaf[granule >> GranuleMap::leaf_bits];
        GranuleMap::Word* words = leaf.load(std::memory_order_relaxed);
        if (words == nullptr && !held) {
            return true; // the page that could not be had: nothing was marked from here on
        }
        if (words == nullptr) {
            void* const page_of_bits = map(0, GranuleMap::leaf_bytes, PROT_READ | PROT_WRITE, 0);
            if (page_of_bits == nullptr) {
                return false;
            }
            words = static_cast<GranuleMap::Word*>(page_of_bits);
            leaf.store(words, std::memory_order_release);
        }
        // A word at a time.
        GranuleMap::Word& word = words[granule / 64 % (GranuleMap::leaf_bytes / 8)];
        const std::uintptr_t first = granule % 64;
        const std::uintptr_t count = std::min<std::uintptr_t>(64 - first, end - granule);
        const std::uint64_t mask =
            (count == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1) << first;
        const std::uint64_t now = word.load(std::memory_order_relaxed);
        word.store(held ? now | mask : now & ~mask, std::memory_order_relaxed);
        granule += count;
    }
    return true;
}

// Room for one more entry.
bool prepare_entry() {
    return prepare_table() && (table_count < table_capacity || grow_table());
}

Allocation* first_not_below(std::uintptr_t address) {
    return std::lower_bound(
        table, table + table_count, address,
        [](const Allocation& entry, std::uintptr_t value) { return entry.base < value; });
}

void record(std::uintptr_t base, std::size_t size) {
    Allocation* const slot = first_not_below(base);
    std::memmove(slot + 1, slot,
                 static_cast<std::size_t>(table + table_count - slot) * sizeof(Allocation));
    *slot = {base, size};
    ++table_count;
}

// The allocation that holds `address`, or null.
const Allocation* holding(std::uintptr_t address) {
    const Allocation* const above = first_not_below(address + 1);
    if (above == table) {
        return nullptr;
    }
    const Allocation* const candidate = above - 1;
    return address - candidate->base < candidate->size ? candidate : nullptr;
}

// How far to go on when something that is not ours lies in the way, and how often.
constexpr std::size_t leap = std::size_t{64} << 30;
constexpr int leaps = 4;

// Behind the last segment; failing that a fresh start further up, which leaves it room to grow.
std::uintptr_t place_segment(std::size_t size, std::size_t alignment) {
    const int flags = size <= populated_up_to ? MAP_POPULATE : 0;
    if (map_at(next_segment, size, flags)) {
        return next_segment;
    }
    std::uintptr_t fresh = round_up(next_segment, alignment);
    for (int attempt = 0; attempt < leaps && errno == EEXIST; ++attempt) {
        fresh += leap;
        if (map_at(fresh, size)) {
            return fresh;
        }
    }
    return errno == EEXIST ? map_anywhere(size, alignment) : 0;
}

// The highest gap of the direct zone that fits, found from the table; what the kernel placed above
// the zone does not count. Below the lowest mapping the zone is open, and anything foreign there is
// leapt over. The walk is linear in the mappings above the gap: microseconds for thousands, little
// beside the faults that the pages of a direct mapping take.
std::uintptr_t place_direct(std::size_t size, std::size_t alignment) {
    const std::uintptr_t zone_floor = zones.segments + 2 * zones.spread;
    std::uintptr_t ceiling = direct_top;
    for (const Allocation* above = first_not_below(direct_top);; --above) {
        const Allocation* const below = above != table ? above - 1 : nullptr;
        const std::uintptr_t below_end = below != nullptr ? below->base + below->size : 0;
        const std::uintptr_t floor = std::max(below_end, zone_floor);
        const bool open = floor == zone_floor;
        for (int attempt = 0; attempt <= (open ? leaps : 0); ++attempt) {
            if (ceiling < floor || ceiling - floor < size) {
                break;
            }
            const std::uintptr_t candidate = round_down(ceiling - size, alignment);
            if (candidate >= floor && map_at(candidate, size)) {
                return candidate;
            }
            if (candidate >= floor && errno != EEXIST) {
                return 0; // no memory, wherever
            }
            ceiling = ceiling > leap && open ? ceiling - leap : ceiling;
        }
        if (open) {
            return map_anywhere(size, alignment);
        }
        ceiling = below->base;
    }
}

const Allocation* starting_at(const void* base) {
    if (table_count == 0) {
        return nullptr;
    }
    const auto address = reinterpret_cast<std::uintptr_t>(base);
    const Allocation* const entry = first_not_below(address);
    return entry != table + table_count && entry->base == address ? entry : nullptr;
}

// Gives the neighbours [first, last) back in one call, which costs the kernel little more than one
// of them, and takes them off the table. Returns their bytes, or 0.
std::size_t unmap_run(const Allocation* first, const Allocation* last) {
    if (first == last) {
        return 0;
    }
    const std::uintptr_t base = first->base;
    const std::uintptr_t end = (last - 1)->base + (last - 1)->size;
    const KeptError kept;
    mark(base, end - base, false); // first: the kernel may give the place to another at once
    if (munmap(reinterpret_cast<void*>(base), end - base) != 0) {
        mark(base, end - base, true);
        return 0;
    }
    if (round_up(end, granularity) == next_segment) {
        next_segment = base; // the last segment: the next one takes its place
    }
    std::memmove(const_cast<Allocation*>(first), last,
                 static_cast<std::size_t>(table + table_count - last) * sizeof(Allocation));
    table_count -= static_cast<std::size_t>(last - first);
    return end - base;
}

Region region_of(const Allocation& allocation, std::uintptr_t address) {
    const std::uintptr_t base = round_down(address, page);
    return {base, allocation.base, allocation.base + allocation.size - base, state_commit,
            type_private};
}

} // namespace

const Properties& properties() {
    // Granularity is the reference system's, so that footprints and limits agree to the byte.
    static constexpr Properties linux_properties{page, granularity, '/', ':', "opt/", "bsf/"};
    return linux_properties;
}

void* vm_allocate(std::size_t size, Placement placement) {
    if (size == 0 || size > PTRDIFF_MAX - granularity) {
        return nullptr;
    }
    const std::size_t bytes = round_up(size, page);
    const std::size_t alignment = bytes >= huge_advice_from ? huge_page : granularity;

    // A refusal is told by the result alone, a failed attempt at a place not at all.
    const KeptError kept;
    std::uintptr_t base = 0;
    {
        const TableGuard guard;
        if (!prepare_entry()) {
            return nullptr;
        }
        base = placement == Placement::segment ? place_segment(bytes, alignment)
                                               : place_direct(bytes, alignment);
        if (base != 0 && !mark(base, bytes, true)) {
            mark(base, bytes, false);
            munmap(reinterpret_cast<void*>(base), bytes);
            base = 0;
        }
        if (base == 0) {
            return nullptr;
        }
        record(base, bytes);
        // Where the kernel chooses, it goes downward, and what lies behind is another's: the next one is tried
        // where this one was, again.
        if (placement == Placement::segment && base < direct_top) {
            next_segment = round_up(base + bytes, granularity);
        }
    }
    if (bytes >= huge_advice_from) {
        madvise(reinterpret_cast<void*>(base), bytes, MADV_HUGEPAGE); // advice; refusal is fine
    }
    return reinterpret_cast<void*>(base);
}

bool vm_release(void* base) {
    const TableGuard guard;
    const Allocation* const entry = starting_at(base);
    return entry != nullptr && unmap_run(entry, entry + 1) != 0;
}

std::size_t vm_release_run(void* base, std::size_t size) {
    const TableGuard guard;
    const Allocation* const first = starting_at(base);
    if (first == nullptr) {
        return 0;
    }
    const Allocation* last = first; // one behind the run
    for (std::size_t left = size; last != table + table_count && last->size <= left; ++last) {
        if (last != first && last->base != (last - 1)->base + (last - 1)->size) {
            break;
        }
        left -= last->size;
    }
    return unmap_run(first, last);
}

bool vm_query(const void* address, Region& region) {
    return UpwardQueries().query(address, region);
}

UpwardQueries::UpwardQueries() {
    static_assert(sizeof storage_ >= sizeof(ProcessMap) && alignof(ProcessMap) <= 8);
    ::new (static_cast<void*>(storage_)) ProcessMap;
}

UpwardQueries::~UpwardQueries() {
    std::launder(reinterpret_cast<ProcessMap*>(storage_))->~ProcessMap();
}

bool UpwardQueries::query(const void* address, Region& region) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    {
        const TableGuard guard;
        if (table_count != 0) {
            if (const Allocation* const own = holding(wanted)) {
                region = region_of(*own, wanted);
                return true;
            }
        }
    }
    return std::launder(reinterpret_cast<ProcessMap*>(storage_))->query(wanted, region);
}

void* vm_reserve(std::size_t size) {
    return map(0, round_up(size, page), PROT_NONE, MAP_NORESERVE);
}

const GranuleMap* vm_granules() {
    return granules.load(std::memory_order_acquire);
}

void fork_parts::lock_table() {
    pthread_mutex_lock(&table_lock);
}

void fork_parts::unlock_table() {
    pthread_mutex_unlock(&table_lock);
}

// The lock counts those who wait for it, and they are not here.
void fork_parts::renew_table() {
    table_lock = PTHREAD_MUTEX_INITIALIZER;
}

} // namespace os
