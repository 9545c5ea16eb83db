// qnm_recv_devinfo.h - learns cards from what they announce.
#pragma once

#include <cstdint>

extern "C" {

// Learns or updates a card from a DEVINFO or NOTIFY frame that has been checked. vlan_mode is
// non-zero for a frame in VLAN-tag change mode. Always 0: a failure is logged and drops the frame.
int _qnm_recv_devinfo(int port, const unsigned char* recv_buf, uint8_t vlan_mode);

}  // extern "C"
