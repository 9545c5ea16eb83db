// qnm_send_frame.h - the senders: one frame to one card, sent once.
//
// A frame goes out by one path only, the first connected one of P0M0, P0M1, P1M0, P1M1. dev is
// read without a lock: callers hand in their own copy of the record. Any thread may send.
//
// All return 0; ENOLINK when the card is connected on no path; EBUSY when another process accesses
// cards by the port; EPROTO when libpcap refuses the frame.
#pragma once

#include <cstdint>

#include "qnm.h"

extern "C" {

// The path of a frame to this card: the destination MAC address and the local port. 0, or ENOLINK
// if there is none.
int _qnm_get_send_path(const qnm_com_dev_t* dev, uint64_t* dst_mac_out, int* port_out);

// Goes to the broadcast address, on the card's VLAN and by the card's port.
int _qnm_send_reset(const qnm_com_dev_t* com_dev, uint8_t status);

// data: 32 words.
int _qnm_send_mms(const qnm_com_dev_t* com_dev, uint32_t page, const uint32_t* data);

int _qnm_send_vlanset(const qnm_com_dev_t* com_dev, uint16_t vlan_id);
int _qnm_send_regwrite(const qnm_com_dev_t* com_dev, uint32_t address, uint32_t data);

// Stores, when sent, from which MAC address and by which port the Completion has to come.
int _qnm_send_regread(const qnm_com_dev_t* com_dev, uint32_t address, uint8_t tag,
                      uint64_t* dst_mac_out, int* port_out);

}  // extern "C"
