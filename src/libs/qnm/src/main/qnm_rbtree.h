// qnm_rbtree.h - an intrusive ordered map: the red-black tree under every table keyed by card ID.
//
// The tree never allocates or frees. The caller embeds a qnm_rbnode as the first member of its own
// record, supplies a key function and a comparison function, and owns the records. Keys travel by
// value in a pointer-sized argument. There is no lock: every owner holds its table's mutex around
// each call. Every operation takes O(log n) time, clear O(n), all in constant extra space.
#pragma once

#include <cstdint>

#include "qnm.h"
#include "qnm_thread.h"

typedef struct qnm_rbnode {
    struct qnm_rbnode* rbn_parent;       // null at the root
    struct qnm_rbnode* rbn_children[2];  // 0: smaller keys, 1: larger keys
    qnm_bool_t rbn_red;
} qnm_rbnode_t;

typedef qnm_cptr_t (*qnm_rbkeyfunc_t)(const qnm_rbnode_t* node);
typedef int (*qnm_rbcomp_t)(qnm_cptr_t a, qnm_cptr_t b);  // below, equal to or above 0
typedef void (*qnm_rbcallback_t)(qnm_rbnode_t* node, qnm_ptr_t arg);

typedef struct qnm_rbtree {
    qnm_rbnode_t* rb_root;  // null when empty
    qnm_rbcomp_t rb_comp;
    qnm_rbkeyfunc_t rb_keyfunc;
} qnm_rbtree_t;

extern "C" {

void _qnm_rbtree_init(qnm_rbtree_t* tree, qnm_rbcomp_t comp, qnm_rbkeyfunc_t keyfunc);

// 0, or EEXIST when the key is there already; then nothing is changed.
int _qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node);

// Puts node. A node with an equal key is replaced and returned, and the caller disposes of it; null
// if there was none.
qnm_rbnode_t* _qnm_rbtree_update(qnm_rbtree_t* tree, qnm_rbnode_t* node);

// The node with that key; the one with the smallest key not below it; the one with the largest key
// not above it. Null when there is none.
qnm_rbnode_t* _qnm_rbtree_get(qnm_rbtree_t* tree, qnm_cptr_t key);
qnm_rbnode_t* _qnm_rbtree_get_ceil(qnm_rbtree_t* tree, qnm_cptr_t key);
qnm_rbnode_t* _qnm_rbtree_get_floor(qnm_rbtree_t* tree, qnm_cptr_t key);

// The node with the smallest key above that key, whether or not a node has it; null after the
// largest. A walk continues with it from the last key it has visited, even if that node is gone.
qnm_rbnode_t* _qnm_rbtree_get_higher(qnm_rbtree_t* tree, qnm_cptr_t key);

// The next larger node, or with a null node the smallest; null after the largest.
qnm_rbnode_t* _qnm_rbtree_next(qnm_rbtree_t* tree, qnm_rbnode_t* node);

// Takes a node out by its key and returns it, null when there is none.
qnm_rbnode_t* _qnm_rbtree_remove(qnm_rbtree_t* tree, qnm_cptr_t key);

// Takes out a node that is in the tree.
void _qnm_rbtree_remove_node(qnm_rbtree_t* tree, qnm_rbnode_t* node);

// Takes out every node and hands each to callback (may be null), which may free it.
void _qnm_rbtree_clear(qnm_rbtree_t* tree, qnm_rbcallback_t callback, qnm_ptr_t arg);

}  // extern "C"

namespace qnm {

// A 64-bit ID as the tree's key.
inline qnm_cptr_t id_key(uint64_t id) {
    static_assert(sizeof(qnm_cptr_t) == sizeof(uint64_t), "a key carries a whole card ID");
    return reinterpret_cast<qnm_cptr_t>(id);
}

}  // namespace qnm
