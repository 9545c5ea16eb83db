// qnm_rbtree.cpp - the red-black tree.
//
// Balancing follows the textbook; each pair of mirror cases is one code path driven by the row of
// k_ops for the side concerned. Two things are special. A node with two children is removed by
// exchanging its place and colour with its in-order predecessor, because owners hold pointers to
// the records, so these cannot be copied. And clear walks the tree in post-order by the parent
// links alone.

#include "qnm_rbtree.h"

#include <cerrno>
#include <utility>

namespace {

using node_t = qnm_rbnode_t;
using tree_t = qnm_rbtree_t;

// The child index of node under its parent.
int side_of(const node_t* node) {
    return node->rbn_parent->rbn_children[1] == node ? 1 : 0;
}

bool is_red(const node_t* node) {
    return node != nullptr && node->rbn_red != 0;
}

// Makes whatever pointed at node (its parent or the root) point at other.
void replace_in_parent(tree_t* tree, node_t* node, node_t* other) {
    if (node->rbn_parent == nullptr) {
        tree->rb_root = other;
    } else {
        node->rbn_parent->rbn_children[side_of(node)] = other;
    }
    if (other != nullptr) other->rbn_parent = node->rbn_parent;
}

void set_child(node_t* parent, int side, node_t* child) {
    parent->rbn_children[side] = child;
    if (child != nullptr) child->rbn_parent = parent;
}

// Rotates node down to the given side; its child on the other side rises.
void rotate(tree_t* tree, node_t* node, int side) {
    node_t* const risen = node->rbn_children[1 - side];
    replace_in_parent(tree, node, risen);
    set_child(node, 1 - side, risen->rbn_children[side]);
    set_child(risen, side, node);
}

void rbtree_rotate_left(tree_t* tree, node_t* node) {
    rotate(tree, node, 0);
}

void rbtree_rotate_right(tree_t* tree, node_t* node) {
    rotate(tree, node, 1);
}

// Serves both mirror cases: row 0 when the node in question is a left child, row 1 when it is a
// right child.
struct rbtree_ops_t {
    int rbops_inner_idx;  // the opposite side
    int rbops_outer_idx;  // the same side
    void (*rbops_rotate_inside)(tree_t*, node_t*);
    void (*rbops_rotate_outside)(tree_t*, node_t*);
};

constexpr rbtree_ops_t k_ops[] = {
    {1, 0, rbtree_rotate_right, rbtree_rotate_left},
    {0, 1, rbtree_rotate_left, rbtree_rotate_right},
};

int compare(const tree_t* tree, qnm_cptr_t key, const node_t* node) {
    return tree->rb_comp(key, tree->rb_keyfunc(node));
}

// Where a descent ended: at the match, or below last on the given side.
struct place {
    node_t* match;
    node_t* last;
    int side;
};

template <typename Comp>
place descend_by(Comp comp, const tree_t* tree, qnm_cptr_t key) {
    place found = {nullptr, nullptr, 0};
    for (node_t* node = tree->rb_root; node != nullptr; node = node->rbn_children[found.side]) {
        const int order = comp(key, tree->rb_keyfunc(node));
        if (order == 0) {
            found.match = node;
            return found;
        }
        found.last = node;
        found.side = order > 0 ? 1 : 0;
    }
    return found;
}

template <typename Key>
int compare_keys(qnm_cptr_t a, qnm_cptr_t b) {
    const Key x = static_cast<Key>(reinterpret_cast<uintptr_t>(a));
    const Key y = static_cast<Key>(reinterpret_cast<uintptr_t>(b));
    return (x > y) - (x < y);
}

// Card IDs are compared inline: the call of a comparison takes longer than the comparison.
place descend(const tree_t* tree, qnm_cptr_t key) {
    if (tree->rb_comp != qnm_rbtree_uint64_compare) return descend_by(tree->rb_comp, tree, key);
    const auto compare_ids = [](qnm_cptr_t a, qnm_cptr_t b) {
        return compare_keys<uint64_t>(a, b);
    };
    return descend_by(compare_ids, tree, key);
}

// The nearest ancestor that is reached from its subtree on the given side.
node_t* climb(node_t* node, int side) {
    while (node->rbn_parent != nullptr && side_of(node) != side)
        node = node->rbn_parent;
    return node->rbn_parent;
}

// The match, or its neighbour: below the descent's end (side 1: the larger one, as that end was
// left to the left of it; side 0: the smaller one).
node_t* match_or_neighbour(const tree_t* tree, qnm_cptr_t key, int side) {
    const place found = descend(tree, key);
    if (found.match != nullptr || found.last == nullptr) return found.match;
    if (found.side != side) return found.last;
    return climb(found.last, 1 - side);
}

node_t* outermost(node_t* node, int side) {
    while (node->rbn_children[side] != nullptr)
        node = node->rbn_children[side];
    return node;
}

void balance_after_insert(tree_t* tree, node_t* node) {
    while (is_red(node->rbn_parent)) {
        node_t* parent = node->rbn_parent;
        node_t* const grandparent = parent->rbn_parent;  // a red node is never the root
        const rbtree_ops_t& ops = k_ops[side_of(parent)];
        node_t* const uncle = grandparent->rbn_children[ops.rbops_inner_idx];
        if (is_red(uncle)) {
            parent->rbn_red = 0;
            uncle->rbn_red = 0;
            grandparent->rbn_red = 1;
            node = grandparent;
            continue;
        }
        if (node == parent->rbn_children[ops.rbops_inner_idx]) {
            ops.rbops_rotate_outside(tree, parent);
            std::swap(node, parent);
        }
        parent->rbn_red = 0;
        grandparent->rbn_red = 1;
        ops.rbops_rotate_inside(tree, grandparent);
    }
    tree->rb_root->rbn_red = 0;
}

void insert_at(tree_t* tree, const place& where, node_t* node) {
    node->rbn_parent = where.last;
    node->rbn_children[0] = nullptr;
    node->rbn_children[1] = nullptr;
    node->rbn_red = 1;
    if (where.last == nullptr) {
        tree->rb_root = node;
    } else {
        where.last->rbn_children[where.side] = node;
    }
    balance_after_insert(tree, node);
}

// Restores the balance when one black node is missing on the given side of parent.
void balance_after_remove(tree_t* tree, node_t* parent, int side) {
    while (true) {
        const rbtree_ops_t& ops = k_ops[side];
        node_t* sibling = parent->rbn_children[ops.rbops_inner_idx];
        if (is_red(sibling)) {
            sibling->rbn_red = 0;
            parent->rbn_red = 1;
            ops.rbops_rotate_outside(tree, parent);
            sibling = parent->rbn_children[ops.rbops_inner_idx];
        }
        if (!is_red(sibling->rbn_children[0]) && !is_red(sibling->rbn_children[1])) {
            sibling->rbn_red = 1;
            if (is_red(parent) || parent->rbn_parent == nullptr) {
                parent->rbn_red = 0;
                return;
            }
            side = side_of(parent);
            parent = parent->rbn_parent;
            continue;
        }
        if (!is_red(sibling->rbn_children[ops.rbops_inner_idx])) {
            sibling->rbn_children[ops.rbops_outer_idx]->rbn_red = 0;
            sibling->rbn_red = 1;
            ops.rbops_rotate_inside(tree, sibling);
            sibling = parent->rbn_children[ops.rbops_inner_idx];
        }
        sibling->rbn_red = parent->rbn_red;
        parent->rbn_red = 0;
        sibling->rbn_children[ops.rbops_inner_idx]->rbn_red = 0;
        ops.rbops_rotate_outside(tree, parent);
        return;
    }
}

// Swaps the places and colours of a node with two children and its in-order predecessor.
void exchange_with_predecessor(tree_t* tree, node_t* node) {
    node_t* const predecessor = outermost(node->rbn_children[0], 1);
    node_t* const parent = predecessor->rbn_parent;
    node_t* const left = predecessor->rbn_children[0];
    replace_in_parent(tree, node, predecessor);
    set_child(predecessor, 1, node->rbn_children[1]);
    if (parent == node) {
        set_child(predecessor, 0, node);
    } else {
        set_child(predecessor, 0, node->rbn_children[0]);
        set_child(parent, 1, node);
    }
    set_child(node, 0, left);
    set_child(node, 1, nullptr);
    std::swap(node->rbn_red, predecessor->rbn_red);
}

}  // namespace

extern "C" {

void _qnm_rbtree_init(qnm_rbtree_t* tree, qnm_rbcomp_t comp, qnm_rbkeyfunc_t keyfunc) {
    tree->rb_root = nullptr;
    tree->rb_comp = comp;
    tree->rb_keyfunc = keyfunc;
}

int _qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    const place found = descend(tree, tree->rb_keyfunc(node));
    if (found.match != nullptr) return EEXIST;
    insert_at(tree, found, node);
    return 0;
}

qnm_rbnode_t* _qnm_rbtree_update(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    const place found = descend(tree, tree->rb_keyfunc(node));
    node_t* const old = found.match;
    if (old == nullptr) {
        insert_at(tree, found, node);
        return nullptr;
    }
    replace_in_parent(tree, old, node);
    set_child(node, 0, old->rbn_children[0]);
    set_child(node, 1, old->rbn_children[1]);
    node->rbn_red = old->rbn_red;
    return old;
}

qnm_rbnode_t* _qnm_rbtree_get(qnm_rbtree_t* tree, qnm_cptr_t key) {
    return descend(tree, key).match;
}

qnm_rbnode_t* _qnm_rbtree_get_ceil(qnm_rbtree_t* tree, qnm_cptr_t key) {
    return match_or_neighbour(tree, key, 1);
}

qnm_rbnode_t* _qnm_rbtree_get_floor(qnm_rbtree_t* tree, qnm_cptr_t key) {
    return match_or_neighbour(tree, key, 0);
}

qnm_rbnode_t* _qnm_rbtree_get_higher(qnm_rbtree_t* tree, qnm_cptr_t key) {
    node_t* const found = match_or_neighbour(tree, key, 1);
    if (found == nullptr || compare(tree, key, found) != 0) return found;
    return _qnm_rbtree_next(tree, found);
}

qnm_rbnode_t* _qnm_rbtree_next(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    if (node == nullptr) return tree->rb_root != nullptr ? outermost(tree->rb_root, 0) : nullptr;
    if (node->rbn_children[1] != nullptr) return outermost(node->rbn_children[1], 0);
    return climb(node, 0);
}

qnm_rbnode_t* _qnm_rbtree_remove(qnm_rbtree_t* tree, qnm_cptr_t key) {
    node_t* const node = descend(tree, key).match;
    if (node != nullptr) _qnm_rbtree_remove_node(tree, node);
    return node;
}

void _qnm_rbtree_remove_node(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    if (node->rbn_children[0] != nullptr && node->rbn_children[1] != nullptr) {
        exchange_with_predecessor(tree, node);
    }
    node_t* const parent = node->rbn_parent;
    node_t* const child = node->rbn_children[node->rbn_children[0] != nullptr ? 0 : 1];
    const int side = parent != nullptr ? side_of(node) : 0;
    replace_in_parent(tree, node, child);
    if (child != nullptr) {
        child->rbn_red = 0;  // a single child is red, and its parent black
    } else if (parent != nullptr && !is_red(node)) {
        balance_after_remove(tree, parent, side);
    }
    *node = {};
}

void _qnm_rbtree_clear(qnm_rbtree_t* tree, qnm_rbcallback_t callback, qnm_ptr_t arg) {
    node_t* node = tree->rb_root;
    while (node != nullptr) {
        if (node->rbn_children[0] != nullptr) {
            node = node->rbn_children[0];
        } else if (node->rbn_children[1] != nullptr) {
            node = node->rbn_children[1];
        } else {
            node_t* const parent = node->rbn_parent;
            replace_in_parent(tree, node, nullptr);
            if (callback != nullptr) callback(node, arg);
            node = parent;
        }
    }
}

int qnm_rbtree_int32_compare(qnm_cptr_t a, qnm_cptr_t b) {
    return compare_keys<int32_t>(a, b);
}

int qnm_rbtree_uint32_compare(qnm_cptr_t a, qnm_cptr_t b) {
    return compare_keys<uint32_t>(a, b);
}

int qnm_rbtree_int64_compare(qnm_cptr_t a, qnm_cptr_t b) {
    return compare_keys<int64_t>(a, b);
}

int qnm_rbtree_uint64_compare(qnm_cptr_t a, qnm_cptr_t b) {
    return compare_keys<uint64_t>(a, b);
}

}  // extern "C"
