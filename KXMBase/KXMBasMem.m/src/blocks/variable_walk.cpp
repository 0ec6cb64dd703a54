// See variable_walk.h.
#include "blocks/variable_walk.h"

#include <algorithm>
#include <cstddef>

namespace blocks {

struct VariableInspector {
    const mem_VariableRegion& region;
    int* base;
    Chunks found{};
    std::size_t free_chunks = 0;

    static int start_of(const mem_VariableRegion& region) { return region.m_regionOffset; }

    bool holds(bool statement, const char* fault) {
        if (!statement && found.fault == nullptr) {
            found.fault = fault;
        }
        return found.fault == nullptr;
    }

    void walk_chunks() {
        int last = 0;
        bool last_free = false;
        int at = region.m_reserveOffset;
        while (at < region.m_regionSize) {
            const AllocInfo& info = *info_at(base, at);
            const bool used = info.nextSize > 0;
            const int words = used ? info.nextSize : -info.nextSize;
            if (!holds(info.lastSize == last, "record tells another length of the chunk before") ||
                !holds(words % 4 == 0 && words > 33 && words <= region.m_regionSize - at,
                       "length of a chunk") ||
                !holds(used || !last_free, "two free chunks side by side")) {
                return;
            }
            found.chunks.push_back({at, words, used});
            found.used_words += used ? words : 0;
            free_chunks += used ? 0 : 1;
            last = words;
            last_free = !used;
            at += words;
        }
        const AllocInfo& end = *info_at(base, region.m_regionSize);
        holds(end.lastSize == last && end.nextSize == 0, "end record");
    }

    const mem_FreeListNode& node(int offset) const { return *region.FreeNode(offset, base); }
    int words_at(int offset) const { return -info_at(base, offset)->nextSize; }

    bool is_free_chunk(int offset) const {
        const auto chunk =
            std::lower_bound(found.chunks.begin(), found.chunks.end(), offset,
                             [](const Chunk& c, int wanted) { return c.offset < wanted; });
        return chunk != found.chunks.end() && chunk->offset == offset && !chunk->used;
    }

    // In order, from the greatest; returns the subtree's height, -1 for none.
    int walk_tree(int offset, int parent) {
        if (offset == -1) {
            return -1;
        }
        if (!holds(is_free_chunk(offset), "link to what is no free chunk") ||
            !holds(node(offset).m_parent == parent, "parent") ||
            !holds(found.nodes.size() < free_chunks, "more nodes than free chunks")) {
            return -1;
        }
        const mem_FreeListNode& at = node(offset);
        const int left = walk_tree(at.m_left, offset);
        if (found.fault != nullptr) {
            return -1;
        }
        if (!found.nodes.empty()) {
            const int greater = found.nodes.back().offset;
            holds(words_at(greater) > words_at(offset) ||
                      (words_at(greater) == words_at(offset) && greater > offset),
                  "order of the tree");
        }
        found.nodes.push_back({offset, parent, at.m_left, at.m_right, at.m_depth});
        const int right = walk_tree(at.m_right, offset);
        if (found.fault == nullptr) {
            const int told = 1 + std::max(at.m_left != -1 ? node(at.m_left).m_depth : -1,
                                          at.m_right != -1 ? node(at.m_right).m_depth : -1);
            holds(at.m_depth >= told, "depth less than the children's say");
            found.stale_depths += at.m_depth > told ? 1 : 0;
        }
        return 1 + std::max(left, right);
    }

    void check_object() {
        const mem_FreeListNode& anchor = region.m_tmpNode;
        holds(anchor.m_parent == -1 && anchor.m_right == -1, "anchor");
        const int largest = found.nodes.empty() ? 0 : words_at(found.nodes.front().offset);
        holds(region.m_largestFree == largest, "length of the largest free chunk");
        holds(largest == 0 ? region.m_largestOffset == -1
                           : is_free_chunk(region.m_largestOffset) &&
                                 words_at(region.m_largestOffset) == largest,
              "place of the largest free chunk");
    }

    void walk() {
        if (!holds(region.RegionType() == mem_RGN_VARIABLE && region.m_reserveOffset == 16,
                   "region header")) {
            return;
        }
        walk_chunks();
        if (found.fault == nullptr) {
            found.root = region.m_tmpNode.m_left;
            found.tree_height = walk_tree(found.root, region.m_tmpNode.NodeOffset(base));
            holds(found.nodes.size() == free_chunks, "free chunk in no tree");
        }
        if (found.fault == nullptr) {
            check_object();
        }
    }
};

Chunks walk_variable_region(const mem_Block& block, const mem_VariableRegion& region) {
    VariableInspector inspector{region, block.Ptr(VariableInspector::start_of(region))};
    inspector.walk();
    return inspector.found;
}

} // namespace blocks
