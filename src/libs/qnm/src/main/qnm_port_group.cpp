// qnm_port_group.cpp - makes packet sockets and lets them join a group that has room for one.
//
// A group has a 16-bit number within a network namespace. Other programs choose theirs freely,
// often small ones, so ours begin elsewhere. Interface indexes that differ by a multiple of 65536
// share a number; the kernel then refuses the second interface's sockets with another error than
// that of a full group.

#include "qnm_port_group.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

// Below 1536 the field is a length, so no frame has this type, and these sockets receive nothing.
constexpr uint16_t k_no_type = 0x05FF;

constexpr int k_first_number = 0x716E;

}  // namespace

extern "C" {

int _qnm_port_group_socket(int if_index) {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) return -1;
    struct sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(k_no_type);
    address.sll_ifindex = if_index;
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0) {
        return fd;
    }
    const int err = errno;
    close(fd);
    errno = err;
    return -1;
}

int _qnm_port_group_join(int fd, int if_index) {
    struct fanout_args group = {};
    group.id = static_cast<uint16_t>(k_first_number + if_index);
    group.type_flags = PACKET_FANOUT_HASH;
    group.max_num_members = 1;
    return setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &group, sizeof group) == 0 ? 0 : errno;
}

}  // extern "C"
