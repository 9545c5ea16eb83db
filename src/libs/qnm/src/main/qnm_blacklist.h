// qnm_blacklist.h - the IDs whose monitoring is stopped.
#pragma once

#include <cstdint>

#include "qnm.h"
#include "qnm_thread.h"

namespace qnm {

inline constexpr lock_name blacklist_lock{};

}  // namespace qnm

extern "C" {

int _qnm_blacklist_init(void);
int _qnm_blacklist_fini(void);

// The blacklist lock; taken after the device-table lock where both are held. Both return 0.
int _qnm_lock_blacklist(void) QNM_ACQUIRE(qnm::blacklist_lock);
int _qnm_unlock_blacklist(void) QNM_RELEASE(qnm::blacklist_lock);

// With the blacklist lock held: stores 1 when the ID is listed, else 0. Always 0.
int _qnm_get_monitor_state(uint64_t id, uint32_t* state) QNM_REQUIRES(qnm::blacklist_lock);

// The blacklist section of the status dump.
void _qnm_bl_stats_print(void);

}  // extern "C"

namespace qnm {

// Holds the blacklist lock for a scope.
class QNM_SCOPED_CAPABILITY blacklist_guard {
  public:
    blacklist_guard() QNM_ACQUIRE(blacklist_lock) { _qnm_lock_blacklist(); }
    ~blacklist_guard() QNM_RELEASE() { _qnm_unlock_blacklist(); }
    blacklist_guard(const blacklist_guard&) = delete;
    blacklist_guard& operator=(const blacklist_guard&) = delete;
};

}  // namespace qnm
