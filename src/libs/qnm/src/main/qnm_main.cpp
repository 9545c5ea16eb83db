// qnm_main.cpp - the life of the manager: start, run, stop.
//
// qnm_init_manager() brings everything up, starts the worker threads and then runs the keepalive
// loop on its caller's thread until a stop is requested; only then does it take everything down
// again and return. qnm_fini_manager() and a worker with a fatal error merely clear er_fini_flag:
// the keepalive loop notices it within one devinfo_flag_check_interval and wakes the others: the
// receive threads and the link watcher through their terminate pipes, the event thread and the
// statistics thread through their events. Public calls that wait for a card are woken as well, and
// give up; ports are closed and units finished only when all calls have left the library.
//
// Each stage below takes down what it has brought up and returns the result so far, so that a
// failure anywhere unwinds through the same steps as a normal stop.

#include <unistd.h>

#include <cerrno>
#include <iterator>

#include "qnm_api.h"
#include "qnm_blacklist.h"
#include "qnm_call.h"
#include "qnm_completion.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_event_cb.h"
#include "qnm_keepalive.h"
#include "qnm_linkdown.h"
#include "qnm_paced_log.h"
#include "qnm_port_lock.h"
#include "qnm_qn_info.h"
#include "qnm_recv.h"
#include "qnm_root.h"
#include "qnm_socket.h"
#include "qnm_stats.h"
#include "qnm_util.h"
#include "qnm_write_lock.h"

namespace {

constexpr char k_init_name[] = "qnm_init_manager";
constexpr char k_conf[] = "conf/qnm.conf";

// 1 = no qnm_init_manager() is in progress.
uint32_t qnm_initializing_flag = 1;

int finish_registers() {
    _qnm_destroy_all_reg_lock_node();
    return _qnm_reg_fini();
}

// In the order of their initialisation; finished in reverse.
struct unit {
    int (*init)();
    int (*fini)();
};

constexpr unit k_units[] = {
    {_qnm_paced_init, _qnm_paced_fini},
    {_qnm_stats_init, _qnm_stats_fini},
    {_qnm_qn_init, _qnm_qn_fini},
    {_qnm_blacklist_init, _qnm_blacklist_fini},
    {_qnm_event_cb_init, _qnm_event_cb_fini},
    {_qnm_cmp_init, _qnm_cmp_fini},
    {_qnm_reg_init, finish_registers},
};

// A worker thread: what it runs and whether it has been started.
struct worker {
    qnm_thread_func_t func;
    void* arg;
    const char* label;  // for the log line of a failed start
    bool started;
    qnm_thread_id_t tid;
};

int start_worker(worker& thread) {
    const int err = _qnm_thread_create(thread.func, thread.arg, &thread.tid);
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_thread_create(%s). err=%d", k_init_name, thread.label,
                      err);
    }
    thread.started = err == 0;
    return err;
}

void join_worker(worker& thread) {
    if (!thread.started) return;
    _qnm_thread_join(&thread.tid);
    _qnm_thread_destroy(&thread.tid);
    thread.started = false;
}

// Stops every thread that has been started so far after a failure.
void abort_workers() {
    _qnm_fini_manager();
    _qnm_terminate_event_set();
    _qnm_event_cb_wake();
}

// Declares the manager running and stays in the keepalive loop until the stop.
void stay_running() {
    // er_fini_flag stays as it is: a stop may have been requested during start-up, by the host or
    // by a worker that has failed, and workers that have seen it are gone.
    qnm::store(qnm_root.er_start_flag, 1U);
    // Last: a host that sees the manager running may call qnm_start_manager().
    qnm::store(qnm_root.er_init_flag, 0U);
    qnm_log_info("%s: Initialization was completed.", k_init_name);
    qnm_syslog_info("Starting QNM LFI");
    _qnm_interval_check();
    _qnm_stats_write();
    _qnm_terminate_event_set();
    _qnm_event_cb_wake();
    _qnm_cmp_wake();
}

// The event task, the link watcher and the statistics task; then the running manager.
int run_tasks() {
    worker event = {_qnm_event_task, nullptr, "event_task", false, {}};
    worker link = {_qnm_watch_linkstate, nullptr, "watch_link", false, {}};
    worker stats = {_qnm_stats_task, nullptr, "stats_task", false, {}};
    int err = 0;
    for (worker* thread : {&event, &link, &stats}) {
        err = start_worker(*thread);
        if (err != 0) break;
    }
    if (err == 0) {
        stay_running();
    } else {
        abort_workers();
    }
    for (worker* thread : {&stats, &link, &event})
        join_worker(*thread);
    return err;
}

// The receive threads; one running is enough.
int run_threads() {
    worker recv[] = {
        {_qnm_recv_task, reinterpret_cast<void*>(0L), "recv port0", false, {}},
        {_qnm_recv_task, reinterpret_cast<void*>(1L), "recv port1", false, {}},
    };
    qnm::store(internal_err, 0);
    int err = 0;
    for (size_t port = 0; port < std::size(recv); port++) {
        if (qnm_root.er_port_info[port].epi_pcap != nullptr) err = start_worker(recv[port]);
    }
    if (recv[0].started || recv[1].started) {
        err = run_tasks();
    } else {
        abort_workers();
    }
    for (worker& thread : recv)
        join_worker(thread);
    return err;
}

void close_pipe(int (&fds)[2]) {
    for (int& fd : fds) {
        if (fd != -1) close(fd);
        fd = -1;
    }
}

void _qnm_terminate_event_destroy() {
    close_pipe(qnm_terminate_fd_recv[0]);
    close_pipe(qnm_terminate_fd_recv[1]);
    close_pipe(qnm_terminate_fd_link);
}

int _qnm_terminate_event_create() {
    for (int* fds : {qnm_terminate_fd_recv[0], qnm_terminate_fd_recv[1], qnm_terminate_fd_link}) {
        if (pipe(fds) != 0) {
            _qnm_terminate_event_destroy();
            return EPROTO;
        }
        _qnm_close_on_exec(fds[0]);
        _qnm_close_on_exec(fds[1]);
    }
    return 0;
}

int run_with_pipes() {
    int err = _qnm_terminate_event_create();
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_terminate_event_create(). err=%d", k_init_name, err);
        return err;
    }
    err = run_threads();
    _qnm_terminate_event_destroy();
    return err;
}

void* close_locks(void*) {
    for (int port = 0; port < 2; port++)
        _qnm_port_lock_close(port);
    return nullptr;
}

// When a packet socket is closed, the kernel waits until no core uses it any more, some 16 ms. The
// locks have as many such sockets as the captures, so both are closed at the same time.
void close_ports() {
    worker locks = {close_locks, nullptr, "close_locks", false, {}};
    if (start_worker(locks) != 0) close_locks(nullptr);
    for (qnm_port_info_t& port : qnm_root.er_port_info)
        _qnm_socket_close(&port);
    join_worker(locks);
}

// Opens the configured ports; one is enough. Without any, the last error is the result. Link states
// are cleared first: a port keeps its state when it is closed, and one that is not opened this time
// must not seem connected.
int run_with_ports() {
    for (qnm_port_info_t& port : qnm_root.er_port_info)
        qnm::store(port.epi_link_state, 0U);
    const size_t used = qnm_config.use_port_num_linux >= 2 ? 2 : 1;
    bool any_open = false;
    int err = 0;
    for (size_t port = 0; port < used; port++) {
        const int open_err =
            _qnm_socket_open(qnm_config.ether_port_name[port], qnm_config.ether_port_ifindex[port],
                             &qnm_root.er_port_info[port]);
        if (open_err == 0) {
            _qnm_port_lock_open(static_cast<int>(port), qnm_root.er_port_info[port].epi_if_index);
            any_open = true;
            continue;
        }
        qnm_log_error("%s: Failed to _qnm_socket_open(). port=%zu, err=%d", k_init_name, port,
                      open_err);
        err = open_err;
    }
    if (!any_open) return err;
    err = run_with_pipes();
    _qnm_wait_calls();
    close_ports();
    return err;
}

int run_with_units() {
    size_t ready = 0;
    int err = 0;
    while (ready < std::size(k_units) && err == 0) {
        err = k_units[ready].init();
        if (err == 0) ready++;
    }
    if (err == 0) err = run_with_ports();
    while (ready > 0)
        k_units[--ready].fini();
    _qnm_config_fini();
    return err;
}

// Arguments, logging and configuration: what can fail before anything is brought up.
qnm_api_code_t prepare(const char* path, qnm_log_level_t log_level) {
    if (log_level < QNM_LOGLVL_NONE || log_level > QNM_LOGLVL_TRACE) return QNM_API_EINVAL;
    if (path != nullptr && path[0] != '\0' && _qnm_dir_exist(path) != 0) return QNM_API_EINVAL;
    const qnm_api_code_t ret = qnm_log_init(path);
    if (ret != QNM_API_SUCCESS) return ret;
    _qnm_config_init();
    char name[qnm::k_filename_size];
    if (_qnm_make_filename(path, k_conf, name, sizeof name) != 0) {
        qnm_log_error("%s: Failed to make_conf_filename()", k_init_name);
        return QNM_API_EPROTO;
    }
    const int err = _qnm_config_read(name);
    if (err != 0 && err != ENOENT) {
        qnm_log_error("%s: Failed to _qnm_config_read() err=%d", k_init_name, err);
        return QNM_API_EPROTO;
    }
    _qnm_set_loglevel(log_level);
    return QNM_API_SUCCESS;
}

qnm_api_code_t run(const char* path, qnm_log_level_t log_level) {
    qnm::store(qnm_root.er_init_flag, 1U);
    qnm::store(qnm_root.er_start_flag, 1U);
    qnm::store(qnm_root.er_fini_flag, 1U);
    qnm_api_code_t ret = prepare(path, log_level);
    if (ret != QNM_API_SUCCESS) return ret;
    int err = run_with_units();
    qnm::store(qnm_root.er_init_flag, 1U);
    qnm::store(qnm_root.er_start_flag, 1U);
    const int internal = qnm::load(internal_err);
    if (internal != 0) {
        qnm_log_info("%s: Internal err is detected. internal_err=%d", k_init_name, internal);
        err = internal;
        qnm::store(internal_err, 0);
    }
    ret = qnm_err2retcode(err);
    qnm_syslog_info("QNM LFI stopped");
    qnm_log_info("%s: (OUT) ret=%d", k_init_name, ret);
    return ret;
}

}  // namespace

extern "C" {

qnm_api_code_t qnm_init_manager(const char* path, qnm_log_level_t log_level) {
    // Held until the return, so that no second start overlaps the end of this run.
    uint32_t idle = 1;
    if (qnm::load(qnm_root.er_init_flag) == 0 ||
        !std::atomic_ref<uint32_t>(qnm_initializing_flag).compare_exchange_strong(idle, 0)) {
        _qnm_stats_count_call(QNM_STATS_INIT_MANAGER, QNM_API_EBUSY);
        return QNM_API_EBUSY;
    }
    const qnm_api_code_t ret = run(path, log_level);
    qnm::store(qnm_initializing_flag, 1U);
    return ret;
}

qnm_api_code_t qnm_start_manager(void) {
    qnm_log_info("%s: (IN)", __func__);
    qnm::public_call call(__func__, QNM_STATS_START_MANAGER);
    const int err = call.check();
    if (err == 0) qnm::store(qnm_root.er_start_flag, 0U);
    return call.end(err);
}

qnm_api_code_t qnm_fini_manager(void) {
    qnm_log_info("%s: (IN)", __func__);
    qnm::public_call call(__func__, QNM_STATS_FINI_MANAGER, qnm::needs::nothing);
    qnm::store(qnm_root.er_fini_flag, 0U);
    return call.end(0);
}

}  // extern "C"
