// A pool that answers with identifiers of 32 bits instead of pointers: for records that a model holds
// by the million and refers to by more than one handle, a handle of half the size.
//
//   mem_Allocator source;
//   mem_CachePool* pool = mem_CachePool::CreatePool(&source);
//   mem_CachePoolIDTyp<double *> stress = pool->Alloc(6 * sizeof(double));
//   if (stress.HasValue()) { stress.Ptr(pool)[0] = 1.0; }
//   pool->Free(stress);
//   pool->Delete();
//
// Up to 16384 bytes come from clusters of 256 KiB, at most 32767 of them; a larger request has a block
// of its own, by the same kind of identifier. Addresses are on 4 bytes for up to 4, on 8 for up to 8, and
// on 16 for more where the allocator's own blocks are.
//
// What a client must know; kxm::CachePool (bindings, kxm_cache_pool.h) takes care of all of it:
// - An address holds until the allocation is freed or resized. An identifier means nothing to another
//   pool, nor after its release; that is not checked reliably.
// - Memory that runs out is the allocator's exception, as with mem_Allocator, and the pool is sound; or
//   the null identifier, with an allocator that answers null, as mem_DLAllocator does. The latter ends
//   in a fatal error instead when a new cluster is to take the place of one that was emptied, and in a
//   fault when a table of the pool cannot grow: to survive exhaustion, have an allocator that throws.
// - A cluster goes back to the allocator with its last allocation. IF THAT EMPTIED THE CLUSTER OF THE
//   POOL'S LATEST CHANGE, THE NEXT REQUEST OF MORE THAN 128 BYTES IS A FATAL ERROR, a resize that finds no
//   room where the allocation is as well, unless another allocation or release comes between. Nothing tells
//   that a cluster was emptied. So a client that releases keeps a small allocation of its own, and after a
//   release, before a request or resize to more than 128 bytes, gets a new one and then frees the old one.
// - A pass-through block (bits.inCluster is 0) that the allocator moves in ReAlloc, larger or smaller, is a
//   fatal error after it was moved: allocate anew, copy and free instead.
// - More than 32767 clusters, 8 GiB, are not noticed: identifiers are wrong then.
//
// A pool takes no lock and belongs to one thread at a time. Sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "KXMBasMemExport.h"
#include "mem_Block.h"

enum mem_RegionTypeEnm : std::int32_t;
class mem_CachePool;
class mem_Cluster;
class mem_FixedBlock;

namespace kxm {
struct CachePoolLayout; // the library's own checks
struct CachePoolInspector;
} // namespace kxm

/// An identifier. 0 is the null identifier. A value, to be copied and stored at will.
class mem_CachePoolID {
public:
    struct InCluster {
        unsigned int inCluster : 1; ///< 1
        unsigned int cluster : 15;  ///< index of the cluster in its pool
        unsigned int offset : 16;   ///< in the cluster, in 32-bit words
    };
    struct PassThru {
        unsigned int inCluster : 1; ///< 0
        unsigned int block : 31;    ///< index of the block in its pool
    };
    union {
        InCluster bits;
        PassThru passThru;
    };

    /// From the raw value, as Value() told it.
    mem_CachePoolID(unsigned int value) { std::memcpy(&bits, &value, sizeof value); }
    /// `cluster` is cut to 15 bits. `offset` in words.
    mem_CachePoolID(bool inCluster, int cluster, int offset)
        : mem_CachePoolID((inCluster ? 1U : 0U) |
                          (static_cast<unsigned int>(cluster) & 0x7fffU) << 1 |
                          static_cast<unsigned int>(offset) << 16) {}

    bool HasValue() const { return Value() != 0; }
    bool IsNull() const { return Value() == 0; }
    unsigned int Value() const {
        unsigned int value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
};

/// An identifier that knows what it points to: `T` is the pointer type that Ptr returns. The library
/// exports the instances of char*, int*, unsigned int*, float*, double* and void*.
template <class T> class KXMBASMEM_TEMPLATE mem_CachePoolIDTyp : public mem_CachePoolID {
public:
    mem_CachePoolIDTyp(const mem_CachePoolIDTyp& id) = default;
    mem_CachePoolIDTyp(const mem_CachePoolID& id);
    mem_CachePoolIDTyp(unsigned int value);
    mem_CachePoolIDTyp& operator=(const mem_CachePoolIDTyp& id) = default;

    bool operator==(const mem_CachePoolIDTyp& other) const;
    bool operator!=(const mem_CachePoolIDTyp& other) const;

    /// The address, null for the null identifier.
    T Ptr(mem_CachePool* pool) const;
};

class KXMBASMEM_API mem_CachePool {
public:
    /// A pool that takes all its memory from `allocator`, which must outlive it; null when there is
    /// none for the pool itself. While the heap is not the bound back end, memory goes back by
    /// mem_Free whatever the allocator's Free does.
    static mem_CachePool* CreatePool(mem_Allocator* allocator);
    /// Gives everything back, the pool itself too. Identifiers and addresses end with it.
    void Delete();

    /// The null identifier for a size of 0, and when memory is short.
    mem_CachePoolIDTyp<void*> Alloc(std::size_t size);
    /// The identifier of the allocation at its new size, which is often another one; contents are
    /// kept. Null, and the old allocation as it was, for a size of 0, a null identifier, and when
    /// memory is short. What came from a cluster never shrinks; a pass-through block stays one.
    mem_CachePoolIDTyp<void*> ReAlloc(mem_CachePoolID id, std::size_t size);
    /// Makes a pass-through block of memory that the client got from the pool's allocator. Owned by
    /// the pool from then on, unless the answer is null.
    mem_CachePoolIDTyp<void*> Adopt(std::size_t size, void* memory);
    /// Does nothing for the null identifier.
    void Free(mem_CachePoolID id);

    /// pre: not null; mem_CachePoolIDTyp::Ptr is the form that looks.
    void* Ptr(mem_CachePoolID id) const {
        return id.bits.inCluster != 0 ? m_clusters.Block(static_cast<int>(id.bits.cluster))
                                            ->Ptr(static_cast<int>(id.bits.offset))
                                      : m_blocks.Block(static_cast<int>(id.passThru.block))->Ptr(0);
    }

    mem_Allocator* Allocator() const { return m_allocator; }

    /// Prints every cluster and block on standard output. A cluster's print is a fatal error by a
    /// check of its own that never holds: for use where the foundation library returns from it.
    void DebugPrint() const;
    /// Prints two lines of counts and sums (in words) on standard output.
    void DebugSummary() const;

private:
    friend struct kxm::CachePoolLayout;
    friend struct kxm::CachePoolInspector;

    struct Found;

    explicit mem_CachePool(mem_Allocator* allocator);
    ~mem_CachePool();
    mem_CachePool(const mem_CachePool&);
    mem_CachePool& operator=(const mem_CachePool&);
    static void* operator new(std::size_t size, mem_Allocator* allocator);
    static void operator delete(void*, mem_Allocator*) {}
    static void operator delete(void*) {}

    mem_CachePoolIDTyp<void*> AllocPassThru(std::size_t size);
    mem_CachePoolIDTyp<void*> PassThru(int index, mem_Block* blk, std::size_t size, void* memory);
    Found SearchClass(mem_RegionTypeEnm typ, int head, std::size_t size);
    Found SearchVariable(std::size_t size);

    void FirstCluster(mem_RegionTypeEnm typ, mem_Cluster* cluster);
    void DropCluster(mem_RegionTypeEnm typ, mem_Cluster* cluster);
    void DropFromClass(mem_RegionTypeEnm typ, mem_Cluster* cluster);
    void PushCluster(mem_RegionTypeEnm typ, std::int32_t& head, mem_Cluster* cluster);
    void UnlinkNeighbours(mem_RegionTypeEnm typ, const mem_Cluster* cluster);
    void UnlinkBySize(int highest, const mem_Cluster* cluster);
    std::int32_t& HeadBySize(int list);

    mem_Cluster* NewCluster();
    mem_Block* NewBlock(int& index);
    mem_Block* TakeEmptyBlock(int& index);
    int* FixedBlockAlloc(bool cluster);
    mem_FixedBlock* CreateFixedBlock(bool cluster);

    void FirstBlock(int index, mem_Block* block, bool isCluster);
    void DropBlock(int index, mem_Block* block, bool isCluster);
    void UnlinkBlock(const mem_Block* block, bool isCluster);
    void FirstEmptyCluster(mem_Cluster* cluster);
    void DropEmptyCluster(mem_Cluster* cluster);
    void FirstPassThru(int index, mem_Block* block) { FirstBlock(index, block, false); }
    void DropPassThru(int index, mem_Block* block) { DropBlock(index, block, false); }

    mem_Block* Block(int index) const { return m_blocks.BlockOrNull(index); }
    mem_Block* ClusterBlock(int index) const { return m_clusters.BlockOrNull(index); }
    mem_Cluster* Cluster(int index) const;
    mem_FixedBlock* FixedBlock(int index) const;

    mem_Allocator* m_allocator; // not owned
    mem_BlockContainer m_blocks;
    std::int32_t m_blockCount; // next index; 0 is nobody's
    mem_BlockContainer m_clusters;
    std::int32_t m_clusterCount;      // likewise
    std::int32_t m_firstCluster[10];  // heads of lists, -1 for none: by size class
    std::int32_t m_firstEmptyBlock;   // descriptors free for reuse
    std::int32_t m_firstBySize[8];    // clusters by largest free chunk
    std::int32_t m_firstEmptyCluster; // descriptors of emptied clusters
    mem_Cluster* m_currentCluster;    // the cluster of the latest change
    mem_FixedBlock* m_blockStore;     // where descriptors of blocks are placed
    mem_FixedBlock* m_clusterStore;   // and of clusters
};

// Not inline by that word: on Windows the library could not export them then.

template <class T>
mem_CachePoolIDTyp<T>::mem_CachePoolIDTyp(const mem_CachePoolID& id) : mem_CachePoolID(id) {}

template <class T>
mem_CachePoolIDTyp<T>::mem_CachePoolIDTyp(unsigned int value) : mem_CachePoolID(value) {}

template <class T> bool mem_CachePoolIDTyp<T>::operator==(const mem_CachePoolIDTyp& other) const {
    return Value() == other.Value();
}

template <class T> bool mem_CachePoolIDTyp<T>::operator!=(const mem_CachePoolIDTyp& other) const {
    return Value() != other.Value();
}

template <class T> T mem_CachePoolIDTyp<T>::Ptr(mem_CachePool* pool) const {
    return IsNull() ? static_cast<T>(nullptr) : static_cast<T>(pool->Ptr(*this));
}
