// What is behind a card's registers while the simulator runs: written values, the EEPROM and its
// lock, MMS pages, and the Resets that came. Each card has one `device`; the simulator's mutex
// guards it.
//
// Most registers are plain memory: they hold the value that was written, else the preset, else the
// default. The registers of the EEPROM and its lock work differently; on a 40G card some of them
// have other addresses.
#pragma once

#include <unordered_map>

#include "cardsim.h"
#include "eeprom.h"
#include "lock.h"

namespace cardsim {

inline constexpr std::uint32_t register_limit = 0x003FFFFC;  // 22 bits, a multiple of 4

struct device {
    std::unordered_map<std::uint32_t, std::uint32_t> written;
    eeprom_state eeprom;
    eeprom_lock lock;
    std::map<std::uint32_t, mms_page> pages;
    reset_history resets;
};

// `owner` is the card that the device belongs to. The address is a multiple of 4.
std::uint32_t read_device(device& read, const card& owner, std::uint32_t address);
void write_device(device& written, const card& owner, std::uint32_t address, std::uint32_t value);

// Sets the registers back to their presets and drops the lock. The EEPROM contents and the MMS
// pages stay.
void reset_device(device& changed, std::uint8_t status);

void check_register_address(std::uint32_t address);  // throws error

// Throws error for impossible presets: addresses that are no registers or are special ones, and
// bytes after the end of the EEPROM.
void check_device(const card& checked);

}  // namespace cardsim
