// The word layout of descriptors and regions that their owners rely on: a descriptor stands in a
// slot of a fixed size, a region object in the reserve of its region.
#include <cstddef>

#include "blocks/mem_FixedBlock.h"
#include "blocks/mem_Region.h"
#include "blocks/mem_VariableRegion.h"
#include "mem_Block.h"

KXM_LAYOUT_CHECKS_BEGIN
struct kxm::BlockLayout {
    using word = blocks::word;
    static_assert(sizeof(void*) == 8);

    static_assert(offsetof(mem_Block, m_blockMemory) == 8);
    static_assert(offsetof(mem_Block, m_blockSize) == 16);
    static_assert(offsetof(mem_Block, m_nextBlock) == 20);
    static_assert(offsetof(mem_Block, m_lastBlock) == 24);
    static_assert(offsetof(mem_Block, m_blockType) == 28);
    static_assert(sizeof(mem_Block) == 8 * sizeof(word));

    static_assert(offsetof(mem_BlockContainer, m_blocks) == 0);
    static_assert(offsetof(mem_BlockContainer, m_shift) == 8);
    static_assert(offsetof(mem_BlockContainer, m_mask) == 12);
    static_assert(offsetof(mem_BlockContainer, m_topSize) == 16);
    static_assert(offsetof(mem_BlockContainer, m_topIncrement) == 20);
    static_assert(offsetof(mem_BlockContainer, m_allocator) == 24);
    static_assert(sizeof(mem_BlockContainer) == 32);
};

struct blocks::Layout {
    static_assert(offsetof(mem_FixedBlock, m_blockIndex) == 32);
    static_assert(offsetof(mem_FixedBlock, m_regionOffset) == 36);
    static_assert(sizeof(mem_FixedBlock) == 10 * sizeof(word), "the region begins at word 10");

    static_assert(offsetof(mem_Region, m_regionOffset) == 8);
    static_assert(offsetof(mem_Region, m_regionType) == 12);
    static_assert(offsetof(mem_Region, m_allocCount) == 16);
    static_assert(offsetof(mem_Region, m_reserveOffset) == 20);
    static_assert(offsetof(mem_Region, m_regionSize) == 24);
    static_assert(offsetof(mem_FixedRegion, m_freeHead) >=
                  28); // where a base ends, compilers differ
    static_assert(offsetof(mem_FixedRegion, m_fixedSize) ==
                  offsetof(mem_FixedRegion, m_freeHead) + sizeof(word));
    static_assert(sizeof(mem_FixedRegion) == 10 * sizeof(word), "slots may begin at word 10");

    static_assert(offsetof(mem_FreeListNode, m_parent) == 0);
    static_assert(offsetof(mem_FreeListNode, m_left) == 4);
    static_assert(offsetof(mem_FreeListNode, m_right) == 8);
    static_assert(offsetof(mem_FreeListNode, m_depth) == 12);
    static_assert(offsetof(mem_VariableRegion, m_tmpNode) >= 28); // likewise
    static_assert(offsetof(mem_VariableRegion, m_tmpNode) % sizeof(word) == 0);
    static_assert(offsetof(mem_VariableRegion, m_largestFree) ==
                  offsetof(mem_VariableRegion, m_tmpNode) + sizeof(mem_FreeListNode));
    static_assert(offsetof(mem_VariableRegion, m_largestOffset) ==
                  offsetof(mem_VariableRegion, m_largestFree) + sizeof(word));
    static_assert(sizeof(mem_VariableRegion) == 14 * sizeof(word),
                  "a record stands between the object and word 16");
};
KXM_LAYOUT_CHECKS_END
