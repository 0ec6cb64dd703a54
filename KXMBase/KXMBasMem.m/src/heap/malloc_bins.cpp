// Insertion into and removal from the tree bins.
#include "heap/malloc_bins.h"

namespace heap {
namespace {

// A bin's slot stands as the parent of its root. It is compared and never followed.
malloc_tree_chunk* slot_as_parent(malloc_tree_chunk** slot) {
    return reinterpret_cast<malloc_tree_chunk*>(slot);
}

void make_own_list(malloc_tree_chunk* x, malloc_tree_chunk* parent) {
    x->parent = parent;
    x->fd = x;
    x->bk = x;
}

void join_list(malloc_tree_chunk* node, malloc_tree_chunk* x) {
    malloc_tree_chunk* const forward = node->fd;
    require(ok_address(node) && ok_address(forward));
    node->fd = x;
    forward->bk = x;
    x->fd = forward;
    x->bk = node;
    x->parent = nullptr;
}

void insert_below(malloc_tree_chunk* root, malloc_tree_chunk* x, std::size_t size) {
    malloc_tree_chunk* node = root;
    for (std::size_t bits = size << leftshift_for_tree_index(x->index);; bits <<= 1) {
        if (chunk_size(node) == size) {
            join_list(node, x);
            return;
        }
        malloc_tree_chunk** const slot = &node->child[bits >> 63];
        if (*slot == nullptr) {
            require(ok_address(slot));
            *slot = x;
            make_own_list(x, node);
            return;
        }
        node = *slot;
    }
}

// Takes the lowest rightmost leaf below `x` out of the tree, or null if x is a leaf.
malloc_tree_chunk* detach_leaf(malloc_tree_chunk* x) {
    malloc_tree_chunk** slot = &x->child[1];
    if (*slot == nullptr) {
        slot = &x->child[0];
    }
    if (*slot == nullptr) {
        return nullptr;
    }
    malloc_tree_chunk* leaf = *slot;
    for (;;) {
        malloc_tree_chunk** down = &leaf->child[1];
        if (*down == nullptr) {
            down = &leaf->child[0];
        }
        if (*down == nullptr) {
            break;
        }
        slot = down;
        leaf = *down;
    }
    require(ok_address(slot));
    *slot = nullptr;
    return leaf;
}

// What takes x's place in the tree: a neighbour on its list, else a leaf below it, else null.
malloc_tree_chunk* find_replacement(malloc_tree_chunk* x) {
    if (x->bk == x) {
        return detach_leaf(x);
    }
    malloc_tree_chunk* const forward = x->fd;
    malloc_tree_chunk* const back = x->bk;
    require(ok_address(forward) && ok_address(back));
    forward->bk = back;
    back->fd = forward;
    return back;
}

void adopt_child(malloc_tree_chunk* heir, malloc_tree_chunk* child, int side) {
    if (child != nullptr) {
        require(ok_address(child));
        heir->child[side] = child;
        child->parent = heir;
    }
}

void replace_in_tree(malloc_tree_chunk* x, malloc_tree_chunk* heir) {
    require(x->index < numTreebins);
    malloc_tree_chunk** const root = &state.treebins[x->index];
    malloc_tree_chunk* const parent = x->parent;
    if (*root == x) {
        *root = heir;
        if (heir == nullptr) {
            state.treemap &= ~(1U << x->index);
        }
    } else {
        require(ok_address(parent));
        parent->child[parent->child[0] == x ? 0 : 1] = heir;
    }
    if (heir != nullptr) {
        require(ok_address(heir));
        heir->parent = parent;
        adopt_child(heir, x->child[0], 0);
        adopt_child(heir, x->child[1], 1);
    }
}

} // namespace

void insert_large_chunk(malloc_tree_chunk* x, std::size_t size) {
    const unsigned index = compute_tree_index(size);
    x->index = index;
    x->child[0] = nullptr;
    x->child[1] = nullptr;
    malloc_tree_chunk** const root = &state.treebins[index];
    if ((state.treemap & (1U << index)) == 0) {
        state.treemap |= 1U << index;
        *root = x;
        make_own_list(x, slot_as_parent(root));
    } else {
        insert_below(*root, x, size);
    }
}

void unlink_large_chunk(malloc_tree_chunk* x) {
    malloc_tree_chunk* const heir = find_replacement(x);
    if (x->parent != nullptr) {
        replace_in_tree(x, heir);
    }
}

} // namespace heap
