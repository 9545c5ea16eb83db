// qnm_blacklist.cpp - stops and restarts the monitoring of card IDs.
//
// A stopped ID is listed here, and the card's table record, if there is one, carries the ignore
// state IGNORE. An ID may be listed before its card is known; announcements of unknown cards are
// checked against the list. Stop and restart hold the table lock and the blacklist lock together,
// in this order, so no card can be learnt between the listing of its ID and the setting of its
// ignore state.

#include "qnm_blacklist.h"

#include <cerrno>
#include <new>

#include "qnm_call.h"
#include "qnm_counters.h"
#include "qnm_qn_info.h"
#include "qnm_rbtree.h"

namespace {

struct qnm_bl_node_t {
    qnm_rbnode_t ebn_rbnode;  // first: the node and its links share one address
    uint64_t ebn_id;
};

struct qnm_bl_info_t {
    qnm_rbtree_t ebi_rbtree QNM_GUARDED_BY(qnm::blacklist_lock);
    qnm_mutex_t ebi_mutex;  // the blacklist lock
};

qnm_bl_info_t qnm_bl = {{}, QNM_MUTEX_OF_LEVEL(QNM_LOCK_BLACKLIST)};

// Every access to the map goes through here.
qnm_rbtree_t* listed_ids() QNM_REQUIRES(qnm::blacklist_lock) {
    return &qnm_bl.ebi_rbtree;
}

qnm_bl_node_t* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<qnm_bl_node_t*>(links);
}

qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    return qnm::id_key(reinterpret_cast<const qnm_bl_node_t*>(links)->ebn_id);
}

void free_node(qnm_rbnode_t* links, qnm_ptr_t) {
    delete node_of(links);
    qnm::count(&qnm_stats.est_bl_node_fr);
}

// Sets the ignore state of the ID's card in both tables; an ID that a table lacks is passed over.
void set_ignore_state(uint64_t id, uint32_t ignore_state, uint32_t valid_param)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    _qnm_set_qnsv(id, nullptr, ignore_state, 0, valid_param);
    _qnm_set_qnio(id, nullptr, ignore_state, 0, valid_param);
}

// Lists the ID. EEXIST is no failure.
int put_node(const char* func, qnm_bl_node_t* node) QNM_REQUIRES(qnm::blacklist_lock) {
    const uint64_t id = node->ebn_id;
    const int err = _qnm_rbtree_put(listed_ids(), &node->ebn_rbnode);
    if (err == 0) return 0;
    if (err == EEXIST) {
        qnm_log_trace("%s: The ID already exist in black list. id=0x%.12lx", func, id);
    } else {
        qnm_log_error("%s: Failed to _qnm_rbtree_put(). err=%d, id=0x%.12lx", func, err, id);
    }
    free_node(&node->ebn_rbnode, nullptr);
    return err == EEXIST ? 0 : EPROTO;
}

int stop_monitor(const char* func, uint64_t id) {
    // Called before any lock is taken: no memory is allocated under a lock.
    auto* const node = new (std::nothrow) qnm_bl_node_t{{}, id};
    if (node == nullptr) {
        qnm::count(&qnm_stats.est_alloc_err);
        qnm_log_error("%s: can't alloc memory for qnm_bl_node_t.", func);
        return ENOMEM;
    }
    qnm::count(&qnm_stats.est_bl_node_al);
    const qnm::table_guard table_lock;
    const qnm::blacklist_guard blacklist_lock;
    const int err = put_node(func, node);
    if (err == 0) set_ignore_state(id, QNM_IGNORE, QNM_VALID_IGNORE_STATE);
    return err;
}

int restart_monitor(const char* func, uint64_t id) {
    const qnm::table_guard table_lock;
    const qnm::blacklist_guard blacklist_lock;
    qnm_rbnode_t* const links = _qnm_rbtree_remove(listed_ids(), qnm::id_key(id));
    if (links != nullptr) {
        free_node(links, nullptr);
    } else {
        qnm_log_trace("%s: The ID don't exist in black list. id=0x%.12lx", func, id);
    }
    set_ignore_state(id, QNM_WATCH_RESTART, QNM_VALID_IGNORE_STATE | QNM_VALID_CHECK_COUNT);
    return 0;
}

// Both calls; work is what they do under the locks.
qnm_api_code_t control_call(qnm_stats_func_t func, const char* name, uint64_t id,
                            int (*work)(const char* func, uint64_t id)) {
    qnm_log_info("%s: (IN) id=0x%.12lx", name, id);
    qnm::public_call call(name, func);
    int err = call.check();
    if (err == 0) err = work(name, id);
    return call.end(err, id);
}

}  // namespace

extern "C" {

int _qnm_blacklist_init(void) {
    qnm_log_info("%s: start.", __func__);
    _qnm_rbtree_init(&qnm_bl.ebi_rbtree, qnm_rbtree_uint64_compare, key_of);
    int ret = _qnm_mutex_init_st(&qnm_bl.ebi_mutex);
    if (ret != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st()", __func__);
        ret = EPROTO;
    }
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_blacklist_fini(void) {
    qnm_log_info("%s: start.", __func__);
    {
        const qnm::blacklist_guard lock;
        _qnm_rbtree_clear(listed_ids(), free_node, nullptr);
    }
    qnm_log_info("%s: end.", __func__);
    return 0;
}

// blacklist_lock is the name of ebi_mutex for other units.
int _qnm_lock_blacklist(void) QNM_UNCHECKED {
    _qnm_mutex_lock(&qnm_bl.ebi_mutex);
    qnm_log_trace("%s: blacklist lock", __func__);
    return 0;
}

int _qnm_unlock_blacklist(void) QNM_UNCHECKED {
    _qnm_mutex_unlock(&qnm_bl.ebi_mutex);
    qnm_log_trace("%s: blacklist unlock", __func__);
    return 0;
}

int _qnm_get_monitor_state(uint64_t id, uint32_t* state) {
    *state = _qnm_rbtree_get(listed_ids(), qnm::id_key(id)) != nullptr ? 1 : 0;
    return 0;
}

void _qnm_bl_stats_print(void) {
    qnm_statslog("  - Black list ids");
    {
        const qnm::blacklist_guard lock;
        qnm_rbnode_t* links = _qnm_rbtree_next(listed_ids(), nullptr);
        if (links == nullptr) qnm_statslog("    no entry.");
        for (; links != nullptr; links = _qnm_rbtree_next(listed_ids(), links)) {
            qnm_statslog("    0x%.12lx", node_of(links)->ebn_id);
        }
    }
    qnm_statslog(" ");
}

qnm_api_code_t qnm_stop_monitor(uint64_t id) {
    return control_call(QNM_STATS_STOP_MONITOR, __func__, id, stop_monitor);
}

qnm_api_code_t qnm_restart_monitor(uint64_t id) {
    return control_call(QNM_STATS_RESTART_MONITOR, __func__, id, restart_monitor);
}

}  // extern "C"
