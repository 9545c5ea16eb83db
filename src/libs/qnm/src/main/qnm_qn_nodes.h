// qnm_qn_nodes.h - access to the nodes of the tables, for the units that walk through them.
#pragma once

#include <algorithm>
#include <cstdint>

#include "qnm_qn_info.h"
#include "qnm_rbtree.h"

namespace qnm {

template <typename Kind>
typename Kind::node* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<typename Kind::node*>(links);
}

template <typename Kind>
qnm_com_dev_t& com_dev_of(typename Kind::node& node) {
    return node.*Kind::card.*Kind::com_dev;
}

// Map, number of cards and number per group. Every access goes through these functions: the
// analysis does not follow pointers to members, so here they name the lock.
template <typename Kind>
qnm_rbtree_t* map_of() QNM_REQUIRES(qnm_qn.eei_mutex) {
    return &(qnm_qn.*Kind::tree);
}

template <typename Kind>
uint32_t& total_of() QNM_REQUIRES(qnm_qn.eei_mutex) {
    return qnm_qn.*Kind::total;
}

template <typename Kind>
uint32_t& group_count(uint32_t vlan_id) QNM_REQUIRES(qnm_qn.eei_mutex) {
    return (qnm_qn.*Kind::groups)[std::min<uint32_t>(vlan_id, QNM_GROUP_MAX)];
}

template <typename Kind>
typename Kind::node* find_node(uint64_t id) QNM_REQUIRES(qnm_qn.eei_mutex) {
    return node_of<Kind>(_qnm_rbtree_get(map_of<Kind>(), qnm::id_key(id)));
}

// The next card in ascending ID order; the first after null, null after the last.
template <typename Kind>
typename Kind::node* next_node(typename Kind::node* node) QNM_REQUIRES(qnm_qn.eei_mutex) {
    qnm_rbnode_t* const links = node != nullptr ? &(node->*Kind::links) : nullptr;
    return node_of<Kind>(_qnm_rbtree_next(map_of<Kind>(), links));
}

template <typename Kind, typename Work>
void for_each_node(Work work) QNM_REQUIRES(qnm_qn.eei_mutex) {
    for (auto* node = next_node<Kind>(nullptr); node != nullptr; node = next_node<Kind>(node)) {
        work(*node);
    }
}

// The position of a walk that releases the table in between: the last ID visited.
struct walk {
    bool begun = false;
    uint64_t last = 0;
};

// The card after those that the walk has visited; it does not matter which of them still exist.
template <typename Kind>
typename Kind::node* node_after(const walk& at) QNM_REQUIRES(qnm_qn.eei_mutex) {
    if (!at.begun) return next_node<Kind>(nullptr);
    return node_of<Kind>(_qnm_rbtree_get_higher(map_of<Kind>(), qnm::id_key(at.last)));
}

}  // namespace qnm
