// fake_netif.h - network interfaces and link notifications as the code under test sees them.
//
// The faked ioctl() answers SIOCGIFINDEX, SIOCGIFHWADDR and SIOCETHTOOL (ETHTOOL_GLINK) from the
// table kept here; the faked socket() hands out one end of a private socket pair for AF_NETLINK, on
// whose other end notify() writes; the faked getsockopt() answers PACKET_VERSION, and the faked
// setsockopt() notes SO_SNDTIMEO, filters and NETLINK_NO_ENOBUFS, which these descriptors do not
// take. A packet socket can do nothing but join a fanout group of one member, and exists where a
// test asks for such groups only. Nothing of the machine's own network is touched or seen, and no
// privilege is needed.
//
// Wrong requests are test failures at once: an ioctl on a descriptor that pcap_fileno did not give
// for that interface, an unknown request, an unterminated name, an ETHTOOL_GLINK whose data does
// not start at 0, a netlink socket of another kind than raw NETLINK_ROUTE, a bind to anything but
// the link group with port ID 0, a packet socket that could be given frames, a group of more
// members or another kind.
//
// All functions may be called from any thread.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace fake_netif {

struct interface_t {
    int index = 1;
    std::uint64_t mac = 0;  // first byte of the address in bits 47 to 40
    bool link_up = true;
};

// Forgets all interfaces and failures. Netlink sockets that are still open get no notifications.
void reset();

// Adds or replaces an interface. A name that is not in the table answers ENODEV.
void set(const std::string& name, const interface_t& netif);
void set_link(const std::string& name, bool up);
void remove(const std::string& name);

// Every ioctl with this request fails with err from now on; 0 ends it. For the n-th ioctl
// whatever the request, see fail::nth.
void fail_request(unsigned long request, int err);

// Answer to getsockopt(SOL_PACKET, PACKET_VERSION) on a capture descriptor. Without one the call
// fails as it does on a descriptor that is no packet socket.
void set_packet_version(std::optional<int> version);

// Whether the capture of the interface has a kernel filter.
bool is_filtered(const std::string& name);

// The send time-out of the capture that is open on this interface; 0 while none is set.
std::chrono::microseconds send_timeout(const std::string& name);

// Netlink sockets that are bound, not closed, and set not to fail when they overrun.
std::size_t patient_listeners();

// Sends every bound netlink socket one notification; its content is arbitrary.
void notify();

// Netlink sockets that are bound and not closed; 0 when nothing leaked.
std::size_t listeners();
bool wait_listener(std::chrono::seconds limit = std::chrono::seconds(60));

// What there is of fanout groups: no packet socket can be made, by default; the number of members
// is kept to, also among processes that the test has forked; or it is not, as before Linux 5.12 if
// that took such requests. Until reset().
enum class fanout { none, kept, unkept };
void set_fanout(fanout groups);

// ---- For the faked system calls -----------------------------------------------------------------

int answer_ioctl(int fd, unsigned long request, void* arg);
int answer_netlink_socket(int type, int protocol);
int answer_packet_socket(int type, int protocol);
// No value: not a descriptor or option of this fake, so the real call has to answer.
std::optional<int> answer_bind(int fd, const struct sockaddr* addr, socklen_t len);
std::optional<int> answer_getsockopt(int fd, int level, int option, void* value, socklen_t* len);
std::optional<int> answer_setsockopt(int fd, int level, int option, const void* value,
                                     socklen_t len);

}  // namespace fake_netif
