// See mem_FreeListNode.h.
#include "blocks/mem_FreeListNode.h"

#include <algorithm>

#include "blocks/invariant.h"

namespace {

constexpr const char* source = "mem_Region";

} // namespace

void mem_FreeListNode::SetDepth(int* block) {
    const int left = m_left != -1 ? Node(m_left, block)->m_depth + 1 : 0;
    const int right = m_right != -1 ? Node(m_right, block)->m_depth + 1 : 0;
    m_depth = std::max(left, right);
}

// Lifts the child at `lifted`; its child on the `other` side comes in its place.
void mem_FreeListNode::Rotate(std::int32_t mem_FreeListNode::*lifted,
                              std::int32_t mem_FreeListNode::*other, int* block) {
    const int self = NodeOffset(block);
    const int up_offset = this->*lifted;
    mem_FreeListNode* const up = Node(up_offset, block);
    up->m_parent = m_parent;
    m_parent = up_offset;
    this->*lifted = up->*other;
    if (this->*lifted != -1) {
        Node(this->*lifted, block)->m_parent = self;
    }
    up->*other = self;
    SetDepth(block);
    up->SetDepth(block);
}

int mem_FreeListNode::Balance(int* block) {
    // Nothing is added for the child itself, unlike in SetDepth: a subtree leans further than in a
    // strictly balanced tree before it is turned, and there is no double rotation. Both are meant.
    const int ld = m_left != -1 ? Node(m_left, block)->m_depth : 0;
    const int rd = m_right != -1 ? Node(m_right, block)->m_depth : 0;
    if (rd - ld >= 2) {
        Rotate(&mem_FreeListNode::m_right, &mem_FreeListNode::m_left, block);
        return m_parent;
    }
    if (rd - ld < -1) {
        Rotate(&mem_FreeListNode::m_left, &mem_FreeListNode::m_right, block);
        return m_parent;
    }
    return -1;
}

void mem_FreeListNode::Insert(int offset, int* block) {
    const int thisOff = NodeOffset(block);
    const blocks::AllocInfo* const freeinfo = GetAllocInfo(block, offset);
    const blocks::AllocInfo* const thisinfo = GetAllocInfo(block, thisOff);
    blocks::require(freeinfo->nextSize < 0, "AssertionFailed:freeinfo->nextSize < 0", source);
    blocks::require(thisinfo->nextSize < 0, "AssertionFailed:thisinfo->nextSize < 0", source);
    int compare = thisinfo->nextSize - freeinfo->nextSize; // lengths of free chunks are negative
    if (compare == 0) {
        compare = offset - thisOff;
    }
    blocks::require(compare != 0, "AssertionFailed:compare != 0", source);
    std::int32_t& side = compare < 0 ? m_right : m_left;
    if (side != -1) {
        os::prefetch(Node(compare < 0 ? m_left : m_right, block)); // its depth, on the way back
        mem_FreeListNode* const child = Node(side, block);
        child->Insert(offset, block);
        const int turned = child->Balance(block);
        if (turned != -1) {
            side = turned;
        }
        blocks::require(Node(side, block)->m_parent == thisOff,
                        "AssertionFailed:Node(child,block)->m_parent == thisOff", source);
    } else {
        side = offset;
        new (block + offset) mem_FreeListNode(thisOff);
    }
    SetDepth(block);
}

// Unhooks the node that is to stand in this one's place, with this one's children below it, and
// returns its offset, or -1 when there is none.
int mem_FreeListNode::TakeReplacement(int* block) {
    if (m_right == -1) {
        return m_left;
    }
    if (m_left == -1) {
        return m_right;
    }
    mem_FreeListNode* p = this;
    int r_offset = m_right;
    mem_FreeListNode* r = Node(r_offset, block);
    while (r->m_left != -1) {
        p = r;
        r_offset = r->m_left;
        r = Node(r_offset, block);
    }
    if (p != this) {
        p->m_left = r->m_right;
        if (p->m_left != -1) {
            Node(p->m_left, block)->m_parent = p->NodeOffset(block);
        }
        r->m_right = m_right;
        Node(m_right, block)->m_parent = r_offset;
        p->SetDepth(block); // and of nodes above p, up to r, the depth stays as it was: meant
    }
    r->m_left = m_left;
    Node(m_left, block)->m_parent = r_offset;
    r->SetDepth(block);
    return r_offset;
}

// From this node's parent up to the anchor, which is a child of nothing.
void mem_FreeListNode::BalanceAbove(int* block) {
    int last = m_parent;
    int blkidx = Node(last, block)->m_parent;
    while (blkidx != -1) {
        mem_FreeListNode* const cur = Node(blkidx, block);
        os::prefetch(Node(cur->m_parent, block));
        os::prefetch(Node(cur->m_left == last ? cur->m_right : cur->m_left, block));
        std::int32_t& child = cur->m_left == last ? cur->m_left : cur->m_right;
        blocks::require(child == last && child != -1,
                        "AssertionFailed:child == lastidx && child != -1", source);
        if (child != last) {
            return; // a tree so broken has no way up
        }
        const int turned = Node(child, block)->Balance(block);
        if (turned != -1) {
            child = turned;
        }
        blocks::require(Node(child, block)->m_parent == blkidx,
                        "AssertionFailed:Node(child,block)->m_parent == blkidx", source);
        cur->SetDepth(block);
        last = blkidx;
        blkidx = cur->m_parent;
    }
}

void mem_FreeListNode::Remove(int* block) {
    blocks::require(m_parent != -1, "AssertionFailed:m_parent != -1", source);
    if (m_parent == -1) {
        return; // in no tree
    }
    const int thisNode = NodeOffset(block);
    const int r = TakeReplacement(block);
    m_left = -1;
    m_right = -1;
    if (r != -1) {
        Node(r, block)->m_parent = m_parent;
    }
    mem_FreeListNode* const ptr = Node(m_parent, block);
    if (ptr->m_right == thisNode) {
        ptr->m_right = r;
    } else {
        blocks::require(thisNode == ptr->m_left, "AssertionFailed:thisNode == ptr->m_left", source);
        ptr->m_left = r;
    }
    ptr->SetDepth(block);
    BalanceAbove(block);
    m_parent = -1;
}

int mem_FreeListNode::Find(int size, int* block) const {
    int best = -1;
    int at = NodeOffset(block);
    while (at != -1) {
        const blocks::AllocInfo* const info = GetAllocInfo(block, at);
        blocks::require(info->nextSize < 0, "AssertionFailed:info->nextSize < 0", source);
        const int d = size + info->nextSize;
        if (d == 0) {
            return at;
        }
        const mem_FreeListNode* const node = Node(at, block);
        if (d < 0) {
            best = at;
            at = node->m_right;
        } else {
            at = node->m_left;
        }
    }
    return best;
}

int mem_FreeListNode::FindLargest(int* block) const {
    const mem_FreeListNode* node = this;
    while (node->m_left != -1) {
        node = Node(node->m_left, block);
    }
    return node->NodeOffset(block);
}
