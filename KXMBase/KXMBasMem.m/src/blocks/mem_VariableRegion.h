// A region of chunks of any size, with boundary records between them and the free ones in a tree
// (mem_FreeListNode.h). It needs no memory beside its object at the start of the region, and holds
// nothing but offsets from there.
//
//     0            14      16                    16 + n                        m_regionSize
//     | object     | 0 | n | chunk of n words    | ...                         |
//                                        | n | m | chunk of m words ... | m | 0
//
//     chunk at o:      its record is the words o - 2 and o - 1, so the last two words that its length
//                      counts are the next chunk's record: 4 * n - 8 bytes are its user's
//     neighbours:      o + n, whose lastSize is n; o - lastSize
//     free:            nextSize is -n, at least 34 words long, in the tree, no free chunk beside it
//     all:             offsets and lengths are multiples of 4
//     m_largestFree:   the largest free chunk, so that a hopeless request touches nothing else
//
// m_allocCount, which IsEmpty() looks at, is not the sum of the chunks in use. It drifts in two ways,
// both meant: a chunk that has grown in place is counted again with its whole new size, so that the
// region is never empty again; and words that AllocFixedRegion leaves to the chunk before its slot
// are not counted when they come but are subtracted when they go. Nothing here locks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "blocks/mem_FreeListNode.h"
#include "blocks/mem_Region.h"

namespace blocks {

/// Words of a fixed region's slot, and of its alignment.
inline constexpr int slot_words = 1024;

/// What a request takes: its words, a record, and what makes it a multiple of 4. pre: `size` > 0.
constexpr int variable_words(std::size_t size) {
    return (static_cast<int>((size - 1) >> 2) + 3 + 3) & ~3;
}

} // namespace blocks

class mem_VariableRegion final : public mem_Region {
public:
    /// One free chunk. Words. pre: placed at block->Ptr(offset).
    mem_VariableRegion(int offset, int size, mem_Block* block);
    ~mem_VariableRegion() override;

    /// A best fit of at least `size` bytes, or -1.
    int Alloc(mem_Block* block, std::size_t size) override;
    /// The chunk after it was made to hold `size` bytes: as it is when it does already (it never
    /// shrinks), grown into a free neighbour, or moved. -1, and the chunk as it was, without room.
    int ReAlloc(mem_Block* block, int offset, std::size_t size);
    bool Free(mem_Block* block, int offset) override;
    void DebugPrint(const mem_Block* block) const override;

    /// Bytes of a chunk in use.
    std::size_t AllocSize(const mem_Block* block, int offset) const;
    /// Cuts 1024 words, on a multiple of 1024, out of the free chunk that ends at `endOffset`, as
    /// high as they go; -1 when it holds none. pre: a boundary between chunks.
    int AllocFixedRegion(mem_Block* block, int endOffset);

    int LargestFree() const { return m_largestFree; } ///< words, 0 for none
    int LargestFreeOffset() const { return m_largestOffset + m_regionOffset; }

    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*, int*) {}

protected:
    void operator delete(void*) {}

private:
    friend struct blocks::Layout;
    friend struct blocks::VariableInspector;

    /// A chunk with a negative nextSize goes into the tree, or out of it.
    void SetFree(int* base, int offset);
    void UnFree(int* base, int offset);
    void BalanceRoot(int* base);
    int GrowInPlace(int* base, int offset, int needed, int total);
    int CutSlot(int* base, int start, int slot, int end);

    mem_FreeListNode* FreeNode(int offset, int* base) const {
        return mem_FreeListNode::Node(offset, base);
    }
    static blocks::AllocInfo* GetAllocInfo(int* base, int offset) {
        return blocks::info_at(base, offset);
    }
    void RequireChunk(int offset, int line = __builtin_LINE()) const;

    mem_FreeListNode m_tmpNode; ///< the anchor: m_left is the root; found by its offset like a node
    std::int32_t m_largestFree;
    std::int32_t m_largestOffset; ///< -1 for none
};
