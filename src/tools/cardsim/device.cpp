// Reads and writes a card's registers. One table has the registers that are more than memory.
#include "device.h"

#include <algorithm>
#include <iterator>

#include "fields.h"

namespace cardsim {

namespace {

struct special_register {
    std::uint32_t slow_address;  // on 1G/10G cards
    std::uint32_t fast_address;  // on 40G cards
    std::uint32_t (*read)(device&, const card&);
    void (*write)(device&, const card&, std::uint32_t);
};

template <std::uint32_t eeprom_state::*member>
constexpr auto get_eeprom = [](device& from, const card&) { return from.eeprom.*member; };

template <std::uint32_t eeprom_state::*member>
constexpr auto put_eeprom =
    [](device& to, const card&, std::uint32_t value) { to.eeprom.*member = value; };

template <auto read>
constexpr auto get_lock =
    [](device& from, const card& owner) { return read(from.lock, owner.device); };

template <auto write>
constexpr auto put_lock =
    [](device& to, const card& owner, std::uint32_t value) { write(to.lock, owner.device, value); };

std::uint32_t get_status(device& from, const card& owner) {
    return poll_eeprom(from.eeprom, owner);
}

void put_control(device& to, const card& owner, std::uint32_t value) {
    command_eeprom(to.eeprom, owner, value);
}

void put_request(device& to, const card&, std::uint32_t value) {
    request_lock(to.lock, value);
}

std::uint32_t get_lock_type(device&, const card& owner) {
    return owner.device.id_lock ? 1 : 0;
}

std::uint32_t get_nothing(device&, const card&) {
    return 0;
}

void put_nothing(device&, const card&, std::uint32_t) {}

constexpr special_register special_registers[] = {
    {0x5010, 0x0040, get_status, put_control},
    {0x5014, 0x0044, get_eeprom<&eeprom_state::address>, put_eeprom<&eeprom_state::address>},
    {0x5018, 0x0048, get_eeprom<&eeprom_state::read_data>, put_nothing},
    {0x501C, 0x004C, get_eeprom<&eeprom_state::write_data>, put_eeprom<&eeprom_state::write_data>},
    {0x50F0, 0x50F0, get_lock<read_lock_bits>, put_lock<write_lock_bits>},
    {0x5200, 0x5200, get_lock<read_lock_holder>, put_request},
    {0x5204, 0x5204, get_nothing, put_lock<release_lock>},
    {0x5208, 0x5208, get_lock<read_lock_requests>, put_nothing},
    {0x520C, 0x520C, get_lock_type, put_nothing},
};

const special_register* find_special(const card& owner, std::uint32_t address) {
    const auto column = owner.speed == card_speed::g40 ? &special_register::fast_address
                                                       : &special_register::slow_address;
    const auto* row =
        std::find_if(std::begin(special_registers), std::end(special_registers),
                     [&](const special_register& known) { return known.*column == address; });
    return row == std::end(special_registers) ? nullptr : row;
}

void check_addresses_of(const card& checked) {
    for (const auto& [address, value] : checked.device.registers) {
        check_register_address(address);
        if (find_special(checked, address) == nullptr) continue;
        throw error("register " + address_text(address) +
                    " belongs to the EEPROM and cannot be preset");
    }
    for (const std::uint32_t address : checked.faults.silent_registers)
        check_register_address(address);
}

}  // namespace

void check_register_address(std::uint32_t address) {
    if (address <= register_limit && address % 4 == 0) return;
    throw error("register address " + address_text(address) +
                ": an address is a multiple of 4, at most " + address_text(register_limit));
}

void check_device(const card& checked) {
    check_addresses_of(checked);
    for (const auto& [address, bytes] : checked.device.eeprom) {
        if (address <= eeprom_size && bytes.size() <= eeprom_size - address) continue;
        throw error("the EEPROM preset at " + address_text(address) +
                    " goes beyond its 2048 bytes");
    }
}

std::uint32_t read_device(device& read, const card& owner, std::uint32_t address) {
    if (const special_register* known = find_special(owner, address)) {
        return known->read(read, owner);
    }
    if (const auto value = read.written.find(address); value != read.written.end()) {
        return value->second;
    }
    const auto preset = owner.device.registers.find(address);
    return preset != owner.device.registers.end() ? preset->second : owner.device.register_default;
}

void write_device(device& written, const card& owner, std::uint32_t address, std::uint32_t value) {
    if (const special_register* known = find_special(owner, address)) {
        known->write(written, owner, value);
    } else {
        written.written[address] = value;
    }
}

void reset_device(device& changed, std::uint8_t status) {
    changed.written.clear();
    changed.lock = {};
    reset_eeprom_registers(changed.eeprom);
    ++changed.resets.count;
    changed.resets.last_status = status;
}

}  // namespace cardsim
