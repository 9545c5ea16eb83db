// qnm_api.h - the shape that all public calls share, the device commands and the log level.
#pragma once

#include <cerrno>

#include "qnm.h"
#include "qnm_log4cxxif.h"
#include "qnm_main.h"
#include "qnm_stats.h"
#include "qnm_thread.h"
#include "qnm_util.h"

extern "C" {

// Sets the running log level during start-up, from the configuration for QNM_LOGLVL_NONE.
void _qnm_set_loglevel(qnm_log_level_t log_level);

// Enters a public call: non-zero when the manager is usable, and then it stays so far alive that
// no unit is finished before _qnm_leave_call().
int _qnm_enter_call(void);
void _qnm_leave_call(void);

// Returns when every call that has been entered has been left; none is entered any more once a stop
// has been requested.
void _qnm_wait_calls(void);

}  // extern "C"

namespace qnm {

// The stay of a thread inside a public call.
class call_guard {
  public:
    call_guard() : entered_(_qnm_enter_call() != 0) {}
    ~call_guard() {
        if (entered_) _qnm_leave_call();
    }
    call_guard(const call_guard&) = delete;
    call_guard& operator=(const call_guard&) = delete;
    bool entered() const { return entered_; }

  private:
    const bool entered_;
};

enum class needs { running_manager, nothing };

// A public call: entry line, usable test, the call's own work, exit line, two counters. body
// returns an errno-style code, which becomes the result here and nowhere else; log_exit is told
// the result.
template <typename Entry, typename Body, typename Exit>
qnm_api_code_t public_call(qnm_stats_func_t func, needs need, Entry log_entry, Body body,
                           Exit log_exit) {
    // Entry lines are of level info. What they are made of is not put into words for nothing.
    if (load(g_log_level) >= QNM_LOGLVL_INFO) log_entry();
    const call_guard call;
    const int err = need == needs::nothing || call.entered() ? body() : ENOSYS;
    const qnm_api_code_t ret = qnm_err2retcode(err);
    log_exit(ret);
    _qnm_stats_count_call(func, ret);
    return ret;
}

// The most common lines: "(IN)" without arguments, and "(OUT)" with the result alone.
template <typename Body>
qnm_api_code_t public_call(qnm_stats_func_t func, needs need, const char* name, Body body) {
    return public_call(
        func, need, [=] { qnm_log_info("%s: (IN)", name); }, body,
        [=](qnm_api_code_t ret) { qnm_log_info("%s: (OUT) ret=%d", name, ret); });
}

}  // namespace qnm
