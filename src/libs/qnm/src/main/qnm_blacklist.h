// qnm_blacklist.h - the IDs whose monitoring is stopped.
#pragma once

#include <cstdint>

#include "qnm.h"
#include "qnm_thread.h"

extern "C" {

int _qnm_blacklist_init(void);
int _qnm_blacklist_fini(void);

// The blacklist lock; taken after the device-table lock where both are held. Both return 0.
int _qnm_lock_blacklist(void);
int _qnm_unlock_blacklist(void);

// With the blacklist lock held: stores 1 when the ID is listed, else 0. Always 0.
int _qnm_get_monitor_state(uint64_t id, uint32_t* state);

// The blacklist section of the status dump.
void _qnm_bl_stats_print(void);

}  // extern "C"

namespace qnm {

using blacklist_guard = scoped<_qnm_lock_blacklist, _qnm_unlock_blacklist>;

}  // namespace qnm
