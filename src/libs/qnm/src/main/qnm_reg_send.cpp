// qnm_reg_send.cpp - the per-card write locks of register access.
//
// Every card gets a lock when it is first announced, and keeps it while the manager runs, also when
// the card is deleted or disconnected, so that a lock that has been looked up stays valid after
// wrm_mutex is released. wrm_mutex guards the map only and is never held while a frame is sent.

#include "qnm_reg_send.h"

#include <cerrno>
#include <new>

#include "qnm.h"
#include "qnm_rbtree.h"
#include "qnm_stats.h"
#include "qnm_thread.h"

namespace {

struct qnm_write_reg_node_t {
    qnm_rbnode_t wrn_rbnode;  // first: the node and its links share one address
    uint64_t wrn_id;
    qnm_mutex_t wrn_mutex;
};

struct qnm_write_reg_mng_t {
    qnm_rbtree_t wrm_rbtree;
    qnm_mutex_t wrm_mutex;
    uint32_t wrm_initialized;
};

qnm_write_reg_mng_t qnm_write_reg_lock_mng = {{}, QNM_MUTEX_STATIC_INIT, 0};

qnm_write_reg_node_t* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<qnm_write_reg_node_t*>(links);
}

qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    return qnm::id_key(reinterpret_cast<const qnm_write_reg_node_t*>(links)->wrn_id);
}

void free_node(qnm_write_reg_node_t* node) {
    delete node;
    qnm::count(qnm_stats.est_wreg_node_fr);
}

void destroy_node(qnm_rbnode_t* links, qnm_ptr_t) {
    _qnm_mutex_destroy(&node_of(links)->wrn_mutex);
    free_node(node_of(links));
}

void make_map_empty() {
    _qnm_rbtree_init(&qnm_write_reg_lock_mng.wrm_rbtree, qnm_rbtree_uint64_compare, key_of);
}

qnm_write_reg_node_t* _write_reg_create(uint64_t id) {
    auto* const node = new (std::nothrow) qnm_write_reg_node_t{{}, id, {}};
    if (node == nullptr) {
        qnm::count(qnm_stats.est_alloc_err);
        qnm_log_warn("%s: Failed to _write_reg_node_alloc()", __func__);
        return nullptr;
    }
    qnm::count(qnm_stats.est_wreg_node_al);
    if (_qnm_mutex_init(&node->wrn_mutex) != 0) {
        qnm_log_warn("%s: Failed to _qnm_mutex_init()", __func__);
        free_node(node);
        return nullptr;
    }
    return node;
}

qnm_write_reg_node_t* find_node(uint64_t id) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    return node_of(_qnm_rbtree_get(&qnm_write_reg_lock_mng.wrm_rbtree, qnm::id_key(id)));
}

// Locks or unlocks a card's own mutex, with wrm_mutex released.
int on_node(uint64_t id, int (*work)(qnm_mutex_t*)) {
    qnm_write_reg_node_t* const node = find_node(id);
    if (node == nullptr) return ENOENT;
    work(&node->wrn_mutex);
    return 0;
}

}  // namespace

extern "C" {

int _qnm_reg_init(void) {
    qnm_log_info("%s: start.", __func__);
    int ret = 0;
    if (qnm_write_reg_lock_mng.wrm_initialized == 1) {
        qnm_log_info("%s: qnm_write_reg_lock_mng is already initialized.", __func__);
    } else if (_qnm_mutex_init_st(&qnm_write_reg_lock_mng.wrm_mutex) != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st()", __func__);
        ret = EPROTO;
    } else {
        make_map_empty();
        qnm_write_reg_lock_mng.wrm_initialized = 1;
    }
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_reg_fini(void) {
    qnm_log_info("%s: start.", __func__);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

int _qnm_create_reg_lock_node(uint64_t id) {
    qnm_write_reg_node_t* const node = _write_reg_create(id);
    if (node == nullptr) {
        qnm_log_warn("%s: Failed to _write_reg_create(). id=0x%.12lx", __func__, id);
        return ENOMEM;
    }
    int err = 0;
    {
        const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
        err = _qnm_rbtree_put(&qnm_write_reg_lock_mng.wrm_rbtree, &node->wrn_rbnode);
    }
    if (err == 0) return 0;
    if (err == EEXIST) {
        qnm_log_trace("%s: Failed to _qnm_rbtree_put(). err=EEXIST, id=0x%.12lx", __func__, id);
    } else {
        qnm_log_warn("%s: Failed to _qnm_rbtree_put(). err=%d, id=0x%.12lx", __func__, err, id);
    }
    destroy_node(&node->wrn_rbnode, nullptr);
    return err == EEXIST ? EEXIST : EPROTO;
}

int _qnm_write_reg_lock(uint64_t id) {
    return on_node(id, _qnm_mutex_lock);
}

int _qnm_write_reg_unlock(uint64_t id) {
    return on_node(id, _qnm_mutex_unlock);
}

void _qnm_destroy_all_reg_lock_node(void) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    _qnm_rbtree_clear(&qnm_write_reg_lock_mng.wrm_rbtree, destroy_node, nullptr);
    make_map_empty();
}

}  // extern "C"
