// qnm_api.cpp - the log level, set at start-up and by the host program.

#include "qnm_api.h"

#include "qnm_config.h"
#include "qnm_log4cxxif.h"

namespace {

qnm_log_level_t effective_level(qnm_log_level_t log_level) {
    if (log_level != QNM_LOGLVL_NONE) return log_level;
    return static_cast<qnm_log_level_t>(qnm_config.log_level);
}

}  // namespace

extern "C" {

void _qnm_set_loglevel(qnm_log_level_t log_level) {
    qnm::store(g_log_level, effective_level(log_level));
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
