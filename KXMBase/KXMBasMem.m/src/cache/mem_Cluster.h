// A cluster: a block of 256 KiB, seen as 64 slots of 1024 words. A variable region, whose object is at
// word 0, owns all of it, and fixed regions are slots cut out of that, from the top down:
//
//     slot 0                                           62            63
//     | region object, chunks of any size ...          | class b ... | class a ...    | 65536 words
//
//     m_clusterRegions[s]   the class of the fixed region in slot s, or mem_RGN_VARIABLE: then its
//                           words are the variable region's, in use or free. Slot 0 always is.
//     m_openRegions         bit s: slot s is a fixed region that may have room. Not needed to be right,
//                           but a search through regions that are full would touch each one's header,
//                           and those lie in the same few sets of a cache
//     word offset >> 10     so is the slot of an offset, and what is in no fixed region's slot is the
//                           variable region's: nothing is searched
//
// The descriptor outlives its memory: emptied, it waits on the pool's list for the next memory. Its
// links for the pool's lists are by region type; those of mem_RGN_VARIABLE are of the lists by largest
// free chunk. Nothing here locks.
#pragma once

#include <cstddef>
#include <cstdint>

#include "blocks/mem_Region.h"
#include "blocks/mem_VariableRegion.h"
#include "mem_Block.h"
#include "mem_CachePool.h"

class mem_Cluster final : public mem_Block {
public:
    static constexpr std::size_t MAX_CLUSTER_ALLOC_BYTES = 16384;

    /// A cluster with memory, its descriptor at `where`; null when its memory could not be had, and
    /// then the place is used up.
    static mem_Cluster* CreateCluster(int index, int* where, mem_Allocator* allocator);
    /// Takes memory, and is as new; without it, is as it was. pre: IsFree().
    void Initialize(mem_Allocator* allocator);
    ~mem_Cluster() override;

    /// Gives back the memory alone.
    void Delete(mem_Allocator* allocator) override;
    void DebugPrint() const override;

    /// Null when there is no room for `size` bytes, at most MAX_CLUSTER_ALLOC_BYTES.
    mem_CachePoolID Alloc(std::size_t size);
    /// Null when this cluster has no room, and then the allocation is as it was.
    mem_CachePoolID ReAlloc(mem_CachePoolID id, std::size_t size);
    /// True when that was the last one.
    bool Free(mem_CachePoolID id);
    std::size_t AllocSize(mem_CachePoolID id) const; ///< usable bytes
    mem_RegionTypeEnm AllocType(mem_CachePoolID id) const;

    /// The kind of region that serves `size` bytes, 1 to MAX_CLUSTER_ALLOC_BYTES.
    static mem_RegionTypeEnm RegionType(std::size_t size);

    /// Words of the largest free chunk; 0 without memory.
    int LargestFree() const { return IsFree() ? 0 : VariableRegion()->LargestFree(); }

    int ClusterIndex() const { return m_clusterIndex; }
    int NextCluster(mem_RegionTypeEnm type) const { return m_nextCluster[type]; }
    int LastCluster(mem_RegionTypeEnm type) const { return m_lastCluster[type]; }
    void SetNextCluster(mem_RegionTypeEnm type, int index) { m_nextCluster[type] = index; }
    void SetLastCluster(mem_RegionTypeEnm type, int index) { m_lastCluster[type] = index; }

    /// Words: `other` is 0, `allocated` what is in use, as the regions count it.
    void SummaryInfo(int& other, int& allocated) const;
    void SummaryPrint() const;

private:
    friend struct kxm::CachePoolLayout;
    friend struct kxm::CachePoolInspector;

    static constexpr int slot_count = 64, type_count = 11;

    explicit mem_Cluster(int index);
    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*) {}
    void operator delete(void*, int*) {}

    mem_Region* CreateRegion(mem_RegionTypeEnm type);
    int RegionIndex(mem_CachePoolID id) const;
    mem_Region* Region(int index) const;
    mem_VariableRegion* VariableRegion() const {
        return static_cast<mem_VariableRegion*>(static_cast<void*>(Ptr(0)));
    }
    mem_FixedRegion* FixedRegion(int slot) const {
        return static_cast<mem_FixedRegion*>(static_cast<void*>(Ptr(slot * blocks::slot_words)));
    }
    int AllocInRegion(int slot);
    int AllocInOtherRegions(mem_RegionTypeEnm type);
    void Clear();
    mem_CachePoolID Identifier(int offset) const {
        return mem_CachePoolID(true, m_clusterIndex, offset);
    }

    std::int32_t m_clusterIndex;            ///< in its pool
    std::int32_t m_curRegion[type_count];   ///< slot last used for a type, -1 for none
    std::int32_t m_nextCluster[type_count]; ///< in the pool's lists, -1 for none
    std::int32_t m_lastCluster[type_count];
    mem_RegionTypeEnm m_clusterRegions[slot_count];
    std::uint64_t m_openRegions; ///< full ones are not looked at
};
