// qnm_filter.cpp - keeps frames that are not for this library out of the ports' captures.
//
// A capture sees every frame of its interface, and foreign traffic would push announcements out of
// its buffer. So the kernel is given a filter that lets in what can pass the checks of the receive
// path: frames of the configured Ethernet type in either arrangement of the tag. It keeps out
// frames that a manager on this host sends by the port, because libpcap delivers those as well.
//
// The kernel takes the tag off a frame and stores it separately; libpcap puts it back. The filter
// runs in between, so in the ordinary arrangement it mostly sees the Ethernet type in place of the
// tag.
//
// At the trace level every dropped frame is logged, so no filter is set then. The unit has no
// state: the log level alone decides what is attached.

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

// Offsets of the fields that the filter reads: the type without a tag and after one, and the source
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

// The last two operands of a jump: instructions to skip if equal, and if not.
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

// With one of these Ethernet types the offsets above would not hold.
bool is_tag_type(uint16_t ether_type) {
    return ether_type == qnm::k_vlan_tpid || ether_type == ETH_P_8021AD;
}

bool is_filtered(qnm_log_level_t level) {
    return level < QNM_LOGLVL_TRACE && !is_tag_type(qnm_config.ether_type);
}

// Applies one log level to one capture.
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

// Several threads may change the level at the same time. A thread that finds another level than the
// one it has just applied applies that too, so the last change wins.
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
