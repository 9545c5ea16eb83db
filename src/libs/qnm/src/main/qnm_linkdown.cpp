// qnm_linkdown.cpp - follows the link state of the ports.
//
// The kernel's link notifications, received on a routing netlink socket, serve only as a wake-up:
// they are not parsed, the state is read from the interfaces. So two changes that cancel each other
// out before the read are not seen, and the kernel may drop notifications when there are too many.
// When a port goes down, every card on it is disconnected at once, under the table lock,
// without waiting for the keepalive check. A port whose interface is gone, renamed or replaced is
// down. Failures of the socket, the poll set or the pipe stop the manager; when a query fails, only
// that port is skipped.

#include "qnm_linkdown.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "qnm.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_event_cb.h"
#include "qnm_keepalive.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "qnm_socket.h"

namespace {

constexpr int k_poll_ms = 1000;
constexpr size_t k_buffer_size = 4096;
constexpr char k_name[] = "_qnm_watch_linkstate_lin";

const char* state_word(uint32_t state) {
    return state == 1 ? "UP" : "DOWN";
}

// Whether the port's name no longer leads to the interface that was opened. Only the watcher uses
// it.
bool g_lost[2];

// The state of an open port as cards see it. Its capture is bound to one interface for good; while
// the port's name leads to no interface or to another one, the port is down, whatever the other's
// link says.
int look_at_port(const char* func, int port, uint32_t* state_out) {
    bool present = false;
    const int err = _qnm_find_interface(port, &present);
    if (err != 0) return err;
    const bool was_lost = std::exchange(g_lost[port], !present);
    if (present) return _qnm_get_linkstate(port, state_out);
    *state_out = 0;
    if (!was_lost) {
        qnm_log_error(
            "%s: %s is no longer the interface that was opened as QNM port%d (if_index=%d): that "
            "was removed or renamed. The port counts as down. Restart the manager to open it anew.",
            func, qnm_config.ether_port_name[port], port, qnm_root.er_port_info[port].epi_if_index);
    }
    return 0;
}

void _qnm_link_state_update(int port) {
    qnm_port_info_t& info = qnm_root.er_port_info[port];
    uint32_t state = 0;
    if (info.epi_pcap == nullptr || look_at_port(__func__, port, &state) != 0) return;
    const uint32_t old_state = qnm::load(info.epi_link_state);
    if (state == old_state) return;
    qnm_log_info("%s: State of QNM port%d changed. mac=%.12lx, if_index=%d (%s->%s)", __func__,
                 port, info.epi_mac, info.epi_if_index, state_word(old_state), state_word(state));
    qnm_syslog_info("State of QNM port%d changed. mac=%.12lx, if_index=%d (%s->%s)", port,
                    info.epi_mac, info.epi_if_index, state_word(old_state), state_word(state));
    qnm::store(info.epi_link_state, state);
    if (state == 1) return;
    qnm::count(port == 0 ? &qnm_stats.est_port0_down_total : &qnm_stats.est_port1_down_total);
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(port);
    }
    _qnm_signal_events();
}

void update_ports() {
    _qnm_link_state_update(0);
    if (qnm_config.use_port_num_linux >= 2) _qnm_link_state_update(1);
}

// Takes the notification off the socket. False on a fatal error, which is logged.
bool take_notification(const struct pollfd& netlink) {
    char buffer[k_buffer_size];
    const unsigned revents = static_cast<unsigned>(netlink.revents);
    if ((revents & (POLLHUP | POLLNVAL)) != 0) {
        qnm_log_fatal("%s: poll error event has occurred (in link state check wait). revents=0x%x",
                      k_name, revents);
        return false;
    }
    const ssize_t got = recv(netlink.fd, buffer, sizeof buffer, 0);
    if ((revents & POLLERR) != 0) {
        if (got == -1) {
            qnm_log_error("%s: Failed to recv(). revent is POLLERR. err=%d, errno=%d, revents=0x%x",
                          k_name, static_cast<int>(got), errno, revents);
        }
        qnm_log_fatal("%s: POLLERR event has occurred (in link state check wait). revents=0x%x",
                      k_name, revents);
        return false;
    }
    if (got == -1) {
        qnm_log_fatal("%s: Failed to recv(). revent is POLLIN. err=%d, errno=%d, revents=0x%x",
                      k_name, static_cast<int>(got), errno, revents);
        return false;
    }
    return true;
}

// One round of the loop; false when the watcher must end.
bool watch_once(struct pollfd (&fds)[2]) {
    if (poll(fds, 2, k_poll_ms) == -1) {
        qnm_log_fatal("%s: poll() returned -1. errno=%d", k_name, errno);
        _qnm_fini_manager();
        return false;
    }
    if (_qnm_terminate_event_check(k_name, &fds[1], k_buffer_size, -1) != 0) return false;
    if (fds[0].revents == 0) return true;
    if (!take_notification(fds[0])) {
        _qnm_fini_manager();
        return false;
    }
    update_ports();
    return true;
}

// When too many interfaces change at once, the kernel drops notifications and would report an
// error. A drop does no harm: the rest of the queue is read afterwards, and each read checks the
// ports.
void overlook_overruns(int fd) {
    const int on = 1;
    if (setsockopt(fd, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on) != 0) {
        qnm_log_warn("%s: Failed to setsockopt(NETLINK_NO_ENOBUFS). errno=%d", k_name, errno);
    }
}

// A socket that receives the link notifications; -1 on failure, which is logged.
int open_netlink() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd == -1) {
        qnm_log_fatal("%s: Failed to socket(). errno=%d", k_name, errno);
        _qnm_fini_manager();
        return -1;
    }
    overlook_overruns(fd);
    struct sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
        qnm_log_fatal("%s: Failed to bind(). errno=%d", k_name, errno);
        _qnm_fini_manager();
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

extern "C" {

void* _qnm_watch_linkstate(void*) {
    qnm_log_info("%s: start.", __func__);
    _qnm_watch_linkstate_lin();
    qnm_log_info("%s: end.", __func__);
    return nullptr;
}

void _qnm_watch_linkstate_lin(void) {
    const int netlink = open_netlink();
    if (netlink == -1) return;
    // Changes since the ports were opened came before the socket existed.
    g_lost[0] = g_lost[1] = false;
    if (qnm::is_running()) update_ports();
    struct pollfd fds[2] = {{netlink, POLLIN, 0}, {qnm_terminate_fd_link[0], POLLIN, 0}};
    while (qnm::is_running() && watch_once(fds)) {
    }
    close(netlink);
}

}  // extern "C"
