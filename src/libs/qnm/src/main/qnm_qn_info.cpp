// qnm_qn_info.cpp - the tables of known cards: storing, querying, keeping alive, printing.
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

#include "qnm_api.h"
#include "qnm_config.h"
#include "qnm_event_cb.h"
#include "qnm_limits.h"
#include "qnm_main.h"
#include "qnm_paced_log.h"
#include "qnm_port_lock.h"
#include "qnm_reg_send.h"
#include "qnm_stats.h"
#include "qnm_util.h"

qnm_qn_info_t qnm_qn;

namespace {

using qnm::connect_word;
using qnm::qnio_kind;
using qnm::qnsv_kind;
using qnm::table_guard;

// ---- Nodes --------------------------------------------------------------------------------------

template <typename Kind>
typename Kind::node* node_of(qnm_rbnode_t* links) {
    return reinterpret_cast<typename Kind::node*>(links);
}

template <typename Kind>
qnm_com_dev_t& com_dev_of(typename Kind::node& node) {
    return node.*Kind::card.*Kind::com_dev;
}

template <typename Kind>
qnm_cptr_t key_of(const qnm_rbnode_t* links) {
    const auto* const node = reinterpret_cast<const typename Kind::node*>(links);
    return qnm::id_key((node->*Kind::card.*Kind::com_dev).ecd_id);
}

// Map, number of cards and number per group; all uses of them come by these. A pointer to a member
// tells the analysis nothing, so that they name the lock.
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

// How far a walk has come that lets the table go in between: up to this ID.
struct walk {
    bool begun = false;
    uint64_t last = 0;
};

// The card after those that the walk has seen; which of them are still there does not matter.
template <typename Kind>
typename Kind::node* node_after(const walk& at) QNM_REQUIRES(qnm_qn.eei_mutex) {
    if (!at.begun) return next_node<Kind>(nullptr);
    return node_of<Kind>(_qnm_rbtree_get_higher(map_of<Kind>(), qnm::id_key(at.last)));
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

// When the paths of the stored record were heard, from its receive times as the clocks are now.
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

// Hands out the IDs of the cards that match. count tells how many they are, under the lock.
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
    return qnm::public_call(Kind::count_ids, qnm::needs::running_manager, name, [=] {
        return list_ids<Kind>(
            name, id_list, num, []() QNM_REQUIRES(qnm_qn.eei_mutex) { return total_of<Kind>(); },
            [](const qnm_com_dev_t&) { return true; });
    });
}

template <typename Kind>
qnm_api_code_t get_update_ids(const char* name, uint64_t time, uint64_t** id_list, uint32_t* num) {
    return qnm::public_call(Kind::count_update_ids, qnm::needs::running_manager, name, [=] {
        const auto match = [=](const qnm_com_dev_t& dev) { return dev.ecd_updatetime >= time; };
        const auto count = [=]() QNM_REQUIRES(qnm_qn.eei_mutex) {
            uint32_t matching = 0;
            for_each_node<Kind>([&](typename Kind::node& node) {
                if (match(com_dev_of<Kind>(node))) matching++;
            });
            return matching;
        };
        return list_ids<Kind>(name, id_list, num, count, match);
    });
}

template <typename Kind>
qnm_api_code_t get_group_ids(const char* name, uint16_t groupid, uint64_t** id_list,
                             uint32_t* num) {
    return qnm::public_call(
        Kind::count_group_ids, qnm::needs::running_manager,
        [=] { qnm_log_info("%s: (IN) groupid=%u", name, groupid); },
        [=] {
            if (groupid < 1 || groupid > 4094) return EINVAL;
            return list_ids<Kind>(
                name, id_list, num,
                [=]() QNM_REQUIRES(qnm_qn.eei_mutex) { return group_count<Kind>(groupid); },
                [=](const qnm_com_dev_t& dev) { return dev.ecd_vlan_id == groupid; });
        },
        [=](qnm_api_code_t ret) {
            qnm_log_info("%s: (OUT) ret=%d, groupid=%u", name, ret, groupid);
        });
}

// The public calls that take an ID and log it.
template <typename Body>
qnm_api_code_t id_call(qnm_stats_func_t func, const char* name, uint64_t id, Body body) {
    return qnm::public_call(
        func, qnm::needs::running_manager, [=] { qnm_log_info("%s: (IN). id=0x%.12lx", name, id); },
        body,
        [=](qnm_api_code_t ret) { qnm_log_info("%s: (OUT). ret=%d id=0x%.12lx", name, ret, id); });
}

template <typename Kind>
qnm_api_code_t get_record(const char* name, uint64_t id, typename Kind::record* record) {
    return id_call(Kind::count_get, name, id, [=] {
        if (record == nullptr) return EINVAL;
        const table_guard lock;
        return Kind::get(id, record, nullptr, nullptr, QNM_VALID_RECORD);
    });
}

// ---- Keepalive ----------------------------------------------------------------------------------

// Tells the host and the log that a card has lost a path.
template <typename Kind>
void report_disconnect(const char* func, qnm_com_dev_t& dev, uint64_t now) {
    dev.ecd_updatetime = now;
    _qnm_raise_event(func, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    _qnm_raise_event(func, QNM_EVT_CHANNELSTATECHANGE, dev.ecd_id);
    _qnm_log_state_change(func, Kind::name, &dev, "disconnect.");
}

// What a keepalive check goes by: the loop's own settings and when it looks.
struct check_rules {
    uint32_t expire_time;
    uint32_t restart_checks;
    uint64_t monotonic;
};

// Disconnects the paths that have been silent for too long; whether there were any.
bool expire_paths(qnm_com_dev_t& dev, const uint64_t (&heard)[2][2], const check_rules& rules) {
    bool changed = false;
    for (int port = 0; port < 2; port++) {
        for (int path = 0; path < 2; path++) {
            uint32_t& state = dev.ecd_state[port][path];
            if (state == 0 || rules.monotonic < heard[port][path] + rules.expire_time) continue;
            state = 0;
            changed = true;
        }
    }
    return changed;
}

template <typename Kind>
bool _update_keepalive_state(typename Kind::node& node, const check_rules& rules) {
    qnm_com_dev_t& dev = com_dev_of<Kind>(node);
    switch (node.*Kind::ignore_state) {
        case QNM_WATCH:
            return expire_paths(dev, node.*Kind::heard, rules);
        case QNM_IGNORE:
            return false;
        case QNM_WATCH_RESTART:
            if (++(node.*Kind::check_count) < rules.restart_checks) return false;
            node.*Kind::ignore_state = QNM_WATCH;
            std::fill(&dev.ecd_state[0][0], &dev.ecd_state[0][0] + 4, 0);
            return true;
        default:
            qnm_log_warn("%s: Unknown ignore_state. state=%d", __func__,
                         static_cast<int>(node.*Kind::ignore_state));
            return false;
    }
}

// Reporting costs a line and two events a card. So that receiving goes on when very many cards are
// lost at once, only this many are reported before the table is let go for a moment; for that long,
// or else whoever waits for it would lose the race for it.
constexpr uint32_t k_reports_max = 64;
constexpr uint32_t k_free_ms = 1;

// A walk through the cards of both kinds.
struct double_walk {
    walk servers;
    walk ios;
};

// Goes on with the cards of a kind until *reports_left have been reported, which treat() tells;
// true when all cards have been seen.
template <typename Kind, typename Treat>
bool treat_kind(walk& at, uint32_t* reports_left, Treat treat) QNM_REQUIRES(qnm_qn.eei_mutex) {
    for (auto* node = node_after<Kind>(at); node != nullptr; node = next_node<Kind>(node)) {
        at = {true, com_dev_of<Kind>(*node).ecd_id};
        if (treat(Kind{}, *node) && --*reports_left == 0) return false;
    }
    return true;
}

template <typename Treat>
bool treat_some(double_walk& at, Treat treat) QNM_REQUIRES(qnm_qn.eei_mutex) {
    uint32_t reports_left = k_reports_max;
    return treat_kind<qnsv_kind>(at.servers, &reports_left, treat) &&
           treat_kind<qnio_kind>(at.ios, &reports_left, treat);
}

// Lets whoever waits for the table have it; false when a stop has been requested.
bool let_go() QNM_EXCLUDES(qnm_qn.eei_mutex) {
    _qnm_tell_events();
    _qnm_msleep(k_free_ms);
    return qnm::is_running();
}

// How regularly the keepalive loop comes by. When a look comes much later than it should, the
// process was stopped, or the machine suspended: announcements sent meanwhile are lost, or not
// taken yet, and silence tells nothing about the cards. They get time to be heard again. How often
// they announce themselves the library is not told; but within the expire time, or else they could
// not be kept at all.
struct pace {
    const char* func;
    uint32_t expire_time;
    uint64_t last_look;   // since boot, suspension included
    uint64_t not_before;  // on the monotonic clock: nothing is judged until then
};

// Looks at the clocks, due_ms after the last look if all is well; whether the check may judge, as
// of *monotonic. In this order: a stop between the two is noticed.
bool may_judge(pace& loop, uint32_t due_ms, uint64_t* monotonic) {
    *monotonic = _qnm_get_msec_monotonic();
    const uint64_t look = _qnm_get_msec_since_boot();
    const uint64_t passed = look - loop.last_look;
    loop.last_look = look;
    if (passed > due_ms + loop.expire_time / 2) {
        qnm_log_info("%s: Has not run for %lu ms. Paths are not judged for %u ms.", loop.func,
                     passed - due_ms, loop.expire_time);
        loop.not_before = *monotonic + loop.expire_time;
    }
    return *monotonic >= loop.not_before;
}

// Goes on with a check; true when it is over.
bool _devinfo_keepalive_check(double_walk& at, pace& loop, uint32_t restart_checks) {
    const char* const name = __func__;
    const table_guard lock;
    check_rules rules = {loop.expire_time, restart_checks, 0};
    if (!may_judge(loop, k_free_ms, &rules.monotonic)) return true;
    const uint64_t now = _qnm_get_msec_timenow();
    return treat_some(at, [=]<typename Kind>(Kind, typename Kind::node& node) {
        if (!_update_keepalive_state<Kind>(node, rules)) return false;
        report_disconnect<Kind>(name, com_dev_of<Kind>(node), now);
        return true;
    });
}

void check_once(pace& loop, uint32_t restart_checks) {
    qnm_log_trace("%s: DEVINFO interval check start", loop.func);
    double_walk at;
    while (!_devinfo_keepalive_check(at, loop, restart_checks) && let_go()) {
    }
    _qnm_tell_events();
    qnm_log_trace("%s: DEVINFO interval check end", loop.func);
}

// A path that was heard after the walk had begun is connected again.
bool disconnect_some(const char* func, double_walk& at, int port, uint64_t began)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    const uint64_t now = _qnm_get_msec_timenow();
    return treat_some(at, [=]<typename Kind>(Kind, typename Kind::node& node) {
        if (node.*Kind::ignore_state == QNM_IGNORE) return false;
        qnm_com_dev_t& dev = com_dev_of<Kind>(node);
        bool changed = false;
        for (int path = 0; path < 2; path++) {
            uint32_t& state = dev.ecd_state[port][path];
            if (state == 0 || (node.*Kind::heard)[port][path] > began) continue;
            state = 0;
            changed = true;
        }
        if (changed) report_disconnect<Kind>(func, dev, now);
        return changed;
    });
}

// ---- Status dump --------------------------------------------------------------------------------

enum class as { u8, u16, u32, u64, bytes2, bytes3, mac };

struct field_row {
    const char* label;
    size_t offset;
    as type;
};

#define FIELD(record, member, type) \
    { #member, offsetof(record, member), as::type }

constexpr field_row k_com_dev_fields[] = {
    FIELD(qnm_com_dev_t, ecd_recvtime[0][0], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[0][1], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[1][0], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[1][1], u64),
    FIELD(qnm_com_dev_t, ecd_updatetime, u64),
    FIELD(qnm_com_dev_t, ecd_state[0][0], u32),
    FIELD(qnm_com_dev_t, ecd_state[0][1], u32),
    FIELD(qnm_com_dev_t, ecd_state[1][0], u32),
    FIELD(qnm_com_dev_t, ecd_state[1][1], u32),
    FIELD(qnm_com_dev_t, ecd_uidsw, u32),
    FIELD(qnm_com_dev_t, ecd_power, u32),
    FIELD(qnm_com_dev_t, ecd_port0_link, u32),
    FIELD(qnm_com_dev_t, ecd_port1_link, u32),
    FIELD(qnm_com_dev_t, ecd_vlan_id, u16),
    FIELD(qnm_com_dev_t, ecd_macaddr, mac),
    FIELD(qnm_com_dev_t, ecd_swstatus, bytes3),
    FIELD(qnm_com_dev_t, ecd_vlan_mode, u8),
    FIELD(qnm_com_dev_t, ecd_flowid, u8),
    FIELD(qnm_com_dev_t, ecd_type, u8),
    FIELD(qnm_com_dev_t, ecd_linkstatus, u8),
    FIELD(qnm_com_dev_t, ecd_int_vector, u8),
    FIELD(qnm_com_dev_t, ecd_ver, u8),
};

constexpr field_row k_com_port_fields[] = {
    FIELD(qnm_com_port_t, ecp_pre_base_upper, u32),
    FIELD(qnm_com_port_t, ecp_pre_limit_upper, u32),
    FIELD(qnm_com_port_t, ecp_memory_base, u16),
    FIELD(qnm_com_port_t, ecp_memory_limit, u16),
    FIELD(qnm_com_port_t, ecp_pre_memory_base, u16),
    FIELD(qnm_com_port_t, ecp_pre_memory_limit, u16),
    FIELD(qnm_com_port_t, ecp_pri_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_sec_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_sub_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_command, u8),
};

constexpr field_row k_down_port_fields[] = {
    FIELD(qnm_down_port_t, edp_port_status, bytes2),
    FIELD(qnm_down_port_t, edp_io_mac, mac),
};

constexpr field_row k_qnio_fields[] = {
    FIELD(qnm_qnio_t, eio_class_code, u32),   FIELD(qnm_qnio_t, eio_device_id, u16),
    FIELD(qnm_qnio_t, eio_vendor_id, u16),    FIELD(qnm_qnio_t, eio_mr_resource_num, u16),
    FIELD(qnm_qnio_t, eio_sermacaddr, mac),   FIELD(qnm_qnio_t, eio_substate, bytes2),
    FIELD(qnm_qnio_t, eio_link0fault, u8),    FIELD(qnm_qnio_t, eio_link1fault, u8),
    FIELD(qnm_qnio_t, eio_pcie_presence, u8),
};

#undef FIELD

constexpr char k_indent[] = "      ";
constexpr char k_port_indent[] = "        ";

template <typename Number>
Number number_at(const uint8_t* bytes) {
    Number value;
    std::copy_n(bytes, sizeof value, reinterpret_cast<uint8_t*>(&value));
    return value;
}

void print_u32(const char* indent, const char* label, uint32_t value) {
    qnm_statslog("%s%-22s: %u", indent, label, value);
}

void print_field(const char* indent, const field_row& row, const uint8_t* b) {
    switch (row.type) {
        case as::u8:
            return print_u32(indent, row.label, *b);
        case as::u16:
            return print_u32(indent, row.label, number_at<uint16_t>(b));
        case as::u32:
            return print_u32(indent, row.label, number_at<uint32_t>(b));
        case as::u64:
            return qnm_statslog("%s%-22s: %lu", indent, row.label, number_at<uint64_t>(b));
        case as::bytes2:
            return qnm_statslog("%s%-22s: %02x %02x", indent, row.label, b[0], b[1]);
        case as::bytes3:
            return qnm_statslog("%s%-22s: %02x %02x %02x", indent, row.label, b[0], b[1], b[2]);
        case as::mac:
            return qnm_statslog("%s%-22s: %02x:%02x:%02x:%02x:%02x:%02x", indent, row.label, b[0],
                                b[1], b[2], b[3], b[4], b[5]);
    }
}

template <size_t Rows>
void print_fields(const char* indent, const field_row (&rows)[Rows], const void* record) {
    for (const field_row& row : rows) {
        print_field(indent, row, static_cast<const uint8_t*>(record) + row.offset);
    }
}

void print_own_fields(const qnm_qnsv_t& card) {
    qnm_statslog("      UP PORT");
    print_fields(k_port_indent, k_com_port_fields, &card.esv_up_port);
    unsigned number = 0;
    for (const qnm_down_port_t& port : card.esv_down_port) {
        qnm_statslog("      DOWN PORT%u", number++);
        print_fields(k_port_indent, k_down_port_fields, &port);
        print_fields(k_port_indent, k_com_port_fields, &port.edp_com_port);
    }
}

void print_own_fields(const qnm_qnio_t& card) {
    print_fields(k_indent, k_qnio_fields, &card);
}

// What the dump prints is copied, so many cards at a time and no more than fit these bytes of the
// caller's stack, and written with the table free: a line may cost a wait for the disk.
constexpr size_t k_copied_max = 64;
constexpr size_t k_copied_bytes = 8192;

template <typename Kind>
struct card_copy {
    uint32_t ignore_state;
    uint32_t check_count;
    typename Kind::record card;
};

template <typename Kind>
struct batch {
    size_t count = 0;
    card_copy<Kind> cards[std::min(k_copied_max, k_copied_bytes / sizeof(card_copy<Kind>))];
};

// The next cards of the walk; false when there are no more.
template <typename Kind>
bool copy_cards(walk& at, batch<Kind>& copied) {
    const table_guard lock;
    copied.count = 0;
    for (auto* node = node_after<Kind>(at); node != nullptr; node = next_node<Kind>(node)) {
        if (copied.count == std::size(copied.cards)) break;
        copied.cards[copied.count++] = {node->*Kind::ignore_state, node->*Kind::check_count,
                                        node->*Kind::card};
        at = {true, com_dev_of<Kind>(*node).ecd_id};
    }
    return copied.count != 0;
}

template <typename Kind>
void print_details() {
    walk at;
    batch<Kind> copied;
    while (copy_cards(at, copied)) {
        for (size_t i = 0; i < copied.count; i++) {
            const card_copy<Kind>& it = copied.cards[i];
            const qnm_com_dev_t& dev = it.card.*Kind::com_dev;
            qnm_statslog("    ID: 0x%.12lx", dev.ecd_id);
            print_u32(k_indent, Kind::ignore_state_label, it.ignore_state);
            print_u32(k_indent, Kind::check_count_label, it.check_count);
            print_fields(k_indent, k_com_dev_fields, &dev);
            print_own_fields(it.card);
            qnm_statslog(" ");
        }
    }
}

constexpr const char* k_ignore_words[] = {"WATCH", "IGNORE", "RESTART"};

const char* ignore_word(uint32_t ignore_state) {
    return ignore_state < std::size(k_ignore_words) ? k_ignore_words[ignore_state] : "UNKNOWN";
}

// The columns of a card's row that both kinds have.
struct row_words {
    const char* type;
    char connect[5];
    const char* vlan_mode;
};

row_words words_of(const qnm_com_dev_t& dev) {
    const auto letter = [&](int port, int path) {
        return dev.ecd_state[port][path] == 1 ? 'C' : 'D';
    };
    return {dev.ecd_type != 0 ? "40G" : "1/10G",
            {letter(0, 0), letter(0, 1), letter(1, 0), letter(1, 1), '\0'},
            dev.ecd_vlan_mode != 0 ? "CHANGE" : "NORMAL"};
}

void print_columns(const qnsv_kind&) {
    qnm_statslog("    %14s %4s %5s %3s %7s %8s %9s", "ID", "G-ID", "TYPE", "VER", "CONNECT",
                 "IG-STATE", "VLAN MODE");
    qnm_statslog("    -------------- ---- ----- --- ------- -------- ---------");
}

void print_columns(const qnio_kind&) {
    qnm_statslog("    %14s %4s %5s %3s %7s %8s %9s %4s", "ID", "G-ID", "TYPE", "VER", "CONNECT",
                 "IG-STATE", "VLAN MODE", "R-ID");
    qnm_statslog("    -------------- ---- ----- --- ------- -------- --------- ----");
}

void print_row(const card_copy<qnsv_kind>& it) {
    const qnm_com_dev_t& dev = it.card.esv_com_dev;
    const row_words words = words_of(dev);
    qnm_statslog("    0x%.12lx %4u %5s %3u %7s %8s %9s", dev.ecd_id, dev.ecd_vlan_id, words.type,
                 dev.ecd_ver + 1U, words.connect, ignore_word(it.ignore_state), words.vlan_mode);
}

void print_row(const card_copy<qnio_kind>& it) {
    const qnm_com_dev_t& dev = it.card.eio_com_dev;
    const row_words words = words_of(dev);
    qnm_statslog("    0x%.12lx %4u %5s %3u %7s %8s %9s %4u", dev.ecd_id, dev.ecd_vlan_id,
                 words.type, dev.ecd_ver + 1U, words.connect, ignore_word(it.ignore_state),
                 words.vlan_mode, it.card.eio_mr_resource_num);
}

template <typename Kind>
void print_table() {
    walk at;
    batch<Kind> copied;
    qnm_statslog("    [%s]", Kind::name);
    if (!copy_cards(at, copied)) {
        qnm_statslog("    no entry.");
        return;
    }
    print_columns(Kind{});
    do {
        for (size_t i = 0; i < copied.count; i++)
            print_row(copied.cards[i]);
    } while (copy_cards(at, copied));
}

struct group_row {
    unsigned group;
    uint32_t qnsv;
    uint32_t qnio;
};

// The next groups that have cards, from *group on, which is left behind the last one looked at.
size_t copy_groups(unsigned* group, group_row (&rows)[k_copied_max]) {
    const table_guard lock;
    size_t count = 0;
    for (; *group <= QNM_GROUP_MAX && count < std::size(rows); ++*group) {
        const uint32_t qnsv = qnm_qn.eei_total_svgid[*group];
        const uint32_t qnio = qnm_qn.eei_total_iogid[*group];
        if (qnsv != 0 || qnio != 0) rows[count++] = {*group, qnsv, qnio};
    }
    return count;
}

template <typename Kind>
uint32_t total_now() {
    const table_guard lock;
    return total_of<Kind>();
}

void print_counts() {
    qnm_statslog("  - QN card num");
    qnm_statslog("    qnsv total: %u", total_now<qnsv_kind>());
    qnm_statslog("    qnio total: %u", total_now<qnio_kind>());
    qnm_statslog(" ");
    qnm_statslog("    %4s %6s %6s", "G-ID", "SV num", "IO num");
    qnm_statslog("    ---- ------ ------");
    group_row rows[k_copied_max];
    unsigned group = 0;
    while (const size_t count = copy_groups(&group, rows)) {
        for (size_t i = 0; i < count; i++)
            qnm_statslog("    %4u %6u %6u", rows[i].group, rows[i].qnsv, rows[i].qnio);
    }
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

// Nobody else is there yet, and the lock not to be taken before it has been initialised.
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
    // A record of the wrong kind, by a frame that somebody forged, must not hide the live card.
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

int _qnm_interval_check(void) {
    const uint32_t check_interval = qnm_config.devinfo_check_interval;
    const uint32_t expire_time = qnm_config.devinfo_expire_time;
    const uint32_t flag_interval = qnm_config.devinfo_flag_check_interval;
    const uint32_t restart_checks = expire_time / check_interval + 1;
    qnm_log_info("%s: start.", __func__);
    pace loop = {__func__, expire_time, _qnm_get_msec_since_boot(), 0};
    uint32_t slept = 0;
    while (qnm::is_running()) {
        _qnm_msleep(flag_interval);
        slept += flag_interval;
        uint64_t monotonic = 0;
        may_judge(loop, flag_interval, &monotonic);
        _qnm_paced_tell();
        _qnm_port_lock_serve();
        if (slept < check_interval) continue;
        check_once(loop, restart_checks);
        slept = 0;
    }
    qnm_log_info("%s: end.", __func__);
    return 0;
}

void _qnm_all_disconnect(int port) {
    const uint64_t began = _qnm_get_msec_monotonic();
    double_walk at;
    bool goes_on = true;
    while (goes_on && !disconnect_some(__func__, at, port, began)) {
        _qnm_qn_unlock();
        goes_on = let_go();
        _qnm_qn_lock();
    }
}

void _qnm_qn_stats_print(uint32_t verbose) {
    print_counts();
    qnm_statslog("  - QN card information");
    print_table<qnsv_kind>();
    print_table<qnio_kind>();
    if (verbose == 0) return;
    qnm_statslog("  - QN card information detail");
    print_details<qnsv_kind>();
    print_details<qnio_kind>();
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
    return id_call(QNM_STATS_DELETE_QNSV, __func__, id, [=] { return delete_card<qnsv_kind>(id); });
}

qnm_api_code_t qnm_delete_qnio(uint64_t id) {
    return id_call(QNM_STATS_DELETE_QNIO, __func__, id, [=] { return delete_card<qnio_kind>(id); });
}

qnm_api_code_t qnm_free_idlist(uint64_t* id_list) {
    return qnm::public_call(QNM_STATS_FREE_IDLIST, qnm::needs::nothing, __func__, [=] {
        if (id_list == nullptr) return 0;
        delete[] id_list;
        qnm::count(&qnm_stats.est_idlist_fr);
        return 0;
    });
}

}  // extern "C"
