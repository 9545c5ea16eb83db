// units.h - starts units of the library without a manager, for unit tests.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "alloc.h"
#include "fail.h"
#include "log_capture.h"
#include "qnm_blacklist.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_event_cb.h"
#include "qnm_log4cxxif.h"
#include "qnm_paced_log.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "qnm_stats.h"
#include "qnm_write_lock.h"

constexpr int k_fatal = 0, k_error = 1, k_warn = 2, k_info = 3, k_debug = 4, k_trace = 5;

inline void set_flags(uint32_t init, uint32_t start, uint32_t fini) {
    qnm::store(qnm_root.er_init_flag, init);
    qnm::store(qnm_root.er_start_flag, start);
    qnm::store(qnm_root.er_fini_flag, fini);
}

inline void set_running() {
    set_flags(0, 0, 1);
}

// The tables, the blacklist, the events and the write locks, ready for use, with every line logged
// and the wall clock standing at a round value.
struct units : testing::Test {
    static constexpr uint64_t k_now = 1'700'000'000'000;  // ms

    fail::guard guard;
    log_capture logs;

    units() {
        qnm::store(g_log_level, QNM_LOGLVL_TRACE);
        _qnm_config_init();
        _qnm_paced_init();
        _qnm_stats_init();
        _qnm_qn_init();
        _qnm_blacklist_init();
        _qnm_event_cb_init();
        _qnm_reg_init();
        set_running();
        set_now(k_now);
        logs.clear();
    }

    ~units() override {
        _qnm_destroy_all_reg_lock_node();
        _qnm_event_cb_fini();
        _qnm_blacklist_fini();
        _qnm_qn_fini();
        EXPECT_EQ(qnm_stats.est_sv_node_al, qnm_stats.est_sv_node_fr);
        EXPECT_EQ(qnm_stats.est_io_node_al, qnm_stats.est_io_node_fr);
        EXPECT_EQ(qnm_stats.est_bl_node_al, qnm_stats.est_bl_node_fr);
        EXPECT_EQ(qnm_stats.est_evt_node_al, qnm_stats.est_evt_node_fr);
        EXPECT_EQ(qnm_stats.est_wreg_node_al, qnm_stats.est_wreg_node_fr);
        EXPECT_EQ(qnm_stats.est_cbinfo_al, qnm_stats.est_cbinfo_fr);
        _qnm_stats_fini();
        set_flags(1, 1, 1);
        qnm::store(internal_err, 0);
        qnm::store(g_log_level, QNM_LOGLVL_INFO);
    }

    static void set_now(uint64_t ms) { fail::set_wall_clock(std::chrono::milliseconds(ms)); }

    // How often a call has ended with a result: in total and under its own counter.
    static void expect_counted(qnm_stats_func_t func, qnm_api_code_t ret, uint64_t times = 1) {
        EXPECT_EQ(qnm_stats.est_func_code[func][ret], times);
        EXPECT_GE(qnm_stats.est_api_code[ret], times);
    }
};
