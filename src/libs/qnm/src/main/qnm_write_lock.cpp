// qnm_write_lock.cpp - the per-card write locks.
//
// Every card gets a lock when it is first announced, and keeps it while the manager runs, also when
// the card is deleted or disconnected. Only when there are very many locks is that of a deleted
// card freed: otherwise forged IDs that are deleted would pile up for ever. If it is held then, its
// last user frees it. A lock that has been looked up is counted as used, so that it stays valid
// after wrm_mutex is released. wrm_mutex guards the map and the counts of users; it is never held
// while a frame is sent.

#include "qnm_write_lock.h"

#include <cerrno>
#include <new>

#include "qnm.h"
#include "qnm_counters.h"
#include "qnm_limits.h"
#include "qnm_paced_log.h"
#include "qnm_rbtree.h"

namespace {

struct qnm_write_reg_node_t {
    qnm_rbnode_t wrn_rbnode;  // first: the node and its links share one address
    uint64_t wrn_id;
    uint32_t wrn_users = 0;      // threads that hold it or wait for it
    uint32_t wrn_forgotten = 0;  // 1 = to be freed by the last of them
    qnm_mutex_t wrn_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_CARD_WRITE);
};

struct qnm_write_reg_mng_t {
    qnm_rbtree_t wrm_rbtree QNM_GUARDED_BY(wrm_mutex);
    qnm_mutex_t wrm_mutex;
    uint32_t wrm_count QNM_GUARDED_BY(wrm_mutex);
    uint32_t wrm_initialized;  // not locked: only read at start, before other threads exist
};

qnm_write_reg_mng_t qnm_write_reg_lock_mng = {{}, QNM_MUTEX_OF_LEVEL(QNM_LOCK_WRITE_LOCKS), 0, 0};

// Every access to the map goes through here.
qnm_rbtree_t* write_locks() QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    return &qnm_write_reg_lock_mng.wrm_rbtree;
}

qnm_write_reg_node_t* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<qnm_write_reg_node_t*>(links);
}

qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    return qnm::id_key(reinterpret_cast<const qnm_write_reg_node_t*>(links)->wrn_id);
}

void free_node(qnm_write_reg_node_t* node) {
    delete node;
    qnm::count(&qnm_stats.est_wreg_node_fr);
}

void destroy_node(qnm_rbnode_t* links, qnm_ptr_t) {
    _qnm_mutex_destroy(&node_of(links)->wrn_mutex);
    free_node(node_of(links));
}

void make_map_empty() QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    _qnm_rbtree_init(write_locks(), qnm_rbtree_uint64_compare, key_of);
    qnm_write_reg_lock_mng.wrm_count = 0;
}

qnm_write_reg_node_t* _write_reg_create(uint64_t id) {
    auto* const node = new (std::nothrow) qnm_write_reg_node_t{{}, id};
    if (node == nullptr) {
        qnm::count(&qnm_stats.est_alloc_err);
        if (_qnm_paced_may_write(QNM_PACED_LOCK_MEMORY, __func__)) {
            qnm_log_warn("%s: Failed to _write_reg_node_alloc()", __func__);
        }
        return nullptr;
    }
    qnm::count(&qnm_stats.est_wreg_node_al);
    if (_qnm_mutex_init(&node->wrn_mutex) != 0) {
        if (_qnm_paced_may_write(QNM_PACED_LOCK_MUTEX, __func__)) {
            qnm_log_warn("%s: Failed to _qnm_mutex_init()", __func__);
        }
        free_node(node);
        return nullptr;
    }
    return node;
}

qnm_write_reg_node_t* find_node(uint64_t id) QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    return node_of(_qnm_rbtree_get(write_locks(), qnm::id_key(id)));
}

// Puts a node into the map. EEXIST if the ID still has one; that one is then kept.
int put_node(qnm_write_reg_node_t* node) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    const int err = _qnm_rbtree_put(write_locks(), &node->wrn_rbnode);
    if (err == 0) qnm_write_reg_lock_mng.wrm_count++;
    if (err == EEXIST) find_node(node->wrn_id)->wrn_forgotten = 0;
    return err;
}

// Lock and unlock a card's own mutex. Unchecked: the analysis cannot know which one a thread holds.
void lock_node(qnm_write_reg_node_t& node) QNM_UNCHECKED {
    _qnm_mutex_lock(&node.wrn_mutex);
}

void unlock_node(qnm_write_reg_node_t& node) QNM_UNCHECKED {
    _qnm_mutex_unlock(&node.wrn_mutex);
}

void remove_node(qnm_write_reg_node_t* node) QNM_REQUIRES(qnm_write_reg_lock_mng.wrm_mutex) {
    _qnm_rbtree_remove_node(write_locks(), &node->wrn_rbnode);
    qnm_write_reg_lock_mng.wrm_count--;
    destroy_node(&node->wrn_rbnode, nullptr);
}

}  // namespace

extern "C" {

// Not locked: no other thread exists yet.
int _qnm_reg_init(void) QNM_UNCHECKED {
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
        if (_qnm_paced_may_write(QNM_PACED_LOCK_NOT_CREATED, __func__)) {
            qnm_log_warn("%s: Failed to _write_reg_create(). id=0x%.12lx", __func__, id);
        }
        return ENOMEM;
    }
    const int err = put_node(node);
    if (err == 0) return 0;
    if (err == EEXIST) {
        qnm_log_trace("%s: Failed to _qnm_rbtree_put(). err=EEXIST, id=0x%.12lx", __func__, id);
    } else if (_qnm_paced_may_write(QNM_PACED_LOCK_NOT_PUT, __func__)) {
        qnm_log_warn("%s: Failed to _qnm_rbtree_put(). err=%d, id=0x%.12lx", __func__, err, id);
    }
    destroy_node(&node->wrn_rbnode, nullptr);
    return err == EEXIST ? EEXIST : EPROTO;
}

int _qnm_write_reg_lock(uint64_t id) {
    qnm_write_reg_node_t* node = nullptr;
    {
        const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
        node = find_node(id);
        if (node == nullptr) return ENOENT;
        node->wrn_users++;
    }
    lock_node(*node);
    return 0;
}

int _qnm_write_reg_unlock(uint64_t id) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    qnm_write_reg_node_t* const node = find_node(id);
    if (node == nullptr) return ENOENT;
    unlock_node(*node);
    if (node->wrn_users > 0) node->wrn_users--;
    if (node->wrn_users == 0 && node->wrn_forgotten == 1) remove_node(node);
    return 0;
}

void _qnm_forget_reg_lock_node(uint64_t id) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    if (qnm_write_reg_lock_mng.wrm_count <= qnm::k_spare_locks_max) return;
    qnm_write_reg_node_t* const node = find_node(id);
    if (node == nullptr) return;
    if (node->wrn_users == 0) return remove_node(node);
    node->wrn_forgotten = 1;
}

void _qnm_destroy_all_reg_lock_node(void) {
    const qnm::mutex_guard lock(qnm_write_reg_lock_mng.wrm_mutex);
    _qnm_rbtree_clear(write_locks(), destroy_node, nullptr);
    make_map_empty();
}

}  // extern "C"
