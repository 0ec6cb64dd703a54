// See mem_Region.h.
#include "blocks/mem_Region.h"

#include <cstdio>

namespace {

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

void mem_FixedRegion::DebugPrint(const mem_Block*) const {
    std::printf("FixedRegion: AllocCount = %d\n", m_allocCount);
}
