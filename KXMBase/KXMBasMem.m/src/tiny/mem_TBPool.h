// The tiny block pool: slots of ten sizes for requests of at most 128 bytes, on pages of 4096 bytes
// from the heap. A slot has no header, and no table is searched for it: whether a pointer is a slot,
// and of which page, is read at the start of the 4096 bytes around it.
//
//     page, at a multiple of 4096
//     | own address | 0xabababab | mem_FixedBlock | mem_FixedRegion | slots ...            |
//     0             8            16               56                96 or 104              4096
//                                ^ m_blockMemory, word 0 of the block
//
// The tag is destroyed before a page goes back, so that heap memory which was a page once is not
// taken for one. Slots begin at 96 in the two smallest classes and at 104 in the others, so these are
// on 8-byte boundaries and never on 16-byte ones; that is kept.
//
// Each class has a list of the pages that may have room, m_firstBlock, linked by index through the
// blocks. A page's way:
//
//     made: head of its list -> full, still listed -> met full by an allocation: off the list
//     off the list, and a slot comes back: head of its list
//     last slot comes back: given back to the heap, unless it is alone on its list
//
//     index of a page -> m_blocks -> descriptor. A page that is given back leaves its index to the
//     next one: m_freeIndex is that index plus 1, and its entry in m_blocks holds the m_freeIndex
//     before, so that the table is the stack of free indices too. 0 ends it.
//
// One lock guards all of it when it is on. Alloc takes it only when asked, so that a caller with one
// thread, or a lock of its own, goes without.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "blocks/mem_FixedBlock.h"
#include "frame/seam_tiny_pool.h"
#include "heap/mem_mlock.h"

class mem_DLAllocator;

namespace tiny {

using tiny_seam::is_page;
using tiny_seam::page_bytes;
using tiny_seam::page_of;
using tiny_seam::page_tag;
using tiny_seam::Tag;

inline constexpr std::uint64_t dead_tag = 0xDEADBEEF;
inline constexpr int block_words = 1020; ///< what of a page is behind the tag
static_assert(sizeof(Tag) + std::size_t{4} * block_words == page_bytes);

inline mem_FixedBlock* block_in(Tag* tag) {
    return static_cast<mem_FixedBlock*>(static_cast<void*>(tag + 1));
}

/// The first page of each class's list, which its index in the pool's m_firstBlock leads to as well:
/// the common roads find it here without the table of pages. Null for none, and without a pool.
extern KXM_HIDDEN mem_FixedBlock* first_page[blocks::class_count];

struct Inspector;  // pool_walk.cpp
struct Layout;     // mem_TBPool.cpp
struct TestAccess; // of tests that begin with a fresh pool

} // namespace tiny

class mem_TBPool {
public:
    /// The one pool, made at the first call; where it cannot be had, the next call tries again. pre: it is
    /// there or can be had; whoever gives a slot back has seen it.
    static mem_TBPool& Instance() {
        // NOLINTNEXTLINE(clang-analyzer-core.uninitialized.UndefReturn): that it can be had is the caller's word
        return *InstanceOrNull();
    }
    /// The same for callers who can say no: null when the pool itself cannot be had.
    static mem_TBPool* InstanceOrNull() {
        mem_TBPool* const present = std::atomic_ref(theInstance).load(std::memory_order_acquire);
        return present != nullptr ? present : Initialize();
    }
    mem_TBPool(const mem_TBPool&) = delete;
    mem_TBPool& operator=(const mem_TBPool&) = delete;

    /// A slot for `siz` bytes, at most 128 and 0 for 1, or null when no page can be had. Without
    /// `lock` the caller sees to it that nobody else is in the pool.
    void* Alloc(std::size_t siz, bool lock);
    /// The slot itself while the size fits it; otherwise a copy, of the pool or, above 128 bytes, of
    /// the heap. Size 0 releases and gives null. A copy that cannot be had FAULTS: the result is
    /// written without a test. pre: a slot in use.
    void* Realloc(void* ptr, std::size_t siz);
    /// pre: a slot in use.
    void Free(void* ptr);

    // What the interface's road takes: Alloc and Free of the one pool, made for speed. A pool that
    // cannot be had is a null.
    static void* Request(std::size_t siz, bool lock);
    static void GiveBack(void* ptr); ///< pre: is_page(page_of(ptr)) has been seen to hold

    /// pre: no thread is inside the pool.
    static void ThreadLock(bool on);

    static void LockForFork();
    static void UnlockAfterFork(bool in_child);

    /// Always 0: the fast paths carry no counters.
    std::size_t MemoryCurrent() { return static_cast<std::size_t>(m_allocatedCurrent); }
    std::size_t MemoryPeak() { return static_cast<std::size_t>(m_allocatedPeak); }
    int PoolID() { return m_poolID; }
    char* PoolName() { return m_poolName; }

private:
    friend struct tiny::Inspector;
    friend struct tiny::Layout;
    friend struct tiny::TestAccess;

    mem_TBPool();
    ~mem_TBPool();
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* ptr);

    static mem_TBPool* Initialize();

    mem_FixedBlock* CreateBlock(mem_RegionTypeEnm type, int& index);
    void FreeFromBlock(mem_FixedBlock* block, int offset);
    void DropBlock(mem_FixedBlock* block);
    void DeleteBlock(mem_Block* block);
    bool IsPage(int index) const;
    mem_FixedBlock* GetBlock(int index) const {
        return static_cast<mem_FixedBlock*>(m_blocks.Block(index));
    }

    static void* TakeSlotQuick(std::size_t siz);
    void* TakeSlot(std::size_t siz);
    void* TakeSlotFull(std::size_t siz);
    void* TakeSlotLocked(std::size_t siz);
    static bool GiveSlotQuick(void* ptr);
    void GiveSlotFull(void* ptr);
    void GiveSlotLocked(void* ptr);
    void* AllocQuick(std::size_t siz, bool lock);
    void FreeQuick(void* ptr);
    void LinkAtHead(mem_FixedBlock* block, mem_RegionTypeEnm type, int index);
    static void LinkUnlisted(mem_FixedBlock* block);
    void GiveBackPage(mem_FixedBlock* block);
    void* ReallocLocked(void* ptr, std::size_t siz);

    static mem_TBPool* theInstance;
    static mem_mlock theLock;
    static mem_mlock m_making; ///< whose turn it is to make the pool
    static bool m_useThreadLock;
    static bool m_lockedForFork;
    static std::int64_t m_allocatedCurrent;
    static std::int64_t m_allocatedPeak;
    static std::int64_t m_numAllocations; ///< used by nothing
    static char m_poolName[];

    bool m_valid; ///< read by nothing
    std::int32_t m_poolID;
    mem_DLAllocator* m_allocator; ///< not owned
    mem_BlockContainer m_blocks;
    std::int32_t m_blockCount; ///< next index that was never used
    std::int32_t m_firstBlock[blocks::class_count];
    std::int32_t m_freeIndex;
};
