// See mem_Cluster.h.
#include "cache/mem_Cluster.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "blocks/invariant.h"

namespace {

constexpr const char* source = "mem_Cluster";
constexpr int cluster_words = 65536;
constexpr std::size_t cluster_bytes = 262144;
constexpr int slot_shift = 10;
// A slot's last two words are the record of the chunk behind it.
constexpr int fixed_region_words = blocks::slot_words - 2;

static_assert(1 << slot_shift == blocks::slot_words);
static_assert(cluster_words * sizeof(blocks::word) == cluster_bytes);

// Bytes of an allocation by region type; 0 where it differs from one to the next.
constexpr std::size_t alloc_bytes[11] = {4, 8, 16, 32, 48, 64, 80, 96, 112, 128, 0};

using blocks::require;

} // namespace

mem_Cluster::mem_Cluster(int index)
    : mem_Block(0, nullptr, mem_BLK_CLUSTER), m_clusterIndex(index) {
    Clear(); // should Initialize get no memory
}

void mem_Cluster::Clear() {
    std::fill(std::begin(m_curRegion), std::end(m_curRegion), -1);
    std::fill(std::begin(m_nextCluster), std::end(m_nextCluster), -1);
    std::fill(std::begin(m_lastCluster), std::end(m_lastCluster), -1);
    std::fill(std::begin(m_clusterRegions), std::end(m_clusterRegions), mem_RGN_VARIABLE);
    m_openRegions = 0;
}

mem_Cluster::~mem_Cluster() = default;

mem_RegionTypeEnm mem_Cluster::RegionType(std::size_t size) {
    require(size > 0 && size <= MAX_CLUSTER_ALLOC_BYTES,
            "AssertionFailed:size > 0 && size <= MAX_CLUSTER_ALLOC_BYTES", source);
    return size - 1 < blocks::largest_class_size ? blocks::size_class(size) : mem_RGN_VARIABLE;
}

mem_Cluster* mem_Cluster::CreateCluster(int index, int* where, mem_Allocator* allocator) {
    mem_Cluster* const cluster = new (where) mem_Cluster(index);
    cluster->Initialize(allocator);
    return cluster->IsFree() ? nullptr : cluster;
}

void mem_Cluster::Initialize(mem_Allocator* allocator) {
    require(IsFree(), "AssertionFailed:IsFree()", source);
    auto* const memory = static_cast<int*>(allocator->Malloc("mem_Cluster", cluster_bytes));
    if (memory == nullptr) {
        return;
    }
    SetBlock(cluster_words, memory);
    new (memory) mem_VariableRegion(0, cluster_words, this);
    Clear();
    m_curRegion[mem_RGN_VARIABLE] = 0;
}

void mem_Cluster::Delete(mem_Allocator* allocator) {
    if (!IsFree()) {
        FreeBlock(allocator);
    }
}

mem_Region* mem_Cluster::Region(int index) const {
    require(index >= 0 && index < slot_count, "AssertionFailed:index >= 0 && index < 64", source);
    if (Ptr(0) == nullptr) {
        return nullptr;
    }
    switch (m_clusterRegions[index]) {
    case mem_RGN_EMPTY:
        return nullptr;
    case mem_RGN_VARIABLE:
        return VariableRegion();
    default:
        return FixedRegion(index);
    }
}

int mem_Cluster::RegionIndex(mem_CachePoolID id) const {
    require(static_cast<int>(id.bits.cluster) == m_clusterIndex,
            "AssertionFailed:id.bits.cluster == m_clusterIndex", source);
    const int slot = static_cast<int>(id.bits.offset) >> slot_shift;
    return m_clusterRegions[slot] == mem_RGN_VARIABLE ? 0 : slot;
}

mem_CachePoolID mem_Cluster::Alloc(std::size_t size) {
    const mem_RegionTypeEnm typ = RegionType(size);
    const int regionIndex = m_curRegion[typ];
    if (regionIndex != -1) {
        require(m_clusterRegions[regionIndex] == typ,
                "AssertionFailed:m_clusterRegions[regionIndex] == typ", source);
        mem_Region* const rgn = Region(regionIndex);
        require(rgn != nullptr, "AssertionFailed:rgn != 0", source);
        if (rgn == nullptr) {
            return 0; // a cluster whose memory was released has no room
        }
        if (typ == mem_RGN_VARIABLE) {
            const int offset = rgn->Alloc(this, size);
            return offset != -1 ? Identifier(offset) : mem_CachePoolID(0);
        }
        int offset = AllocInRegion(regionIndex);
        if (offset == -1) {
            offset = AllocInOtherRegions(typ);
        }
        if (offset != -1) {
            return Identifier(offset);
        }
    }
    mem_Region* const rgn = CreateRegion(typ);
    if (rgn == nullptr) {
        return 0;
    }
    const int allocOffset = rgn->Alloc(this, size);
    require(allocOffset != -1, "AssertionFailed:allocOffset != -1", source);
    return Identifier(allocOffset);
}

int mem_Cluster::AllocInRegion(int slot) {
    const std::uint64_t bit = std::uint64_t{1} << slot;
    if ((m_openRegions & bit) == 0) {
        return -1;
    }
    const int offset = FixedRegion(slot)->Alloc(this, 1); // the size is not looked at
    if (offset == -1) {
        m_openRegions &= ~bit;
    }
    return offset;
}

// The slots of the type are tried from the highest down, and the current region moves with the search,
// so that after a vain one it is the lowest: meant.
int mem_Cluster::AllocInOtherRegions(mem_RegionTypeEnm type) {
    for (std::uint64_t left = m_openRegions; left != 0;) {
        const int slot = static_cast<int>(std::bit_width(left)) - 1;
        left ^= std::uint64_t{1} << slot;
        if (m_clusterRegions[slot] == type) {
            const int offset = AllocInRegion(slot);
            if (offset != -1) {
                m_curRegion[type] = slot;
                return offset;
            }
        }
    }
    const auto* const lowest =
        std::find(std::begin(m_clusterRegions), std::end(m_clusterRegions), type);
    m_curRegion[type] = static_cast<std::int32_t>(lowest - std::begin(m_clusterRegions));
    return -1;
}

mem_Region* mem_Cluster::CreateRegion(mem_RegionTypeEnm typ) {
    require(typ != mem_RGN_VARIABLE && typ != mem_RGN_EMPTY,
            "AssertionFailed:typ != mem_RGN_VARIABLE && typ != mem_RGN_EMPTY", source);
    if (IsFree()) {
        return nullptr;
    }
    // The first slot from the top that is no fixed region ends what is tried, once: fixed regions pile
    // up from there, away from the chunks at the low end.
    mem_VariableRegion* const variable = VariableRegion();
    int offset = -1;
    mem_RegionTypeEnm read = mem_RGN_EMPTY;
    for (int i = slot_count - 1; offset == -1 && i > 0 && read != mem_RGN_VARIABLE; --i) {
        read = m_clusterRegions[i];
        if (read == mem_RGN_VARIABLE) {
            offset = variable->AllocFixedRegion(this, (i + 1) << slot_shift);
        }
    }
    if (offset == -1 && LargestFree() > blocks::slot_words) {
        offset = variable->AllocFixedRegion(this, LargestFree() + variable->LargestFreeOffset());
    }
    if (offset == -1) {
        return nullptr;
    }
    require((offset & (blocks::slot_words - 1)) == 0, "AssertionFailed:(offset&1023)==0", source);
    mem_Region* const region =
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): of a fixed class, all of which have a size
        new (Ptr(offset)) mem_FixedRegion(typ, offset, fixed_region_words, fixedSize[typ], this);
    m_curRegion[typ] = offset >> slot_shift;
    m_clusterRegions[offset >> slot_shift] = typ;
    m_openRegions |= std::uint64_t{1} << (offset >> slot_shift);
    return region;
}

mem_CachePoolID mem_Cluster::ReAlloc(mem_CachePoolID id, std::size_t size) {
    const std::size_t curSz = AllocSize(id);
    require(curSz != 0, "AssertionFailed:curSz != 0", source);
    if (size <= curSz) {
        return id;
    }
    if (RegionType(curSz) == mem_RGN_VARIABLE && RegionType(size) == mem_RGN_VARIABLE) {
        const int region_index = RegionIndex(id);
        require(region_index == 0, "AssertionFailed:region_index == 0", source);
        const int offset = VariableRegion()->ReAlloc(this, static_cast<int>(id.bits.offset), size);
        return offset != -1 ? Identifier(offset) : mem_CachePoolID(0);
    }
    const mem_CachePoolID moved = Alloc(size);
    if (moved.HasValue()) {
        std::memcpy(Ptr(static_cast<int>(moved.bits.offset)), Ptr(static_cast<int>(id.bits.offset)),
                    curSz);
        Free(id); // never the last: the new one is here too
    }
    return moved;
}

std::size_t mem_Cluster::AllocSize(mem_CachePoolID id) const {
    const mem_RegionTypeEnm type = AllocType(id);
    return type == mem_RGN_VARIABLE
               ? VariableRegion()->AllocSize(this, static_cast<int>(id.bits.offset))
               : alloc_bytes[type];
}

// cppcheck-suppress passedByValue ; an identifier is one word
mem_RegionTypeEnm mem_Cluster::AllocType(mem_CachePoolID id) const {
    const int region_idx = RegionIndex(id);
    require(region_idx >= 0 && region_idx < slot_count,
            "AssertionFailed:region_idx >= 0 && region_idx < 64", source);
    return m_clusterRegions[region_idx];
}

bool mem_Cluster::Free(mem_CachePoolID id) {
    // A chunk's record, a slot's link; as a number, since a cluster that was emptied has no memory.
    const auto memory = reinterpret_cast<std::uintptr_t>(Ptr(0));
    os::prefetch(
        reinterpret_cast<const void*>(memory + id.bits.offset * sizeof(int) - sizeof(int)));
    const int region_idx = RegionIndex(id);
    const mem_RegionTypeEnm type = m_clusterRegions[region_idx];
    require(type != mem_RGN_EMPTY, "AssertionFailed:m_clusterRegions[region_idx] != mem_RGN_EMPTY",
            source);
    mem_Region* const rgn = Region(region_idx);
    require(rgn != nullptr, "AssertionFailed:rgn != 0", source);
    if (rgn == nullptr) {
        return false; // of a cluster without memory
    }
    if (type == mem_RGN_VARIABLE) {
        return rgn->Free(this, static_cast<int>(id.bits.offset));
    }
    m_openRegions |= std::uint64_t{1} << region_idx;
    if (!rgn->Free(this, static_cast<int>(id.bits.offset))) {
        return false;
    }
    m_openRegions &= ~(std::uint64_t{1} << region_idx);
    if (m_curRegion[type] == region_idx) {
        m_curRegion[type] = -1;
    }
    m_clusterRegions[region_idx] = mem_RGN_VARIABLE;
    return VariableRegion()->Free(this, region_idx << slot_shift);
}

void mem_Cluster::SummaryInfo(int& other, int& allocated) const {
    other = 0;
    allocated = 0;
    if (IsFree()) {
        return;
    }
    allocated = VariableRegion()->AllocCount();
    for (int slot = 1; slot < slot_count; ++slot) {
        if (m_clusterRegions[slot] != mem_RGN_VARIABLE) {
            allocated -= blocks::slot_words - FixedRegion(slot)->AllocCount();
        }
    }
}

void mem_Cluster::SummaryPrint() const {
    int other = 0, allocated = 0;
    SummaryInfo(other, allocated);
    std::printf("Cluster %d: alloc=%d\n", m_clusterIndex, allocated);
    for (const mem_RegionTypeEnm type : m_clusterRegions) {
        std::printf("%d ", static_cast<int>(alloc_bytes[type]));
    }
    std::printf("\n");
}

void mem_Cluster::DebugPrint() const {
    std::printf("Allocated Regions:\n");
    for (int i = 0; i < slot_count; ++i) {
        if (m_clusterRegions[i] == mem_RGN_EMPTY) {
            continue;
        }
        // Made for a walk that begins at slot 1, so that it fails at slot 0 on every call: kept.
        if (m_clusterRegions[i] == mem_RGN_VARIABLE) {
            require(i == 1, "AssertionFailed:i == 1", source);
        }
        if (const mem_Region* const region = Region(i)) {
            region->DebugPrint(this);
        }
        if (m_clusterRegions[i] == mem_RGN_VARIABLE) {
            while (i < slot_count - 1 && m_clusterRegions[i + 1] == mem_RGN_VARIABLE) {
                ++i;
            }
        }
    }
}
