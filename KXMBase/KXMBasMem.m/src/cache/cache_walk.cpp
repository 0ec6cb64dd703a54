// See cache_walk.h.
#include "cache/cache_walk.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "blocks/mem_FixedBlock.h"
#include "blocks/region_walk.h"
#include "blocks/variable_walk.h"
#include "cache/mem_Cluster.h"
#include "heap/heap_walk.h"

struct kxm::CachePoolInspector {
    const mem_CachePool& pool;
    cache::Census census{};
    enum class Kind { lost, empty, in_use };
    std::vector<Kind> clusters = std::vector<Kind>(count(pool.m_clusterCount), Kind::lost);
    std::vector<bool> listed = std::vector<bool>(count(pool.m_clusterCount), false);
    std::vector<bool> met_blocks = std::vector<bool>(count(pool.m_blockCount), false);

    static std::size_t count(int n) { return static_cast<std::size_t>(n); }

    bool holds(bool statement, const char* fault, int index) {
        if (!statement && census.fault == nullptr) {
            census.fault = fault;
            census.index = index;
        }
        return census.fault == nullptr;
    }
    bool sound() const { return census.fault == nullptr; }

    const mem_Cluster& cluster(int index) const { return *pool.Cluster(index); }
    bool is_cluster(int i) const {
        return i > 0 && i < pool.m_clusterCount && pool.ClusterBlock(i) != nullptr;
    }
    bool is_block(int i) const {
        return i > 0 && i < pool.m_blockCount && pool.Block(i) != nullptr;
    }
    static bool is_fixed(mem_RegionTypeEnm type) { return type >= 0 && type < blocks::class_count; }

    // ---- A cluster

    // The words that its fixed regions and other chunks hold; each fixed region is a chunk in use.
    void walk_cluster(int index) {
        const mem_Cluster& at = cluster(index);
        if (!holds(at.ClusterIndex() == index && at.BlockType() == mem_BLK_CLUSTER, "descriptor",
                   index)) {
            return;
        }
        if (at.IsFree()) {
            return;
        }
        clusters[count(index)] = Kind::in_use;
        ++census.clusters;
        const blocks::Chunks found = blocks::walk_variable_region(at, *at.VariableRegion());
        if (!holds(found.fault == nullptr, found.fault, index) ||
            !holds(at.BlockSize() == 65536 && at.m_clusterRegions[0] == mem_RGN_VARIABLE &&
                       at.m_curRegion[mem_RGN_VARIABLE] == 0,
                   "cluster's tables", index)) {
            return;
        }
        int fixed = 0;
        for (const blocks::Chunk& chunk : found.chunks) {
            const int slot = chunk.offset / blocks::slot_words;
            const bool starts_slot = chunk.offset % blocks::slot_words == 0;
            if (starts_slot && is_fixed(at.m_clusterRegions[slot])) {
                holds(chunk.used && chunk.words >= blocks::slot_words, "chunk of a fixed region",
                      index);
                ++fixed;
            } else {
                census.chunks_used += chunk.used ? 1 : 0;
            }
        }
        for (int slot = 1; slot < mem_Cluster::slot_count && sound(); ++slot) {
            if (at.m_clusterRegions[slot] != mem_RGN_VARIABLE) {
                --fixed;
                walk_fixed_region(at, slot);
            }
        }
        holds(fixed == 0, "fixed region without a chunk", index);
        for (int type = 0; type < blocks::class_count; ++type) {
            const int slot = at.m_curRegion[type];
            holds(slot == -1 || (slot > 0 && slot < mem_Cluster::slot_count &&
                                 at.m_clusterRegions[slot] == type),
                  "current region of another type", index);
        }
        census.drifted += at.VariableRegion()->AllocCount() != found.used_words ? 1 : 0;
        census.stale_depths += found.stale_depths;
        census.tree_height = std::max(census.tree_height, found.tree_height);
    }

    void walk_fixed_region(const mem_Cluster& at, int slot) {
        const int index = at.ClusterIndex();
        const mem_FixedRegion& region = *at.FixedRegion(slot);
        if (!holds(is_fixed(at.m_clusterRegions[slot]) &&
                       region.RegionType() == at.m_clusterRegions[slot],
                   "type of a fixed region", index)) {
            return;
        }
        const blocks::Chain chain = blocks::walk_region(region);
        holds(chain.fault == nullptr, chain.fault, index);
        holds(chain.used() > 0, "empty fixed region", index);
        holds(chain.used() == chain.slots || (at.m_openRegions >> slot & 1) != 0,
              "fixed region with room passed over", index);
        ++census.fixed_regions;
        census.slots_used += chain.used();
    }

    // ---- Lists of clusters

    // Follows one list, and calls `each` with its clusters. A ring ends where it closes, as links disagree there.
    template <typename Each> void walk_list(int head, mem_RegionTypeEnm type, const Each& each) {
        int last = -1;
        for (int i = head; i != -1; i = cluster(i).NextCluster(type)) {
            if (!holds(is_cluster(i), "list leads off the clusters", i) ||
                !holds(clusters[count(i)] != Kind::empty, "emptied cluster on a list", i) ||
                !holds(cluster(i).LastCluster(type) == last, "links disagree", i)) {
                return;
            }
            each(i);
            last = i;
        }
    }

    static int file_list(int words) {
        int list = 0;
        for (int g = (words - 34) >> 5; g > 1 && list < 7; g >>= 1) {
            ++list;
        }
        return list;
    }

    void walk_lists_by_size() {
        std::fill(listed.begin(), listed.end(), false);
        for (int k = 0; k < 8 && sound(); ++k) {
            walk_list(pool.m_firstBySize[k], mem_RGN_VARIABLE, [&](int i) {
                holds(!listed[count(i)], "cluster on two lists by size", i);
                holds(file_list(cluster(i).LargestFree()) == k, "cluster on a wrong list", i);
                listed[count(i)] = true;
            });
        }
        for (int i = 1; i < pool.m_clusterCount && sound(); ++i) {
            if (clusters[count(i)] == Kind::in_use && !listed[count(i)]) {
                holds(cluster(i).LargestFree() < 33, "cluster with room off the lists", i);
                check_unlisted(i, mem_RGN_VARIABLE);
            }
        }
    }

    void walk_class_list(mem_RegionTypeEnm type) {
        std::fill(listed.begin(), listed.end(), false);
        walk_list(pool.m_firstCluster[type], type, [&](int i) { listed[count(i)] = true; });
        for (int i = 1; i < pool.m_clusterCount && sound(); ++i) {
            if (is_cluster(i) && !listed[count(i)]) {
                check_unlisted(i, type);
            }
        }
    }

    void check_unlisted(int i, mem_RegionTypeEnm type) {
        holds(cluster(i).NextCluster(type) == -1 && cluster(i).LastCluster(type) == -1,
              "link of a cluster off its list", i);
    }

    // ---- Descriptors

    void walk_empty_clusters() {
        int last = -1;
        for (int i = pool.m_firstEmptyCluster; i != -1; i = cluster(i).NextBlock()) {
            if (!holds(is_cluster(i) && clusters[count(i)] == Kind::lost,
                       "list of emptied clusters", i) ||
                !holds(cluster(i).LastBlock() == last, "links of emptied clusters disagree", i)) {
                return;
            }
            clusters[count(i)] = Kind::empty;
            ++census.empty_clusters;
            last = i;
        }
    }

    void walk_empty_blocks() {
        int last = -1;
        for (int i = pool.m_firstEmptyBlock; i != -1; i = pool.Block(i)->NextBlock()) {
            if (!holds(is_block(i) && !met_blocks[count(i)], "list of empty blocks", i)) {
                return;
            }
            const mem_Block& block = *pool.Block(i);
            holds(block.BlockType() == mem_BLK_EMPTY && block.IsFree(), "empty block in use", i);
            holds(block.LastBlock() == last, "links of empty blocks disagree", i);
            met_blocks[count(i)] = true;
            ++census.empty_blocks;
            last = i;
        }
    }

    void walk_ring(const mem_FixedBlock* store, mem_RegionTypeEnm type) {
        if (store == nullptr) {
            return;
        }
        int i = store->BlockIndex();
        do {
            if (!holds(is_block(i) && !met_blocks[count(i)], "ring of stores", i)) {
                return;
            }
            const mem_FixedBlock& block = *pool.FixedBlock(i);
            const blocks::Chain chain = blocks::walk_region(block);
            holds(chain.fault == nullptr, chain.fault, i);
            holds(block.BlockIndex() == i && block.BlockType() == mem_BLK_FIXED &&
                      block.Region()->RegionType() == type && chain.links.none(),
                  "store", i);
            holds(is_block(block.NextBlock()) && pool.Block(block.NextBlock())->LastBlock() == i,
                  "links of a ring disagree", i);
            met_blocks[count(i)] = true;
            ++census.stores;
            i = block.NextBlock();
        } while (sound() && i != store->BlockIndex());
    }

    void walk_blocks() {
        walk_empty_blocks();
        walk_ring(pool.m_blockStore, mem_RegionTypeEnm{3});
        walk_ring(pool.m_clusterStore, mem_RGN_SPECIAL);
        for (int i = 1; i < pool.m_blockCount && sound(); ++i) {
            const mem_Block* const block = pool.Block(i);
            if (block == nullptr) {
                ++census.lost_blocks;
            } else if (!met_blocks[count(i)]) {
                holds(block->BlockType() == mem_BLK_PASSTHRU && !block->IsFree() &&
                          block->NextBlock() == -1 && block->LastBlock() == -1,
                      "pass-through block", i);
                ++census.pass_thru;
            }
        }
    }

    void walk() {
        for (int i = 1; i < pool.m_clusterCount && sound(); ++i) {
            if (holds(is_cluster(i), "cluster index without a descriptor", i)) {
                walk_cluster(i);
            }
        }
        if (sound()) {
            walk_empty_clusters();
            walk_lists_by_size();
        }
        for (int t = 0; t < blocks::class_count && sound(); ++t) {
            walk_class_list(static_cast<mem_RegionTypeEnm>(t));
        }
        if (sound()) {
            walk_blocks();
        }
        census.lost_clusters = static_cast<int>(
            std::count(clusters.begin() + (clusters.empty() ? 0 : 1), clusters.end(), Kind::lost));
    }

    static bool current_is_released(const mem_CachePool& pool) {
        return pool.m_currentCluster != nullptr && pool.m_currentCluster->IsFree();
    }
    static int cluster_count(const mem_CachePool& pool) { return pool.m_clusterCount; }
};

namespace cache {

using Inspector = kxm::CachePoolInspector;

Census take_census(const mem_CachePool& pool) {
    Inspector inspector{pool};
    inspector.walk();
    return inspector.census;
}

bool current_is_released(const mem_CachePool& pool) {
    return Inspector::current_is_released(pool);
}

void check_while_small(const mem_CachePool& pool) {
    constexpr int small_pool = 16;
    if constexpr (heap::checked_build) {
        if (Inspector::cluster_count(pool) <= small_pool && take_census(pool).fault != nullptr) {
            std::abort();
        }
    }
}

} // namespace cache
