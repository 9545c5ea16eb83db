// qnm_reg_send.h - register access and the live check.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qnm.h"

extern "C" {

// Read, write, change and dump registers. dev is the caller's copy; its path flags choose the path.
// interval and count are those of a qnm_retry_t. All return 0; EBUSY while another process accesses
// cards by the port; ENOSYS when a stop has been requested; ENOLINK without a path; EPROTO;
// ETIMEDOUT. What was read is stored only on success.
int _qnm_read_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t* data, uint32_t interval,
                       uint32_t count);
int _qnm_write_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t interval,
                        uint32_t count, uint32_t flags);
int _qnm_modify_register(const qnm_com_dev_t* dev, uint32_t addr, uint32_t data, uint32_t mask,
                         uint32_t interval, uint32_t count, uint32_t flags);

// *len: bytes read, also on failure.
int _qnm_dump_register(const qnm_com_dev_t* dev, uint32_t start, uint32_t end, uint32_t* data,
                       size_t* len, uint32_t interval, uint32_t count);

// Makes sure that dev has a path. If none is connected, tries one after the other until the card
// answers and marks that path connected in dev. ENOLINK if it answers on none.
int _qnm_livecheck(qnm_com_dev_t* dev);

}  // extern "C"
