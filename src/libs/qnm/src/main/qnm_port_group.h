// qnm_port_group.h - a group for each network interface, in which there is room for one.
//
// The kernel lets packet sockets of an interface share its frames in groups. The groups here share
// nothing: their sockets are bound to an Ethernet type that no frame has. What counts is that the
// first member says how many there may be, one, and that the kernel keeps to it (Linux 5.12 or
// later) until the last descriptor of that socket is closed, by whatever end of its process. Only
// who may open ports can make such a socket.
#pragma once

extern "C" {

// A socket that can join the group of the interface, in the calling thread's network namespace.
// -1, with errno.
int _qnm_port_group_socket(int if_index);

// 0, and the socket is the member; ENOSPC when the group has one; anything else tells nothing about
// others: the group's number is in another program's use, or the kernel knows no such groups.
int _qnm_port_group_join(int fd, int if_index);

}  // extern "C"
