// wire.h - frames and bare packet sockets: what the far end of every benchmark is made of, and the
// plainest of the floors.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "cardsim.h"
#include "qnm_frame.h"

namespace bench {

// The cables: the near ends are those of the library and of the floors, the far ends those of the
// cards. The library uses one cable and the floors the other, so that neither hears the other's
// frames.
struct cable {
    const char* near;
    const char* far;
};
constexpr cable k_library_cable = {"qnm0", "qsim0"};
constexpr cable k_floor_cable = {"qnm1", "qsim1"};

using short_frame = std::array<uint8_t, qnm::k_send_size>;

// Card number `index` of a benchmark. IDs have an even last byte, as 40G cards need.
constexpr uint64_t card_id(size_t index) {
    return 0x020000000000 + 2 * static_cast<uint64_t>(index);
}

// The announcement of a QNSV card: 272 bytes at 1G/10G, 496 at 40G.
cardsim::frame_bytes announcement(cardsim::card_speed speed);
void set_source(std::span<uint8_t> frame, uint64_t mac);

// An announcement of a known card with another interrupt vector causes an event.
void set_interrupt_vector(std::span<uint8_t> frame, uint8_t vector);

// The sender of the floors' requests; the library sends from its port's own address.
constexpr uint64_t k_manager_mac = 0x02FFFFFFFFFE;

short_frame read_request(uint64_t card, uint8_t tag, uint32_t address);
short_frame completion(uint64_t card, uint64_t manager, uint8_t tag, uint32_t data);

// A raw socket on one interface, which hears the frames of the cards' protocol and not its own.
// The kernel takes the VLAN tag out of what it delivers.
class packet_socket {
  public:
    explicit packet_socket(const std::string& interface);
    ~packet_socket();
    packet_socket(const packet_socket&) = delete;
    packet_socket& operator=(const packet_socket&) = delete;

    void send(std::span<const uint8_t> frame) const;
    void send_all(std::span<mmsghdr> messages) const;

    // Blocks; below 0 when nothing came for a tenth of a second, so that a thread can check whether
    // to end.
    ssize_t receive(std::span<uint8_t> buffer) const;

  private:
    int fd_;
};

// A register access as a packet socket delivers it.
struct untagged_register {
    uint8_t dmac[6];
    uint8_t smac[6];
    uint8_t type[2];
    qnet_com_regw_s regw;
};

// A Completion as a packet socket delivers it.
struct untagged_completion {
    uint8_t dmac[6];
    uint8_t smac[6];
    uint8_t type[2];
    qnet_com_comp_s comp;
};

}  // namespace bench
