// The EEPROM lock of a card: registers by which several parties, one bit each, agree whose turn it
// is. The card only keeps them; it does not stop a party that writes the EEPROM without the lock.
//
// Bit lock: one register, in which each party sets and clears its own bit. ID lock: a party enters
// itself in the requests, and the first becomes the holder; when it releases the lock, the lowest
// waiting party follows.
//
// Other holders are added by command. A stubborn one (device_settings) takes the lock back when a
// manager frees it: at once, or when the manager has seen it free a few times.
#pragma once

#include "cardsim.h"

namespace cardsim {

inline constexpr std::uint32_t lock_id_mask = 0xFFFF;  // parties of the ID lock

struct eeprom_lock {
    lock_holders held;
    std::uint32_t others = 0;      // taken by command
    std::uint32_t looks_left = 0;  // until the stubborn holder takes it back; 0: not waiting
};

// What a manager does through the registers.
std::uint32_t read_lock_bits(eeprom_lock& lock, const device_settings& settings);
void write_lock_bits(eeprom_lock& lock, const device_settings& settings, std::uint32_t bits);
std::uint32_t read_lock_holder(eeprom_lock& lock, const device_settings& settings);
std::uint32_t read_lock_requests(eeprom_lock& lock, const device_settings& settings);
void request_lock(eeprom_lock& lock, std::uint32_t ids);
void release_lock(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids);

// What other holders do. It is an error to name no party, or one that the ID lock does not have.
void take_lock_by_others(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids);
void drop_lock_of_others(eeprom_lock& lock);

}  // namespace cardsim
