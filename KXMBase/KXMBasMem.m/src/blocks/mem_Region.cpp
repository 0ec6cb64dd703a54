// See mem_Region.h.
#include "blocks/mem_Region.h"

#include <cstdio>

#include "blocks/invariant.h"

namespace {

constexpr const char* source = "mem_Region";

// What the region object and, for all but the smallest slots, two words of padding take. With 12,
// the slots of a region that starts on a 16-byte boundary lie on such boundaries too.
constexpr int object_words = 10, padded_words = 12;

// 0 for what is no size class, so that no slot size matches it.
constexpr int class_words(mem_RegionTypeEnm type) {
    return type >= 0 && type < blocks::class_count ? fixedSize[type] : 0;
}

constexpr bool tables_agree() {
    for (int type = 0; type < blocks::class_count; ++type) {
        const auto bytes = static_cast<std::size_t>(blocks::fixed_bytes[type]);
        if (blocks::fixed_bytes[type] != 4 * fixedSize[type] || blocks::size_class(bytes) != type) {
            return false;
        }
    }
    return true;
}
static_assert(tables_agree() && blocks::size_class(1) == 0 && blocks::size_class(9) == 2);

} // namespace

mem_Region::~mem_Region() = default;
mem_FixedRegion::~mem_FixedRegion() = default;

mem_FixedRegion::mem_FixedRegion(mem_RegionTypeEnm type, int offset, int size, int slotWords,
                                 mem_Block* block)
    : mem_Region(type, offset, size), m_freeHead(-1), m_fixedSize(slotWords) {
    blocks::require(m_regionType == mem_RGN_SPECIAL || class_words(m_regionType) == m_fixedSize,
                    "AssertionFailed:m_regionType == mem_RGN_SPECIAL || fixedSize[m_regionType] "
                    "== m_fixedSize",
                    source);
    m_reserveOffset = m_fixedSize == 1 || m_fixedSize == 2 ? object_words : padded_words;
    m_freeHead = m_reserveOffset;
    *reinterpret_cast<blocks::word*>(block->Ptr(offset + m_reserveOffset)) = -1;
}

int mem_FixedRegion::Alloc(mem_Block* block, std::size_t) {
    const int offset = m_freeHead;
    const int limit = m_regionSize - m_fixedSize;
    if (offset > limit) {
        return -1;
    }
    blocks::require(
        offset >= m_reserveOffset && offset <= limit,
        "AssertionFailed:offset >= m_reserveOffset && offset <= m_regionSize-m_fixedSize", source);
    auto* const slot = reinterpret_cast<blocks::word*>(block->Ptr(m_regionOffset)) + offset;
    const int next = *slot;
    blocks::require(next == -1 || (next >= m_reserveOffset && next <= m_regionSize),
                    "AssertionFailed:free == -1 || (free >= m_reserveOffset && free <= "
                    "m_regionSize)",
                    source);
    if (next == -1) {
        MoveFrontier(slot, offset);
    } else {
        m_freeHead = next;
    }
    m_allocCount += m_fixedSize;
    return m_regionOffset + offset;
}

bool mem_FixedRegion::Free(mem_Block* block, int offset) {
    const int rel = offset - m_regionOffset;
    blocks::require(
        rel >= m_reserveOffset && rel <= m_regionSize - m_fixedSize,
        "AssertionFailed:offset >= m_reserveOffset && offset <= m_regionSize-m_fixedSize", source);
    m_allocCount -= m_fixedSize;
    *(reinterpret_cast<blocks::word*>(block->Ptr(m_regionOffset)) + rel) = m_freeHead;
    m_freeHead = rel;
    return IsEmpty();
}

void mem_FixedRegion::DebugPrint(const mem_Block*) const {
    std::printf("FixedRegion: AllocCount = %d\n", m_allocCount);
}
