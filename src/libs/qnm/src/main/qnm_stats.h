// qnm_stats.h - the statistics thread and the status dump.
#pragma once

extern "C" {

int _qnm_stats_init(void);
int _qnm_stats_fini(void);

// The statistics thread: a dump at its start, every stats_interval and at the stop.
void* _qnm_stats_task(void* arg);

// Wakes the statistics thread for a dump. Always 0.
int _qnm_stats_write(void);

}  // extern "C"
