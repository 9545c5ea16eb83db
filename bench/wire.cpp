// wire.cpp - frames and bare packet sockets.

#include "wire.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace bench {

namespace {

constexpr uint16_t k_tci = 0x8001;  // priority 4, VLAN 1
constexpr timeval k_receive_timeout = {0, 100'000};

void put_mac(uint64_t mac, uint8_t (&bytes)[6]) {
    for (int i = 0; i < 6; i++)
        bytes[i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
}

void put_header(uint64_t destination, uint64_t source, quillnet_header_s& header) {
    put_mac(destination, header.dmac);
    put_mac(source, header.smac);
    qnm::put_be16(header.tpid, qnm::k_vlan_tpid);
    qnm::put_be16(header.tci, k_tci);
    qnm::put_be16(header.type, cardsim::default_ether_type);
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

cardsim::frame_bytes announcement(cardsim::card_speed speed) {
    const auto card = cardsim::make_card("card", cardsim::card_kind::qnsv, speed, card_id(0));
    return cardsim::encode(card, cardsim::message::devinfo, 0);
}

void set_source(std::span<uint8_t> frame, uint64_t mac) {
    put_mac(mac, qnm::view<quillnet_header_s>(frame.data()).smac);
}

void set_interrupt_vector(std::span<uint8_t> frame, uint8_t vector) {
    qnm::view<qnw_devinfo_com_s>(frame.data()).com.sw_status[2] = vector;
}

short_frame read_request(uint64_t card, uint8_t tag, uint32_t address) {
    short_frame frame = {};
    auto& request = qnm::view<qnw_register_read_s>(frame.data());
    put_header(card, k_manager_mac, request.header);
    request.regr.com.subtype = qnm::k_register_read;
    request.regr.com.flowid_da = qnm::k_no_flowid;
    request.regr.com.flowid_sa = qnm::k_no_flowid;
    request.regr.com.tag = tag;
    qnm::put_be32(request.regr.com.address, qnm::encode_register_address(address));
    return frame;
}

short_frame completion(uint64_t card, uint64_t manager, uint8_t tag, uint32_t data) {
    short_frame frame = {};
    auto& answer = qnm::view<qnw_completion_s>(frame.data());
    put_header(manager, card, answer.header);
    answer.comp.subtype = qnm::k_completion;
    answer.comp.tag = tag;
    memcpy(answer.comp.data, &data, sizeof data);
    return frame;
}

packet_socket::packet_socket(const std::string& interface)
    : fd_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0) fail("cannot open a raw socket");
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(cardsim::default_ether_type);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    const int bypass = 1;
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &k_receive_timeout, sizeof k_receive_timeout) ||
        setsockopt(fd_, SOL_PACKET, PACKET_QDISC_BYPASS, &bypass, sizeof bypass) ||
        bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address)) {
        close(fd_);
        fail("cannot bind a raw socket");
    }
}

packet_socket::~packet_socket() {
    close(fd_);
}

void packet_socket::send(std::span<const uint8_t> frame) const {
    while (::send(fd_, frame.data(), frame.size(), 0) < 0) {
        if (errno != ENOBUFS) fail("cannot send");
    }
}

void packet_socket::send_all(std::span<mmsghdr> messages) const {
    while (!messages.empty()) {
        const int sent = sendmmsg(fd_, messages.data(), static_cast<unsigned>(messages.size()), 0);
        if (sent < 0 && errno != ENOBUFS) fail("cannot send");
        messages = messages.subspan(static_cast<size_t>(std::max(sent, 0)));
    }
}

ssize_t packet_socket::receive(std::span<uint8_t> buffer) const {
    return recv(fd_, buffer.data(), buffer.size(), 0);
}

}  // namespace bench
