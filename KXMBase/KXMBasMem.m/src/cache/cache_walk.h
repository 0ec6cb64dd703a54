// The walker: goes over every cluster, region, chunk, slot, tree, list, store and block of a cache pool
// and proves what mem_CachePool.cpp, mem_Cluster.h and the headers of blocks/ state. Tests run it
// after each operation; the checked build runs it on a small pool whenever a cluster comes or goes.
#pragma once

#include "mem_CachePool.h"

namespace cache {

/// What the walker met.
struct Census {
    const char* fault = nullptr; ///< the first broken statement, or null
    int index = -1;              ///< of the cluster or block in question
    int clusters = 0;            ///< with memory
    int empty_clusters = 0;      ///< on the list of emptied ones
    int lost_clusters = 0;       ///< neither: their memory could not be had again
    int stores = 0;
    int pass_thru = 0;
    int empty_blocks = 0;
    int lost_blocks = 0; ///< indices without a descriptor
    int fixed_regions = 0;
    int slots_used = 0;  ///< allocations in fixed regions
    int chunks_used = 0; ///< allocations in variable regions
    int drifted = 0;     ///< clusters whose count of words is not what their chunks hold
    int stale_depths = 0;
    int tree_height = -1; ///< of the highest tree
};

Census take_census(const mem_CachePool& pool);

/// Whether the next request of more than 128 bytes meets a released cluster.
bool current_is_released(const mem_CachePool& pool);

/// In the checked build, ends the process when the pool is not sound, as long as it is small.
void check_while_small(const mem_CachePool& pool);

} // namespace cache
