// The EEPROM lock of a card: registers on which several parties, one bit each, agree whose turn it
// is. The card only keeps them; nothing stops who writes the EEPROM without it.
//
// Bit lock: one register, in which each party sets and clears its own bit. ID lock: who asks is
// entered in the requests, the first of them becomes the holder; when it releases, the lowest of
// those that wait follows.
//
// Other holders come by command. A stubborn one (device_settings) takes the lock back when a
// manager frees it: at once, or when the manager has looked a few times and found it free.
#pragma once

#include "cardsim.h"

namespace cardsim {

inline constexpr std::uint32_t lock_id_mask = 0xFFFF;  // parties of the ID lock

struct eeprom_lock {
    lock_holders held;
    std::uint32_t others = 0;      // taken by command
    std::uint32_t looks_left = 0;  // until the stubborn holder takes it back; 0: not waiting
};

// What a manager does, by the registers.
std::uint32_t read_lock_bits(eeprom_lock& lock, const device_settings& settings);
void write_lock_bits(eeprom_lock& lock, const device_settings& settings, std::uint32_t bits);
std::uint32_t read_lock_holder(eeprom_lock& lock, const device_settings& settings);
std::uint32_t read_lock_requests(eeprom_lock& lock, const device_settings& settings);
void request_lock(eeprom_lock& lock, std::uint32_t ids);
void release_lock(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids);

// What other holders do. No party at all, or one that the ID lock does not have, is an error.
void take_lock_by_others(eeprom_lock& lock, const device_settings& settings, std::uint32_t ids);
void drop_lock_of_others(eeprom_lock& lock);

}  // namespace cardsim
