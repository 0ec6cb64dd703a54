// Regions: stretches of a block, each managed by one policy. The region object lies at the start of
// what it manages. Offsets inside a region are relative to its start, those of Alloc and Free to the
// block; all are words.
//
// A fixed region hands out equal slots and keeps the free ones in a chain that runs through their
// first words. The chain ends at the frontier: the slot there, whose first word is -1, and all above
// it were never used. So a new region is one word written, and slots are touched in rising order
// until the first is released.
//
//     reserve          a              b          frontier                         m_regionSize
//     | object | used | free -> b | used | free -> f | -1, never used | never used ...|
//                       ^ m_freeHead
//
//     chain:   m_freeHead -> ... -> frontier; every link but the frontier is a released slot
//     full:    m_freeHead > m_regionSize - m_fixedSize, which only the frontier can be
//     count:   m_allocCount = m_fixedSize * (slots below the frontier - links)
//
// A slot has no header, and nothing checks that a released offset is a slot in use: one that is
// released twice is in the chain twice. Nothing here locks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem_AllocationOperators.h"
#include "mem_Block.h"
#include "platform/compiler.h"

enum mem_RegionTypeEnm : std::int32_t {
    // 0 to 9: size classes, with slots of fixedSize[value] words.
    mem_RGN_VARIABLE = 10, ///< chunks of any size; of a slot in a cluster: part of those
    mem_RGN_EMPTY = 11,    ///< no region
    mem_RGN_SPECIAL = 12,  ///< a fixed region with a slot size of its own
};

/// Slot sizes of the size classes, in words.
inline constexpr std::int32_t fixedSize[10] = {1, 2, 4, 8, 12, 16, 20, 24, 28, 32};

namespace blocks {

/// A word in memory that its user may have written as any type before.
typedef int KXM_MAY_ALIAS word;
static_assert(sizeof(word) == 4);

struct Layout;            // block_layout.cpp
struct Inspector;         // region_walk.cpp
struct VariableInspector; // variable_walk.cpp

inline constexpr int class_count = 10;
/// The same in bytes.
inline constexpr std::int32_t fixed_bytes[class_count] = {4, 8, 16, 32, 48, 64, 80, 96, 112, 128};

/// The largest request that has a size class, in bytes.
inline constexpr std::size_t largest_class_size = 128;

/// The size class of a request. pre: 1 to 128 bytes.
constexpr mem_RegionTypeEnm size_class(std::size_t bytes) {
    return static_cast<mem_RegionTypeEnm>(bytes < 9 ? (bytes - 1) >> 2 : ((bytes - 1) >> 4) + 2);
}

} // namespace blocks

class mem_Region : public mem_AllocationOperators {
public:
    mem_Region(mem_RegionTypeEnm type, int offset, int size)
        : m_regionOffset(offset), m_regionType(type), m_allocCount(0), m_reserveOffset(0),
          m_regionSize(size) {}
    mem_Region(const mem_Region&) = delete;
    mem_Region& operator=(const mem_Region&) = delete;

    virtual ~mem_Region();
    /// The offset of what was allocated, or -1 when the region has no room.
    virtual int Alloc(mem_Block* block, std::size_t size) = 0;
    /// Answers IsEmpty().
    virtual bool Free(mem_Block* block, int offset) = 0;
    virtual void DebugPrint(const mem_Block* block) const = 0;

    int AllocCount() const { return m_allocCount; } ///< words now allocated
    mem_RegionTypeEnm RegionType() const { return m_regionType; }
    bool IsEmpty() const { return m_allocCount == 0; }

protected:
    void operator delete(void*) {}

    friend struct blocks::Layout;
    friend struct blocks::Inspector;
    friend struct blocks::VariableInspector;

    std::int32_t m_regionOffset;
    mem_RegionTypeEnm m_regionType;
    std::int32_t m_allocCount; ///< in words, so that a cluster can add up regions of both kinds
    std::int32_t m_reserveOffset;
    std::int32_t m_regionSize;
};

class mem_FixedRegion final : public mem_Region {
public:
    /// `offset`, `size` and `slotWords` in words. pre: placed at block->Ptr(offset).
    mem_FixedRegion(mem_RegionTypeEnm type, int offset, int size, int slotWords, mem_Block* block);
    ~mem_FixedRegion() override;

    /// The size is not looked at: the caller has chosen the region by it.
    int Alloc(mem_Block* block, std::size_t size) override;
    bool Free(mem_Block* block, int offset) override;
    void DebugPrint(const mem_Block* block) const override;

    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*, int*) {}

    // The common case, for owners on a hot path; see below.

    /// As Alloc, but -1 for whatever is uncommon, with nothing done.
    int AllocQuick();
    /// Whether `rel`, from the region's start, may be a slot.
    bool IsSlotQuick(int rel) const;
    int AllocCountAfterFree() const { return m_allocCount - m_fixedSize; }
    /// pre: IsSlotQuick(rel).
    void FreeQuick(int rel);

protected:
    void operator delete(void*) {}

private:
    friend struct blocks::Layout;
    friend struct blocks::Inspector;

    blocks::word* Slot(int offset) const {
        return reinterpret_cast<blocks::word*>(
            reinterpret_cast<std::uintptr_t>(this) +
            static_cast<std::uintptr_t>(std::intptr_t{offset} * std::intptr_t{sizeof(int)}));
    }
    void MoveFrontier(blocks::word* slot, int offset);

    std::int32_t m_freeHead; ///< the next slot to hand out
    std::int32_t m_fixedSize;
};

// Both are on the path of every tiny request. They do what Alloc and Free do in the common case, and
// touch nothing in any other: then the full forms follow, with their checks and reports.

KXM_ALWAYS_INLINE int mem_FixedRegion::AllocQuick() {
    const int offset = m_freeHead;
    if (offset < m_reserveOffset || offset > m_regionSize - m_fixedSize) [[unlikely]] {
        return -1;
    }
    blocks::word* const slot = Slot(offset);
    const int next = *slot;
    if (next >= m_reserveOffset && next <= m_regionSize) {
        m_freeHead = next;
    } else if (next == -1) {
        MoveFrontier(slot, offset);
    } else [[unlikely]] {
        return -1;
    }
    m_allocCount += m_fixedSize;
    return m_regionOffset + offset;
}

KXM_ALWAYS_INLINE bool mem_FixedRegion::IsSlotQuick(int rel) const {
    return rel >= m_reserveOffset && rel <= m_regionSize - m_fixedSize;
}

KXM_ALWAYS_INLINE void mem_FixedRegion::FreeQuick(int rel) {
    m_allocCount -= m_fixedSize;
    *Slot(rel) = m_freeHead;
    m_freeHead = rel;
}

KXM_ALWAYS_INLINE void mem_FixedRegion::MoveFrontier(blocks::word* slot, int offset) {
    const int frontier = offset + m_fixedSize;
    m_freeHead = frontier;
    if (frontier < m_regionSize) { // the word behind the region is not its own
        slot[m_fixedSize] = -1;
    }
}
