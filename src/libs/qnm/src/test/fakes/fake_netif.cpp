// fake_netif.cpp - network interfaces and link notifications for the code under test; see
// fake_netif.h.

#include "fake_netif.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/ethtool.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "fake_pcap.h"
#include "wait.h"

namespace fake_netif {
namespace {

struct netlink_t {
    int fd;    // the library's end; it closes it
    int peer;  // our end, which sees that close
    bool bound;
    bool no_enobufs;
};

std::mutex g_mutex;  // guards all below
std::map<std::string, interface_t> g_interfaces;
std::map<unsigned long, int> g_request_failures;
std::vector<netlink_t> g_netlinks;
std::optional<int> g_packet_version;
std::set<std::string> g_filtered;                          // interfaces whose capture has a filter
std::map<int, std::chrono::microseconds> g_send_timeouts;  // by the capture's descriptor
fanout g_fanout = fanout::none;
std::map<int, int> g_packet_sockets;  // the interface by the descriptor; 0 = not bound

const pid_t k_test = getpid();  // that of children, too

int failed(int err) {
    errno = err;
    return -1;
}

// ---- ioctl: one function per request; each needs the mutex and returns 0 or an error number
// ------

using answer_t = int (*)(const interface_t& netif, struct ifreq& req);

int answer_index(const interface_t& netif, struct ifreq& req) {
    req.ifr_ifindex = netif.index;
    return 0;
}

int answer_hwaddr(const interface_t& netif, struct ifreq& req) {
    constexpr unsigned short k_ethernet = 1;
    std::memset(&req.ifr_hwaddr, 0, sizeof req.ifr_hwaddr);
    req.ifr_hwaddr.sa_family = k_ethernet;
    for (int i = 0; i < 6; i++) {
        req.ifr_hwaddr.sa_data[i] = static_cast<char>(netif.mac >> (40 - 8 * i));
    }
    return 0;
}

int answer_ethtool(const interface_t& netif, struct ifreq& req) {
    auto* value = reinterpret_cast<struct ethtool_value*>(req.ifr_data);
    if (value == nullptr || value->cmd != ETHTOOL_GLINK || value->data != 0) {
        ADD_FAILURE() << "ioctl(SIOCETHTOOL): not an ETHTOOL_GLINK whose data starts at 0";
        return EINVAL;
    }
    value->data = netif.link_up ? 1 : 0;
    return 0;
}

struct request_row {
    unsigned long request;
    answer_t answer;
};

constexpr request_row k_requests[] = {
    {SIOCGIFINDEX, answer_index},
    {SIOCGIFHWADDR, answer_hwaddr},
    {SIOCETHTOOL, answer_ethtool},
};

int serve(int fd, unsigned long request, struct ifreq& req) {
    const auto* row = std::find_if(std::begin(k_requests), std::end(k_requests),
                                   [&](const request_row& r) { return r.request == request; });
    if (row == std::end(k_requests)) {
        ADD_FAILURE() << "ioctl: unknown request 0x" << std::hex << request;
        return ENOTTY;
    }
    if (std::memchr(req.ifr_name, '\0', IFNAMSIZ) == nullptr) {
        ADD_FAILURE() << "ioctl: interface name is not terminated";
        return EINVAL;
    }
    const std::string name = req.ifr_name;
    if (fake_pcap::owner_of_fileno(fd) != name) {
        ADD_FAILURE() << "ioctl: descriptor " << fd << " is not the capture descriptor of " << name;
        return EBADF;
    }
    const std::lock_guard lock(g_mutex);
    if (const auto failure = g_request_failures.find(request);
        failure != g_request_failures.end()) {
        return failure->second;
    }
    const auto netif = g_interfaces.find(name);
    return netif == g_interfaces.end() ? ENODEV : row->answer(netif->second, req);
}

// ---- netlink ------------------------------------------------------------------------------------

// Needs the mutex: forgets the sockets that the library has closed.
void drop_closed() {
    std::erase_if(g_netlinks, [](const netlink_t& link) {
        char byte;
        if (recv(link.peer, &byte, 1, MSG_PEEK | MSG_DONTWAIT) != 0) return false;
        close(link.peer);
        return true;
    });
}

}  // namespace

void reset() {
    const std::lock_guard lock(g_mutex);
    g_interfaces.clear();
    g_request_failures.clear();
    for (const netlink_t& link : g_netlinks)
        close(link.peer);
    g_netlinks.clear();
    g_packet_version.reset();
    g_filtered.clear();
    g_send_timeouts.clear();
    g_fanout = fanout::none;
    g_packet_sockets.clear();
}

void set(const std::string& name, const interface_t& netif) {
    const std::lock_guard lock(g_mutex);
    g_interfaces[name] = netif;
}

void set_link(const std::string& name, bool up) {
    const std::lock_guard lock(g_mutex);
    g_interfaces.at(name).link_up = up;
}

void remove(const std::string& name) {
    const std::lock_guard lock(g_mutex);
    g_interfaces.erase(name);
}

void fail_request(unsigned long request, int err) {
    const std::lock_guard lock(g_mutex);
    if (err == 0) {
        g_request_failures.erase(request);
    } else {
        g_request_failures[request] = err;
    }
}

void set_fanout(fanout groups) {
    const std::lock_guard lock(g_mutex);
    g_fanout = groups;
}

void set_packet_version(std::optional<int> version) {
    const std::lock_guard lock(g_mutex);
    g_packet_version = version;
}

bool is_filtered(const std::string& name) {
    const std::lock_guard lock(g_mutex);
    return g_filtered.contains(name);
}

std::chrono::microseconds send_timeout(const std::string& name) {
    const std::lock_guard lock(g_mutex);
    for (const auto& [fd, timeout] : g_send_timeouts) {
        if (fake_pcap::owner_of_fileno(fd) == name) return timeout;
    }
    return std::chrono::microseconds(0);
}

std::size_t patient_listeners() {
    const std::lock_guard lock(g_mutex);
    drop_closed();
    return static_cast<std::size_t>(
        std::count_if(g_netlinks.begin(), g_netlinks.end(),
                      [](const netlink_t& link) { return link.bound && link.no_enobufs; }));
}

void notify() {
    const std::lock_guard lock(g_mutex);
    drop_closed();
    struct nlmsghdr message = {};
    message.nlmsg_len = sizeof message;
    message.nlmsg_type = RTM_NEWLINK;
    for (const netlink_t& link : g_netlinks) {
        if (!link.bound) continue;
        if (send(link.peer, &message, sizeof message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            ADD_FAILURE() << "fake_netif: notification not taken: " << std::strerror(errno);
        }
    }
}

std::size_t listeners() {
    const std::lock_guard lock(g_mutex);
    drop_closed();
    return static_cast<std::size_t>(std::count_if(
        g_netlinks.begin(), g_netlinks.end(), [](const netlink_t& link) { return link.bound; }));
}

bool wait_listener(std::chrono::seconds limit) {
    return wait_until([] { return listeners() != 0; }, limit);
}

// ---- For the faked system calls -----------------------------------------------------------------

int answer_ioctl(int fd, unsigned long request, void* arg) {
    if (arg == nullptr) {
        ADD_FAILURE() << "ioctl: no argument";
        return failed(EFAULT);
    }
    const int err = serve(fd, request, *static_cast<struct ifreq*>(arg));
    return err == 0 ? 0 : failed(err);
}

int answer_netlink_socket(int type, int protocol) {
    constexpr int k_flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    if ((type & ~k_flags) != SOCK_RAW || protocol != NETLINK_ROUTE) {
        ADD_FAILURE() << "socket(AF_NETLINK): type " << type << ", protocol " << protocol;
        return failed(EPROTONOSUPPORT);
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | (type & k_flags), 0, ends) != 0) return -1;
    const std::lock_guard lock(g_mutex);
    drop_closed();
    g_netlinks.push_back({ends[0], ends[1], false, false});
    return ends[0];
}

// A Unix socket in its place, which joins a group by binding a name of the test's own. The kernel
// releases the name as it leaves a group: with the last copy of the descriptor.
int answer_packet_socket(int type, int protocol) {
    constexpr int k_flags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    if (type != (SOCK_RAW | k_flags) || protocol != 0) {
        ADD_FAILURE() << "socket(AF_PACKET): type " << type << ", protocol " << protocol;
        return failed(EPROTONOSUPPORT);
    }
    const std::lock_guard lock(g_mutex);
    if (g_fanout == fanout::none) return failed(EPERM);
    const int fd = socket(AF_UNIX, SOCK_STREAM | k_flags, 0);
    if (fd != -1) g_packet_sockets[fd] = 0;
    return fd;
}

namespace {

// Both need the mutex.
int bind_packet_socket(int fd, const struct sockaddr* addr, socklen_t len) {
    const auto found = g_packet_sockets.find(fd);
    struct sockaddr_ll given = {}, want = {};
    if (found == g_packet_sockets.end() || len != sizeof given) return failed(EINVAL);
    std::memcpy(&given, addr, sizeof given);
    want.sll_family = AF_PACKET;
    want.sll_ifindex = given.sll_ifindex;
    want.sll_protocol = given.sll_protocol;
    constexpr unsigned k_first_type = 0x600;
    if (std::memcmp(&given, &want, sizeof want) != 0 || given.sll_ifindex <= 0 ||
        given.sll_protocol == 0 || ntohs(given.sll_protocol) <= ETH_P_ALL ||
        ntohs(given.sll_protocol) >= k_first_type) {
        ADD_FAILURE() << "bind: not a clean address of an interface with a type no frame has";
        return failed(EINVAL);
    }
    found->second = given.sll_ifindex;
    return 0;
}

int join_fanout(int fd, const void* value, socklen_t len) {
    const auto found = g_packet_sockets.find(fd);
    if (found == g_packet_sockets.end()) return failed(EBADF);
    struct fanout_args group = {};
    if (found->second == 0 || len != sizeof group) return failed(EINVAL);
    std::memcpy(&group, value, sizeof group);
    if (group.type_flags != PACKET_FANOUT_HASH || group.max_num_members != 1) {
        ADD_FAILURE() << "setsockopt(PACKET_FANOUT): not a group of one member";
        return failed(EINVAL);
    }
    if (g_fanout == fanout::unkept) return 0;
    struct sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const std::string text = "qnm-test.group." + std::to_string(group.id) + "." +
                             std::to_string(found->second) + "." + std::to_string(k_test);
    text.copy(name.sun_path + 1, sizeof name.sun_path - 1);
    const auto length =
        static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + text.size());
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&name), length) == 0) return 0;
    return failed(errno == EADDRINUSE ? ENOSPC : EALREADY);
}

}  // namespace

std::optional<int> answer_bind(int fd, const struct sockaddr* addr, socklen_t len) {
    const std::lock_guard lock(g_mutex);
    if (addr->sa_family == AF_PACKET) return bind_packet_socket(fd, addr, len);
    drop_closed();
    const auto link = std::find_if(g_netlinks.begin(), g_netlinks.end(),
                                   [&](const netlink_t& entry) { return entry.fd == fd; });
    if (link == g_netlinks.end()) return std::nullopt;
    struct sockaddr_nl want = {};
    want.nl_family = AF_NETLINK;
    want.nl_groups = RTMGRP_LINK;
    if (len != sizeof want || std::memcmp(addr, &want, sizeof want) != 0) {
        ADD_FAILURE() << "bind: not a clean address of the link group with port ID 0";
        return failed(EINVAL);
    }
    link->bound = true;
    return 0;
}

std::optional<int> answer_getsockopt(int fd, int level, int option, void* value, socklen_t* len) {
    if (level != SOL_PACKET || option != PACKET_VERSION) return std::nullopt;
    if (!fake_pcap::owner_of_fileno(fd).has_value()) {
        ADD_FAILURE() << "getsockopt(PACKET_VERSION): not a capture descriptor: " << fd;
        return failed(EBADF);
    }
    const std::lock_guard lock(g_mutex);
    if (!g_packet_version.has_value()) return failed(ENOTSOCK);
    if (*len < sizeof *g_packet_version) return failed(EINVAL);
    std::memcpy(value, &*g_packet_version, sizeof *g_packet_version);
    *len = sizeof *g_packet_version;
    return 0;
}

namespace {

// Both need the mutex.
std::optional<int> set_capture_option(const std::string& name, int fd, int option,
                                      const void* value, socklen_t len) {
    struct timeval timeout = {};
    switch (option) {
        case SO_SNDTIMEO:
            if (len != sizeof timeout) return failed(EINVAL);
            std::memcpy(&timeout, value, sizeof timeout);
            g_send_timeouts[fd] =
                std::chrono::seconds(timeout.tv_sec) + std::chrono::microseconds(timeout.tv_usec);
            return 0;
        case SO_ATTACH_FILTER:
            g_filtered.insert(name);
            return 0;
        case SO_DETACH_FILTER:
            return g_filtered.erase(name) != 0 ? 0 : failed(ENOENT);
        default:
            return std::nullopt;
    }
}

// The option has to be set before the socket is bound, as an overrun can happen from then on.
std::optional<int> set_netlink_option(netlink_t& link, int option, const void* value,
                                      socklen_t len) {
    int on = 0;
    if (option != NETLINK_NO_ENOBUFS || link.bound) return std::nullopt;
    if (len != sizeof on) return failed(EINVAL);
    std::memcpy(&on, value, sizeof on);
    link.no_enobufs = on != 0;
    return 0;
}

}  // namespace

std::optional<int> answer_setsockopt(int fd, int level, int option, const void* value,
                                     socklen_t len) {
    const auto capture = fake_pcap::owner_of_fileno(fd);
    const std::lock_guard lock(g_mutex);
    if (level == SOL_PACKET && option == PACKET_FANOUT) return join_fanout(fd, value, len);
    if (capture.has_value()) {
        if (level != SOL_SOCKET) return std::nullopt;
        return set_capture_option(*capture, fd, option, value, len);
    }
    const auto link = std::find_if(g_netlinks.begin(), g_netlinks.end(),
                                   [&](const netlink_t& entry) { return entry.fd == fd; });
    if (link == g_netlinks.end() || level != SOL_NETLINK) return std::nullopt;
    return set_netlink_option(*link, option, value, len);
}

}  // namespace fake_netif
