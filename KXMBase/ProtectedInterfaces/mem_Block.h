// Blocks: descriptors of raw memory, counted in 32-bit words, that the tiny block pool and the cache
// pool work with; and the table that turns a block's small index into its descriptor.
//
// Blocks refer to one another by index, never by address, with -1 for none. A descriptor is never
// allocated by a general new expression: its owner places it, either in a slot of another block or
// at the start of the very memory that it describes. What the descriptor's memory came from is what
// it goes back to, by one rule: the allocator that the owner names while the heap is the bound back
// end, the C allocation interface otherwise.
//
//     m_blocks --> [ leaf | leaf | null | ... ]        m_topSize entries, grown by m_topIncrement
//                     |
//                     +--> [ block | null | ... ]      m_mask + 1 entries
//
//     index = leaf number << m_shift | entry;          whatever was never set reads as null
//
// Nothing here locks; the owners do. A client never makes one of these: they are told here because
// an identifier of mem_CachePool.h is resolved through them, inline.
#pragma once

#include <cstddef>
#include <cstdint>

#include "KXMBasMemExport.h"
#include "mem_Allocator.h"

namespace kxm {
struct BlockLayout; // the library's own checks of the layout
}

enum mem_BlockTypeEnm : std::int32_t {
    mem_BLK_EMPTY,    ///< descriptor without memory, free for reuse
    mem_BLK_PASSTHRU, ///< holds one large allocation or an adopted buffer
    mem_BLK_CLUSTER,  ///< a mem_Cluster, with or without memory
    mem_BLK_FIXED,    ///< a mem_FixedBlock
};

class KXMBASMEM_API mem_Block { // exported for a client built with the vptr check of UBSan
public:
    /// `size` in words. Owns `memory` until FreeBlock.
    mem_Block(int size, int* memory, mem_BlockTypeEnm type)
        : m_blockMemory(memory), m_blockSize(size), m_nextBlock(-1), m_lastBlock(-1),
          m_blockType(type) {}
    mem_Block(const mem_Block&) = delete;
    mem_Block& operator=(const mem_Block&) = delete;

    /// pre: the memory has been given back.
    virtual ~mem_Block();
    /// Gives back the memory, ends the descriptor and gives back its own storage.
    virtual void Delete(mem_Allocator* allocator);
    virtual void DebugPrint() const;

    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*, int*) {}

    /// pre: IsFree(). A cluster stays one; any other block becomes pass-through, or empty when
    /// `memory` is null.
    void SetBlock(int size, int* memory);
    /// Gives the memory back. Does nothing on an empty block, and leaves the type as it is. The
    /// descriptor may go with its memory, so it is not touched after that.
    void FreeBlock(mem_Allocator* allocator);

    bool IsFree() const { return m_blockSize < 1 && m_blockMemory == nullptr; }
    int* Ptr(int offset) const { return m_blockMemory + offset; }
    /// In words, rounded down: Ptr(Offset(p)) differs from a `p` that is not on a word.
    int Offset(const void* p) const {
        const auto bytes = static_cast<std::intptr_t>(
            reinterpret_cast<std::uintptr_t>(p) - reinterpret_cast<std::uintptr_t>(m_blockMemory));
        return static_cast<int>(bytes >> 2);
    }

    int BlockSize() const { return m_blockSize; }
    int NextBlock() const { return m_nextBlock; }
    void SetNextBlock(int index) { m_nextBlock = index; }
    int LastBlock() const { return m_lastBlock; }
    void SetLastBlock(int index) { m_lastBlock = index; }
    mem_BlockTypeEnm BlockType() const { return m_blockType; }

protected:
    void operator delete(void*) {}

private:
    friend struct kxm::BlockLayout;

    int* m_blockMemory;
    std::int32_t m_blockSize;
    std::int32_t m_nextBlock;
    std::int32_t m_lastBlock;
    mem_BlockTypeEnm m_blockType;
};

class mem_BlockContainer {
public:
    /// `shift`: index bits per leaf. `increment`: entries of the top-level table, at first and at
    /// each growth. The allocator is not owned. The blocks never are, either: only the tables.
    mem_BlockContainer(int shift, int increment, mem_Allocator* allocator);
    ~mem_BlockContainer();
    mem_BlockContainer(const mem_BlockContainer&) = delete;
    mem_BlockContainer& operator=(const mem_BlockContainer&) = delete;

    /// No range check: it is on every allocation's path. pre: an entry of that leaf has been set.
    mem_Block* Block(int index) const { return m_blocks[index >> m_shift][index & m_mask]; }

    /// The same where an entry's leaf may never have been made: null then.
    mem_Block* BlockOrNull(int index) const {
        const int top = index >> m_shift;
        return top < m_topSize && m_blocks[top] != nullptr ? Block(index) : nullptr;
    }

    /// Grows first as needed, by one increment: indices come in rising order. A table that the
    /// allocator answers with null is not survived: it is written without a test.
    void SetBlockPtr(int index, mem_Block* block);

private:
    friend struct kxm::BlockLayout;

    mem_Block*** m_blocks;
    std::int32_t m_shift;
    std::int32_t m_mask;
    std::int32_t m_topSize;
    std::int32_t m_topIncrement;
    mem_Allocator* m_allocator;
};
