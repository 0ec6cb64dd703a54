// The free tree of a variable region. Its nodes are the free chunks themselves: a node is the first
// four words of one, and every link is a chunk's word offset from the start of the region.
//
//     m_parent   the node above; the root's is the anchor in the region object; -1: in no tree
//     m_left     the child on the GREATER side, -1 for none
//     m_right    the child on the smaller side, -1 for none
//     m_depth    height of the subtree below: 0 for a leaf
//
//     key:      length, then offset; so the leftmost node is the largest chunk, and of equal ones
//               the one that lies highest
//     balance:  by weak rules that are meant. Where Balance compares, a missing child and a leaf count
//               alike, and a single rotation at each level on the way up is all. Remove leaves the
//               depths of nodes between the replacement's old place and its new one as they were.
//     depths:   so m_depth is at least what the children's say, and is exact but for such nodes
//
// The rules bound the tree's depth only weakly; README.md of the cache room tells measured ones.
#pragma once

#include <cstddef>
#include <cstdint>

#include "blocks/mem_Region.h"

namespace blocks {

/// The record in front of each chunk; the chunk's own offset is that of the word after it.
struct KXM_MAY_ALIAS AllocInfo {
    std::int32_t lastSize; ///< words of the chunk before this one, 0 for the first chunk
    std::int32_t nextSize; ///< words of this chunk: negative when it is free, 0 for the end record
};
static_assert(sizeof(AllocInfo) == 2 * sizeof(word));

inline AllocInfo* info_at(int* base, int offset) {
    return reinterpret_cast<AllocInfo*>(base + offset - 2);
}

} // namespace blocks

/// In all operations `block` is the start of the region.
class KXM_MAY_ALIAS mem_FreeListNode {
public:
    explicit mem_FreeListNode(int parent) : m_parent(parent), m_left(-1), m_right(-1), m_depth(0) {}
    ~mem_FreeListNode() {}
    mem_FreeListNode(const mem_FreeListNode&) = delete;
    mem_FreeListNode& operator=(const mem_FreeListNode&) = delete;

    void* operator new(std::size_t, int* where) { return where; }
    void operator delete(void*, int*) {}

    /// Makes the free chunk at `offset`, whose record is written, a node below this one. Whoever
    /// calls balances this node after it. Recursive, as deep as the tree.
    void Insert(int offset, int* block);
    /// Takes this node out and balances the nodes above it, but for its parent's new child.
    void Remove(int* block);
    /// The shortest chunk of at least `size` words in the subtree, or -1. An exact fit is the first
    /// that is met; of several shortest ones that do not fit exactly it is the lowest.
    int Find(int size, int* block) const;
    int FindLargest(int* block) const;
    /// Turns this subtree when it leans far enough, and returns its new head; -1 when it does not.
    /// The link above is the caller's to store.
    int Balance(int* block);

    int Depth() const { return m_depth; }
    int NodeOffset(const int* block) const {
        const auto bytes = static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(this) -
                                                      reinterpret_cast<std::uintptr_t>(block));
        return static_cast<int>(bytes >> 2);
    }

private:
    friend class mem_VariableRegion;
    friend struct blocks::Layout;
    friend struct blocks::VariableInspector;

    void SetDepth(int* block);
    void Rotate(std::int32_t mem_FreeListNode::*lifted, std::int32_t mem_FreeListNode::*other,
                int* block);
    int TakeReplacement(int* block);
    void BalanceAbove(int* block);

    static mem_FreeListNode* Node(int offset, int* block) {
        return reinterpret_cast<mem_FreeListNode*>(reinterpret_cast<std::uintptr_t>(block) +
                                                   std::uintptr_t{sizeof(int)} *
                                                       static_cast<std::uintptr_t>(offset));
    }
    static blocks::AllocInfo* GetAllocInfo(int* block, int offset) {
        return blocks::info_at(block, offset);
    }

    std::int32_t m_parent;
    std::int32_t m_left;
    std::int32_t m_right;
    std::int32_t m_depth;
};
static_assert(sizeof(mem_FreeListNode) == 4 * sizeof(blocks::word));
