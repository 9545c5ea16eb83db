// qnm_reg_send.h - the per-card write locks of register access.
//
// A card's lock keeps read-modify-write sequences of different threads from interleaving. It is
// taken only after the device-table lock has been released.
#pragma once

#include <cstdint>

extern "C" {

int _qnm_reg_init(void);
int _qnm_reg_fini(void);

// Makes the lock of a card that has just been learnt: 0; 17 when it has one already; 12; 71.
int _qnm_create_reg_lock_node(uint64_t id);

// Take and release a card's lock: 0, or 2 when it has none.
int _qnm_write_reg_lock(uint64_t id);
int _qnm_write_reg_unlock(uint64_t id);

// Frees all locks; none may be held.
void _qnm_destroy_all_reg_lock_node(void);

}  // extern "C"
