// qnm_keepalive.cpp - disconnects paths: those that are silent, and those of a port that went down.
//
// The keepalive loop is what the thread that runs the manager does. Every devinfo_check_interval it
// looks for paths that have been silent for devinfo_expire_time.

#include "qnm_keepalive.h"

#include <algorithm>
#include <cstdint>

#include "qnm_config.h"
#include "qnm_event_cb.h"
#include "qnm_paced_log.h"
#include "qnm_port_lock.h"
#include "qnm_qn_info.h"
#include "qnm_qn_nodes.h"
#include "qnm_root.h"
#include "qnm_util.h"

namespace {

using qnm::com_dev_of;
using qnm::next_node;
using qnm::node_after;
using qnm::qnio_kind;
using qnm::qnsv_kind;
using qnm::table_guard;
using qnm::walk;

// Reports to the host and the log that a card has lost a path.
template <typename Kind>
void report_disconnect(const char* func, qnm_com_dev_t& dev, uint64_t now) {
    dev.ecd_updatetime = now;
    _qnm_raise_event(func, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    _qnm_raise_event(func, QNM_EVT_CHANNELSTATECHANGE, dev.ecd_id);
    _qnm_log_state_change(func, Kind::name, &dev, "disconnect.");
}

// The parameters of a keepalive check: the loop's settings and the time of the check.
struct check_rules {
    uint32_t expire_time;
    uint32_t restart_checks;
    uint64_t monotonic;
};

// Disconnects the paths that have been silent for too long; returns whether there were any.
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

// Each reported card costs a log line and two events. So that receiving goes on when very many
// cards are lost at once, the table is released after this many reports, and for this long: without
// the pause, waiting threads would lose the race for the lock.
constexpr uint32_t k_reports_max = 64;
constexpr uint32_t k_free_ms = 1;

// A walk through the cards of both kinds.
struct double_walk {
    walk servers;
    walk ios;
};

// Continues with the cards of a kind until treat() has reported *reports_left of them; returns
// whether all cards have been visited.
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

// Lets waiting threads have the table; false when a stop has been requested.
bool let_go() QNM_EXCLUDES(qnm_qn.eei_mutex) {
    _qnm_signal_events();
    _qnm_msleep(k_free_ms);
    return qnm::is_running();
}

// How regularly the keepalive loop runs. If it runs much later than it should, the process was
// stopped or the machine suspended: announcements sent meanwhile are lost or not yet received, and
// silence says nothing about the cards. Then they get the expire time to be heard again. The
// library does not know how often cards announce themselves, but they must do so within that time.
struct pace {
    const char* func;
    uint32_t expire_time;
    uint64_t last_look;   // since boot, suspension included
    uint64_t not_before;  // on the monotonic clock: nothing is judged until then
};

// Reads the clocks, normally due_ms after the last time; returns whether the check may judge paths
// by *monotonic. The clocks are read in this order so that a stop of the process between the two is
// noticed.
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

// Continues a check; true when it is complete.
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
    _qnm_signal_events();
    qnm_log_trace("%s: DEVINFO interval check end", loop.func);
}

// Disconnects the card's paths by a port; returns whether there were any. Skips paths that were
// heard after the walk began: they are connected again.
bool disconnect_paths(qnm_com_dev_t& dev, const uint64_t (&heard)[2][2], int port, uint64_t began) {
    bool changed = false;
    for (int path = 0; path < 2; path++) {
        uint32_t& state = dev.ecd_state[port][path];
        if (state == 0 || heard[port][path] > began) continue;
        state = 0;
        changed = true;
    }
    return changed;
}

bool disconnect_some(const char* func, double_walk& at, int port, uint64_t began)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    const uint64_t now = _qnm_get_msec_timenow();
    return treat_some(at, [=]<typename Kind>(Kind, typename Kind::node& node) {
        if (node.*Kind::ignore_state == QNM_IGNORE) return false;
        if (!disconnect_paths(com_dev_of<Kind>(node), node.*Kind::heard, port, began)) return false;
        report_disconnect<Kind>(func, com_dev_of<Kind>(node), now);
        return true;
    });
}

}  // namespace

extern "C" {

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
        _qnm_paced_report();
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

}  // extern "C"
