// The cache pool: which cluster serves a request. See mem_CachePool.h for what clients are told.
//
// A cluster with memory is on a list for each size class that it may have room for, and on one list by
// its largest free chunk, all linked by index through the descriptors. After each change FirstCluster
// brings the cluster to the heads of its lists, so that the next request of the kind finds room at
// the first try.
//
//     g = (words - 34) >> 5, and bits(g) its significant bits
//     a cluster is filed by its largest free chunk in list bits(g) - 1, at least 0, at most 7
//     a request is searched for from list bits(g) on: one above, so that from list 1 up whatever
//     heads a list has room for it
//
// Descriptors are placed in slots of fixed blocks, the stores, a ring of them for blocks and one for
// clusters, all entries of m_blocks too. A slot is never given back: the descriptors are used again
// through the two lists of empty ones.
#include "mem_CachePool.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "blocks/invariant.h"
#include "blocks/mem_FixedBlock.h"
#include "cache/cache_walk.h"
#include "cache/mem_Cluster.h"

template class KXMBASMEM_API mem_CachePoolIDTyp<char*>;
template class KXMBASMEM_API mem_CachePoolIDTyp<int*>;
template class KXMBASMEM_API mem_CachePoolIDTyp<unsigned int*>;
template class KXMBASMEM_API mem_CachePoolIDTyp<float*>;
template class KXMBASMEM_API mem_CachePoolIDTyp<double*>;
template class KXMBASMEM_API mem_CachePoolIDTyp<void*>;

KXM_LAYOUT_CHECKS_BEGIN
struct kxm::CachePoolLayout {
    using word = blocks::word;
    static_assert(sizeof(mem_CachePoolID) == 4 && sizeof(mem_CachePoolIDTyp<void*>) == 4);

    static_assert(offsetof(mem_CachePool, m_blocks) == 8);
    static_assert(offsetof(mem_CachePool, m_blockCount) == 40);
    static_assert(offsetof(mem_CachePool, m_clusters) == 48);
    static_assert(offsetof(mem_CachePool, m_clusterCount) == 80);
    static_assert(offsetof(mem_CachePool, m_firstCluster) == 84);
    static_assert(offsetof(mem_CachePool, m_firstEmptyBlock) == 124);
    static_assert(offsetof(mem_CachePool, m_firstBySize) == 128);
    static_assert(offsetof(mem_CachePool, m_firstEmptyCluster) == 160);
    static_assert(offsetof(mem_CachePool, m_currentCluster) == 168);
    static_assert(sizeof(mem_CachePool) == 192);

    static_assert(offsetof(mem_Cluster, m_clusterIndex) == 32);
    static_assert(offsetof(mem_Cluster, m_curRegion) == 36);
    static_assert(offsetof(mem_Cluster, m_nextCluster) == 80);
    static_assert(offsetof(mem_Cluster, m_lastCluster) == 124);
    static_assert(offsetof(mem_Cluster, m_clusterRegions) == 168);
    static_assert(sizeof(mem_Cluster) <= 444, "nine descriptors to a store");
};
KXM_LAYOUT_CHECKS_END

namespace {

constexpr const char* source = "mem_CachePool";
constexpr const char* tag = "mem_CachePool";
constexpr int none = -1;
constexpr int list_count = 8;
constexpr int least_filed = 33; // words; less than that is in no list by size

using blocks::require;
using ID = mem_CachePoolIDTyp<void*>;

ID null_id() {
    return 0U;
}

// The low 32 bits of the count: blocks of 8 GiB and more are shown with a size that wraps, and nothing else
// goes by it.
int words_of(std::size_t size) {
    return static_cast<int>(((size - 1) >> 2) + 1);
}

// The list from which a request of `words` is searched for.
int search_list(int words) {
    const int g = (words - 34) >> 5;
    return g <= 0 ? 0 : static_cast<int>(std::bit_width(static_cast<unsigned>(g)));
}

// The list of a cluster whose largest free chunk has `words`.
int file_list(int words) {
    return std::clamp(search_list(words) - 1, 0, list_count - 1);
}
static_assert(blocks::variable_words(mem_Cluster::MAX_CLUSTER_ALLOC_BYTES) == 4100);

// Enters what has memory of its own. Where the table cannot grow, by an allocator that throws, nobody would find
// that memory again.
void enter(mem_BlockContainer& table, int index, mem_Block* block, mem_Allocator* allocator) {
    try {
        table.SetBlockPtr(index, block);
    } catch (...) {
        block->Delete(allocator);
        throw;
    }
}

} // namespace

struct mem_CachePool::Found {
    mem_Cluster* cluster;
    mem_CachePoolID id;
};

// ---- The pool itself

void* mem_CachePool::operator new(std::size_t size, mem_Allocator* allocator) {
    return allocator->Malloc(tag, size);
}

mem_CachePool* mem_CachePool::CreatePool(mem_Allocator* allocator) {
    // Not by the operator itself: a compiler takes it that one which may throw never answers null.
    void* const where = allocator->Malloc(tag, sizeof(mem_CachePool));
    if (where == nullptr) {
        return nullptr;
    }
    try {
        return ::new (where) mem_CachePool(allocator);
    } catch (...) { // of an allocator that throws
        allocator->Free(tag, where);
        throw;
    }
}

mem_CachePool::mem_CachePool(mem_Allocator* allocator)
    : m_allocator(allocator), m_blocks(10, 64, allocator), m_blockCount(0),
      m_clusters(6, 8, allocator), m_clusterCount(0), m_firstEmptyBlock(none),
      m_firstEmptyCluster(none), m_currentCluster(nullptr), m_blockStore(nullptr),
      m_clusterStore(nullptr) {
    std::fill(std::begin(m_firstCluster), std::end(m_firstCluster), none);
    std::fill(std::begin(m_firstBySize), std::end(m_firstBySize), none);
    m_blocks.SetBlockPtr(0, nullptr);
    ++m_blockCount;
    m_clusters.SetBlockPtr(0, nullptr);
    ++m_clusterCount;
}

mem_CachePool::~mem_CachePool() {
    for (int i = 1; i < m_clusterCount; ++i) {
        if (mem_Block* const cluster = ClusterBlock(i)) {
            cluster->Delete(m_allocator);
            m_clusters.SetBlockPtr(i, nullptr);
        }
    }
    for (int i = 1; i < m_blockCount; ++i) {
        mem_Block* const blk = Block(i);
        if (blk != nullptr && blk->BlockType() != mem_BLK_FIXED) {
            blk->FreeBlock(m_allocator);
            m_blocks.SetBlockPtr(i, nullptr);
        }
    }
    for (int i = 1; i < m_blockCount; ++i) {
        if (mem_Block* const blk = Block(i)) {
            require(blk->BlockType() == mem_BLK_FIXED,
                    "AssertionFailed:blk->BlockType() == mem_BLK_FIXED", source);
            blk->Delete(m_allocator);
            m_blocks.SetBlockPtr(i, nullptr);
        }
    }
}

void mem_CachePool::Delete() {
    mem_Allocator* const allocator = m_allocator;
    this->~mem_CachePool();
    allocator->Free(tag, this);
}

mem_Cluster* mem_CachePool::Cluster(int index) const {
    return static_cast<mem_Cluster*>(ClusterBlock(index));
}

mem_FixedBlock* mem_CachePool::FixedBlock(int index) const {
    return static_cast<mem_FixedBlock*>(Block(index));
}

// ---- Allocation

mem_CachePoolIDTyp<void*> mem_CachePool::Alloc(std::size_t size) {
    if (size == 0) {
        return null_id();
    }
    if (size > mem_Cluster::MAX_CLUSTER_ALLOC_BYTES) {
        return AllocPassThru(size);
    }
    const mem_RegionTypeEnm typ = mem_Cluster::RegionType(size);
    Found found{nullptr, null_id()};
    if (typ == mem_RGN_VARIABLE) {
        found = SearchVariable(size);
    } else {
        const int first = m_firstCluster[typ];
        const int head = first != none ? first : m_firstBySize[list_count - 1];
        if (head != none) {
            found = SearchClass(typ, head, size);
        }
    }
    if (found.id.IsNull()) {
        found.cluster = NewCluster();
        if (found.cluster == nullptr) {
            return null_id();
        }
        found.id = found.cluster->Alloc(size);
        require(found.id.HasValue(), "AssertionFailed:id.HasValue()", source);
        FirstCluster(typ, found.cluster);
        cache::check_while_small(*this);
        return found.id;
    }
    FirstCluster(typ, found.cluster);
    return found.id;
}

mem_CachePool::Found mem_CachePool::SearchClass(mem_RegionTypeEnm typ, int head, std::size_t size) {
    while (head != none) {
        mem_Cluster* const cluster = Cluster(head);
        const mem_CachePoolID id = cluster->Alloc(size);
        if (id.HasValue()) {
            return {cluster, id};
        }
        head = cluster->NextCluster(typ);
        DropCluster(typ, cluster);
    }
    // The two lists whose clusters hold a new slot of 1024 words wherever their largest chunk lies.
    const int roomy = m_firstBySize[6] != none ? m_firstBySize[6] : m_firstBySize[7];
    if (roomy == none) {
        return {nullptr, null_id()};
    }
    mem_Cluster* const cluster = Cluster(roomy);
    return {cluster, cluster->Alloc(size)};
}

mem_CachePool::Found mem_CachePool::SearchVariable(std::size_t size) {
    // m_currentCluster is not cleared when its memory is released, and is fatal then: meant.
    if (m_currentCluster != nullptr) {
        const mem_CachePoolID id = m_currentCluster->Alloc(size);
        if (id.HasValue()) {
            return {m_currentCluster, id};
        }
    }
    const int szinc = search_list(blocks::variable_words(size));
    require(szinc >= 0 && szinc < list_count, "AssertionFailed:szinc >= 0 && szinc < 8", source);
    for (int k = szinc; k < list_count; ++k) {
        if (m_firstBySize[k] == none) {
            continue;
        }
        mem_Cluster* const cluster = Cluster(m_firstBySize[k]);
        const mem_CachePoolID id = cluster->Alloc(size);
        if (id.HasValue()) {
            return {cluster, id};
        }
        m_firstBySize[k] = cluster->NextCluster(mem_RGN_VARIABLE);
        FirstCluster(mem_RGN_VARIABLE, cluster);
    }
    return {nullptr, null_id()};
}

mem_CachePoolIDTyp<void*> mem_CachePool::AllocPassThru(std::size_t size) {
    struct Release {
        mem_Allocator* allocator;
        void operator()(void* memory) const { allocator->Free(tag, memory); }
    };
    int index = m_firstEmptyBlock;
    std::unique_ptr<void, Release> memory(m_allocator->Malloc(tag, size), Release{m_allocator});
    if (memory == nullptr) {
        return null_id();
    }
    mem_Block* const blk = TakeEmptyBlock(index);
    if (blk == nullptr) {
        return null_id();
    }
    return PassThru(index, blk, size, memory.release());
}

// Of `index`, or of a new one, which it becomes, when it is none.
mem_Block* mem_CachePool::TakeEmptyBlock(int& index) {
    return index == none ? NewBlock(index) : Block(index);
}

mem_CachePoolIDTyp<void*> mem_CachePool::PassThru(int index, mem_Block* blk, std::size_t size,
                                                  void* memory) {
    require(blk->BlockType() == mem_BLK_EMPTY, "AssertionFailed:blk->BlockType() == mem_BLK_EMPTY",
            source);
    blk->SetBlock(words_of(size), static_cast<int*>(memory));
    DropPassThru(index, blk);
    return static_cast<unsigned int>(index) << 1;
}

mem_CachePoolIDTyp<void*> mem_CachePool::Adopt(std::size_t size, void* memory) {
    int index = m_firstEmptyBlock;
    mem_Block* const blk = TakeEmptyBlock(index);
    return blk != nullptr ? PassThru(index, blk, size, memory) : null_id();
}

// ---- Release and resize

void mem_CachePool::Free(mem_CachePoolID id) {
    if (id.IsNull()) {
        return;
    }
    if (id.bits.inCluster == 0) {
        const int index = static_cast<int>(id.passThru.block);
        mem_Block* const blk = Block(index);
        require(blk->BlockType() == mem_BLK_PASSTHRU,
                "AssertionFailed:blk->BlockType() == mem_BLK_PASSTHRU", source);
        blk->FreeBlock(m_allocator);
        blk->SetBlock(0, nullptr);
        FirstPassThru(index, blk);
        return;
    }
    mem_Cluster* const clstr = Cluster(static_cast<int>(id.bits.cluster));
    require(clstr->BlockType() == mem_BLK_CLUSTER,
            "AssertionFailed:clstr->BlockType() == mem_BLK_CLUSTER", source);
    const mem_RegionTypeEnm type = clstr->AllocType(id);
    if (clstr->Free(id)) {
        DropCluster(mem_RGN_EMPTY, clstr);
        clstr->FreeBlock(m_allocator);
        FirstEmptyCluster(clstr);
        cache::check_while_small(*this);
    } else {
        FirstCluster(type, clstr);
    }
}

mem_CachePoolIDTyp<void*> mem_CachePool::ReAlloc(mem_CachePoolID id, std::size_t size) {
    if (size == 0) {
        return null_id();
    }
    if (id.bits.inCluster == 0) {
        mem_Block* const blk = Block(static_cast<int>(id.passThru.block));
        if (blk == nullptr) { // the null identifier's too
            return null_id();
        }
        int* const p = blk->Ptr(0);
        auto* const answer = static_cast<int*>(m_allocator->Realloc(tag, p, size));
        if (answer == nullptr) {
            return null_id();
        }
        if (answer != p) {
            blk->SetBlock(words_of(size), answer); // requires a free block, which it is not: meant
        }
        return id;
    }
    mem_Cluster* const cluster = Cluster(static_cast<int>(id.bits.cluster));
    if (cluster == nullptr) {
        return null_id();
    }
    if (size <= mem_Cluster::MAX_CLUSTER_ALLOC_BYTES) {
        const mem_CachePoolID resized = cluster->ReAlloc(id, size);
        if (resized.HasValue()) {
            FirstCluster(cluster->AllocType(resized), cluster);
            return resized;
        }
    }
    const ID moved = Alloc(size);
    if (moved.HasValue()) {
        // What the old one holds, which may be a little more than the largest request.
        std::memcpy(Ptr(moved), Ptr(id), std::min(cluster->AllocSize(id), size));
        Free(id);
    }
    return moved;
}

// ---- Lists of clusters

void mem_CachePool::UnlinkNeighbours(mem_RegionTypeEnm typ, const mem_Cluster* cluster) {
    const int next = cluster->NextCluster(typ);
    const int last = cluster->LastCluster(typ);
    if (last != none) {
        Cluster(last)->SetNextCluster(typ, next);
    }
    if (next != none) {
        Cluster(next)->SetLastCluster(typ, last);
    }
}

void mem_CachePool::PushCluster(mem_RegionTypeEnm typ, std::int32_t& head, mem_Cluster* cluster) {
    cluster->SetNextCluster(typ, head);
    cluster->SetLastCluster(typ, none);
    if (head != none) {
        Cluster(head)->SetLastCluster(typ, cluster->ClusterIndex());
    }
    head = cluster->ClusterIndex();
}

// The head of the list of empty clusters counts as a list by size, the ninth.
std::int32_t& mem_CachePool::HeadBySize(int list) {
    return list < list_count ? m_firstBySize[list] : m_firstEmptyCluster;
}

void mem_CachePool::UnlinkBySize(int highest, const mem_Cluster* cluster) {
    for (int k = highest; k >= 0; --k) {
        // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): nobody has a change without a cluster
        if (HeadBySize(k) == cluster->ClusterIndex()) {
            HeadBySize(k) = cluster->NextCluster(mem_RGN_VARIABLE);
            break;
        }
    }
    UnlinkNeighbours(mem_RGN_VARIABLE, cluster);
}

void mem_CachePool::FirstCluster(mem_RegionTypeEnm typ, mem_Cluster* cluster) {
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): nobody has an identifier without a cluster
    const int index = cluster->ClusterIndex();
    m_currentCluster = cluster;
    if (typ != mem_RGN_VARIABLE && m_firstCluster[typ] != index) {
        UnlinkNeighbours(typ, cluster);
        PushCluster(typ, m_firstCluster[typ], cluster);
    }
    const int largest = cluster->LargestFree();
    std::int32_t& head = m_firstBySize[file_list(largest)];
    if (head == index) {
        return;
    }
    UnlinkBySize(list_count - 1, cluster);
    if (largest < least_filed) {
        cluster->SetNextCluster(mem_RGN_VARIABLE, none);
        cluster->SetLastCluster(mem_RGN_VARIABLE, none);
        return;
    }
    PushCluster(mem_RGN_VARIABLE, head, cluster);
}

void mem_CachePool::DropCluster(mem_RegionTypeEnm typ, mem_Cluster* cluster) {
    require(typ != mem_RGN_VARIABLE, "AssertionFailed:typ != mem_RGN_VARIABLE", source);
    if (typ != mem_RGN_EMPTY) {
        DropFromClass(typ, cluster);
        return;
    }
    // One past the lists by size, where the list of empty clusters is, which never holds one in use:
    // meant. The cluster's own links by size stay until Initialize.
    UnlinkBySize(list_count, cluster);
    for (int t = 0; t < blocks::class_count; ++t) {
        DropFromClass(static_cast<mem_RegionTypeEnm>(t), cluster);
    }
}

void mem_CachePool::DropFromClass(mem_RegionTypeEnm typ, mem_Cluster* cluster) {
    if (m_firstCluster[typ] == cluster->ClusterIndex()) {
        m_firstCluster[typ] = cluster->NextCluster(typ);
    }
    UnlinkNeighbours(typ, cluster);
    cluster->SetNextCluster(typ, none);
    cluster->SetLastCluster(typ, none);
}

// ---- Lists of descriptors

void mem_CachePool::UnlinkBlock(const mem_Block* block, bool isCluster) {
    const mem_BlockContainer& blocks = isCluster ? m_clusters : m_blocks;
    if (block->LastBlock() != none) {
        blocks.Block(block->LastBlock())->SetNextBlock(block->NextBlock());
    }
    if (block->NextBlock() != none) {
        blocks.Block(block->NextBlock())->SetLastBlock(block->LastBlock());
    }
}

void mem_CachePool::FirstBlock(int index, mem_Block* block, bool isCluster) {
    std::int32_t& head = isCluster ? m_firstEmptyCluster : m_firstEmptyBlock;
    if (head == index) {
        return;
    }
    UnlinkBlock(block, isCluster);
    block->SetNextBlock(head);
    block->SetLastBlock(none);
    if (head != none) {
        (isCluster ? m_clusters : m_blocks).Block(head)->SetLastBlock(index);
    }
    head = index;
}

void mem_CachePool::DropBlock(int index, mem_Block* block, bool isCluster) {
    std::int32_t& head = isCluster ? m_firstEmptyCluster : m_firstEmptyBlock;
    if (head == index) {
        head = block->NextBlock();
    }
    UnlinkBlock(block, isCluster);
    block->SetNextBlock(none);
    block->SetLastBlock(none);
}

void mem_CachePool::FirstEmptyCluster(mem_Cluster* cluster) {
    FirstBlock(cluster->ClusterIndex(), cluster, true);
}

void mem_CachePool::DropEmptyCluster(mem_Cluster* cluster) {
    DropBlock(cluster->ClusterIndex(), cluster, true);
}

// ---- Descriptors

mem_Cluster* mem_CachePool::NewCluster() {
    if (m_firstEmptyCluster != none) {
        mem_Cluster* const clstr = Cluster(m_firstEmptyCluster);
        require(clstr->IsFree(), "AssertionFailed:clstr->IsFree()", source);
        DropEmptyCluster(clstr);
        // Its links by size are of its life before. Unlinking it by them would cut off clusters that have
        // moved on since, should it get no memory, which Initialize leaves as it is.
        clstr->SetNextCluster(mem_RGN_VARIABLE, none);
        clstr->SetLastCluster(mem_RGN_VARIABLE, none);
        clstr->Initialize(m_allocator); // whether it got its memory is not looked at: meant
        return clstr;
    }
    int* const slot = FixedBlockAlloc(true);
    if (slot == nullptr) {
        return nullptr;
    }
    mem_Cluster* const cluster = mem_Cluster::CreateCluster(m_clusterCount, slot, m_allocator);
    if (cluster != nullptr) {
        enter(m_clusters, m_clusterCount, cluster, m_allocator);
        ++m_clusterCount;
    }
    return cluster;
}

mem_Block* mem_CachePool::NewBlock(int& index) {
    index = m_blockCount++; // lost when there is no slot
    int* const slot = FixedBlockAlloc(false);
    if (slot == nullptr) {
        return nullptr;
    }
    mem_Block* const block = new (slot) mem_Block(0, nullptr, mem_BLK_EMPTY);
    m_blocks.SetBlockPtr(index, block);
    return block;
}

int* mem_CachePool::FixedBlockAlloc(bool cluster) {
    mem_FixedBlock*& store = cluster ? m_clusterStore : m_blockStore;
    int offset = none;
    if (store != nullptr) {
        // What the first call gives is dropped, so that each descriptor but a store's first costs two
        // slots: meant.
        if (store->Alloc() == none) {
            store = FixedBlock(store->NextBlock());
        }
        offset = store->Alloc();
    }
    if (offset == none) {
        mem_FixedBlock* const fresh = CreateFixedBlock(cluster);
        if (fresh == nullptr) {
            return nullptr;
        }
        store = fresh;
        offset = store->Alloc();
        require(offset != none, "AssertionFailed:offset != -1", source);
    }
    return store->Ptr(offset);
}

mem_FixedBlock* mem_CachePool::CreateFixedBlock(bool cluster) {
    const std::size_t size = cluster ? sizeof(mem_Cluster) : sizeof(mem_Block);
    const int index = m_blockCount;
    mem_FixedBlock* const block =
        mem_FixedBlock::CreateFixedBlock(index, m_allocator, mem_Cluster::RegionType(size), size);
    if (block == nullptr) {
        return nullptr;
    }
    enter(m_blocks, index, block, m_allocator);
    ++m_blockCount;
    mem_FixedBlock* const store = cluster ? m_clusterStore : m_blockStore;
    if (store == nullptr) {
        block->SetNextBlock(index);
        block->SetLastBlock(index);
    } else {
        block->SetNextBlock(store->BlockIndex());
        block->SetLastBlock(store->LastBlock());
        FixedBlock(store->LastBlock())->SetNextBlock(index);
        store->SetLastBlock(index);
    }
    return block;
}

// ---- Reports

void mem_CachePool::DebugPrint() const {
    for (int i = 1; i < m_clusterCount; ++i) {
        if (const mem_Block* const cluster = ClusterBlock(i)) {
            cluster->DebugPrint();
        }
    }
    for (int i = 1; i < m_blockCount; ++i) {
        if (const mem_Block* const block = Block(i)) {
            block->DebugPrint();
        }
    }
}

void mem_CachePool::DebugSummary() const {
    int passthruCount = 0;
    std::uint32_t passthruSize = 0; // as 32 bits count it
    for (int i = 1; i < m_blockCount; ++i) {
        const mem_Block* const block = Block(i);
        if (block != nullptr && block->BlockType() == mem_BLK_PASSTHRU) {
            ++passthruCount;
            passthruSize += static_cast<std::uint32_t>(block->BlockSize());
        }
    }
    int clusterAlloc = 0;
    for (int i = 1; i < m_clusterCount; ++i) {
        int other = 0, allocated = 0;
        if (const mem_Cluster* const cluster = Cluster(i)) {
            cluster->SummaryInfo(other, allocated);
        }
        clusterAlloc += allocated;
    }
    std::printf("Pool Summary: blockCount=%d, clusterCount=%d, passthruCount=%d\n", m_blockCount,
                m_clusterCount - 1, passthruCount);
    std::printf("        PassthruSize=%d, ClusterAlloc=%d\n", static_cast<int>(passthruSize),
                clusterAlloc);
}
