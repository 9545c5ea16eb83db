// qnm_keepalive.h - disconnects paths: those that are silent, and those of a port that went down.
#pragma once

#include "qnm_qn_info.h"

extern "C" {

// The keepalive loop; returns 0 when a stop has been requested. Takes the device-table lock itself.
int _qnm_interval_check(void) QNM_EXCLUDES(qnm_qn.eei_mutex);

// Disconnects every card on a local port whose link has gone down. The lock is held on return as on
// entry, but released for a moment after every 64 cards that are reported.
void _qnm_all_disconnect(int port) QNM_REQUIRES(qnm_qn.eei_mutex);

}  // extern "C"
