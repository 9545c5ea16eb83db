// rbtree_records.h - records to put into a red-black tree, and the rules that the tree has to keep.
#pragma once

#include <cstring>
#include <memory>
#include <string>

#include "qnm_rbtree.h"

struct record {
    qnm_rbnode_t node;
    uint64_t key;
};

inline record* to_record(qnm_rbnode_t* node) {
    return reinterpret_cast<record*>(node);
}

inline uint64_t key_in(const qnm_rbnode_t* node) {
    return reinterpret_cast<const record*>(node)->key;
}

inline qnm_cptr_t key_of(const qnm_rbnode_t* node) {
    return qnm::id_key(key_in(node));
}

// Links and colour that no tree would leave, so that whatever is not written shows.
constexpr int k_dirt = 0x5A;

inline std::unique_ptr<record> make_record(uint64_t key) {
    auto made = std::make_unique<record>();
    memset(&made->node, k_dirt, sizeof made->node);
    made->key = key;
    return made;
}

inline bool same(const qnm_rbnode_t& a, const qnm_rbnode_t& b) {
    return a.rbn_parent == b.rbn_parent && a.rbn_children[0] == b.rbn_children[0] &&
           a.rbn_children[1] == b.rbn_children[1] && a.rbn_red == b.rbn_red;
}

inline bool is_red(const qnm_rbnode_t* node) {
    return node != nullptr && node->rbn_red != 0;
}

// The rule that node and its children break; null when they break none. All keys lie between those
// of low and high, where these are given.
inline const char* broken_at(const qnm_rbnode_t* node, const qnm_rbnode_t* low,
                             const qnm_rbnode_t* high) {
    if (node->rbn_red > 1) return "neither red nor black";
    if (low != nullptr && key_in(node) <= key_in(low)) return "out of order";
    if (high != nullptr && key_in(node) >= key_in(high)) return "out of order";
    for (const qnm_rbnode_t* child : node->rbn_children) {
        if (child != nullptr && child->rbn_parent != node) return "not its child's parent";
        if (is_red(node) && is_red(child)) return "red, and so is its child";
    }
    return nullptr;
}

// The black nodes on each way down from node; what is broken is noted with its key.
inline int black_height(const qnm_rbnode_t* node, const qnm_rbnode_t* low, const qnm_rbnode_t* high,
                        std::string& broken) {
    if (node == nullptr) return 0;
    const char* rule = broken_at(node, low, high);
    const int left = black_height(node->rbn_children[0], low, node, broken);
    const int right = black_height(node->rbn_children[1], node, high, broken);
    if (left != right) rule = "not balanced";
    if (rule != nullptr) broken += std::to_string(key_in(node)) + " is " + rule + "; ";
    return left + (is_red(node) ? 0 : 1);
}

// The rules that a tree breaks, in words; empty when it keeps them all.
inline std::string broken_rules(const qnm_rbtree_t& tree) {
    std::string broken;
    if (tree.rb_root == nullptr) return broken;
    if (tree.rb_root->rbn_parent != nullptr) broken += "the root has a parent; ";
    if (is_red(tree.rb_root)) broken += "the root is red; ";
    black_height(tree.rb_root, nullptr, nullptr, broken);
    return broken;
}
