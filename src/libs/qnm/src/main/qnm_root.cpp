// qnm_root.cpp - the root record, and how worker threads learn of a stop.
//
// A stop is requested by er_fini_flag alone. Threads that sleep in poll() are woken through their
// terminate pipes, those that wait for something else look at the flag between slices of time.

#include "qnm_root.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "qnm.h"
#include "qnm_util.h"

qnm_root_info_t qnm_root = {{}, 1, 1, 1};
int internal_err = 0;
int qnm_terminate_fd_recv[2][2] = {{-1, -1}, {-1, -1}};
int qnm_terminate_fd_link[2] = {-1, -1};

namespace {

constexpr size_t k_drain_max = 4096;
constexpr uint32_t k_sleep_slice_ms = 100;

}  // namespace

extern "C" {

void _qnm_fini_manager(void) {
    qnm_log_fatal("%s: LFI will terminate by reason of internal error.", __func__);
    // In this order, so that whoever sees the stop also sees its reason.
    qnm::store(internal_err, EPROTO);
    qnm::store(qnm_root.er_fini_flag, 0U);
}

void _qnm_terminate_event_set(void) {
    for (const int fd :
         {qnm_terminate_fd_recv[0][1], qnm_terminate_fd_recv[1][1], qnm_terminate_fd_link[1]}) {
        // A full pipe is readable already, which is all that is wanted.
        [[maybe_unused]] const ssize_t written = write(fd, "a", 1);
    }
}

void _qnm_sleep_while_running(uint32_t ms) {
    while (ms != 0 && qnm::is_running()) {
        const uint32_t slice = std::min(ms, k_sleep_slice_ms);
        _qnm_msleep(slice);
        ms -= slice;
    }
}

int _qnm_terminate_event_check(const char* func, const struct pollfd* pipe, size_t drain,
                               int port) {
    char buffer[k_drain_max];
    char where[32] = "";
    if (port != -1) snprintf(where, sizeof where, "port_num=%d", port);
    const char* const comma = port != -1 ? ", " : "";
    if ((pipe->revents & (POLLHUP | POLLNVAL)) != 0) {
        qnm_log_fatal(
            "%s: poll error event has occurred (in terminate event wait). %s%srevents=0x%x", func,
            where, comma, static_cast<unsigned>(pipe->revents));
        _qnm_fini_manager();
        return 1;
    }
    if ((pipe->revents & POLLERR) != 0) {
        const ssize_t got = read(pipe->fd, buffer, drain);
        if (got == -1) {
            qnm_log_error("%s: Failed to read(). err=%d, errno=%d%s%s", func, static_cast<int>(got),
                          errno, comma, where);
        }
        qnm_log_fatal("%s: POLLERR event has occurred (in terminate event wait). %s%srevents=0x%x",
                      func, where, comma, static_cast<unsigned>(pipe->revents));
        _qnm_fini_manager();
        return 1;
    }
    if ((pipe->revents & POLLIN) == 0) return 0;
    qnm_log_info("%s: poll() catch terminate-event.%s%s", func, port != -1 ? " " : "", where);
    [[maybe_unused]] const ssize_t got = read(pipe->fd, buffer, drain);
    return 1;
}

}  // extern "C"
