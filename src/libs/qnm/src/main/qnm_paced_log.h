// qnm_paced_log.h - lines that frames can cause, so often as frames come.
//
// Each such line has a row here. The first one is written as it is; what follows within a second is
// counted, and then one line a second tells how many there were. So a flood of frames is no flood
// of lines, and a single failure looks as it always did.
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

// Forgets what was counted; tells what is left. Both return 0.
int _qnm_paced_init(void);
int _qnm_paced_fini(void);

// Whether the line of that row is to be written now: non-zero, and the caller writes it; 0, and it
// is counted. func, which must last, names the line that tells the count. From any thread, with any
// lock held but that of the statistics.
int _qnm_paced_may_write(qnm_paced_line_t line, const char* func);

// Tells of every row what a second has passed over; for a loop that comes by regularly, as a flood
// that ends leaves nobody else to do it.
void _qnm_paced_tell(void);

}  // extern "C"
