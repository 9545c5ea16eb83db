// responder.cpp - the card end of register and EEPROM accesses.

#include "responder.h"

namespace bench {

namespace {

// The EEPROM group of a 40G card.
constexpr uint32_t k_control = 0x40;
constexpr uint32_t k_address = 0x44;
constexpr uint32_t k_read_data = 0x48;
constexpr uint32_t k_bit_lock = 0x50F0;
constexpr uint32_t k_lock_type = 0x520C;

constexpr uint32_t k_command_clear = 0;
constexpr uint32_t k_command_read = 0x80000001;
constexpr uint32_t k_status_ready = 0x40000000;
constexpr uint32_t k_status_complete = 0x10000000;

uint64_t mac_of(const uint8_t (&bytes)[6]) {
    uint64_t mac = 0;
    for (const uint8_t byte : bytes)
        mac = mac << 8 | byte;
    return mac;
}

uint32_t address_of(const qnet_com_register_s& message) {
    uint32_t wire = 0;
    for (const uint8_t byte : message.address)
        wire = wire << 8 | byte;
    return (wire >> 4 & 0x003FF000) | (wire & 0x00000FFF);
}

}  // namespace

responder::responder(const std::string& interface) : socket_(interface) {
    for (uint32_t i = 0; i < registers_.size(); i++)
        registers_[i] = register_value(4 * i);
    at(k_control) = k_status_ready;
    at(k_bit_lock) = 0;
    at(k_lock_type) = 0;
    thread_ = std::thread([this] { run(); });
}

responder::~responder() {
    stopped_ = true;
    thread_.join();
}

void responder::run() {
    std::array<uint8_t, 2048> buffer;
    while (!stopped_) {
        const ssize_t length = socket_.receive(buffer);
        if (length < static_cast<ssize_t>(sizeof(untagged_register))) continue;
        const auto& request = qnm::view<untagged_register>(buffer.data());
        const qnet_com_register_s& message = request.regw.com;
        if (message.subtype == qnm::k_register_read) {
            socket_.send(completion(mac_of(request.dmac), mac_of(request.smac), message.tag,
                                    at(address_of(message))));
        } else if (message.subtype == qnm::k_register_write) {
            write(address_of(message), qnm::host32(request.regw.data));
        }
    }
}

void responder::write(uint32_t address, uint32_t value) {
    if (address == k_control) {
        run_eeprom_command(value);
    } else {
        at(address) = value;
    }
}

void responder::run_eeprom_command(uint32_t command) {
    if (command == k_command_read) {
        at(k_read_data) = eeprom_word(at(k_address));
        at(k_control) = k_status_complete;
    } else if (command == k_command_clear) {
        at(k_control) = k_status_ready;
    }
}

}  // namespace bench
