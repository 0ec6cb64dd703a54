// See mem_Block.h, which is public, and mem_FixedBlock.h.
#include "mem_Block.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "blocks/invariant.h"
#include "blocks/mem_FixedBlock.h"
#include "mem_Interface.h"
#include "mem_Mallinfo.h"

namespace {

constexpr const char* source = "mem_Block";
constexpr const char* tag = "mem_Block";

// The one rule by which this file takes and gives memory.

void* take(mem_Allocator* allocator, std::size_t bytes) {
    return mem_Mallinfo::useDL ? allocator->Malloc(tag, bytes) : mem_Malloc(bytes);
}

void* resize(mem_Allocator* allocator, void* memory, std::size_t bytes) {
    return mem_Mallinfo::useDL ? allocator->Realloc(tag, memory, bytes)
                               : mem_Realloc(memory, bytes);
}

void give(mem_Allocator* allocator, void* memory) {
    if (mem_Mallinfo::useDL) {
        allocator->Free(tag, memory);
    } else {
        mem_Free(memory);
    }
}

template <typename T> void clear(T* from, int count) {
    std::memset(static_cast<void*>(from), 0, static_cast<std::size_t>(count) * sizeof(T));
}

std::size_t pointers(int count) {
    return static_cast<std::size_t>(count) * sizeof(void*);
}

constexpr int fixed_block_bytes = 4096;
constexpr int fixed_region_offset = 10;

} // namespace

mem_Block::~mem_Block() {
    blocks::require(m_blockMemory == nullptr, "AssertionFailed:m_blockMemory == 0", source);
}

void mem_Block::Delete(mem_Allocator* allocator) {
    FreeBlock(allocator);
    void* const storage = this;
    this->~mem_Block();
    give(allocator, storage);
}

void mem_Block::DebugPrint() const {
    std::printf("mem_Block: Size = %d\n", m_blockSize);
}

void mem_Block::SetBlock(int size, int* memory) {
    blocks::require(IsFree(), "AssertionFailed:IsFree()", source);
    m_blockSize = size;
    m_blockMemory = memory;
    if (m_blockType != mem_BLK_CLUSTER) {
        m_blockType = memory != nullptr ? mem_BLK_PASSTHRU : mem_BLK_EMPTY;
    }
}

void mem_Block::FreeBlock(mem_Allocator* allocator) {
    if (m_blockType == mem_BLK_EMPTY) {
        return;
    }
    blocks::require(!IsFree(), "AssertionFailed:!IsFree()", source);
    int* const memory = m_blockMemory;
    m_blockMemory = nullptr; // first, because the descriptor may lie in that very memory
    m_blockSize = 0;
    if (memory != nullptr) {
        give(allocator, memory);
    }
}

mem_BlockContainer::mem_BlockContainer(int shift, int increment, mem_Allocator* allocator)
    : m_blocks(nullptr), m_shift(shift), m_mask((1 << shift) - 1), m_topSize(increment),
      m_topIncrement(increment), m_allocator(allocator) {
    m_blocks = static_cast<mem_Block***>(take(m_allocator, pointers(increment)));
    clear(m_blocks, increment);
}

mem_BlockContainer::~mem_BlockContainer() {
    for (int leaf = 0; leaf < m_topSize; ++leaf) {
        if (m_blocks[leaf] != nullptr) {
            give(m_allocator, m_blocks[leaf]);
        }
    }
    give(m_allocator, m_blocks);
    m_blocks = nullptr;
}

void mem_BlockContainer::SetBlockPtr(int index, mem_Block* block) {
    const int top = index >> m_shift;
    while (top >= m_topSize) { // once, but for a pool that was refused thousands of pages in a row
        const int grown = m_topSize + m_topIncrement;
        m_blocks = static_cast<mem_Block***>(resize(m_allocator, m_blocks, pointers(grown)));
        clear(m_blocks + m_topSize, m_topIncrement);
        m_topSize = grown;
    }
    if (m_blocks[top] == nullptr) {
        m_blocks[top] = static_cast<mem_Block**>(take(m_allocator, pointers(m_mask + 1)));
        clear(m_blocks[top], m_mask + 1);
    }
    m_blocks[top][index & m_mask] = block;
}

mem_FixedBlock::mem_FixedBlock(int index, int* memory, int blockSize, mem_RegionTypeEnm type,
                               int slotWords)
    : mem_Block(blockSize, memory, mem_BLK_FIXED), m_blockIndex(index),
      m_regionOffset(fixed_region_offset) {
    new (memory + fixed_region_offset) mem_FixedRegion(
        type, fixed_region_offset, blockSize - fixed_region_offset, slotWords, this);
}

mem_FixedBlock::~mem_FixedBlock() = default;

void mem_FixedBlock::Delete(mem_Allocator* allocator) {
    FreeBlock(allocator);
}

mem_FixedBlock* mem_FixedBlock::CreateFixedBlock(int index, mem_Allocator* allocator,
                                                 mem_RegionTypeEnm type, std::size_t size) {
    auto* const memory = static_cast<int*>(allocator->Malloc("mem_FixedBlock", fixed_block_bytes));
    int words = 0;
    if (type == mem_RGN_VARIABLE) {
        type = mem_RGN_SPECIAL;
        words = static_cast<int>((size - 1) >> 2) + 1;
    } else {
        words = fixedSize[type];
    }
    if (memory == nullptr) {
        return nullptr;
    }
    return new (memory) mem_FixedBlock(index, memory, fixed_block_bytes / 4, type, words);
}
