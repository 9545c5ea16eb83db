// qnm_stats.cpp - the statistics thread and the status dump.
//
// The dump is written line by line through qnm_statslog. The sections that show counters take
// qnm_stats_mutex one after the other, so a dump is not a consistent snapshot, and dumps requested
// by several threads may interleave.

#include "qnm_stats.h"

#include <cerrno>
#include <iterator>

#include "qnm_blacklist.h"
#include "qnm_call.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_event_cb.h"
#include "qnm_log4cxxif.h"
#include "qnm_qn_dump.h"
#include "qnm_root.h"
#include "qnm_util.h"

namespace {

constexpr char k_blank[] = " ";
constexpr char k_task_name[] = "_qnm_stats_task_com";
constexpr size_t k_time_size = 256;

qnm_event_t qnm_stats_event;

constexpr const char* k_level_names[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};

constexpr const char* k_type_names[] = {
    "QNM_STATS_R_TOTAL",  "QNM_STATS_R_DEV",  "QNM_STATS_R_DEV40", "QNM_STATS_R_NOTI",
    "QNM_STATS_R_NOTI40", "QNM_STATS_R_COMP", "QNM_STATS_T_TOTAL", "QNM_STATS_T_VLANSET",
    "QNM_STATS_T_REGR",   "QNM_STATS_T_REGW", "QNM_STATS_T_RESET", "QNM_STATS_T_MMS",
};
static_assert(std::size(k_type_names) == QNM_STATS_TYPE_MAX);

constexpr const char* k_code_names[] = {
    "QNM_API_SUCCESS", "QNM_API_EINVAL", "QNM_API_ERANGE",    "QNM_API_ENOENT", "QNM_API_ENOLINK",
    "QNM_API_ENOMEM",  "QNM_API_EPROTO", "QNM_API_ETIMEDOUT", "QNM_API_EBUSY",  "QNM_API_ENOSYS",
};
static_assert(std::size(k_code_names) == QNM_API_CODE_MAX);

constexpr const char* k_func_names[] = {
    "qnm_get_qnsvids()",
    "qnm_get_update_qnsvids()",
    "qnm_get_group_qnsvids()",
    "qnm_get_qnioids()",
    "qnm_get_update_qnioids()",
    "qnm_get_group_qnioids()",
    "qnm_get_qnsv()",
    "qnm_get_qnio()",
    "qnm_delete_qnsv()",
    "qnm_delete_qnio()",
    "qnm_set_vlanid()",
    "qnm_send_resetframe()",
    "qnm_write_mmspage()",
    "qnm_read_register()",
    "qnm_write_register()",
    "qnm_modify_register()",
    "qnm_dump_register()",
    "qnm_read_eeprom()",
    "qnm_write_eeprom()",
    "qnm_dump_eeprom()",
    "qnm_unlock_eeprom()",
    "qnm_stop_monitor()",
    "qnm_restart_monitor()",
    "qnm_register_callback()",
    "qnm_unregister_callback()",
    "qnm_free_idlist()",
    "qnm_set_loglevel()",
    "qnm_init_manager()",
    "qnm_start_manager()",
    "qnm_fini_manager()",
    "qnm_stdump()",
};
static_assert(std::size(k_func_names) == QNM_STATS_FUNC_MAX);

struct memory_row {
    const char* name;
    uint32_t qnm_sd_stats_t::*allocated;
    uint32_t qnm_sd_stats_t::*freed;
};

constexpr memory_row k_memory[] = {
    {"qnsv", &qnm_sd_stats_t::est_sv_node_al, &qnm_sd_stats_t::est_sv_node_fr},
    {"qnio", &qnm_sd_stats_t::est_io_node_al, &qnm_sd_stats_t::est_io_node_fr},
    {"bl_node", &qnm_sd_stats_t::est_bl_node_al, &qnm_sd_stats_t::est_bl_node_fr},
    {"evt_node", &qnm_sd_stats_t::est_evt_node_al, &qnm_sd_stats_t::est_evt_node_fr},
    {"wreg_node", &qnm_sd_stats_t::est_wreg_node_al, &qnm_sd_stats_t::est_wreg_node_fr},
    {"idlist", &qnm_sd_stats_t::est_idlist_al, &qnm_sd_stats_t::est_idlist_fr},
    {"cbinfo", &qnm_sd_stats_t::est_cbinfo_al, &qnm_sd_stats_t::est_cbinfo_fr},
    {"addrs", &qnm_sd_stats_t::est_addrs_al, &qnm_sd_stats_t::est_addrs_fr},
};

const char* on_off(const uint32_t& flag) {
    return qnm::load(flag) == 0 ? "ON" : "OFF";
}

void print_state() {
    qnm_statslog("  - State");
    qnm_statslog("    Init flag : %s", on_off(qnm_root.er_init_flag));
    qnm_statslog("    Start flag: %s", on_off(qnm_root.er_start_flag));
    qnm_statslog("    Fini flag : %s", on_off(qnm_root.er_fini_flag));
    const qnm_log_level_t level = qnm::load(g_log_level);
    if (level >= QNM_LOGLVL_FATAL && level <= QNM_LOGLVL_TRACE) {
        qnm_statslog("    Log level : %s", k_level_names[level]);
    }
    qnm_statslog(k_blank);
}

void print_port(int port, uint32_t down_total) {
    const qnm_port_info_t& info = qnm_root.er_port_info[port];
    qnm_statslog("    + Port%d", port);
    qnm_statslog("      MAC addr  : %.12lx", info.epi_mac);
    qnm_statslog("      Link state: %s", qnm::load(info.epi_link_state) == 1 ? "UP" : "DOWN");
    qnm_statslog("      Total down: %u", down_total);
}

void print_ports() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - Port information");
    print_port(0, qnm_stats.est_port0_down_total);
    print_port(1, qnm_stats.est_port1_down_total);
    qnm_statslog(k_blank);
}

void print_memory() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - Memory");
    qnm_statslog("    %10s %10s %10s %10s", "Name", "In Use", "Alloc", "Free");
    qnm_statslog("    ---------- ---------- ---------- ----------");
    for (const memory_row& row : k_memory) {
        const uint32_t allocated = qnm_stats.*row.allocated;
        const uint32_t freed = qnm_stats.*row.freed;
        qnm_statslog("    %10s %10u %10u %10u", row.name, allocated - freed, allocated, freed);
    }
    qnm_statslog(k_blank);
}

void print_callbacks() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - Callback statistics");
    qnm_statslog("    Total called  : %u", qnm_stats.est_cb_call);
    qnm_statslog("    Total returned: %u", qnm_stats.est_cb_return);
    qnm_statslog(k_blank);
}

void print_events() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - Event statistics");
    for (int type = 0; type < QNM_EVT_MAX; type++) {
        qnm_statslog("    QNM_EVT_%-18s: %lu", qnm_event_name(static_cast<qnm_evt_type_t>(type)),
                     qnm_stats.est_evt[type]);
    }
    qnm_statslog(k_blank);
}

void print_frames() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - Quillnet message send/receive statistics");
    int port = 0;
    for (const uint64_t* counters : {qnm_stats.est_stats_p0, qnm_stats.est_stats_p1}) {
        qnm_statslog("    + Port%d", port++);
        for (int type = 0; type < QNM_STATS_TYPE_MAX; type++) {
            qnm_statslog("      %-20s : %lu", k_type_names[type], counters[type]);
        }
    }
    qnm_statslog(k_blank);
}

void print_results(uint32_t verbose) {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_statslog("  - API error code");
    for (int code = 0; code < QNM_API_CODE_MAX; code++) {
        qnm_statslog("    %-20s : %lu", k_code_names[code], qnm_stats.est_api_code[code]);
    }
    qnm_statslog(k_blank);
    if (verbose == 0) return;
    qnm_statslog("  - API error code detail");
    for (int func = 0; func < QNM_STATS_FUNC_MAX; func++) {
        qnm_statslog("    %s", k_func_names[func]);
        for (int code = 0; code < QNM_API_CODE_MAX; code++) {
            qnm_statslog("      %-20s : %lu", k_code_names[code],
                         qnm_stats.est_func_code[func][code]);
        }
    }
    qnm_statslog(k_blank);
}

void write_dump(uint32_t verbose) {
    char now[k_time_size] = "";
    _qnm_get_nowstr(now, sizeof now);
    qnm_statslog("*** %s qnm status dump (v%u)", now, verbose);
    print_state();
    print_ports();
    _qnm_qn_stats_print(verbose);
    print_memory();
    print_callbacks();
    print_events();
    print_frames();
    print_results(verbose);
    _qnm_bl_stats_print();
    _qnm_config_stats_print();
}

// Under the mutex, because public calls are counted even while the manager starts.
void reset_counters() {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    qnm_stats = {};
}

int is_stopping(void*) {
    return qnm::is_running() ? 0 : 1;
}

}  // namespace

extern "C" {

int _qnm_stats_init(void) {
    qnm_log_info("%s: start.", __func__);
    reset_counters();
    int ret = _qnm_mutex_init_st(&qnm_stats_mutex);
    if (ret != 0) {
        qnm_log_error("%s: Failed to _qnm_mutex_init_st(). err=%d", __func__, ret);
        ret = EPROTO;
    } else {
        ret = _qnm_event_init(&qnm_stats_event);
        if (ret != 0) {
            qnm_log_error("%s: Failed to _qnm_event_init(). err=%d", __func__, ret);
            _qnm_mutex_destroy_st(&qnm_stats_mutex);
            ret = EPROTO;
        }
    }
    qnm_log_info("%s: end. ret=%d", __func__, ret);
    return ret;
}

int _qnm_stats_fini(void) {
    qnm_log_info("%s: start.", __func__);
    _qnm_event_destroy(&qnm_stats_event);
    _qnm_mutex_destroy_st(&qnm_stats_mutex);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

void* _qnm_stats_task(void*) {
    const uint32_t verbose = qnm_config.stats_verbose_level;
    const uint32_t wait_ms = qnm_config.stats_interval * 1000;
    qnm_log_info("%s: start.", k_task_name);
    write_dump(verbose);
    bool stopping = false;
    do {
        const int ret = _qnm_event_timedwait_for(&qnm_stats_event, wait_ms, is_stopping, nullptr);
        if (ret != 0 && ret != ETIMEDOUT) {
            qnm_log_warn("%s: Failed to _qnm_event_timedwait() err=%d", k_task_name, ret);
            break;
        }
        // Read before the dump: a stop that comes during the dump is followed by one more, the
        // last.
        stopping = is_stopping(nullptr) != 0;
        write_dump(verbose);
    } while (!stopping);
    qnm_log_info("%s: end.", k_task_name);
    return nullptr;
}

int _qnm_stats_write(void) {
    _qnm_event_set(&qnm_stats_event);
    return 0;
}

qnm_api_code_t qnm_stdump(uint32_t verbose) {
    qnm_log_info("%s: (IN) verbose=%u", __func__, verbose);
    qnm::public_call call(__func__, QNM_STATS_STDUMP);
    const int err = call.check();
    if (err == 0) write_dump(verbose);
    return call.end(err);
}

}  // extern "C"
