// qnm_root.h - the root record with ports and state flags, and what stops the worker threads.
#pragma once

#include <poll.h>

#include <cstddef>
#include <cstdint>

#include "qnm_export.h"
#include "qnm_thread.h"

typedef struct pcap pcap_t;

typedef struct qnm_port_info {
    uint64_t epi_mac;         // the port's own MAC address, first byte most significant
    uint32_t epi_link_state;  // 1 = up; polled by several threads, use qnm::load and qnm::store
    pcap_t* epi_pcap;         // null while the port is closed
    int epi_if_index;
} qnm_port_info_t;

// The three flags are active low: 0 means that the step has happened. Several threads poll them;
// use qnm::load and qnm::store.
typedef struct qnm_root_info {
    qnm_port_info_t er_port_info[2];
    uint32_t er_init_flag;   // 0 = initialised and running
    uint32_t er_start_flag;  // 0 = qnm_start_manager() has been called
    uint32_t er_fini_flag;   // 0 = a stop has been requested
} qnm_root_info_t;

extern "C" {

extern QNM_EXPORTED qnm_root_info_t qnm_root;

// 0, or the errno-style code of the internal error that ended the manager.
extern QNM_EXPORTED int internal_err;

// One pipe per receive thread and one for the link watcher: [0] is polled, [1] written.
extern QNM_EXPORTED int qnm_terminate_fd_recv[2][2];
extern QNM_EXPORTED int qnm_terminate_fd_link[2];

// Requests the stop because of an internal error. Wakes no thread.
void _qnm_fini_manager(void);

// Wakes the receive threads and the link watcher for the stop.
void _qnm_terminate_event_set(void);

// Sleeps for ms milliseconds, less when a stop is requested meanwhile.
void _qnm_sleep_while_running(uint32_t ms);

// What a poll of the terminate pipe found, for the worker func: non-zero when the worker must end.
// An error on the pipe stops the manager. drain is how much to read; port is named in the log
// lines unless it is -1.
int _qnm_terminate_event_check(const char* func, const struct pollfd* pipe, size_t drain, int port);

}  // extern "C"

namespace qnm {

// Whether public calls are served: start-up is complete and no stop has been requested. The stop
// flag is read first: a new start clears it only after er_init_flag, so a thread that is held up
// between the two reads during a whole restart is not let in.
inline bool is_usable() {
    return load(qnm_root.er_fini_flag) != 0 && load(qnm_root.er_init_flag) != 1;
}

// Whether the workers go on.
inline bool is_running() {
    return load(qnm_root.er_fini_flag) == 1;
}

}  // namespace qnm
