// What a variable region is to do, told in another way: chunks in a map, the tree as owned nodes
// without parents, everything recursive. And a region to hold beside it.
#pragma once

#include <map>
#include <memory>

#include "blocks/variable_walk.h"
#include "mem_Interface.h"

namespace test {

/// A region of its own in a block of its own, as a cluster has one.
class OwnRegion {
public:
    explicit OwnRegion(int words = 65536)
        : block(words, static_cast<int*>(mem_Malloc(static_cast<std::size_t>(words) * 4)),
                mem_BLK_PASSTHRU),
          region(*new (block.Ptr(0)) mem_VariableRegion(0, words, &block)) {}
    ~OwnRegion() { block.FreeBlock(nullptr); }

    int alloc(std::size_t size) { return region.Alloc(&block, size); }
    bool free(int offset) { return region.Free(&block, offset); }
    int fixed(int end) { return region.AllocFixedRegion(&block, end); }
    blocks::Chunks walk() const { return blocks::walk_variable_region(block, region); }

    mem_Block block;
    mem_VariableRegion& region;
};

class RegionModel {
public:
    explicit RegionModel(int words); ///< of the whole region

    int alloc(std::size_t size); ///< as the region's operations
    int realloc(int offset, std::size_t size);
    bool free(int offset);
    int fixed(int end);

    /// Says how `found` differs from what there must be; null when it does not.
    const char* differs(const blocks::Chunks& found, const mem_VariableRegion& region) const;

    struct Piece {
        int words;
        bool used;
    };
    std::map<int, Piece> pieces; ///< by offset
    int count = 0;

private:
    struct Node {
        int words, offset, depth = 0;
        std::unique_ptr<Node> left{}, right{};
    };
    using Tree = std::unique_ptr<Node>;

    static void set_depth(Node& node);
    static void balance(Tree& tree);
    static void insert(Tree& tree, int words, int offset);
    static Tree replacement(Tree gone);
    static void remove_below(Tree& tree, int words, int offset);
    static bool same(const Tree& tree, const blocks::Chunks& found, std::size_t& next);

    void set_free(int offset, int words);
    void un_free(int offset);
    bool is_free(int offset) const;

    Tree root_;
    int largest_ = 0, largest_offset_ = -1;
};

} // namespace test
