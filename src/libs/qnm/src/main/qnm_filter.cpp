// qnm_filter.cpp - keeps frames that are not for this library out of the ports' captures.
//
// A capture sees every frame of its interface, and foreign traffic would push announcements out of
// its buffer. So the kernel is given a filter that lets in what can pass the checks of the receive
// path: frames of the configured Ethernet type in either arrangement of the tag. Frames that a
// manager on this host sends by the port are kept out too, for libpcap delivers them as well.
//
// The kernel takes the tag off a frame and keeps it beside, where libpcap finds it and puts it
// back. The filter runs in between: of a frame in the ordinary arrangement it mostly sees the
// Ethernet type where the tag used to be.
//
// The trace level shows every frame that is dropped, so there is no filter then. The unit has no
// state: what is attached follows from the log level alone.

#include "qnm_filter.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <pcap/pcap.h>
#include <sys/socket.h>

#include <cerrno>
#include <iterator>

#include "qnm.h"
#include "qnm_config.h"
#include "qnm_frame.h"
#include "qnm_log4cxxif.h"
#include "qnm_root.h"
#include "qnm_thread.h"

namespace {

// Where the filter finds the fields of a frame: the type without and behind a tag, and the source
// address in two parts.
constexpr uint32_t k_type = 12;
constexpr uint32_t k_type_behind_tag = 16;
constexpr uint32_t k_source_high = 6;
constexpr uint32_t k_source_low = 10;
constexpr uint32_t k_packet_type = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);

constexpr uint32_t k_take_all = 0x40000;  // bytes; the capture cuts by itself
constexpr uint32_t k_drop = 0;

constexpr uint16_t k_load_16 = BPF_LD | BPF_H | BPF_ABS;
constexpr uint16_t k_load_32 = BPF_LD | BPF_W | BPF_ABS;
constexpr uint16_t k_if_equal = BPF_JMP | BPF_JEQ | BPF_K;
constexpr uint16_t k_return = BPF_RET | BPF_K;

// A jump names how many instructions it passes over: where equal, and where not.
int attach(int fd, uint16_t ether_type, uint64_t own_mac) {
    struct sock_filter code[] = {
        BPF_STMT(k_load_16, k_type),
        BPF_JUMP(k_if_equal, ether_type, 3, 0),        // to the packet type
        BPF_JUMP(k_if_equal, qnm::k_vlan_tpid, 0, 9),  // else drop
        BPF_STMT(k_load_16, k_type_behind_tag),
        BPF_JUMP(k_if_equal, ether_type, 0, 7),  // else drop
        BPF_STMT(k_load_32, k_packet_type),
        BPF_JUMP(k_if_equal, PACKET_OUTGOING, 0, 4),  // else take
        BPF_STMT(k_load_32, k_source_high),
        BPF_JUMP(k_if_equal, static_cast<uint32_t>(own_mac >> 16), 0, 2),  // else take
        BPF_STMT(k_load_16, k_source_low),
        BPF_JUMP(k_if_equal, static_cast<uint32_t>(own_mac & 0xFFFF), 1, 0),  // drop
        BPF_STMT(k_return, k_take_all),
        BPF_STMT(k_return, k_drop),
    };
    const struct sock_fprog program = {std::size(code), code};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

int detach(int fd) {
    const int unused = 0;
    return setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
}

// A frame of this type says in other words what the filter has to look at.
bool is_tag_type(uint16_t ether_type) {
    return ether_type == qnm::k_vlan_tpid || ether_type == ETH_P_8021AD;
}

bool is_filtered(qnm_log_level_t level) {
    return level < QNM_LOGLVL_TRACE && !is_tag_type(qnm_config.ether_type);
}

// One level in force on one capture.
void set_filter(const char* func, const qnm_port_info_t& port_info, qnm_log_level_t level) {
    const int fd = pcap_fileno(port_info.epi_pcap);
    if (is_filtered(level)) {
        if (attach(fd, qnm_config.ether_type, port_info.epi_mac) == 0) return;
        qnm_log_warn("%s: Failed to setsockopt(SO_ATTACH_FILTER). errno=%d, if_index=%d", func,
                     errno, port_info.epi_if_index);
        return;
    }
    if (detach(fd) == 0 || errno == ENOENT) return;  // there was none
    qnm_log_warn("%s: Failed to setsockopt(SO_DETACH_FILTER). errno=%d, if_index=%d", func, errno,
                 port_info.epi_if_index);
}

}  // namespace

extern "C" {

// Threads may change the level at the same time: whoever finds another one in force than it has
// just applied applies that as well, so that the last one holds.
void _qnm_filter_port(const qnm_port_info_t* port_info) {
    qnm_log_level_t applied = QNM_LOGLVL_NONE;
    do {
        applied = qnm::load(g_log_level);
        set_filter(__func__, *port_info, applied);
    } while (qnm::load(g_log_level) != applied);
}

void _qnm_filter_ports(void) {
    for (const qnm_port_info_t& port_info : qnm_root.er_port_info) {
        if (port_info.epi_pcap != nullptr) _qnm_filter_port(&port_info);
    }
}

}  // extern "C"
