// qnm_qn_info.h - the tables of known cards, and how QNSV and QNIO cards differ in them.
//
// One mutex, the device-table lock, guards both maps, all counts and every node. It is outermost:
// the blacklist lock, the event queue and the statistics mutex are taken inside it. No callback
// runs under it, and nothing is sent or awaited.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "qnm.h"
#include "qnm_counters.h"
#include "qnm_rbtree.h"
#include "qnm_thread.h"

// Ignore state of a card: whether it is monitored.
enum : uint32_t {
    QNM_WATCH = 0,          // monitored
    QNM_IGNORE = 1,         // monitoring stopped: announcements are dropped, no keepalive check
    QNM_WATCH_RESTART = 2,  // monitoring restarted, waiting for the card's next announcement
};

// What a get or set call copies; bits of valid_param.
enum : uint32_t {
    QNM_VALID_RECORD = 1,
    QNM_VALID_IGNORE_STATE = 2,
    QNM_VALID_CHECK_COUNT = 4,
    QNM_VALID_ALL = 7,
};

// Where and when a card was heard, in milliseconds of the monotonic clock.
typedef struct qnm_heard {
    int eh_port;
    int eh_path;
    uint64_t eh_time;
} qnm_heard_t;

// The links come first, so that a node and its links share one address, and the fields that a walk
// reads lie together at the head of the node.
//
// The time when a path was last heard is stored twice. The record has wall-clock time, which hosts
// see and which anybody may set. Whether a path has been silent for too long is decided by the
// node's own time, on the monotonic clock.
//
// The fields have no lock annotations: they are accessed through the pointers to members below,
// which the analysis does not follow. It does check the way to a node, because both maps are
// guarded.
typedef struct qnm_qnsv_node {
    qnm_rbnode_t esn_rbnode_id;
    uint32_t esn_ignore_state;
    uint32_t esn_check_count;  // keepalive checks since the restart of monitoring
    uint64_t esn_heard[2][2];  // per [port][path]
    qnm_qnsv_t esn_qnsv;
} qnm_qnsv_node_t;

typedef struct qnm_qnio_node {
    qnm_rbnode_t ein_rbnode_id;
    uint32_t ein_ignore_state;
    uint32_t ein_check_count;
    uint64_t ein_heard[2][2];
    qnm_qnio_t ein_qnio;
} qnm_qnio_node_t;

// Group counts are indexed by VLAN ID; the last entry collects every greater one.
enum { QNM_GROUP_MAX = 4096 };

// The totals and group counts always equal what the maps hold.
typedef struct qnm_qn_info {
    qnm_rbtree_t eei_rbtree_svid QNM_GUARDED_BY(eei_mutex);
    qnm_rbtree_t eei_rbtree_ioid QNM_GUARDED_BY(eei_mutex);
    qnm_mutex_t eei_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_TABLE);
    uint32_t eei_total_qnsv QNM_GUARDED_BY(eei_mutex);
    uint32_t eei_total_qnio QNM_GUARDED_BY(eei_mutex);
    uint32_t eei_total_svgid[QNM_GROUP_MAX + 1] QNM_GUARDED_BY(eei_mutex);
    uint32_t eei_total_iogid[QNM_GROUP_MAX + 1] QNM_GUARDED_BY(eei_mutex);
} qnm_qn_info_t;

extern "C" {

extern qnm_qn_info_t qnm_qn;

int _qnm_qn_init(void);
int _qnm_qn_fini(void);

// The device-table lock. The calls below that look into the tables need it held.
int _qnm_qn_lock(void) QNM_ACQUIRE(qnm_qn.eei_mutex);
int _qnm_qn_unlock(void) QNM_RELEASE(qnm_qn.eei_mutex);

// Whether the tables may take one more card, of either kind: non-zero, or 0 when k_cards_max are
// known.
int _qnm_qn_has_room(void) QNM_REQUIRES(qnm_qn.eei_mutex);

// Copy what valid_param names: 0; EINVAL when a wanted output is null; ENOENT when the ID is
// unknown.
int _qnm_get_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t* ignore_state, uint32_t* check_count,
                  uint32_t valid_param) QNM_REQUIRES(qnm_qn.eei_mutex);
int _qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t* ignore_state, uint32_t* check_count,
                  uint32_t valid_param) QNM_REQUIRES(qnm_qn.eei_mutex);

// Store what valid_param names; an unknown ID is added, which needs all of it: 0; EINVAL; ENOMEM;
// EPROTO.
int _qnm_set_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t ignore_state, uint32_t check_count,
                  uint32_t valid_param) QNM_REQUIRES(qnm_qn.eei_mutex);
int _qnm_set_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t ignore_state, uint32_t check_count,
                  uint32_t valid_param) QNM_REQUIRES(qnm_qn.eei_mutex);

// The same for a record made from a frame, with the time at which its path was heard. For records
// stored without it that time is derived from their receive times.
int _qnm_set_heard_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t ignore_state, uint32_t check_count,
                        uint32_t valid_param, const qnm_heard_t* heard)
    QNM_REQUIRES(qnm_qn.eei_mutex);
int _qnm_set_heard_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t ignore_state, uint32_t check_count,
                        uint32_t valid_param, const qnm_heard_t* heard)
    QNM_REQUIRES(qnm_qn.eei_mutex);

// Look up an ID among cards of both kinds: 0, ENOENT or EPROTO. If there is one of each kind, the
// QNSV card counts, unless only the QNIO card has a connected path. dev_info and resource_id may be
// null.
int _qnm_get_qndev_rid(uint64_t id, qnm_com_dev_t* dev_info, uint32_t* ignore_state,
                       uint16_t* resource_id) QNM_REQUIRES(qnm_qn.eei_mutex);
int _qnm_get_qndev(uint64_t id, qnm_com_dev_t* dev_info) QNM_REQUIRES(qnm_qn.eei_mutex);
int _qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev_info, uint32_t* ignore_state)
    QNM_REQUIRES(qnm_qn.eei_mutex);

// Logs "<kind> id=... state change to <change> P0M0: ..." under the name func.
void _qnm_log_state_change(const char* func, const char* kind, const qnm_com_dev_t* dev,
                           const char* change);

}  // extern "C"

namespace qnm {

// Holds the device-table lock for a scope.
class QNM_SCOPED_CAPABILITY table_guard {
  public:
    table_guard() QNM_ACQUIRE(qnm_qn.eei_mutex) { _qnm_qn_lock(); }
    ~table_guard() QNM_RELEASE() { _qnm_qn_unlock(); }
    table_guard(const table_guard&) = delete;
    table_guard& operator=(const table_guard&) = delete;
};

inline const char* connect_word(uint32_t state) {
    return state == 1 ? "CONNECT" : "DISCONNECT";
}

// Whether a card is heard on any path.
inline bool is_connected(const qnm_com_dev_t& dev) {
    const auto& state = dev.ecd_state;
    return state[0][0] == 1 || state[0][1] == 1 || state[1][0] == 1 || state[1][1] == 1;
}

// How QNSV and QNIO cards differ in the tables. Code for both kinds is a template over one of
// these.
struct qnsv_kind {
    using record = qnm_qnsv_t;
    using node = qnm_qnsv_node_t;
    static constexpr const char* name = "QNSV";
    static constexpr const char* get_name = "_qnm_get_qnsv";
    static constexpr const char* set_name = "_qnm_set_qnsv";
    static constexpr const char* add_name = "_qnm_add_qnsv";
    static constexpr const char* ignore_state_label = "esn_ignore_state";
    static constexpr const char* check_count_label = "esn_check_count";
    static constexpr auto get = _qnm_get_qnsv;
    static constexpr auto set = _qnm_set_qnsv;
    static constexpr auto set_heard = _qnm_set_heard_qnsv;
    static constexpr auto com_dev = &qnm_qnsv_t::esv_com_dev;
    static constexpr auto card = &qnm_qnsv_node_t::esn_qnsv;
    static constexpr auto links = &qnm_qnsv_node_t::esn_rbnode_id;
    static constexpr auto ignore_state = &qnm_qnsv_node_t::esn_ignore_state;
    static constexpr auto check_count = &qnm_qnsv_node_t::esn_check_count;
    static constexpr auto heard = &qnm_qnsv_node_t::esn_heard;
    static constexpr auto tree = &qnm_qn_info_t::eei_rbtree_svid;
    static constexpr auto total = &qnm_qn_info_t::eei_total_qnsv;
    static constexpr auto groups = &qnm_qn_info_t::eei_total_svgid;
    static constexpr auto allocated = &qnm_sd_stats_t::est_sv_node_al;
    static constexpr auto freed = &qnm_sd_stats_t::est_sv_node_fr;
    static constexpr qnm_stats_func_t count_get = QNM_STATS_GET_QNSV;
    static constexpr qnm_stats_func_t count_ids = QNM_STATS_GET_QNSVIDS;
    static constexpr qnm_stats_func_t count_update_ids = QNM_STATS_GET_UPDATE_QNSVIDS;
    static constexpr qnm_stats_func_t count_group_ids = QNM_STATS_GET_GROUP_QNSVIDS;
    static constexpr qnm_stats_func_t count_delete = QNM_STATS_DELETE_QNSV;
};

struct qnio_kind {
    using record = qnm_qnio_t;
    using node = qnm_qnio_node_t;
    static constexpr const char* name = "QNIO";
    static constexpr const char* get_name = "_qnm_get_qnio";
    static constexpr const char* set_name = "_qnm_set_qnio";
    static constexpr const char* add_name = "_qnm_add_qnio";
    static constexpr const char* ignore_state_label = "ein_ignore_state";
    static constexpr const char* check_count_label = "ein_check_count";
    static constexpr auto get = _qnm_get_qnio;
    static constexpr auto set = _qnm_set_qnio;
    static constexpr auto set_heard = _qnm_set_heard_qnio;
    static constexpr auto com_dev = &qnm_qnio_t::eio_com_dev;
    static constexpr auto card = &qnm_qnio_node_t::ein_qnio;
    static constexpr auto links = &qnm_qnio_node_t::ein_rbnode_id;
    static constexpr auto ignore_state = &qnm_qnio_node_t::ein_ignore_state;
    static constexpr auto check_count = &qnm_qnio_node_t::ein_check_count;
    static constexpr auto heard = &qnm_qnio_node_t::ein_heard;
    static constexpr auto tree = &qnm_qn_info_t::eei_rbtree_ioid;
    static constexpr auto total = &qnm_qn_info_t::eei_total_qnio;
    static constexpr auto groups = &qnm_qn_info_t::eei_total_iogid;
    static constexpr auto allocated = &qnm_sd_stats_t::est_io_node_al;
    static constexpr auto freed = &qnm_sd_stats_t::est_io_node_fr;
    static constexpr qnm_stats_func_t count_get = QNM_STATS_GET_QNIO;
    static constexpr qnm_stats_func_t count_ids = QNM_STATS_GET_QNIOIDS;
    static constexpr qnm_stats_func_t count_update_ids = QNM_STATS_GET_UPDATE_QNIOIDS;
    static constexpr qnm_stats_func_t count_group_ids = QNM_STATS_GET_GROUP_QNIOIDS;
    static constexpr qnm_stats_func_t count_delete = QNM_STATS_DELETE_QNIO;
};

// Records are compared byte for byte, so they must not have padding.
static_assert(std::has_unique_object_representations_v<qnm_qnsv_t>);
static_assert(std::has_unique_object_representations_v<qnm_qnio_t>);
static_assert(offsetof(qnm_qnsv_node_t, esn_rbnode_id) == 0);
static_assert(offsetof(qnm_qnio_node_t, ein_rbnode_id) == 0);

}  // namespace qnm
