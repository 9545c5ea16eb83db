// qnm_counters.h - what the library counts: frames, events, results of public calls, memory.
//
// Every counter is raised by its owner under qnm_stats_mutex, one lock per increment. That mutex is
// innermost: nothing else is locked while it is held.
#pragma once

#include <cstdint>

#include "qnm.h"
#include "qnm_export.h"
#include "qnm_thread.h"

// Frames by kind, received and sent; index into est_stats_p0 and est_stats_p1.
typedef enum qnm_stats_type {
    QNM_STATS_R_TOTAL,
    QNM_STATS_R_DEV,
    QNM_STATS_R_DEV40,
    QNM_STATS_R_NOTI,
    QNM_STATS_R_NOTI40,
    QNM_STATS_R_COMP,
    QNM_STATS_T_TOTAL,
    QNM_STATS_T_VLANSET,
    QNM_STATS_T_REGR,
    QNM_STATS_T_REGW,
    QNM_STATS_T_RESET,
    QNM_STATS_T_MMS,
    QNM_STATS_TYPE_MAX
} qnm_stats_type_t;

// Public calls; first index of est_func_code.
typedef enum qnm_stats_func {
    QNM_STATS_GET_QNSVIDS,
    QNM_STATS_GET_UPDATE_QNSVIDS,
    QNM_STATS_GET_GROUP_QNSVIDS,
    QNM_STATS_GET_QNIOIDS,
    QNM_STATS_GET_UPDATE_QNIOIDS,
    QNM_STATS_GET_GROUP_QNIOIDS,
    QNM_STATS_GET_QNSV,
    QNM_STATS_GET_QNIO,
    QNM_STATS_DELETE_QNSV,
    QNM_STATS_DELETE_QNIO,
    QNM_STATS_SET_VLANID,
    QNM_STATS_SEND_RESETFRAME,
    QNM_STATS_WRITE_MMSPAGE,
    QNM_STATS_READ_REGISTER,
    QNM_STATS_WRITE_REGISTER,
    QNM_STATS_MODIFY_REGISTER,
    QNM_STATS_DUMP_REGISTER,
    QNM_STATS_READ_EEPROM,
    QNM_STATS_WRITE_EEPROM,
    QNM_STATS_DUMP_EEPROM,
    QNM_STATS_UNLOCK_EEPROM,
    QNM_STATS_STOP_MONITOR,
    QNM_STATS_RESTART_MONITOR,
    QNM_STATS_REGISTER_CALLBACK,
    QNM_STATS_UNREGISTER_CALLBACK,
    QNM_STATS_FREE_IDLIST,
    QNM_STATS_SET_LOGLEVEL,
    QNM_STATS_INIT_MANAGER,
    QNM_STATS_START_MANAGER,
    QNM_STATS_FINI_MANAGER,
    QNM_STATS_STDUMP,
    QNM_STATS_FUNC_MAX
} qnm_stats_func_t;

typedef struct qnm_sd_stats {
    uint64_t est_stats_p0[QNM_STATS_TYPE_MAX];
    uint64_t est_stats_p1[QNM_STATS_TYPE_MAX];
    uint64_t est_api_code[QNM_API_CODE_MAX];
    uint64_t est_func_code[QNM_STATS_FUNC_MAX][QNM_API_CODE_MAX];
    uint64_t est_evt[QNM_EVT_MAX];
    uint32_t est_alloc_err;
    uint32_t est_sv_node_al;
    uint32_t est_sv_node_fr;
    uint32_t est_io_node_al;
    uint32_t est_io_node_fr;
    uint32_t est_bl_node_al;
    uint32_t est_bl_node_fr;
    uint32_t est_evt_node_al;
    uint32_t est_evt_node_fr;
    uint32_t est_wreg_node_al;
    uint32_t est_wreg_node_fr;
    uint32_t est_idlist_al;
    uint32_t est_idlist_fr;
    uint32_t est_cbinfo_al;
    uint32_t est_cbinfo_fr;
    uint32_t est_addrs_al;  // nothing counts these two; their row of the dump stays
    uint32_t est_addrs_fr;
    uint32_t est_cb_call;
    uint32_t est_cb_return;
    uint32_t est_port0_down_total;
    uint32_t est_port1_down_total;
} qnm_sd_stats_t;

extern "C" {

extern QNM_EXPORTED qnm_mutex_t qnm_stats_mutex;
extern QNM_EXPORTED qnm_sd_stats_t qnm_stats QNM_GUARDED_BY(qnm_stats_mutex);

// Counts one frame of a port.
void _qnm_stats_count_frame(int port, qnm_stats_type_t type);

// Counts the result of a public call, in total and per call.
void _qnm_stats_count_call(qnm_stats_func_t func, qnm_api_code_t ret);

}  // extern "C"

namespace qnm {

// Raises a counter of qnm_stats by one.
template <typename Counter>
void count(Counter* counter) {
    const mutex_guard lock(qnm_stats_mutex);
    (*counter)++;
}

}  // namespace qnm
