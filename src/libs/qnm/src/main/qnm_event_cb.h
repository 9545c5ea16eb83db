// qnm_event_cb.h - the event queue, the event thread and the callback tables.
#pragma once

#include <cstdint>

#include "qnm.h"

extern "C" {

// 0, or EPROTO with everything undone.
int _qnm_event_cb_init(void);

// Drops what is still queued and every registration; all handles become invalid. Always 0. The
// event thread must have ended.
int _qnm_event_cb_fini(void);

// Queues one event and wakes the event thread: 0, or ENOMEM when it is lost for lack of memory or
// because too many are waiting. type must be valid.
int _qnm_add_event(qnm_evt_type_t event_type, uint64_t id);

// Queues one event for a producer that holds the table lock. A lost event is logged as a warning
// under the name func. The event thread is woken later, by _qnm_signal_events().
void _qnm_raise_event(const char* func, qnm_evt_type_t event_type, uint64_t id);

// How many events the calling thread has raised since it last woke the event thread.
uint32_t _qnm_unsignalled_events(void);

// Wakes the event thread if the calling thread has raised events. Call it with no lock held.
void _qnm_signal_events(void);

// Wakes the event thread without an event, for the stop.
void _qnm_event_cb_wake(void);

// Thread entry; arg is not used.
void* _qnm_event_task(void* arg);

}  // extern "C"
