// The EEPROM of a card: its contents, and the four registers through which a manager reaches them.
//
// A command (read or write one word) takes a number of polls of the status, and no other command is
// accepted meanwhile. Then the status is complete or refused, until the next command or until 0 is
// written to the control register, which makes the EEPROM ready again. The words of the contents
// are little-endian.
#pragma once

#include "cardsim.h"

namespace cardsim {

using eeprom_bytes = std::array<std::uint8_t, eeprom_size>;

enum class eeprom_phase : std::uint8_t { ready, busy, complete, refused };

struct eeprom_state {
    std::unique_ptr<eeprom_bytes> contents;  // allocated on first access
    bool changed = false;                    // since the card's file was read or written
    eeprom_phase phase = eeprom_phase::ready;
    std::uint32_t command = 0;
    std::uint32_t polls_left = 0;
    std::uint32_t address = 0;  // as written, packed or raw
    std::uint32_t read_data = 0;
    std::uint32_t write_data = 0;
};

eeprom_bytes& contents_of(eeprom_state& state, const device_settings& settings);

std::uint32_t eeprom_word_at(const eeprom_bytes& bytes, std::uint32_t address);
void put_eeprom_word(eeprom_bytes& bytes, std::uint32_t address, std::uint32_t word);
// Whether this is the address of a word.
bool is_eeprom_address(std::uint32_t address);

// The control and status register; a read is a poll.
std::uint32_t poll_eeprom(eeprom_state& state, const card& owner);
void command_eeprom(eeprom_state& state, const card& owner, std::uint32_t command);

// Resets everything except the contents to the state of a new card.
void reset_eeprom_registers(eeprom_state& state);

// Load or save the contents. Both throw error with the file's name.
void load_eeprom_file(eeprom_state& state, const device_settings& settings,
                      const std::filesystem::path& file);
void save_eeprom_file(eeprom_state& state, const device_settings& settings,
                      const std::filesystem::path& file);

}  // namespace cardsim
