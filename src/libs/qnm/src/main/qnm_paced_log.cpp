// qnm_paced_log.cpp - lines that frames can cause, one a second of each kind.
//
// One mutex guards the records. It is held for single steps; lines are written without it.

#include "qnm_paced_log.h"

#include <iterator>

#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

constexpr uint64_t k_second_ms = 1000;

using write_t = void (*)(const char* fmt, ...);

struct line_row {
    write_t write;
    const char* text;
};

constexpr line_row k_rows[] = {
    {qnm_log_warn, "Too many cards."},
    {qnm_log_warn, "Failed to look a card up."},
    {qnm_log_error, "Failed to add a card."},
    {qnm_log_error, "Failed to update a card."},
    {qnm_log_warn, "Failed to _qnm_rbtree_put()."},
    {qnm_log_warn, "Unknown ignore_state."},
    {qnm_log_warn, "Invalid config parameter. update_evt_mask"},
    {qnm_log_warn, "Failed to _qnm_create_reg_lock_node(). Drop DEVINFO Frame."},
    {qnm_log_warn, "Failed to _write_reg_create()."},
    {qnm_log_warn, "Failed to _qnm_rbtree_put()."},
    {qnm_log_warn, "Failed to _write_reg_node_alloc()"},
    {qnm_log_warn, "Failed to _qnm_mutex_init()"},
    {qnm_log_warn, "Invalid tag."},
    {qnm_log_warn, "Too many events are waiting."},
    {qnm_log_error, "can't alloc memory for qnm_evt_node_t"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_NEWDEVINFO)"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_UPDATEDEVINFO)"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_CONNECTIONCHANGE)"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_MAJORMINORERROR)"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_PATHSTATECHANGE)"},
    {qnm_log_warn, "Failed to _qnm_add_event(QNM_EVT_CHANNELSTATECHANGE)"},
};
static_assert(std::size(k_rows) == QNM_PACED_MAX);

struct line_record {
    uint64_t since;  // when a line was last written, on the monotonic clock; 0 = never
    uint32_t count;  // not written since
    const char* func;
};

qnm_mutex_t paced_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PACED);
line_record records[QNM_PACED_MAX] QNM_GUARDED_BY(paced_mutex);

// What is reported of a row.
struct report {
    uint32_t count;
    uint64_t time;
    const char* func;
};

report take_report(line_record& record, uint64_t now) QNM_REQUIRES(paced_mutex) {
    const report due = {record.count, now - record.since, record.func};
    record.since = now;
    record.count = 0;
    return due;
}

void write_count(qnm_paced_line_t line, const report& due) {
    const line_row& row = k_rows[line];
    row.write("%s: %u more in the last %lu ms: %s", due.func, due.count, due.time, row.text);
}

// Reports the rows whose count has waited long enough.
void write_counts(uint64_t waited_ms) {
    const uint64_t now = _qnm_get_msec_monotonic();
    for (int line = 0; line < QNM_PACED_MAX; line++) {
        report due = {};
        {
            const qnm::mutex_guard lock(paced_mutex);
            line_record& record = records[line];
            if (record.count != 0 && now - record.since >= waited_ms) {
                due = take_report(record, now);
            }
        }
        if (due.count != 0) write_count(static_cast<qnm_paced_line_t>(line), due);
    }
}

}  // namespace

extern "C" {

int _qnm_paced_init(void) {
    const qnm::mutex_guard lock(paced_mutex);
    for (line_record& record : records)
        record = {};
    return 0;
}

int _qnm_paced_fini(void) {
    write_counts(0);
    return 0;
}

int _qnm_paced_may_write(qnm_paced_line_t line, const char* func) {
    const uint64_t now = _qnm_get_msec_monotonic();
    report due;
    {
        const qnm::mutex_guard lock(paced_mutex);
        line_record& record = records[line];
        const bool over = record.since == 0 || now - record.since >= k_second_ms;
        if (over && record.count == 0) {
            record.since = now;
            return 1;
        }
        record.count++;
        record.func = func;
        if (!over) return 0;
        due = take_report(record, now);
    }
    write_count(line, due);
    return 0;
}

void _qnm_paced_report(void) {
    write_counts(k_second_ms);
}

}  // extern "C"
