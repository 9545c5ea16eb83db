// Sends and receives frames by one raw packet socket per port.
//
// The kernel takes the 802.1Q tag out of every received frame and hands it over beside the data
// (PACKET_AUXDATA); receive() puts it back. A send that the device's queue refuses is repeated for
// a while, so that a burst loses nothing; a link that is down is reported at once instead.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "cardsim.h"

namespace cardsim {

namespace {

constexpr std::uint32_t full_queue_retries = 2000;
constexpr auto full_queue_pause = std::chrono::milliseconds(1);
constexpr int receive_buffer_bytes = 4 << 20;
constexpr std::size_t largest_frame = 65536;
constexpr std::size_t tag_size = 4;

std::string interface_names() {
    std::string names;
    struct if_nameindex* list = if_nameindex();
    if (list == nullptr) return names;
    for (const auto* entry = list; entry->if_index != 0; ++entry) {
        names += (names.empty() ? "" : ", ") + std::string(entry->if_name);
    }
    if_freenameindex(list);
    return names;
}

std::string program_path() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "PROGRAM";
}

[[noreturn]] void fail(const std::string& what, int code) {
    throw error(what + ": " + std::strerror(code));
}

tools::descriptor open_socket() {
    // Protocol 0 receives nothing until the socket is bound, so no frame of another interface
    // slips in between.
    tools::descriptor result(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    if (result.fd >= 0) return result;
    const int code = errno;
    if (code != EPERM && code != EACCES) fail("cannot open a raw socket", code);
    throw error(
        "no privilege for raw sockets (CAP_NET_RAW): run as root, or give the program the "
        "capability once with: sudo setcap cap_net_raw+ep " +
        program_path());
}

template <class Value>
void set_option(int fd, int level, int option, const Value& value, const char* what) {
    if (setsockopt(fd, level, option, &value, sizeof value) != 0) fail(what, errno);
}

void bind_socket(int fd, unsigned index, const std::string& name) {
    set_option(fd, SOL_PACKET, PACKET_AUXDATA, 1, "cannot ask for VLAN tags");
    set_option(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1, "cannot leave own frames out");
    set_option(fd, SOL_SOCKET, SO_RCVBUF, receive_buffer_bytes, "cannot set the receive buffer");

    // The cards' addresses are not the interface's own.
    packet_mreq membership{};
    membership.mr_ifindex = static_cast<int>(index);
    membership.mr_type = PACKET_MR_PROMISC;
    set_option(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, membership, "cannot set promiscuous mode");

    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(index);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("cannot bind to interface \"" + name + "\"", errno);
    }
}

const tpacket_auxdata* find_auxdata(msghdr& header) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            return reinterpret_cast<const tpacket_auxdata*>(CMSG_DATA(c));
        }
    }
    return nullptr;
}

void put_tag_back(frame_bytes& frame, const tpacket_auxdata& aux) {
    constexpr std::ptrdiff_t behind_addresses = 12;
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0 || frame.size() < behind_addresses) return;
    const bool has_tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0;
    const std::uint16_t tpid = has_tpid ? aux.tp_vlan_tpid : std::uint16_t{ETH_P_8021Q};
    const std::uint16_t tci = aux.tp_vlan_tci;
    const std::uint8_t tag[tag_size] = {
        static_cast<std::uint8_t>(tpid >> 8), static_cast<std::uint8_t>(tpid & 0xFF),
        static_cast<std::uint8_t>(tci >> 8), static_cast<std::uint8_t>(tci & 0xFF)};
    frame.insert(frame.begin() + behind_addresses, std::begin(tag), std::end(tag));
}

bool queue_full(int code) {
    return code == ENOBUFS || code == EAGAIN;
}

send_status status_of(int code) {
    if (code == ENETDOWN) return send_status::link_down;
    return queue_full(code) ? send_status::no_room : send_status::failed;
}

}  // namespace

link::link(const std::string& interface_name) : name_(interface_name), buffer_(largest_frame) {
    const unsigned index = if_nametoindex(interface_name.c_str());
    if (index == 0) {
        throw error("no interface \"" + interface_name + "\"; there are: " + interface_names());
    }
    fd_ = open_socket();
    bind_socket(fd_.fd, index, interface_name);
}

// Without carrier the kernel takes frames and throws them away, without an error.
bool link::running() const {
    ifreq query{};
    name_.copy(query.ifr_name, sizeof query.ifr_name - 1);
    if (ioctl(fd_.fd, SIOCGIFFLAGS, &query) != 0) return true;  // interface gone: send() reports it
    return (query.ifr_flags & IFF_RUNNING) != 0;
}

send_report link::send(frame_view frame) {
    send_report report;
    while (running()) {
        if (::send(fd_.fd, frame.data(), frame.size(), MSG_DONTWAIT) >= 0) {
            report.status = send_status::sent;
            return report;
        }
        report.code = errno;
        report.status = status_of(report.code);
        if (report.code == EINTR) continue;
        if (!queue_full(report.code) || report.retries == full_queue_retries) return report;
        ++report.retries;
        std::this_thread::sleep_for(full_queue_pause);
    }
    report.status = send_status::link_down;
    report.code = ENETDOWN;
    return report;
}

std::optional<frame_bytes> link::receive() {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    iovec part{buffer_.data(), buffer_.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    // An error here means that the link went down or the interface is gone. This call clears the
    // error, and frames come again when the link is back.
    const ssize_t length = recvmsg(fd_.fd, &header, MSG_DONTWAIT);
    if (length < 0) return std::nullopt;
    frame_bytes frame;
    frame.reserve(static_cast<std::size_t>(length) + tag_size);
    frame.assign(buffer_.begin(), buffer_.begin() + length);
    if (const tpacket_auxdata* aux = find_auxdata(header)) put_tag_back(frame, *aux);
    return frame;
}

port open_port(const std::string& interface_name) {
    const auto opened = std::make_shared<link>(interface_name);
    return {.name = interface_name,
            .send = [opened](frame_view frame) { return opened->send(frame); },
            .receive = [opened] { return opened->receive(); },
            .fd = opened->fd()};
}

}  // namespace cardsim
