// qnm_qn_info.cpp - the tables of known cards: storing and querying.
//
// There is one ordered map per kind of card, and with each the number of cards and of cards per
// group. A record lives from the card's first announcement until it is deleted or the manager
// stops; a card that is disconnected on every path stays. The announcements (on the receive
// threads), the keepalive loop (on the thread that runs the manager), the link watcher and every
// public call meet here under the one device-table lock.

#include "qnm_qn_info.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>

#include "qnm_call.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_limits.h"
#include "qnm_paced_log.h"
#include "qnm_qn_nodes.h"
#include "qnm_util.h"
#include "qnm_write_lock.h"

qnm_qn_info_t qnm_qn;

namespace {

using qnm::com_dev_of;
using qnm::connect_word;
using qnm::find_node;
using qnm::for_each_node;
using qnm::group_count;
using qnm::map_of;
using qnm::next_node;
using qnm::node_of;
using qnm::qnio_kind;
using qnm::qnsv_kind;
using qnm::table_guard;
using qnm::total_of;

// ---- Nodes --------------------------------------------------------------------------------------

template <typename Kind>
qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    const auto* const node = reinterpret_cast<const typename Kind::node*>(links);
    return qnm::id_key((node->*Kind::card.*Kind::com_dev).ecd_id);
}

template <typename Kind>
void free_node(qnm_rbnode_t* links, qnm_ptr_t) {
    delete node_of<Kind>(links);
    qnm::count(&(qnm_stats.*Kind::freed));
}

// ---- Get and set --------------------------------------------------------------------------------

template <typename Kind>
int get_card(uint64_t id, typename Kind::record* record, uint32_t* ignore_state,
             uint32_t* check_count, uint32_t valid_param) QNM_REQUIRES(qnm_qn.eei_mutex) {
    if (((valid_param & QNM_VALID_RECORD) != 0 && record == nullptr) ||
        ((valid_param & QNM_VALID_IGNORE_STATE) != 0 && ignore_state == nullptr) ||
        ((valid_param & QNM_VALID_CHECK_COUNT) != 0 && check_count == nullptr)) {
        return EINVAL;
    }
    auto* const node = find_node<Kind>(id);
    if (node == nullptr) return ENOENT;
    if ((valid_param & QNM_VALID_RECORD) != 0) *record = node->*Kind::card;
    if ((valid_param & QNM_VALID_IGNORE_STATE) != 0) *ignore_state = node->*Kind::ignore_state;
    if ((valid_param & QNM_VALID_CHECK_COUNT) != 0) *check_count = node->*Kind::check_count;
    return 0;
}

// Derives when the paths of the stored record were heard from its receive times and the clocks.
template <typename Kind>
void derive_heard(typename Kind::node& node) {
    const uint64_t now = _qnm_get_msec_timenow();
    const uint64_t monotonic = _qnm_get_msec_monotonic();
    const qnm_com_dev_t& dev = com_dev_of<Kind>(node);
    for (int port = 0; port < 2; port++) {
        for (int path = 0; path < 2; path++) {
            const uint64_t heard = std::min(dev.ecd_recvtime[port][path], now);
            (node.*Kind::heard)[port][path] = monotonic - std::min(now - heard, monotonic);
        }
    }
}

template <typename Kind>
void note_heard(typename Kind::node& node, const qnm_heard_t* heard) {
    if (heard == nullptr) return derive_heard<Kind>(node);
    (node.*Kind::heard)[heard->eh_port][heard->eh_path] = heard->eh_time;
}

template <typename Kind>
int add_card(uint64_t id, const typename Kind::record& record, uint32_t ignore_state,
             uint32_t check_count, const qnm_heard_t* heard) QNM_REQUIRES(qnm_qn.eei_mutex) {
    auto* const node = new (std::nothrow) typename Kind::node{};
    if (node == nullptr) {
        qnm::count(&qnm_stats.est_alloc_err);
        return ENOMEM;
    }
    qnm::count(&(qnm_stats.*Kind::allocated));
    node->*Kind::card = record;
    node->*Kind::ignore_state = ignore_state;
    node->*Kind::check_count = check_count;
    note_heard<Kind>(*node, heard);
    const int err = _qnm_rbtree_put(map_of<Kind>(), &(node->*Kind::links));
    if (err != 0) {
        if (_qnm_paced_may_write(QNM_PACED_CARD_NOT_PUT, Kind::add_name)) {
            qnm_log_warn("%s: Failed to _qnm_rbtree_put(). err=%d, id=0x%.12lx", Kind::add_name,
                         err, id);
        }
        free_node<Kind>(&(node->*Kind::links), nullptr);
        return EPROTO;
    }
    total_of<Kind>()++;
    group_count<Kind>((record.*Kind::com_dev).ecd_vlan_id)++;
    return 0;
}

template <typename Kind>
void update_card(typename Kind::node& node, const typename Kind::record& record,
                 const qnm_heard_t* heard) QNM_REQUIRES(qnm_qn.eei_mutex) {
    const uint32_t old_group = com_dev_of<Kind>(node).ecd_vlan_id;
    const uint32_t new_group = (record.*Kind::com_dev).ecd_vlan_id;
    node.*Kind::card = record;
    note_heard<Kind>(node, heard);
    if (old_group == new_group) return;
    group_count<Kind>(old_group)--;
    group_count<Kind>(new_group)++;
}

template <typename Kind>
int set_card(uint64_t id, const typename Kind::record* record, uint32_t ignore_state,
             uint32_t check_count, uint32_t valid_param, const qnm_heard_t* heard)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    auto* const node = find_node<Kind>(id);
    if (node == nullptr) {
        const int err = valid_param == QNM_VALID_ALL && record != nullptr
                            ? add_card<Kind>(id, *record, ignore_state, check_count, heard)
                            : EINVAL;
        if (err != 0) {
            qnm_log_trace("%s: Failed to %s(). err=%d, id=0x%.12lx", Kind::set_name, Kind::add_name,
                          err, id);
        }
        return err;
    }
    if ((valid_param & QNM_VALID_RECORD) != 0) {
        if (record == nullptr) return EINVAL;
        update_card<Kind>(*node, *record, heard);
    }
    if ((valid_param & QNM_VALID_IGNORE_STATE) != 0) node->*Kind::ignore_state = ignore_state;
    if ((valid_param & QNM_VALID_CHECK_COUNT) != 0) node->*Kind::check_count = check_count;
    return 0;
}

bool is_known(uint64_t id) QNM_REQUIRES(qnm_qn.eei_mutex) {
    return find_node<qnsv_kind>(id) != nullptr || find_node<qnio_kind>(id) != nullptr;
}

template <typename Kind>
int delete_card(uint64_t id) {
    const table_guard lock;
    qnm_rbnode_t* const links = _qnm_rbtree_remove(map_of<Kind>(), qnm::id_key(id));
    if (links == nullptr) return ENOENT;
    const uint32_t group = com_dev_of<Kind>(*node_of<Kind>(links)).ecd_vlan_id;
    free_node<Kind>(links, nullptr);
    total_of<Kind>()--;
    group_count<Kind>(group)--;
    if (!is_known(id)) _qnm_forget_reg_lock_node(id);
    return 0;
}

// One kind's part of a lookup among both. False when the card is not of this kind, otherwise *err
// is the result of the whole lookup.
template <typename Kind>
bool look_up(const char* func, uint64_t id, typename Kind::record* record, uint32_t* ignore_state,
             int* err) QNM_REQUIRES(qnm_qn.eei_mutex) {
    *err = Kind::get(id, record, ignore_state, nullptr, QNM_VALID_RECORD | QNM_VALID_IGNORE_STATE);
    if (*err == ENOENT) return false;
    if (*err != 0) {
        qnm_log_warn("%s: Failed to %s(). err=%d", func, Kind::get_name, *err);
        *err = EPROTO;
    }
    return true;
}

// ---- ID lists -----------------------------------------------------------------------------------

// Makes a list of the IDs of the cards that match. count returns their number, under the lock.
template <typename Kind, typename Count, typename Match>
int list_ids(const char* func, uint64_t** id_list, uint32_t* num, Count count, Match match) {
    if (id_list == nullptr || num == nullptr) return EINVAL;
    const uint32_t limit = *num != 0 ? *num : qnm_config.id_list_upper_limit;
    const table_guard lock;
    const uint32_t wanted = count();
    if (wanted == 0) {
        *id_list = nullptr;
        *num = 0;
        return 0;
    }
    if (limit < wanted) {
        *num = wanted;
        return ERANGE;
    }
    auto* const ids = new (std::nothrow) uint64_t[wanted];
    if (ids == nullptr) {
        qnm::count(&qnm_stats.est_alloc_err);
        return ENOMEM;
    }
    qnm::count(&qnm_stats.est_idlist_al);
    uint32_t stored = 0;
    for (auto* node = next_node<Kind>(nullptr); node != nullptr; node = next_node<Kind>(node)) {
        const qnm_com_dev_t& dev = com_dev_of<Kind>(*node);
        if (!match(dev)) continue;
        if (stored == wanted) {
            qnm_log_warn("%s: Get ID more than allocate size. num_tmp=%d", func,
                         static_cast<int>(wanted));
            break;
        }
        ids[stored++] = dev.ecd_id;
    }
    *id_list = ids;
    *num = stored;
    return 0;
}

template <typename Kind>
qnm_api_code_t get_ids(const char* name, uint64_t** id_list, uint32_t* num) {
    qnm_log_info("%s: (IN)", name);
    qnm::public_call call(name, Kind::count_ids);
    int err = call.check();
    if (err == 0) {
        const auto count = []() QNM_REQUIRES(qnm_qn.eei_mutex) { return total_of<Kind>(); };
        const auto match = [](const qnm_com_dev_t&) { return true; };
        err = list_ids<Kind>(name, id_list, num, count, match);
    }
    return call.end(err);
}

template <typename Kind>
qnm_api_code_t get_update_ids(const char* name, uint64_t time, uint64_t** id_list, uint32_t* num) {
    qnm_log_info("%s: (IN)", name);
    qnm::public_call call(name, Kind::count_update_ids);
    int err = call.check();
    if (err == 0) {
        const auto match = [=](const qnm_com_dev_t& dev) { return dev.ecd_updatetime >= time; };
        const auto count = [=]() QNM_REQUIRES(qnm_qn.eei_mutex) {
            uint32_t matching = 0;
            for_each_node<Kind>([&](typename Kind::node& node) {
                if (match(com_dev_of<Kind>(node))) matching++;
            });
            return matching;
        };
        err = list_ids<Kind>(name, id_list, num, count, match);
    }
    return call.end(err);
}

template <typename Kind>
qnm_api_code_t get_group_ids(const char* name, uint16_t groupid, uint64_t** id_list,
                             uint32_t* num) {
    qnm_log_info("%s: (IN) groupid=%u", name, groupid);
    qnm::public_call call(name, Kind::count_group_ids);
    int err = call.check();
    if (err == 0 && (groupid < 1 || groupid > 4094)) err = EINVAL;
    if (err == 0) {
        const auto match = [=](const qnm_com_dev_t& dev) { return dev.ecd_vlan_id == groupid; };
        const auto count = [=]() QNM_REQUIRES(qnm_qn.eei_mutex) {
            return group_count<Kind>(groupid);
        };
        err = list_ids<Kind>(name, id_list, num, count, match);
    }
    const qnm_api_code_t ret = call.result(err);
    qnm_log_info("%s: (OUT) ret=%d, groupid=%u", name, ret, groupid);
    return ret;
}

// ---- Records ------------------------------------------------------------------------------------

// The result and exit line of the calls below, whose line differs from that of public_call.
qnm_api_code_t end_id_call(qnm::public_call& call, const char* name, uint64_t id, int err) {
    const qnm_api_code_t ret = call.result(err);
    qnm_log_info("%s: (OUT). ret=%d id=0x%.12lx", name, ret, id);
    return ret;
}

template <typename Kind>
qnm_api_code_t get_record(const char* name, uint64_t id, typename Kind::record* record) {
    qnm_log_info("%s: (IN). id=0x%.12lx", name, id);
    qnm::public_call call(name, Kind::count_get);
    int err = call.check();
    if (err == 0 && record == nullptr) err = EINVAL;
    if (err == 0) {
        const table_guard lock;
        err = Kind::get(id, record, nullptr, nullptr, QNM_VALID_RECORD);
    }
    return end_id_call(call, name, id, err);
}

template <typename Kind>
qnm_api_code_t delete_record(const char* name, uint64_t id) {
    qnm_log_info("%s: (IN). id=0x%.12lx", name, id);
    qnm::public_call call(name, Kind::count_delete);
    int err = call.check();
    if (err == 0) err = delete_card<Kind>(id);
    return end_id_call(call, name, id, err);
}

// ---- Lifecycle ----------------------------------------------------------------------------------

template <typename Kind>
void make_empty() QNM_REQUIRES(qnm_qn.eei_mutex) {
    _qnm_rbtree_init(map_of<Kind>(), qnm_rbtree_uint64_compare, key_of<Kind>);
    total_of<Kind>() = 0;
    std::fill(std::begin(qnm_qn.*Kind::groups), std::end(qnm_qn.*Kind::groups), 0);
}

template <typename Kind>
void clear() QNM_REQUIRES(qnm_qn.eei_mutex) {
    _qnm_rbtree_clear(map_of<Kind>(), free_node<Kind>, nullptr);
    make_empty<Kind>();
}

}  // namespace

extern "C" {

// Not locked: no other thread exists yet.
int _qnm_qn_init(void) QNM_UNCHECKED {
    qnm_log_info("%s: start.", __func__);
    make_empty<qnsv_kind>();
    make_empty<qnio_kind>();
    int ret = _qnm_mutex_init_st(&qnm_qn.eei_mutex);
    if (ret != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st()", __func__);
        ret = EPROTO;
    }
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_qn_fini(void) {
    qnm_log_info("%s: start.", __func__);
    {
        const table_guard lock;
        clear<qnsv_kind>();
        clear<qnio_kind>();
    }
    _qnm_mutex_destroy_st(&qnm_qn.eei_mutex);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

int _qnm_qn_lock(void) {
    const int ret = _qnm_mutex_lock(&qnm_qn.eei_mutex);
    qnm_log_trace("%s: qn lock", __func__);
    return ret;
}

int _qnm_qn_unlock(void) {
    _qnm_mutex_unlock(&qnm_qn.eei_mutex);
    qnm_log_trace("%s: qn unlock", __func__);
    return 0;
}

int _qnm_qn_has_room(void) {
    return total_of<qnsv_kind>() + total_of<qnio_kind>() < qnm::k_cards_max ? 1 : 0;
}

int _qnm_get_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t* ignore_state, uint32_t* check_count,
                  uint32_t valid_param) {
    return get_card<qnsv_kind>(id, qnsv, ignore_state, check_count, valid_param);
}

int _qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t* ignore_state, uint32_t* check_count,
                  uint32_t valid_param) {
    return get_card<qnio_kind>(id, qnio, ignore_state, check_count, valid_param);
}

int _qnm_set_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t ignore_state, uint32_t check_count,
                  uint32_t valid_param) {
    return set_card<qnsv_kind>(id, qnsv, ignore_state, check_count, valid_param, nullptr);
}

int _qnm_set_heard_qnsv(uint64_t id, qnm_qnsv_t* qnsv, uint32_t ignore_state, uint32_t check_count,
                        uint32_t valid_param, const qnm_heard_t* heard) {
    return set_card<qnsv_kind>(id, qnsv, ignore_state, check_count, valid_param, heard);
}

int _qnm_set_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t ignore_state, uint32_t check_count,
                  uint32_t valid_param) {
    return set_card<qnio_kind>(id, qnio, ignore_state, check_count, valid_param, nullptr);
}

int _qnm_set_heard_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t ignore_state, uint32_t check_count,
                        uint32_t valid_param, const qnm_heard_t* heard) {
    return set_card<qnio_kind>(id, qnio, ignore_state, check_count, valid_param, heard);
}

int _qnm_get_qndev_rid(uint64_t id, qnm_com_dev_t* dev_info, uint32_t* ignore_state,
                       uint16_t* resource_id) {
    int err = 0;
    qnm_qnsv_t qnsv;
    const bool is_qnsv = look_up<qnsv_kind>(__func__, id, &qnsv, ignore_state, &err);
    if (is_qnsv && err != 0) return err;
    uint16_t resource = 0;
    qnm_com_dev_t dev = is_qnsv ? qnsv.esv_com_dev : qnm_com_dev_t{};
    // A record of the wrong kind, made from a forged frame, must not hide the live card.
    if (!is_qnsv || !qnm::is_connected(dev)) {
        qnm_qnio_t qnio;
        uint32_t state = 0;
        const bool is_qnio = look_up<qnio_kind>(__func__, id, &qnio, &state, &err);
        if (err != 0 && (is_qnio || !is_qnsv)) return err;
        if (is_qnio && (!is_qnsv || qnm::is_connected(qnio.eio_com_dev))) {
            dev = qnio.eio_com_dev;
            resource = qnio.eio_mr_resource_num;
            *ignore_state = state;
        }
    }
    if (resource_id != nullptr) *resource_id = resource;
    if (dev_info != nullptr) *dev_info = dev;
    return 0;
}

int _qnm_get_qndev(uint64_t id, qnm_com_dev_t* dev_info) {
    uint32_t ignore_state = 0;
    return _qnm_get_qndev_rid(id, dev_info, &ignore_state, nullptr);
}

int _qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev_info, uint32_t* ignore_state) {
    return _qnm_get_qndev_rid(id, dev_info, ignore_state, nullptr);
}

void _qnm_log_state_change(const char* func, const char* kind, const qnm_com_dev_t* dev,
                           const char* change) {
    const auto& state = dev->ecd_state;
    qnm_log_info("%s: %s id=0x%.12lx state change to %s P0M0: %s, P0M1: %s, P1M0: %s, P1M1: %s",
                 func, kind, dev->ecd_id, change, connect_word(state[0][0]),
                 connect_word(state[0][1]), connect_word(state[1][0]), connect_word(state[1][1]));
}

qnm_api_code_t qnm_get_qnsv(uint64_t id, qnm_qnsv_t* qnsv) {
    return get_record<qnsv_kind>(__func__, id, qnsv);
}

qnm_api_code_t qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio) {
    return get_record<qnio_kind>(__func__, id, qnio);
}

qnm_api_code_t qnm_get_qnsvids(uint64_t** id_list, uint32_t* num) {
    return get_ids<qnsv_kind>(__func__, id_list, num);
}

qnm_api_code_t qnm_get_qnioids(uint64_t** id_list, uint32_t* num) {
    return get_ids<qnio_kind>(__func__, id_list, num);
}

qnm_api_code_t qnm_get_update_qnsvids(uint64_t time, uint64_t** id_list, uint32_t* num) {
    return get_update_ids<qnsv_kind>(__func__, time, id_list, num);
}

qnm_api_code_t qnm_get_update_qnioids(uint64_t time, uint64_t** id_list, uint32_t* num) {
    return get_update_ids<qnio_kind>(__func__, time, id_list, num);
}

qnm_api_code_t qnm_get_group_qnsvids(uint16_t groupid, uint64_t** id_list, uint32_t* num) {
    return get_group_ids<qnsv_kind>(__func__, groupid, id_list, num);
}

qnm_api_code_t qnm_get_group_qnioids(uint16_t groupid, uint64_t** id_list, uint32_t* num) {
    return get_group_ids<qnio_kind>(__func__, groupid, id_list, num);
}

qnm_api_code_t qnm_delete_qnsv(uint64_t id) {
    return delete_record<qnsv_kind>(__func__, id);
}

qnm_api_code_t qnm_delete_qnio(uint64_t id) {
    return delete_record<qnio_kind>(__func__, id);
}

qnm_api_code_t qnm_free_idlist(uint64_t* id_list) {
    qnm_log_info("%s: (IN)", __func__);
    qnm::public_call call(__func__, QNM_STATS_FREE_IDLIST, qnm::needs::nothing);
    if (id_list != nullptr) {
        delete[] id_list;
        qnm::count(&qnm_stats.est_idlist_fr);
    }
    return call.end(0);
}

}  // extern "C"
