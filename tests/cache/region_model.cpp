// See region_model.h.
#include "region_model.h"

#include <algorithm>
#include <utility>

namespace test {

namespace {

int needed(std::size_t size) {
    const int words = static_cast<int>((size - 1) / 4) + 3;
    return words % 4 == 0 ? words : words + 4 - words % 4;
}

std::pair<int, int> key(int words, int offset) {
    return {words, offset};
}

} // namespace

RegionModel::RegionModel(int words) {
    set_free(16, words - 16);
}

void RegionModel::set_depth(Node& node) {
    node.depth =
        std::max(node.left ? node.left->depth + 1 : 0, node.right ? node.right->depth + 1 : 0);
}

void RegionModel::balance(Tree& tree) {
    const int left = tree->left ? tree->left->depth : 0;
    const int right = tree->right ? tree->right->depth : 0;
    const auto lift = [&tree](Tree Node::*lifted, Tree Node::*other) {
        Tree up = std::move((*tree).*lifted);
        (*tree).*lifted = std::move((*up).*other);
        set_depth(*tree);
        (*up).*other = std::move(tree);
        set_depth(*up);
        tree = std::move(up);
    };
    if (right >= left + 2) {
        lift(&Node::right, &Node::left);
    } else if (left >= right + 2) {
        lift(&Node::left, &Node::right);
    }
}

void RegionModel::insert(Tree& tree, int words, int offset) {
    if (tree == nullptr) {
        tree = std::make_unique<Node>(Node{words, offset});
        return;
    }
    Tree& side = key(words, offset) > key(tree->words, tree->offset) ? tree->left : tree->right;
    insert(side, words, offset);
    balance(side);
    set_depth(*tree);
}

RegionModel::Tree RegionModel::replacement(Tree gone) {
    if (gone->left == nullptr || gone->right == nullptr) {
        return std::move(gone->left != nullptr ? gone->left : gone->right);
    }
    Tree in_place;
    if (gone->right->left == nullptr) {
        in_place = std::move(gone->right);
    } else {
        Node* above = gone->right.get();
        while (above->left->left != nullptr) {
            above = above->left.get();
        }
        in_place = std::move(above->left);
        above->left = std::move(in_place->right);
        set_depth(*above);
        in_place->right = std::move(gone->right);
    }
    in_place->left = std::move(gone->left);
    set_depth(*in_place);
    return in_place;
}

// The node is below this one.
void RegionModel::remove_below(Tree& tree, int words, int offset) {
    Tree& side = key(words, offset) > key(tree->words, tree->offset) ? tree->left : tree->right;
    if (side->offset == offset) {
        side = replacement(std::move(side));
    } else {
        remove_below(side, words, offset);
        balance(side);
    }
    set_depth(*tree);
}

void RegionModel::set_free(int offset, int words) {
    pieces[offset] = {words, false};
    if (words > largest_) {
        largest_ = words;
        largest_offset_ = offset;
    }
    insert(root_, words, offset);
    balance(root_);
}

void RegionModel::un_free(int offset) {
    if (root_->offset == offset) {
        root_ = replacement(std::move(root_));
    } else {
        remove_below(root_, pieces[offset].words, offset);
        balance(root_);
    }
    if (root_ != nullptr) {
        balance(root_);
    }
    if (offset == largest_offset_) {
        const Node* node = root_.get();
        while (node != nullptr && node->left != nullptr) {
            node = node->left.get();
        }
        largest_ = node != nullptr ? node->words : 0;
        largest_offset_ = node != nullptr ? node->offset : -1;
    }
}

bool RegionModel::is_free(int offset) const {
    const auto piece = pieces.find(offset);
    return piece != pieces.end() && !piece->second.used;
}

int RegionModel::alloc(std::size_t size) {
    int take = needed(size);
    const Node* best = nullptr;
    for (const Node* at = root_.get(); at != nullptr;) {
        if (at->words >= take) {
            best = at;
        }
        if (at->words == take) {
            break;
        }
        at = (at->words > take ? at->right : at->left).get();
    }
    if (best == nullptr) {
        return -1;
    }
    const int offset = best->offset, words = best->words;
    un_free(offset);
    const bool cut = words - take >= 36;
    take = cut ? take : words;
    pieces[offset] = {take, true};
    count += take;
    if (cut) {
        set_free(offset + take, words - take);
    }
    return offset;
}

int RegionModel::realloc(int offset, std::size_t size) {
    const int have = pieces[offset].words, want = needed(size);
    if (have >= want) {
        return offset;
    }
    const int next = offset + have;
    if (is_free(next) && have + pieces[next].words >= want) {
        const int total = have + pieces[next].words;
        un_free(next);
        pieces.erase(next);
        const bool cut = total - want >= 36;
        pieces[offset].words = cut ? want : total;
        count += pieces[offset].words; // on top of what it had
        if (cut) {
            set_free(offset + want, total - want);
        }
        return offset;
    }
    const int moved = alloc(size);
    if (moved != -1) {
        free(offset);
    }
    return moved;
}

bool RegionModel::free(int offset) {
    const auto piece = pieces.find(offset);
    int first = offset, words = piece->second.words;
    count -= words;
    if (is_free(offset + words)) {
        const int next = offset + words;
        un_free(next);
        words += pieces[next].words;
        pieces.erase(next);
    }
    if (piece != pieces.begin() && !std::prev(piece)->second.used) {
        first = std::prev(piece)->first;
        words += std::prev(piece)->second.words;
        un_free(first);
        pieces.erase(piece);
    }
    set_free(first, words);
    return count == 0;
}

int RegionModel::fixed(int end) {
    const auto behind = pieces.lower_bound(end);
    if (behind == pieces.begin()) {
        return -1;
    }
    const auto piece = std::prev(behind);
    const int start = piece->first, slot = end / 1024 * 1024 - 1024;
    if (piece->second.used || piece->second.words < 1024 || slot < start) {
        return -1;
    }
    un_free(start);
    const int lead = slot - start;
    if (lead < 36 && piece != pieces.begin()) {
        std::prev(piece)->second.words += lead; // uncounted
        pieces.erase(piece);
    } else {
        set_free(start, lead);
    }
    const int rest = end - slot - 1024;
    const int words = rest < 36 ? 1024 + rest : 1024;
    pieces[slot] = {words, true};
    count += words;
    if (rest >= 36) {
        set_free(slot + 1024, rest);
    }
    return slot;
}

// In the order of the walk, from the greatest.
bool RegionModel::same(const Tree& tree, const blocks::Chunks& found, std::size_t& next) {
    if (tree == nullptr) {
        return true;
    }
    if (!same(tree->left, found, next) || next == found.nodes.size()) {
        return false;
    }
    const blocks::TreeNode& node = found.nodes[next++];
    return node.offset == tree->offset && node.depth == tree->depth &&
           node.left == (tree->left ? tree->left->offset : -1) &&
           node.right == (tree->right ? tree->right->offset : -1) && same(tree->right, found, next);
}

const char* RegionModel::differs(const blocks::Chunks& found,
                                 const mem_VariableRegion& region) const {
    if (found.fault != nullptr) {
        return found.fault;
    }
    const bool same_chunks =
        std::equal(found.chunks.begin(), found.chunks.end(), pieces.begin(), pieces.end(),
                   [](const blocks::Chunk& chunk, const auto& piece) {
                       return chunk.offset == piece.first && chunk.words == piece.second.words &&
                              chunk.used == piece.second.used;
                   });
    std::size_t nodes = 0;
    return !same_chunks                                                ? "chunks"
           : !same(root_, found, nodes) || nodes != found.nodes.size() ? "tree"
           : region.AllocCount() != count                              ? "count of words"
           : region.LargestFree() != largest_                          ? "largest free chunk"
           : region.LargestFreeOffset() != largest_offset_             ? "its place"
                                                                       : nullptr;
}

} // namespace test
