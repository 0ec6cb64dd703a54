// See mem_VariableRegion.h.
#include "blocks/mem_VariableRegion.h"

#include <cstdio>
#include <cstring>

#include "blocks/invariant.h"

using blocks::AllocInfo;

namespace {

constexpr const char* source = "mem_Region";

constexpr int first_chunk = 16;
constexpr int slot_mask = blocks::slot_words - 1;
// No free chunk is shorter than 34 words. Since all lengths are multiples of 4, the three limits come
// to the same.
constexpr int least_free = 33, least_kept_by_slots = 34, least_kept = 35;

} // namespace

mem_VariableRegion::~mem_VariableRegion() = default;

mem_VariableRegion::mem_VariableRegion(int offset, int size, mem_Block* block)
    : mem_Region(mem_RGN_VARIABLE, offset, size), m_tmpNode(-1), m_largestFree(0),
      m_largestOffset(-1) {
    int* const base = block->Ptr(offset);
    AllocInfo* const first = GetAllocInfo(base, first_chunk);
    first->lastSize = 0;
    first->nextSize = -(size - first_chunk);
    m_largestFree = size - first_chunk;
    SetFree(base, first_chunk); // with m_reserveOffset still 0
    m_reserveOffset = first_chunk;
    AllocInfo* const end = GetAllocInfo(base, size);
    end->lastSize = size - first_chunk;
    end->nextSize = 0;
    m_largestOffset = first_chunk;
}

void mem_VariableRegion::RequireChunk(int offset, int line) const {
    blocks::require(offset >= m_reserveOffset && offset < m_regionSize - least_free,
                    "AssertionFailed:offset >= m_reserveOffset && offset < m_regionSize-33", source,
                    line);
}

void mem_VariableRegion::BalanceRoot(int* base) {
    const int first = FreeNode(m_tmpNode.m_left, base)->Balance(base);
    if (first != -1) {
        m_tmpNode.m_left = first;
        blocks::require(FreeNode(first, base)->m_parent == m_tmpNode.NodeOffset(base),
                        "AssertionFailed:FreeNode(first,block)->m_parent == "
                        "m_tmpNode.NodeOffset(block)",
                        source);
    }
}

void mem_VariableRegion::SetFree(int* base, int offset) {
    const int freesz = -GetAllocInfo(base, offset)->nextSize;
    RequireChunk(offset);
    blocks::require(freesz > least_free, "AssertionFailed:freesz > 33", source);
    if (freesz > m_largestFree) {
        m_largestFree = freesz;
        m_largestOffset = offset;
    }
    if (m_tmpNode.m_left != -1) {
        FreeNode(m_tmpNode.m_left, base)->Insert(offset, base);
        BalanceRoot(base);
    } else {
        new (base + offset) mem_FreeListNode(m_tmpNode.NodeOffset(base));
        m_tmpNode.m_left = offset;
    }
}

void mem_VariableRegion::UnFree(int* base, int offset) {
    blocks::require(-GetAllocInfo(base, offset)->nextSize > 0, "AssertionFailed:allocsz > 0",
                    source);
    blocks::require(m_tmpNode.m_left != -1, "AssertionFailed:m_tmpNode.m_left != -1", source);
    FreeNode(offset, base)->Remove(base);
    if (m_tmpNode.m_left != -1) {
        BalanceRoot(base);
    }
    if (offset == m_largestOffset) {
        m_largestFree = 0;
        m_largestOffset = -1;
        if (m_tmpNode.m_left != -1) {
            m_largestOffset = FreeNode(m_tmpNode.m_left, base)->FindLargest(base);
            m_largestFree = -GetAllocInfo(base, m_largestOffset)->nextSize;
        }
    }
}

int mem_VariableRegion::Alloc(mem_Block* block, std::size_t size) {
    int needed = blocks::variable_words(size);
    if (m_tmpNode.m_left == -1 || m_largestFree < needed) {
        return -1;
    }
    int* const base = block->Ptr(m_regionOffset);
    const int offset = FreeNode(m_tmpNode.m_left, base)->Find(needed, base);
    blocks::require(offset != -1, "AssertionFailed:offset != -1", source);
    if (offset == -1) {
        return -1;
    }
    AllocInfo* const info = GetAllocInfo(base, offset);
    AllocInfo* const end = GetAllocInfo(base, offset - info->nextSize);
    blocks::require(end->lastSize == -info->nextSize,
                    "AssertionFailed:GetAllocInfo(block,offset-info->nextSize)->lastSize == "
                    "-info->nextSize",
                    source);
    const int delta = -info->nextSize - needed;
    blocks::require(delta >= 0, "AssertionFailed:delta >= 0", source);
    UnFree(base, offset);
    const bool remainder = delta >= least_kept;
    if (remainder) {
        end->lastSize = delta;
    } else {
        needed += delta;
    }
    m_allocCount += needed;
    info->nextSize = needed;
    if (remainder) {
        AllocInfo* const rest = GetAllocInfo(base, offset + needed);
        rest->lastSize = needed;
        rest->nextSize = -delta;
        SetFree(base, offset + needed);
    }
    return m_regionOffset + offset;
}

// The chunk and its free neighbour have `total` words together. Returns the chunk's new length.
int mem_VariableRegion::GrowInPlace(int* base, int offset, int needed, int total) {
    AllocInfo* const info = GetAllocInfo(base, offset);
    UnFree(base, offset + info->nextSize);
    if (total - needed < least_kept) {
        info->nextSize = total;
        GetAllocInfo(base, offset + total)->lastSize = total;
        return total;
    }
    info->nextSize = needed;
    AllocInfo* const rest = GetAllocInfo(base, offset + needed);
    rest->lastSize = needed;
    rest->nextSize = needed - total;
    SetFree(base, offset + needed);
    GetAllocInfo(base, offset + total)->lastSize = total - needed;
    return needed;
}

int mem_VariableRegion::ReAlloc(mem_Block* block, int offset, std::size_t size) {
    const int szneeded = blocks::variable_words(size);
    const int rel = offset - m_regionOffset;
    RequireChunk(rel);
    int* const base = block->Ptr(m_regionOffset);
    const int curSz = GetAllocInfo(base, rel)->nextSize;
    if (curSz >= szneeded) {
        return rel; // from the region's start, unlike every other answer: meant
    }
    const AllocInfo* const nextInfo = GetAllocInfo(base, rel + curSz);
    blocks::require(nextInfo->lastSize == curSz, "AssertionFailed:nextInfo->lastSize == curSz",
                    source);
    if (nextInfo->nextSize <= 0 && curSz - nextInfo->nextSize >= szneeded) {
        // The old size is not subtracted: meant.
        m_allocCount += GrowInPlace(base, rel, szneeded, curSz - nextInfo->nextSize);
        blocks::require(rel >= m_reserveOffset && rel <= m_regionSize - szneeded,
                        "AssertionFailed:offset >= m_reserveOffset && offset <= "
                        "m_regionSize-szneeded",
                        source);
        return rel + m_regionOffset;
    }
    const int moved = Alloc(block, size);
    if (moved != -1) {
        std::memcpy(block->Ptr(moved), block->Ptr(offset), static_cast<std::size_t>(curSz) * 4 - 8);
        Free(block, offset);
    }
    return moved;
}

std::size_t mem_VariableRegion::AllocSize(const mem_Block* block, int offset) const {
    const AllocInfo* const info = GetAllocInfo(block->Ptr(m_regionOffset), offset - m_regionOffset);
    blocks::require(info->nextSize > 0, "AssertionFailed:info->nextSize > 0", source);
    return static_cast<std::size_t>(info->nextSize) * 4 - 8;
}

bool mem_VariableRegion::Free(mem_Block* block, int offset) {
    int* const base = block->Ptr(m_regionOffset);
    int off = offset - m_regionOffset;
    RequireChunk(off);
    AllocInfo* info = GetAllocInfo(base, off);
    int size = info->nextSize;
    m_allocCount -= size;
    blocks::require(size > 0, "AssertionFailed:size > 0", source);
    const int nextOff = off + size;
    blocks::require(nextOff <= m_regionSize, "AssertionFailed:nextOff <= m_regionSize", source);
    if (size <= 0 || nextOff > m_regionSize) {
        return IsEmpty(); // not a chunk in use: there are no neighbours to look at
    }
    const AllocInfo* const nextInfo = GetAllocInfo(base, nextOff);
    blocks::require(nextInfo->lastSize == size, "AssertionFailed:nextInfo->lastSize == size",
                    source);
    if (nextInfo->nextSize < 0) {
        UnFree(base, nextOff);
        size -= nextInfo->nextSize;
    }
    if (info->lastSize > 0) {
        const int prevoff = off - info->lastSize;
        blocks::require(prevoff >= m_reserveOffset, "AssertionFailed:prevoff >= m_reserveOffset",
                        source);
        AllocInfo* const previous = GetAllocInfo(base, prevoff);
        if (previous->nextSize < 0) {
            size -= previous->nextSize;
            off = prevoff;
            UnFree(base, prevoff);
            info = previous;
        }
    }
    blocks::require(off + size <= m_regionSize, "AssertionFailed:offset+size <= m_regionSize",
                    source);
    info->nextSize = -size;
    GetAllocInfo(base, off + size)->lastSize = size;
    SetFree(base, off);
    return IsEmpty();
}

int mem_VariableRegion::AllocFixedRegion(mem_Block* block, int endOffset) {
    int* const base = block->Ptr(m_regionOffset);
    const int end = endOffset - m_regionOffset;
    const AllocInfo* const endinfo = GetAllocInfo(base, end);
    if (endinfo->lastSize < blocks::slot_words) {
        return -1;
    }
    const int start = end - endinfo->lastSize;
    const AllocInfo* const blkinfo = GetAllocInfo(base, start);
    if (blkinfo->nextSize > 0) {
        return -1;
    }
    const AllocInfo* const previnfo = GetAllocInfo(base, start - blkinfo->lastSize);
    blocks::require(blkinfo->nextSize == -endinfo->lastSize &&
                        (blkinfo->lastSize == 0 || blkinfo->lastSize == previnfo->nextSize),
                    "AssertionFailed:blkinfo->nextSize == -endinfo->lastSize && "
                    "(blkinfo->lastSize == 0 || blkinfo->lastSize == previnfo->nextSize)",
                    source);
    const int slot =
        end - blocks::slot_words - ((end + m_regionOffset - blocks::slot_words) & slot_mask);
    if (slot < start) {
        return -1;
    }
    const int length = CutSlot(base, start, slot, end);
    GetAllocInfo(base, slot)->nextSize = length;
    m_allocCount += length;
    return slot + m_regionOffset;
}

// Makes the free chunk from `start` to `end` three: what is before the slot, the slot, whose length is
// returned and is not written yet, and what is behind it.
int mem_VariableRegion::CutSlot(int* base, int start, int slot, int end) {
    UnFree(base, start);
    const int lead = slot - start;
    AllocInfo* const blkinfo = GetAllocInfo(base, start);
    AllocInfo* const slotinfo = GetAllocInfo(base, slot);
    AllocInfo* const endinfo = GetAllocInfo(base, end);
    if (blkinfo->lastSize > 0 && lead < least_kept_by_slots) {
        // To the chunk before, which is in use. m_allocCount is not told: meant.
        AllocInfo* const previnfo = GetAllocInfo(base, start - blkinfo->lastSize);
        previnfo->nextSize += lead;
        slotinfo->lastSize = previnfo->nextSize;
    } else {
        slotinfo->lastSize = lead;
        blkinfo->nextSize = -lead;
        SetFree(base, start);
    }
    const int inc = end - slot - blocks::slot_words;
    blocks::require(inc >= 0, "AssertionFailed:inc >= 0", source);
    if (inc < least_kept_by_slots) {
        endinfo->lastSize = blocks::slot_words + inc;
        return blocks::slot_words + inc;
    }
    endinfo->lastSize = inc;
    AllocInfo* const behind = GetAllocInfo(base, slot + blocks::slot_words);
    behind->nextSize = -inc;
    behind->lastSize = blocks::slot_words;
    SetFree(base, slot + blocks::slot_words);
    return blocks::slot_words;
}

void mem_VariableRegion::DebugPrint(const mem_Block*) const {
    std::printf("VariableRegion: Size=%d, Alloc=%d\n", m_regionSize, m_allocCount);
}
