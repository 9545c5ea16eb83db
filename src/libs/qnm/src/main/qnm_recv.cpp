// qnm_recv.cpp - the receive threads: from the wire to the unit that a frame is for.
//
// Each open port has a thread that polls its capture and its terminate pipe. At the debug and trace
// levels, whose lines show each step, it takes one frame per wake-up; otherwise up to 64 waiting
// frames, with a check of the stop flag between them. A frame that qnm_frame_check refuses is
// traced and dropped. Other frames are dispatched by subtype and counted when their work is done. A
// failure of the port or of the poll set stops the whole manager; a link that is down does not.

#include "qnm_recv.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "qnm.h"
#include "qnm_completion.h"
#include "qnm_config.h"
#include "qnm_counters.h"
#include "qnm_event_cb.h"
#include "qnm_frame.h"
#include "qnm_frame_check.h"
#include "qnm_log4cxxif.h"
#include "qnm_recv_devinfo.h"
#include "qnm_root.h"
#include "qnm_util.h"

// Absent if libpcap is replaced by a part of it; frames are then taken one by one.
#pragma weak pcap_dispatch
#pragma weak pcap_breakloop

namespace {

using qnm::host32;
using qnm::view;

constexpr int k_poll_ms = 1000;
constexpr size_t k_drain_size = 128;
constexpr int k_batch_max = 64;  // frames between two polls
constexpr uint32_t k_unsignalled_max =
    64;  // the event thread is woken after this many events at the latest
constexpr char k_loop_name[] = "_qnm_recv_lin";

// ---- One frame ----------------------------------------------------------------------------------

void take_devinfo(int port, const unsigned char* frame, uint8_t vlan_mode) {
    _qnm_recv_devinfo(port, frame, vlan_mode);
}

// Whether a Completion is for this host. Cards answer to the address of the port that asked, and a
// switch that does not know where that address is floods the frame. So it may be for another
// manager, which uses the same tags. A multicast address, or none, may be meant for any host.
bool _check_destination(int port, const uint8_t (&dmac)[6]) {
    uint64_t destination = 0;
    _qnm_mac_to_uint64(dmac, &destination);
    const bool is_group = (dmac[0] & 1) != 0;
    if (is_group || destination == 0 || destination == qnm_root.er_port_info[port].epi_mac) {
        return true;
    }
    qnm_log_trace(
        "%s: Completion frame is received which is addressed to another port. dst=0x%.12lx, "
        "port_num=%d",
        __func__, destination, port);
    return false;
}

void take_completion(int port, const unsigned char* frame, uint8_t) {
    const qnw_completion_s& message = view<qnw_completion_s>(frame);
    if (!_check_destination(port, message.header.dmac)) return;
    uint64_t src_mac = 0;
    _qnm_mac_to_uint64(message.header.smac, &src_mac);
    _qnm_recv_comp(message.comp.tag, port, src_mac, host32(message.comp.data));
}

// How a message is handled, by its subtype.
struct subtype_row {
    uint8_t subtype;
    void (*take)(int port, const unsigned char* frame, uint8_t vlan_mode);
    qnm_stats_type_t counter;
};

constexpr subtype_row k_subtypes[] = {
    {qnm::k_devinfo, take_devinfo, QNM_STATS_R_DEV},
    {qnm::k_notify, take_devinfo, QNM_STATS_R_NOTI},
    {qnm::k_devinfo_40g, take_devinfo, QNM_STATS_R_DEV40},
    {qnm::k_notify_40g, take_devinfo, QNM_STATS_R_NOTI40},
    {qnm::k_completion, take_completion, QNM_STATS_R_COMP},
};

void _dispatch_frame(int port, const unsigned char* frame, const qnm_frame_verdict_t& verdict) {
    const auto* const row =
        std::ranges::find(k_subtypes, verdict.kind->subtype, &subtype_row::subtype);
    if (row == std::end(k_subtypes)) {
        qnm_log_trace("%s: Unknown frame is received. subtype=%.2X", __func__,
                      verdict.kind->subtype);
        return;
    }
    qnm_log_trace("%s: %s is received.", __func__, verdict.kind->label);
    row->take(port, frame, verdict.layout->vlan_mode);
    _qnm_stats_count_frame(port, row->counter);
    _qnm_stats_count_frame(port, QNM_STATS_R_TOTAL);
}

// The text is formatted only if it is written: a flood of such frames must cost little.
void trace_dropped(const qnm_frame_verdict_t& verdict) {
    if (qnm::load(g_log_level) < QNM_LOGLVL_TRACE) return;
    char text[QNM_FRAME_TEXT_SIZE];
    _qnm_frame_reason_text(&verdict, text);
    qnm_log_trace("_check_frame: %s", text);
}

void take_frame(const char* func, int port, const unsigned char* frame, size_t length) {
    if (qnm::load(qnm_root.er_start_flag) == 1) {
        qnm_log_trace("%s: Drop packet because start flag is not set. port_num=%d", func, port);
        return;
    }
    const qnm_frame_bytes_t bytes = {frame, length, length};
    const qnm_frame_verdict_t verdict = _qnm_check_frame(&bytes, qnm_config.ether_type);
    if (verdict.reason == QNM_FRAME_TAKEN) {
        _dispatch_frame(port, frame, verdict);
    } else {
        trace_dropped(verdict);
    }
}

// The readable length of a frame: the captured part, if that is less than was on the wire. A port
// that was opened with a small MTU captures no more than that MTU.
size_t captured_length(const struct pcap_pkthdr& header) {
    return header.caplen != 0 && header.caplen < header.len ? header.caplen : header.len;
}

int recv_frame(const char* func, int port) {
    const unsigned char* frame = nullptr;
    size_t length = 0;
    const int err = _qnm_recv_pcap(qnm_root.er_port_info[port].epi_pcap, &frame, &length);
    if (err == EPROTO) {
        qnm_log_error("%s: Failed to _qnm_recv_pcap(). port_num=%d", func, port);
        return -1;
    }
    if (err == ETIMEDOUT) {
        qnm_log_debug("%s: _qnm_recv_pcap() returned ETIMEDOUT. port_num=%d", func, port);
        return 0;
    }
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_recv_pcap(). err=%d, port_num=%d", func, err, port);
        return 0;
    }
    take_frame(func, port, frame, length);
    return 0;
}

// ---- Frames that wait ---------------------------------------------------------------------------

bool takes_batches() {
    return qnm::load(g_log_level) < QNM_LOGLVL_DEBUG && pcap_dispatch != nullptr &&
           pcap_breakloop != nullptr;
}

bool is_stopping(int port) {
    struct pollfd pipe = {qnm_terminate_fd_recv[port][0], POLLIN, 0};
    return !qnm::is_running() || poll(&pipe, 1, 0) != 0;
}

void take_from_batch(unsigned char* arg, const struct pcap_pkthdr* header,
                     const unsigned char* frame) {
    const int port = *reinterpret_cast<const int*>(arg);
    take_frame("_qnm_recv_frame", port, frame, captured_length(*header));
    if (_qnm_unsignalled_events() >= k_unsignalled_max) _qnm_signal_events();
    if (is_stopping(port)) pcap_breakloop(qnm_root.er_port_info[port].epi_pcap);
}

// Takes frames until none is waiting. Call it when one is waiting. 0, or -1 when the port failed.
int _qnm_recv_batch(int port) {
    pcap_t* const pcap = qnm_root.er_port_info[port].epi_pcap;
    const int taken =
        pcap_dispatch(pcap, k_batch_max, take_from_batch, reinterpret_cast<unsigned char*>(&port));
    if (taken != PCAP_ERROR) return 0;
    qnm_log_fatal("%s: Failed to pcap_dispatch().", __func__);
    return -1;
}

// ---- Receive loop -------------------------------------------------------------------------------

// Handles a pending socket error on the capture: harmless when the interface is down, else fatal. A
// thread that sends by the same socket may have taken the error since the poll; then nothing is
// pending, and waiting for it would never end.
bool take_socket_error(int port, const struct pollfd& capture) {
    char buffer[k_drain_size];
    const unsigned revents = static_cast<unsigned>(capture.revents);
    errno = 0;
    const ssize_t got = recv(capture.fd, buffer, sizeof buffer, MSG_DONTWAIT);
    const int error = errno;
    if (got == -1 && error == EAGAIN) {
        qnm_log_debug(
            "%s: POLLERR event has occurred (in receive wait), but its error is gone. "
            "port_num=%d, revents=0x%x",
            k_loop_name, port, revents);
        return true;
    }
    if (got == -1) {
        qnm_log_error("%s: Failed to recv(). err=%d, errno=%d, port_num=%d", k_loop_name,
                      static_cast<int>(got), error, port);
    }
    if (error == ENETDOWN) {
        qnm_log_info(
            "%s: POLLERR event has occurred (in receive wait). Because interface is not up. "
            "port_num=%d, revents=0x%x",
            k_loop_name, port, revents);
        return true;
    }
    qnm_log_fatal("%s: POLLERR event has occurred (in receive wait). port_num=%d, revents=0x%x",
                  k_loop_name, port, revents);
    return false;
}

// Handles what the poll found on the capture; false on a fatal error, which is logged.
bool serve_capture(int port, const struct pollfd& capture) {
    if ((capture.revents & (POLLHUP | POLLNVAL)) != 0) {
        qnm_log_fatal(
            "%s: poll error event has occurred (in receive wait). port_num=%d, revents=0x%x",
            k_loop_name, port, static_cast<unsigned>(capture.revents));
        return false;
    }
    if ((capture.revents & POLLERR) != 0) return take_socket_error(port, capture);
    if ((capture.revents & POLLIN) == 0) return true;
    qnm_log_trace("%s: poll() catch POLLIN. port_num=%d", k_loop_name, port);
    if ((takes_batches() ? _qnm_recv_batch(port) : _qnm_recv_frame(port)) != 0) {
        qnm_log_fatal("%s: Failed to _qnm_recv_frame(). port_num=%d", k_loop_name, port);
        return false;
    }
    return true;
}

// The poll set of the receive loop, and the number of single frames since it last woke the event
// thread.
struct waiting {
    struct pollfd fds[2];
    int frames = 0;
};

// The event thread need not be woken while more frames are waiting, up to a limit. After a batch
// the limit is reached, or no frame is waiting.
bool may_tell_later(waiting& wait) {
    const uint32_t events = _qnm_unsignalled_events();
    return !takes_batches() && events != 0 && events < k_unsignalled_max &&
           ++wait.frames < k_batch_max;
}

// Waits for the next frame. Before it sleeps, it wakes the event thread for the events raised so
// far.
int wait_for_frame(waiting& wait) {
    if (may_tell_later(wait)) {
        const int ready = poll(wait.fds, 2, 0);
        if (ready != 0) return ready;
    }
    wait.frames = 0;
    _qnm_signal_events();
    return poll(wait.fds, 2, k_poll_ms);
}

// One round of the loop; false when the thread must end.
bool receive_once(int port, waiting& wait) {
    const int ready = wait_for_frame(wait);
    if (ready == -1) {
        qnm_log_fatal("%s: poll() returned -1. errno=%d, port_num=%d", k_loop_name, errno, port);
        _qnm_fini_manager();
        return false;
    }
    if (ready == 0) {
        qnm_log_trace("%s: poll() returned 0(Timeout). port_num=%d", k_loop_name, port);
    }
    if (_qnm_terminate_event_check(k_loop_name, &wait.fds[1], k_drain_size, port) != 0)
        return false;
    if (serve_capture(port, wait.fds[0])) return true;
    _qnm_fini_manager();
    return false;
}

}  // namespace

extern "C" {

void* _qnm_recv_task(void* arg) {
    const int port = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    const qnm_port_info_t& info = qnm_root.er_port_info[port];
    qnm_log_info("%s: start. if_index=%d, mac=%.12lx", __func__, info.epi_if_index, info.epi_mac);
    _qnm_recv_lin(port);
    qnm_log_info("%s: end. if_index=%d, mac=%.12lx", __func__, info.epi_if_index, info.epi_mac);
    return nullptr;
}

void _qnm_recv_lin(int port) {
    const int capture = pcap_get_selectable_fd(qnm_root.er_port_info[port].epi_pcap);
    if (capture == -1) {
        // poll() ignores a negative descriptor: the port would seem open but receive nothing.
        qnm_log_fatal("%s: Failed to pcap_get_selectable_fd(). port_num=%d", __func__, port);
        _qnm_fini_manager();
        return;
    }
    waiting wait = {{{capture, POLLIN, 0}, {qnm_terminate_fd_recv[port][0], POLLIN, 0}}};
    while (qnm::is_running() && receive_once(port, wait)) {
    }
}

int _qnm_recv_frame(int port) {
    qnm_log_trace("%s: start. port_num=%d, ret=%d", __func__, port, 0);
    const int ret = recv_frame(__func__, port);
    qnm_log_trace("%s: end. port_num=%d, ret=%d", __func__, port, ret);
    return ret;
}

int _qnm_recv_pcap(pcap_t* handle, const unsigned char** data_out, size_t* length_out) {
    struct pcap_pkthdr* header = nullptr;
    const int ret = pcap_next_ex(handle, &header, data_out);
    switch (ret) {
        case 1:
            *length_out = captured_length(*header);
            return 0;
        case 0:
            return ETIMEDOUT;
        case -1:
            qnm_log_fatal("%s: Failed to pcap_next_ex().", __func__);
            return EPROTO;
        default:
            qnm_log_error("%s: Failed to pcap_next_ex(). err = %d", __func__, ret);
            return EPROTO;
    }
}

}  // extern "C"
