// qnm_counters.cpp - the counters and their mutex.

#include "qnm_counters.h"

qnm_mutex_t qnm_stats_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_STATS);
qnm_sd_stats_t qnm_stats;

extern "C" {

void _qnm_stats_count_frame(int port, qnm_stats_type_t type) {
    qnm::count(port == 0 ? &qnm_stats.est_stats_p0[type] : &qnm_stats.est_stats_p1[type]);
}

void _qnm_stats_count_call(qnm_stats_func_t func, qnm_api_code_t ret) {
    qnm::count(&qnm_stats.est_api_code[ret]);
    qnm::count(&qnm_stats.est_func_code[func][ret]);
}

}  // extern "C"
