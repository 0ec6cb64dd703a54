// See mem_TBPool.h. The pool is the hottest code of the library after the heap: what a request with
// room or a release meets is inline here, all else is kept out of its way.
#include "tiny/mem_TBPool.h"

#include <array>
#include <cstring>
#include <new>

#include "blocks/invariant.h"
#include "frame/mem_TinySwitches.h"
#include "frame/seam_tiny_pool.h"
#include "mem_Interface.h"
#include "mem_Mallinfo.h"
#include "mem_TinyBlocks.h"
#include "objects/heap_allocator_object.h"
#include "tiny/pool_walk.h"
#include "tiny/test_seam.h"

mem_TBPool* mem_TBPool::theInstance = nullptr;
mem_mlock mem_TBPool::theLock{};
mem_mlock mem_TBPool::m_making{};
bool mem_TBPool::m_useThreadLock = false;
bool mem_TBPool::m_lockedForFork = false;
std::int64_t mem_TBPool::m_allocatedCurrent = 0;
std::int64_t mem_TBPool::m_allocatedPeak = 0;
std::int64_t mem_TBPool::m_numAllocations = 0;
char mem_TBPool::m_poolName[] = "TinyBlockAllocator";

mem_FixedBlock* tiny::first_page[blocks::class_count];

struct tiny::Layout {
    static_assert(offsetof(mem_TBPool, m_poolID) == 4 && offsetof(mem_TBPool, m_allocator) == 8);
    static_assert(offsetof(mem_TBPool, m_blocks) == 16 && offsetof(mem_TBPool, m_blockCount) == 48);
    static_assert(offsetof(mem_TBPool, m_firstBlock) == 52);
    static_assert(offsetof(mem_TBPool, m_freeIndex) == 92 && sizeof(mem_TBPool) == 96);
};

namespace {

constexpr const char* source = "mem_TBPool";
constexpr int none = -1;
constexpr const char* broken_tag =
    "AssertionFailed:*tag == reinterpret_cast<uintptr_t>(tag) && tag[1] == 0xabababab";

using blocks::require;

// What an entry of the table holds for an index that is free.
mem_Block* as_entry(std::int32_t value) {
    return reinterpret_cast<mem_Block*>(std::intptr_t{value});
}
std::int32_t as_index(const mem_Block* entry) {
    return static_cast<std::int32_t>(reinterpret_cast<std::intptr_t>(entry));
}

// ---- Lock. As the heap's, but that a refusal by the system is reported, and that it may be off.

KXM_NEVER_INLINE void wait_for_turn(mem_mlock& lock) {
    const os::Event ev = tiny::test_seam::event_of(lock);
    require(ev != nullptr, "AssertionFailed:ev", source);
    require(os::event_wait(ev), "AssertionFailed:rv == WAIT_OBJECT_0", source);
}

KXM_NEVER_INLINE void wake_next(mem_mlock& lock) {
    const os::Event ev = tiny::test_seam::event_of(lock);
    require(ev != nullptr, "AssertionFailed:ev", source);
    require(os::event_set(ev), "AssertionFailed:rv", source);
}

void acquire(mem_mlock& lock) {
    if (lock.count.load(std::memory_order_relaxed) > 0) [[unlikely]] {
        mem_mlock_let_pass(lock);
    }
    if (mem_mlock_add(lock, 1) > 1) [[unlikely]] {
        wait_for_turn(lock);
    }
}

void release(mem_mlock& lock) {
    if (mem_mlock_add(lock, -1) > 0) [[unlikely]] {
        wake_next(lock);
    }
}

// A table: quicker than to compute it. Size 0 is as 1.
constexpr std::array<std::uint8_t, blocks::largest_class_size + 1> classes_of_sizes() {
    std::array<std::uint8_t, blocks::largest_class_size + 1> classes{};
    for (std::size_t size = 1; size < classes.size(); ++size) {
        classes[size] = static_cast<std::uint8_t>(blocks::size_class(size));
    }
    return classes;
}
constexpr std::array class_of_size = classes_of_sizes();

// -1 when `ptr` is not on a word.
int words_between(const void* from, const void* ptr) {
    const auto bytes = static_cast<std::int32_t>(reinterpret_cast<std::uintptr_t>(ptr) -
                                                 reinterpret_cast<std::uintptr_t>(from));
    return (bytes & 3) == 0 ? bytes >> 2 : -1;
}

// The slot's offset in its block, found from the pointer alone.
mem_FixedBlock* find_slot(void* ptr, int& offset) {
    tiny::Tag* const tag = tiny::page_of(ptr);
    require(tiny::is_page(tag), broken_tag, source);
    mem_FixedBlock* const blk = tiny::block_in(tag);
    offset = blk->Offset(ptr);
    require(blk->Ptr(offset) == ptr, "AssertionFailed:blk->Ptr(offset) == ptr", source);
    require(offset > 0 && offset < tiny::block_words, "AssertionFailed:offset > 0 && offset < 1020",
            source);
    return blk;
}

// With one thread and no heap the request below would come back to the pool that is being made.
class PoolAside {
public:
    PoolAside() { mem_tinyBlocksOn = false; }
    ~PoolAside() { mem_tinyBlocksOn = on_; }
    PoolAside(const PoolAside&) = delete;
    PoolAside& operator=(const PoolAside&) = delete;

private:
    bool on_ = mem_tinyBlocksOn;
};

} // namespace

// ---- Life ------------------------------------------------------------------------------------

// Without noexcept a compiler may take the answer for never null.
void* mem_TBPool::operator new(std::size_t size) noexcept {
    if (mem_Mallinfo::useDL) {
        mem_DLAllocator allocator;
        return allocator.Malloc(m_poolName, size);
    }
    const PoolAside aside;
    return mem_Malloc(size);
}

void mem_TBPool::operator delete(void* ptr) {
    if (mem_Mallinfo::useDL) {
        mem_DLAllocator allocator;
        allocator.Free(m_poolName, ptr);
    } else {
        mem_Free(ptr);
    }
}

// In turns: a pool that was refused its memory when the lock went on is made by threads, maybe several at once. Until
// there is one, nobody is in the lock that is cleared here.
KXM_NEVER_INLINE mem_TBPool* mem_TBPool::Initialize() {
    mem_mlock_acquire(m_making);
    mem_TBPool* pool = theInstance;
    if (pool == nullptr) {
        void* const memory = operator new(sizeof(mem_TBPool));
        pool = memory != nullptr ? ::new (memory) mem_TBPool : nullptr;
        theLock.count = 0;
        theLock.event = nullptr;
        m_allocatedCurrent = 0;
        m_allocatedPeak = 0;
        std::atomic_ref(theInstance).store(pool, std::memory_order_release);
    }
    mem_mlock_release(m_making);
    return pool;
}

// cppcheck-suppress uninitMemberVarPrivate ; its elements are, in the body
mem_TBPool::mem_TBPool()
    : m_valid(true), m_poolID(3000), m_allocator(&allocator_objects::heap),
      m_blocks(8, 32, m_allocator), m_blockCount(0), m_freeIndex(0) {
    for (std::int32_t& head : m_firstBlock) {
        head = none;
    }
}

mem_TBPool::~mem_TBPool() {
    for (int i = m_freeIndex - 1; i > none && i < m_blockCount;) {
        const std::int32_t next = as_index(m_blocks.Block(i));
        m_blocks.SetBlockPtr(i, nullptr);
        i = next - 1;
    }
    for (int i = 0; i < m_blockCount; ++i) {
        if (IsPage(i)) {
            DeleteBlock(m_blocks.Block(i));
        }
    }
    for (mem_FixedBlock*& page : tiny::first_page) {
        page = nullptr;
    }
}

// The event that a lock may have had is not closed.
void mem_TBPool::ThreadLock(bool on) {
    if (on == m_useThreadLock) {
        return;
    }
    if (!on) {
        m_useThreadLock = false;
    }
    theLock.count = 0;
    theLock.event = nullptr;
    if (on) {
        m_useThreadLock = true;
    }
}

// Whoever makes the pool out of the C runtime's memory may want the tracker's lock, which a fork holds already.
void mem_TBPool::LockForFork() {
    if (mem_Mallinfo::useDL) {
        mem_mlock_acquire(m_making);
    }
    m_lockedForFork = m_useThreadLock;
    if (m_lockedForFork) {
        acquire(theLock);
    }
}

void mem_TBPool::UnlockAfterFork(bool in_child) {
    if (in_child) {
        if (m_lockedForFork) {
            mem_mlock_renew(theLock);
        }
        mem_mlock_renew(m_making);
        return;
    }
    if (m_lockedForFork) {
        release(theLock);
    }
    if (mem_Mallinfo::useDL) {
        mem_mlock_release(m_making);
    }
}

// ---- Pages -----------------------------------------------------------------------------------

KXM_ALWAYS_INLINE void mem_TBPool::LinkAtHead(mem_FixedBlock* block, mem_RegionTypeEnm type,
                                              int index) {
    block->SetNextBlock(m_firstBlock[type]);
    if (mem_FixedBlock* const head = tiny::first_page[type]) {
        head->SetLastBlock(index);
    }
    m_firstBlock[type] = index;
    tiny::first_page[type] = block;
}

// A page that left its list when it was full comes back to the head. pre: it is on no list.
KXM_NEVER_INLINE void mem_TBPool::LinkUnlisted(mem_FixedBlock* block) {
    Instance().LinkAtHead(block, block->RegionQuick()->RegionType(), block->BlockIndex());
}

// An index whose page could not be had keeps what stood there, perhaps a link of the stack, which is at
// most the count; a page lies far above it.
bool mem_TBPool::IsPage(int index) const {
    return reinterpret_cast<std::uintptr_t>(m_blocks.BlockOrNull(index)) >
           static_cast<std::uintptr_t>(m_blockCount);
}

mem_FixedBlock* mem_TBPool::CreateBlock(mem_RegionTypeEnm type, int& index) {
    if (m_freeIndex > 0) {
        index = m_freeIndex - 1;
        m_freeIndex = as_index(m_blocks.Block(index));
    } else {
        index = m_blockCount++;
    }
    void* const page = tiny::test_seam::page_granted()
                           ? m_allocator->Memalign(m_poolName, tiny::page_bytes, tiny::page_bytes)
                           : nullptr;
    if (page == nullptr) {
        return nullptr; // the index stays used
    }
    auto* const tag = static_cast<tiny::Tag*>(page);
    tag->self = reinterpret_cast<std::uintptr_t>(page);
    tag->mark = tiny::page_tag;
    auto* const memory = static_cast<int*>(static_cast<void*>(tag + 1));
    auto* const block =
        new (memory) mem_FixedBlock(index, memory, tiny::block_words, type, fixedSize[type]);
    m_blocks.SetBlockPtr(index, block);
    LinkAtHead(block, type, index);
    tiny::check_while_small();
    return block;
}

void mem_TBPool::DropBlock(mem_FixedBlock* block) {
    const mem_RegionTypeEnm type = block->Region()->RegionType();
    const int next = block->NextBlock(), last = block->LastBlock();
    mem_FixedBlock* const after = next != none ? GetBlock(next) : nullptr;
    if (m_firstBlock[type] == block->BlockIndex()) {
        m_firstBlock[type] = next;
        tiny::first_page[type] = after;
    }
    if (last != none) {
        GetBlock(last)->SetNextBlock(next);
    }
    if (after != nullptr) {
        after->SetLastBlock(last);
    }
    block->SetNextBlock(none);
    block->SetLastBlock(none);
}

// Neither the descriptor's destructor nor FreeBlock: its memory is the page without the tag, which
// the heap does not know.
void mem_TBPool::DeleteBlock(mem_Block* block) {
    tiny::Tag* const tag = tiny::page_of(block);
    require(tiny::is_page(tag), broken_tag, source);
    tag->self = tiny::dead_tag;
    tag->mark = tiny::dead_tag;
    static_cast<mem_Allocator*>(m_allocator)->Free(m_poolName, tag);
}

KXM_NEVER_INLINE void mem_TBPool::GiveBackPage(mem_FixedBlock* block) {
    const int index = block->BlockIndex();
    DropBlock(block);
    m_blocks.SetBlockPtr(index, as_entry(m_freeIndex));
    m_freeIndex = index + 1;
    DeleteBlock(block);
    tiny::check_while_small();
}

// ---- Requests --------------------------------------------------------------------------------

// Null for whatever is uncommon, with nothing done.
KXM_ALWAYS_INLINE void* mem_TBPool::TakeSlotQuick(std::size_t siz) {
    if (siz <= blocks::largest_class_size) [[likely]] {
        if (mem_FixedBlock* const block = tiny::first_page[class_of_size[siz]]) [[likely]] {
            return block->RegionQuick()->AllocQuick();
        }
    }
    return nullptr;
}

KXM_ALWAYS_INLINE void* mem_TBPool::TakeSlot(std::size_t siz) {
    void* const slot = TakeSlotQuick(siz);
    return slot != nullptr ? slot : TakeSlotFull(siz);
}

// Full pages leave the list here, when they are met.
KXM_NEVER_INLINE void* mem_TBPool::TakeSlotFull(std::size_t siz) {
    if (siz == 0) {
        siz = 1;
    }
    require(siz < 129, "AssertionFailed:siz < 129", source);
    if (siz > blocks::largest_class_size) {
        return nullptr; // there is no list for it
    }
    const mem_RegionTypeEnm type = blocks::size_class(siz);
    int index = m_firstBlock[type];
    while (index != none) {
        mem_FixedBlock* const block = GetBlock(index);
        const int offset = block->Alloc();
        if (offset != none) {
            return block->Ptr(offset);
        }
        index = block->NextBlock();
        DropBlock(block);
    }
    mem_FixedBlock* const block = CreateBlock(type, index);
    return block != nullptr ? block->Ptr(block->Alloc()) : nullptr;
}

KXM_NEVER_INLINE void* mem_TBPool::TakeSlotLocked(std::size_t siz) {
    acquire(theLock);
    void* const slot = TakeSlot(siz);
    release(theLock);
    return slot;
}

KXM_ALWAYS_INLINE void* mem_TBPool::AllocQuick(std::size_t siz, bool lock) {
    return lock && m_useThreadLock ? TakeSlotLocked(siz) : TakeSlot(siz);
}

void* mem_TBPool::Alloc(std::size_t siz, bool lock) {
    return AllocQuick(siz, lock);
}

void mem_TBPool::FreeFromBlock(mem_FixedBlock* block, int offset) {
    mem_FixedRegion* const region = block->Region();
    region->Free(block, offset);
    if (region->IsEmpty() && (block->LastBlock() != none || block->NextBlock() != none))
        [[unlikely]] {
        GiveBackPage(block);
        return;
    }
    // An empty page that is alone stays, so that one allocation and one release, again and again,
    // do not go to the heap each time.
    if (block->LastBlock() == none && m_firstBlock[region->RegionType()] != block->BlockIndex()) {
        LinkUnlisted(block);
    }
}

// Gives the slot back unless its page would go with it or something looks wrong; false then, with
// nothing done. pre: the page's tag has been seen.
KXM_ALWAYS_INLINE bool mem_TBPool::GiveSlotQuick(void* ptr) {
    mem_FixedBlock* const block = tiny::block_in(tiny::page_of(ptr));
    mem_FixedRegion* const region = block->RegionQuick();
    const int rel = words_between(region, ptr);
    if (!region->IsSlotQuick(rel)) [[unlikely]] {
        return false;
    }
    const int last = block->LastBlock();
    if (region->AllocCountAfterFree() == 0 && (last != none || block->NextBlock() != none))
        [[unlikely]] {
        return false;
    }
    region->FreeQuick(rel);
    if (last == none && tiny::first_page[region->RegionType()] != block) {
        LinkUnlisted(block);
    }
    return true;
}

KXM_NEVER_INLINE void mem_TBPool::GiveSlotFull(void* ptr) {
    int offset = 0;
    mem_FixedBlock* const block = find_slot(ptr, offset);
    FreeFromBlock(block, offset);
}

KXM_NEVER_INLINE void mem_TBPool::GiveSlotLocked(void* ptr) {
    acquire(theLock);
    if (!tiny::is_page(tiny::page_of(ptr)) || !GiveSlotQuick(ptr)) {
        GiveSlotFull(ptr);
    }
    release(theLock);
}

KXM_ALWAYS_INLINE void mem_TBPool::FreeQuick(void* ptr) {
    if (m_useThreadLock) {
        GiveSlotLocked(ptr);
    } else if (!GiveSlotQuick(ptr)) {
        GiveSlotFull(ptr);
    }
}

void mem_TBPool::Free(void* ptr) {
    if (tiny::is_page(tiny::page_of(ptr))) [[likely]] {
        FreeQuick(ptr);
    } else if (m_useThreadLock) {
        GiveSlotLocked(ptr);
    } else {
        GiveSlotFull(ptr);
    }
}

void* mem_TBPool::ReallocLocked(void* ptr, std::size_t siz) {
    int offset = 0;
    mem_FixedBlock* const block = find_slot(ptr, offset);
    void* result = nullptr;
    if (siz != 0) {
        const auto cur =
            static_cast<std::size_t>(blocks::fixed_bytes[block->Region()->RegionType()]);
        if (siz <= cur) {
            return ptr; // never into a smaller class
        }
        result = siz > blocks::largest_class_size
                     ? static_cast<mem_Allocator*>(m_allocator)->Malloc(m_poolName, siz)
                     : Alloc(siz, false);
        // Not tested: without memory this writes to null and faults, and is meant to.
        os::copy_unchecked(result, ptr, cur);
    }
    FreeFromBlock(block, offset);
    return result;
}

void* mem_TBPool::Realloc(void* ptr, std::size_t siz) {
    if (!m_useThreadLock) {
        return ReallocLocked(ptr, siz);
    }
    acquire(theLock);
    void* const result = ReallocLocked(ptr, siz);
    release(theLock);
    return result;
}

// ---- The seam --------------------------------------------------------------------------------

namespace {

KXM_NEVER_INLINE void* full_request(std::size_t siz, bool lock) {
    mem_TBPool* const pool = mem_TBPool::InstanceOrNull();
    return pool != nullptr ? pool->Alloc(siz, lock) : nullptr;
}

KXM_NEVER_INLINE void full_release(void* ptr) {
    mem_TBPool::Instance().Free(ptr);
}

} // namespace

// Without a pool no class has a first page, so the common roads need not ask whether there is one.
KXM_ALWAYS_INLINE void* mem_TBPool::Request(std::size_t siz, bool lock) {
    if (!lock || !m_useThreadLock) {
        if (void* const slot = TakeSlotQuick(siz)) [[likely]] {
            return slot;
        }
    }
    return full_request(siz, lock);
}

KXM_ALWAYS_INLINE void mem_TBPool::GiveBack(void* ptr) {
    if (m_useThreadLock || !GiveSlotQuick(ptr)) [[unlikely]] {
        full_release(ptr);
    }
}

namespace tiny_seam {

void* alloc(std::size_t size) {
    return mem_TBPool::Request(size, true);
}

void* realloc(void* ptr, std::size_t size) {
    return mem_TBPool::Instance().Realloc(ptr, size);
}

void free(void* ptr) {
    mem_TBPool::GiveBack(ptr);
}

void lock_for_fork() {
    mem_TBPool::LockForFork();
}

void unlock_in_parent() {
    mem_TBPool::UnlockAfterFork(false);
}

void renew_in_child() {
    mem_TBPool::UnlockAfterFork(true);
}

} // namespace tiny_seam

// ---- The entries for numerical routines ------------------------------------------------------

void* mem_smallalloc(int* size) {
    return mem_TBPool::Request(static_cast<std::size_t>(*size), false);
}

void mem_smallfree(void** ptr) {
    mem_TBPool::Instance().Free(*ptr);
    *ptr = nullptr;
}
