// qnm_api.cpp - the log level, and the count of calls under way.
//
// A stop waits for the calls that are inside the library, so that nothing is taken down under them.

#include "qnm_api.h"

#include "qnm_config.h"
#include "qnm_log4cxxif.h"
#include "qnm_util.h"

namespace {

uint32_t calls_inside;

qnm_log_level_t effective_level(qnm_log_level_t log_level) {
    if (log_level != QNM_LOGLVL_NONE) return log_level;
    return static_cast<qnm_log_level_t>(qnm_config.log_level);
}

}  // namespace

extern "C" {

void _qnm_set_loglevel(qnm_log_level_t log_level) {
    qnm::store(g_log_level, effective_level(log_level));
}

int _qnm_enter_call(void) {
    if (!qnm::is_usable()) return 0;
    std::atomic_ref<uint32_t>(calls_inside)++;
    // A stop may have come between, and no longer have seen this call.
    if (qnm::is_usable()) return 1;
    _qnm_leave_call();
    return 0;
}

void _qnm_leave_call(void) {
    std::atomic_ref<uint32_t>(calls_inside)--;
}

void _qnm_wait_calls(void) {
    while (qnm::load(calls_inside) != 0)
        _qnm_msleep(1);
}

qnm_api_code_t qnm_set_loglevel(qnm_log_level_t log_level) {
    const char* const name = __func__;
    return qnm::public_call(
        QNM_STATS_SET_LOGLEVEL, qnm::needs::running_manager,
        [=] { qnm_log_info("%s: (IN) log_level=%d", name, log_level); },
        [=] {
            if (log_level < QNM_LOGLVL_NONE || log_level > QNM_LOGLVL_TRACE) return EINVAL;
            qnm_log_info("%s: Set loglevel. old=%d, new=%d", name, qnm::load(g_log_level),
                         effective_level(log_level));
            _qnm_set_loglevel(log_level);
            return 0;
        },
        [=](qnm_api_code_t ret) {
            qnm_log_info("%s: (OUT) ret=%d, g_log_level=%d", name, ret, qnm::load(g_log_level));
        });
}

}  // extern "C"
