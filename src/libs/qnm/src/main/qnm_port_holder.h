// qnm_port_holder.h - which process accesses cards by a network interface.
//
// A manager that accesses cards by an interface listens on an abstract Unix socket named after the
// interface's index (qnm_port_lock). The kernel keeps such names per network namespace, releases
// them with their process, and tells who listens. This unit makes the name and asks; it uses no
// other unit, so qnmctl links it too.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

// The start of the name, after the zero byte of abstract names; the index follows in decimal.
#define QNM_PORT_NAME "libqnm.port."

typedef enum qnm_holder_kind {
    QNM_HOLDER_NOBODY,  // nobody who works as a manager: the name is free, or whoever has bound it
                        // does not listen, takes no connections, or has gone
    QNM_HOLDER_STRANGER,  // a process that has the name and cannot be a manager
    QNM_HOLDER_MANAGER,   // a manager, as far as can be told
} qnm_holder_kind_t;

typedef struct qnm_port_holder {
    qnm_holder_kind_t eph_kind;
    int eph_pid;        // 0: none, or one of another PID namespace
    char eph_name[16];  // of the process, without what terminals obey; may be empty
} qnm_port_holder_t;

extern "C" {

// The address of an interface; returns its length.
socklen_t _qnm_port_address(int if_index, struct sockaddr_un* address);

// A socket for this unit's addresses, of the calling thread's network namespace. -1, with errno.
int _qnm_port_socket(void);

// Asks through an unused socket of _qnm_port_socket(); returns whether the socket is used up. Never
// waits.
bool _qnm_ask_port_holder(int fd, int if_index, qnm_port_holder_t* holder);

}  // extern "C"
