// responder.h - the far end of every read, for the library and the floors: one thread on a bare
// packet socket that answers each Register Read at once. Both cables use the same code, so that a
// ratio compares only the near ends.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "wire.h"

namespace bench {

// What a register holds until it is written.
constexpr uint32_t register_value(uint32_t address) {
    return address * 0x9E3779B1U;
}

constexpr size_t k_eeprom_size = 2048;

// What the EEPROM of every card holds.
constexpr uint32_t eeprom_word(uint32_t address) {
    return ~register_value(address);
}

// Answers for every card that is asked, with one set of registers for all: plain ones, and the
// EEPROM group of a 40G card with a bit lock that nobody else wants. An EEPROM command completes at
// once.
class responder {
  public:
    explicit responder(const std::string& interface);
    ~responder();
    responder(const responder&) = delete;
    responder& operator=(const responder&) = delete;

  private:
    void run();
    void write(uint32_t address, uint32_t value);
    void run_eeprom_command(uint32_t command);
    uint32_t& at(uint32_t address) { return registers_[address / 4 % registers_.size()]; }

    packet_socket socket_;
    std::array<uint32_t, 0x4000> registers_;
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
};

}  // namespace bench
