// qnm_filter.h - keeps frames that are not for this library out of the ports' captures.
#pragma once

#include "qnm_root.h"

extern "C" {

// Sets or removes the kernel filter of an open port, as the running log level asks for. A failure
// is logged, and the port goes on as it is: with more frames than it needs, or without the trace
// lines of the frames that it drops.
void _qnm_filter_port(const qnm_port_info_t* port_info);

// The same for both ports after the log level has changed. Closed ports are passed over.
void _qnm_filter_ports(void);

}  // extern "C"
