// qnm_port_group.h - a group for each network interface, in which there is room for one.
//
// The kernel lets packet sockets of an interface share its frames in groups. The groups here share
// no frames: their sockets are bound to an Ethernet type that no frame has. What counts is that the
// first member sets the maximum number of members, one, and that the kernel enforces it (Linux 5.12
// or later) until the last descriptor of that socket is closed, however its process ends. Only a
// process that may open ports can make such a socket.
#pragma once

extern "C" {

// A socket that can join the group of the interface, in the calling thread's network namespace.
// -1, with errno.
int _qnm_port_group_socket(int if_index);

// 0 when the socket has become the member; ENOSPC when the group has one. Any other error says
// nothing about other managers: another program uses the group's number, or the kernel does not
// support this.
int _qnm_port_group_join(int fd, int if_index);

}  // extern "C"
