// qnm_socket.cpp - the local Ethernet ports, through libpcap.
//
// libpcap opens a TPACKET_V3 ring, which hands frames over only when a block is full or the read
// time-out has passed: an answer then takes up to a second. So the handle is replaced, if libpcap
// can do that, by one in immediate mode, with a buffer large enough for a burst of announcements.
// Everything else the port needs is queried from the kernel through the capture's own socket.

#include "qnm_socket.h"

#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qnm.h"
#include "qnm_config.h"
#include "qnm_filter.h"
#include "qnm_frame.h"
#include "qnm_root.h"
#include "qnm_thread.h"
#include "qnm_util.h"

// Absent from old versions of libpcap; the port then keeps the handle it has.
#pragma weak pcap_create
#pragma weak pcap_set_snaplen
#pragma weak pcap_set_promisc
#pragma weak pcap_set_timeout
#pragma weak pcap_set_immediate_mode
#pragma weak pcap_set_buffer_size
#pragma weak pcap_activate

namespace {

constexpr int k_snaplen = 1024;
// A longer message would be captured only in part, and always be dropped.
static_assert(std::max({sizeof(qnw_devinfo_server_s), sizeof(qnw_devinfo_server_40g_s),
                        sizeof(qnw_devinfo_io_s), sizeof(qnw_devinfo_mrio_s),
                        sizeof(qnw_completion_s)}) <= k_snaplen);
constexpr int k_promiscuous = 1;
constexpr int k_read_timeout_ms = 1000;
constexpr int k_buffer_size = 16 * 1024 * 1024;
constexpr int k_send_timeout_ms = 1000;

bool delivers_in_blocks(pcap_t* pcap) {
    int version = 0;
    socklen_t length = sizeof version;
    return getsockopt(pcap_fileno(pcap), SOL_PACKET, PACKET_VERSION, &version, &length) == 0 &&
           version == TPACKET_V3;
}

bool can_choose_mode() {
    return pcap_create != nullptr && pcap_set_snaplen != nullptr && pcap_set_promisc != nullptr &&
           pcap_set_timeout != nullptr && pcap_set_immediate_mode != nullptr &&
           pcap_set_buffer_size != nullptr && pcap_activate != nullptr;
}

// Called at once: another thread may execute a program at any moment.
void close_on_exec(pcap_t* pcap) {
    const int fd = pcap_fileno(pcap);
    if (fd != -1) _qnm_close_on_exec(fd);
}

// A handle on the same interface that delivers every frame at once; null when there is none.
pcap_t* open_immediate(const char* port_name) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const pcap = pcap_create(port_name, error);
    if (pcap == nullptr) return nullptr;
    if (pcap_set_snaplen(pcap, k_snaplen) == 0 && pcap_set_promisc(pcap, k_promiscuous) == 0 &&
        pcap_set_timeout(pcap, k_read_timeout_ms) == 0 && pcap_set_immediate_mode(pcap, 1) == 0 &&
        pcap_set_buffer_size(pcap, k_buffer_size) == 0 &&
        pcap_activate(pcap) >= 0) {  // above 0 is a warning
        close_on_exec(pcap);
        return pcap;
    }
    pcap_close(pcap);
    return nullptr;
}

pcap_t* without_delay(pcap_t* pcap, const char* port_name) {
    if (!can_choose_mode() || !delivers_in_blocks(pcap)) return pcap;
    pcap_t* const immediate = open_immediate(port_name);
    if (immediate == nullptr) return pcap;
    pcap_close(pcap);
    return immediate;
}

// An interface request for a name; false when the name does not fit.
bool fill_request(const char* port_name, struct ifreq* request) {
    const size_t length = strlen(port_name);
    memset(request, 0, sizeof *request);
    if (length >= IFNAMSIZ) return false;
    memcpy(request->ifr_name, port_name, length);
    return true;
}

// The same with a log line: 0 or EPROTO.
int make_request(const char* func, const char* port_name, const char* purpose,
                 struct ifreq* request) {
    if (fill_request(port_name, request)) return 0;
    qnm_log_error("%s: port_name is greater than IFNAMSIZ. port_name=%s. For getting %s", func,
                  port_name, purpose);
    return EPROTO;
}

// Queries the link of the interface that the request names: 0, or the error number.
int query_link(int fd, struct ifreq request, uint32_t* state_out) {
    struct ethtool_value link = {ETHTOOL_GLINK, 0};
    request.ifr_data = reinterpret_cast<char*>(&link);
    if (ioctl(fd, SIOCETHTOOL, &request) != 0) return errno;
    *state_out = link.data != 0 ? 1 : 0;
    return 0;
}

int _qnm_get_linkstate_lin_impl(int fd, const char* port_name, uint32_t* state_out) {
    struct ifreq request;
    int err = make_request(__func__, port_name, "link state", &request);
    if (err != 0) return err;
    err = query_link(fd, request, state_out);
    if (err != 0) {
        qnm_log_error("%s: Failed to ioctl(SIOCETHTOOL). errno=%d", __func__, err);
        return EPROTO;
    }
    return 0;
}

// Queries whether the interface that the request names is the one opened as this port: 0, or the
// error number. That there is no interface of that name is an answer, not an error.
int query_presence(int fd, const qnm_port_info_t& port_info, struct ifreq* request,
                   bool* present_out) {
    if (ioctl(fd, SIOCGIFINDEX, request) != 0) {
        const int err = errno;
        *present_out = false;
        return err == ENODEV ? 0 : err;
    }
    *present_out = request->ifr_ifindex == port_info.epi_if_index;
    return 0;
}

// The descriptor of a port's capture; -1 when there is none.
int capture_of(int port) {
    pcap_t* const pcap = qnm_root.er_port_info[port].epi_pcap;
    return pcap != nullptr ? pcap_fileno(pcap) : -1;
}

// A port that its peer has paused, or whose queue is stuck, must not block callers, and with them
// the stop. A send that has to wait longer than this for room in the buffer fails.
void limit_sending(const char* func, int fd) {
    constexpr struct timeval k_timeout = {k_send_timeout_ms / 1000, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &k_timeout, sizeof k_timeout) != 0) {
        qnm_log_warn("%s: Failed to setsockopt(SO_SNDTIMEO). errno=%d", func, errno);
    }
}

// Fills the entry of a port whose capture handle is open. Log lines carry the opener's name.
int learn_port(const char* func, const char* port_name, qnm_port_info_t* port_info) {
    const int fd = pcap_fileno(port_info->epi_pcap);
    if (fd == -1) {
        qnm_log_error("%s: Failed to pcap_fileno().", func);
        return EPROTO;
    }
    limit_sending(func, fd);
    struct ifreq request;
    int err = make_request(func, port_name, "interface index.", &request);
    if (err != 0) return err;
    if (ioctl(fd, SIOCGIFINDEX, &request) != 0) {
        qnm_log_error("%s: Failed to ioctl(SIOCGIFINDEX). errno=%d", func, errno);
        return EPROTO;
    }
    port_info->epi_if_index = request.ifr_ifindex;
    if (ioctl(fd, SIOCGIFHWADDR, &request) != 0) {
        qnm_log_error("%s: Failed to ioctl(SIOCGIFHWADDR). errno=%d", func, errno);
        return EPROTO;
    }
    uint8_t mac[6];
    memcpy(mac, request.ifr_hwaddr.sa_data, sizeof mac);
    _qnm_mac_to_uint64(mac, &port_info->epi_mac);
    uint32_t state = 0;
    err = _qnm_get_linkstate_lin_impl(fd, port_name, &state);
    if (err != 0) return err;
    qnm::store(port_info->epi_link_state, state);
    return 0;
}

// With a time-out, a signal with a handler ends a wait for room, whatever the handler's flags are.
// The frame has not been sent then, and is tried again until the time is over.
bool send_frame(pcap_t* pcap, const unsigned char* buffer, int length) {
    for (uint64_t deadline = 0;;) {
        errno = 0;
        if (pcap_sendpacket(pcap, buffer, length) == 0) return true;
        if (errno != EINTR) return false;
        const uint64_t now = _qnm_get_msec_monotonic();
        if (deadline == 0) deadline = now + k_send_timeout_ms;
        if (now >= deadline) return false;
    }
}

}  // namespace

extern "C" {

int _qnm_socket_open(const char* port_name, uint32_t, qnm_port_info_t* port_info) {
    return _qnm_socket_open_lin(port_name, port_info);
}

int _qnm_socket_open_lin(const char* port_name, qnm_port_info_t* port_info) {
    qnm::store(port_info->epi_link_state, 0U);
    char error[PCAP_ERRBUF_SIZE] = "";
    pcap_t* const pcap =
        pcap_open_live(port_name, k_snaplen, k_promiscuous, k_read_timeout_ms, error);
    if (pcap == nullptr) {
        qnm_log_error("%s: Failed to pcap_open_live(). %s", __func__, error);
        return EPROTO;
    }
    close_on_exec(pcap);
    port_info->epi_pcap = without_delay(pcap, port_name);
    const int err = learn_port(__func__, port_name, port_info);
    if (err != 0) {
        _qnm_socket_close(port_info);
        return err;
    }
    _qnm_filter_port(port_info);
    qnm_log_info("%s: Success. IF name=%s, IF index=%d, IF status=%d, IF MAC=%.12lx", __func__,
                 port_name, port_info->epi_if_index,
                 static_cast<int>(qnm::load(port_info->epi_link_state)), port_info->epi_mac);
    return 0;
}

int _qnm_socket_close(qnm_port_info_t* port_info) {
    if (port_info->epi_pcap != nullptr) {
        pcap_close(port_info->epi_pcap);
        port_info->epi_pcap = nullptr;
    }
    return 0;
}

int _qnm_send(int port, const unsigned char* buffer, size_t length) {
    pcap_t* const pcap = qnm_root.er_port_info[port].epi_pcap;
    if (pcap == nullptr || !send_frame(pcap, buffer, static_cast<int>(length))) {
        qnm_log_error("%s: Failed to pcap_sendpacket().", __func__);
        return EPROTO;
    }
    return 0;
}

int _qnm_get_linkstate(int port, uint32_t* state_out) {
    return _qnm_get_linkstate_lin(port, state_out);
}

int _qnm_get_linkstate_lin(int port, uint32_t* state_out) {
    const int fd = capture_of(port);
    if (fd == -1) {
        qnm_log_error("%s: Failed to pcap_fileno().", __func__);
        return EPROTO;
    }
    return _qnm_get_linkstate_lin_impl(fd, qnm_config.ether_port_name[port], state_out);
}

int _qnm_find_interface(int port, bool* present_out) {
    struct ifreq request;
    int err =
        make_request(__func__, qnm_config.ether_port_name[port], "interface index.", &request);
    if (err != 0) return err;
    err = query_presence(capture_of(port), qnm_root.er_port_info[port], &request, present_out);
    if (err != 0) {
        qnm_log_error("%s: Failed to ioctl(SIOCGIFINDEX). errno=%d", __func__, err);
        return EPROTO;
    }
    return 0;
}

bool _qnm_is_port_down(int port) {
    const int fd = capture_of(port);
    if (fd == -1) return false;
    struct ifreq request;
    bool present = false;
    uint32_t state = 0;
    const bool is_up = fill_request(qnm_config.ether_port_name[port], &request) &&
                       query_presence(fd, qnm_root.er_port_info[port], &request, &present) == 0 &&
                       present && query_link(fd, request, &state) == 0 && state == 1;
    return !is_up;
}

}  // extern "C"
