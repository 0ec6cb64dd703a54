// A block that lies at the start of its own memory and holds one fixed region:
//
//     word 0                10                                                    BlockSize()
//     | mem_FixedBlock      | mem_FixedRegion ... slots                           |
#pragma once

#include "blocks/mem_Region.h"
#include "mem_Block.h"

class mem_FixedBlock : public mem_Block {
public:
    /// A block of 4096 bytes of its own for slots of one type; null when memory is short. For
    /// mem_RGN_VARIABLE the slots are of `size` bytes rounded up to words; otherwise `type` is a
    /// size class, and `size` is not looked at.
    static mem_FixedBlock* CreateFixedBlock(int index, mem_Allocator* allocator,
                                            mem_RegionTypeEnm type, std::size_t size);

    /// `memory` is where the object itself is placed. Sizes in words.
    mem_FixedBlock(int index, int* memory, int blockSize, mem_RegionTypeEnm type, int slotWords);
    ~mem_FixedBlock() override;

    /// Gives back the memory and the descriptor with it, whose destructor therefore does not run.
    void Delete(mem_Allocator* allocator) override;

    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*, int*) {}

    int BlockIndex() const { return m_blockIndex; }
    mem_FixedRegion* Region() const {
        return static_cast<mem_FixedRegion*>(static_cast<void*>(Ptr(m_regionOffset)));
    }
    /// The offset of a slot in the block, or -1 when there is none left.
    int Alloc() { return Region()->Alloc(this, 1); }
    /// The region where it always is, found without a load.
    mem_FixedRegion* RegionQuick() {
        return static_cast<mem_FixedRegion*>(static_cast<void*>(this + 1));
    }

protected:
    void operator delete(void*) {}

private:
    friend struct blocks::Layout;

    std::int32_t m_blockIndex;   ///< in its container
    std::int32_t m_regionOffset; ///< always 10
};
