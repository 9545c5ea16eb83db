// qnm_eeprom_send.h - EEPROM access through the card's EEPROM registers.
//
// dev is the caller's copy of the card's record, interval and count are those of its register
// accesses. All return 0 or an errno-style code; ENOSYS (a stop has been requested) and EPROTO end
// every loop at once.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qnm.h"

extern "C" {

// Take the lock of a card that keeps one bit per party, or of one that grants it to one ID. EBUSY
// while another party holds it; ETIMEDOUT when it cannot be had by force, or the card does not note
// the ID; otherwise the failure of the last register access.
int _qnm_lock_eeprom(qnm_com_dev_t* dev, uint32_t interval, uint32_t count, uint32_t flags);
int _qnm_lock_eeprom_id(qnm_com_dev_t* dev, uint32_t interval, uint32_t count, uint32_t flags);

// One word, with the lock held: EPROTO when the card refuses it, ETIMEDOUT when it did not succeed.
int _qnm_read_eeprom(qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                     uint32_t count);
int _qnm_write_eeprom(qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
                      uint32_t count, uint32_t flags);

// The words from start up to end, each under the lock. *len: bytes read, also on failure.
int _qnm_dump_eeprom(qnm_com_dev_t* dev, uint32_t start, uint32_t end, uint32_t* data, size_t* len,
                     uint32_t interval, uint32_t count, uint32_t flags);

}  // extern "C"
