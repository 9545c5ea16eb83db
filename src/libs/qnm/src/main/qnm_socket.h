// qnm_socket.h - the local Ethernet ports: open, close, send, link state.
//
// The unit keeps no state of its own; what it learns stands in the port entries of qnm_root. Ports
// are opened and closed while no other thread of the library uses them. Failures are logged here
// and reported as EPROTO.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qnm_root.h"

extern "C" {

// Opens the interface into port_info; a failure leaves its capture handle null. if_index is not
// used: the kernel tells the index.
int _qnm_socket_open(const char* port_name, uint32_t if_index, qnm_port_info_t* port_info);
int _qnm_socket_open_lin(const char* port_name, qnm_port_info_t* port_info);

// Always 0; a closed port is left alone. The link state stays as it was; opening clears it first.
int _qnm_socket_close(qnm_port_info_t* port_info);

// Sends one frame unchanged. Any thread, also several at once.
int _qnm_send(int port, const unsigned char* buffer, size_t length);

// Stores 1 (up) or 0 (down). The port must be open.
int _qnm_get_linkstate(int port, uint32_t* state_out);
int _qnm_get_linkstate_lin(int port, uint32_t* state_out);

// Stores whether the port's configured name still leads to the interface that was opened; not so
// when that is gone, renamed or replaced by another one. 0 or EPROTO. The port must be open.
int _qnm_find_interface(int port, bool* present_out);

// Whether an open port has lost its interface or its link, or does not answer. Logs nothing, so
// that frames which make somebody ask cannot multiply lines. Any thread.
bool _qnm_is_port_down(int port);

}  // extern "C"
