// qnm_recv.h - the receive threads and what they do with each frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qnm_socket.h"

extern "C" {

// Thread entry; arg is the port number. Ends on the port's terminate pipe, the stop flag or a fatal
// error.
void* _qnm_recv_task(void* arg);

// The receive loop of a port.
void _qnm_recv_lin(int port);

// Takes one frame off the port, checks and dispatches it: 0, also when it was dropped or there was
// none; -1 when the port failed.
int _qnm_recv_frame(int port);

// One frame and its length on the wire: 0; ETIMEDOUT when there was none in time; EPROTO on
// failure. The data are the handle's, valid until its next frame.
int _qnm_recv_pcap(pcap_t* handle, const unsigned char** data_out, size_t* length_out);

}  // extern "C"
