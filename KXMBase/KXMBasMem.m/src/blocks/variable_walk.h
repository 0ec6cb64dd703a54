// Proves what mem_VariableRegion.h and mem_FreeListNode.h state of a variable region, and tells what
// is in it.
#pragma once

#include <vector>

#include "blocks/mem_VariableRegion.h"

namespace blocks {

struct Chunk {
    int offset; ///< in the region, as all here
    int words;
    bool used;
};

struct TreeNode {
    int offset, parent, left, right, depth;
};

struct Chunks {
    const char* fault = nullptr; ///< the first broken statement, or null
    std::vector<Chunk> chunks;   ///< as they lie
    std::vector<TreeNode> nodes; ///< from the greatest to the smallest
    int root = -1;
    int used_words = 0;   ///< of all chunks in use: m_allocCount but for its drift
    int tree_height = -1; ///< edges on the longest way down, as it is
    int stale_depths = 0; ///< nodes whose m_depth is more than what their children's say
};

/// pre: the region's block has its memory.
Chunks walk_variable_region(const mem_Block& block, const mem_VariableRegion& region);

} // namespace blocks
