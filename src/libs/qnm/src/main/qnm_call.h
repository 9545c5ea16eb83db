// qnm_call.h - what all public calls share: entering and leaving the library, the result, the exit
// line, the statistics.
#pragma once

#include <cerrno>
#include <cstdint>

#include "qnm.h"
#include "qnm_counters.h"

extern "C" {

// Enters a public call: non-zero when the manager is usable, and then no unit is finished before
// _qnm_leave_call().
int _qnm_enter_call(void);
void _qnm_leave_call(void);

// Returns when every call that has been entered has been left. Call it after a stop has been
// requested: no more calls enter then.
void _qnm_wait_calls(void);

}  // extern "C"

namespace qnm {

enum class needs { running_manager, nothing };

// The stay of a thread in a public call:
//
//   qnm_log_info("%s: (IN)", __func__);
//   qnm::public_call call(__func__, QNM_STATS_X);
//   int err = call.check();
//   if (err == 0 && an argument is wrong) err = EINVAL;
//   if (err == 0) err = the work;
//   return call.end(err);
//
// The call is counted by its last result, and left, when the object goes.
class public_call {
  public:
    public_call(const char* name, qnm_stats_func_t func, needs need = needs::running_manager)
        : name_(name),
          func_(func),
          entered_(_qnm_enter_call() != 0),
          served_(entered_ || need == needs::nothing) {}
    ~public_call() {
        _qnm_stats_count_call(func_, ret_);
        if (entered_) _qnm_leave_call();
    }
    public_call(const public_call&) = delete;
    public_call& operator=(const public_call&) = delete;

    // Whether the call may look at its arguments and work: 0, or ENOSYS without a running manager.
    int check() const { return served_ ? 0 : ENOSYS; }

    // The result of an errno-style code.
    qnm_api_code_t result(int err) { return ret_ = qnm_err2retcode(err); }

    // The same with the usual exit line; that of a call on one card has the card's ID.
    qnm_api_code_t end(int err) {
        qnm_log_info("%s: (OUT) ret=%d", name_, result(err));
        return ret_;
    }
    qnm_api_code_t end(int err, uint64_t id) {
        qnm_log_info("%s: (OUT) ret=%d, id=0x%.12lx", name_, result(err), id);
        return ret_;
    }

  private:
    const char* const name_;
    const qnm_stats_func_t func_;
    const bool entered_;
    const bool served_;
    qnm_api_code_t ret_ = QNM_API_SUCCESS;
};

}  // namespace qnm
