// qnm_write_lock.h - the per-card write locks.
//
// A card's write lock keeps the read-modify-write sequences of different threads apart. It is taken
// only after the device-table lock has been released, and held while frames are sent and awaited.
#pragma once

#include <cstdint>

#include "qnm_thread.h"

extern "C" {

int _qnm_reg_init(void);
int _qnm_reg_fini(void);

// Makes the lock of a card that has just been learnt: 0; EEXIST when it has one already; ENOMEM;
// EPROTO.
int _qnm_create_reg_lock_node(uint64_t id);

// Frees the lock of a card that has been deleted, if there are more than k_spare_locks_max.
void _qnm_forget_reg_lock_node(uint64_t id);

// Take and release a card's lock: 0, or ENOENT when it has none. The device-table lock must not be
// held.
int _qnm_write_reg_lock(uint64_t id);
int _qnm_write_reg_unlock(uint64_t id);

// Frees all locks; none may be held.
void _qnm_destroy_all_reg_lock_node(void);

}  // extern "C"

namespace qnm {

// Stands for the lock of any card in the lock annotations.
inline constexpr lock_name card_write_lock{};

}  // namespace qnm
