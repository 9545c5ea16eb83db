// qnm_paced_log.h - limits the log lines that frames can cause.
//
// Each such line has a row here. The first one is written as it is; further ones within a second
// are counted, and one line a second says how many there were. So a flood of frames is not a flood
// of lines, and a single failure is logged unchanged.
#pragma once

#include "qnm.h"

typedef enum qnm_paced_line {
    QNM_PACED_CARD_REFUSED,
    QNM_PACED_CARD_NOT_READ,
    QNM_PACED_CARD_NOT_ADDED,
    QNM_PACED_CARD_NOT_UPDATED,
    QNM_PACED_CARD_NOT_PUT,
    QNM_PACED_IGNORE_STATE,
    QNM_PACED_EVT_MASK,
    QNM_PACED_NO_WRITE_LOCK,
    QNM_PACED_LOCK_NOT_CREATED,
    QNM_PACED_LOCK_NOT_PUT,
    QNM_PACED_LOCK_MEMORY,
    QNM_PACED_LOCK_MUTEX,
    QNM_PACED_TAG,
    QNM_PACED_EVENT_REFUSED,
    QNM_PACED_EVENT_MEMORY,
    QNM_PACED_EVENT_LOST,  // a row for each event type
    QNM_PACED_MAX = QNM_PACED_EVENT_LOST + QNM_EVT_MAX
} qnm_paced_line_t;

extern "C" {

// Init forgets all counts; fini reports what is left. Both return 0.
int _qnm_paced_init(void);
int _qnm_paced_fini(void);

// Whether the caller may write the line of that row now: non-zero, or 0 when it has been counted
// instead. func names the function in the line that reports the count; it must stay valid. Any
// thread, with any lock held but that of the statistics.
int _qnm_paced_may_write(qnm_paced_line_t line, const char* func);

// Reports every row that has been counting for a second. Called regularly by a loop, because after
// a flood no further line would trigger it.
void _qnm_paced_report(void);

}  // extern "C"
