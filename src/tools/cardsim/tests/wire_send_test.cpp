// Tests of encode(): every frame that a card sends, compared with frames written out by hand.
#include <gtest/gtest.h>

#include "cardsim.h"

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::encode;
using cardsim::frame_bytes;
using cardsim::make_card;
using cardsim::message;

frame_bytes slice(const frame_bytes& frame, std::size_t from, std::size_t size) {
    const auto first = frame.begin() + static_cast<std::ptrdiff_t>(from);
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

// An I/O card with a different value in every field.
card full_io_card(card_speed speed) {
    card result = make_card("io", card_kind::qnio, speed, 0x123456789ABC);
    result.vlan_id = 0x234;
    result.flow_id = 0x5A;
    result.uid_switch = true;
    result.link0_fault = true;
    result.link_status = 0xC3;
    result.sw_status0 = 0x11;
    result.version = 2;
    result.port1_link = false;
    result.int_vector = 0x77;
    result.io_substate = {0x06, 0x02};
    result.ser_mac = 0x02AABBCCDDEE;
    result.device_id = 0x1234;
    result.vendor_id = 0x5678;
    result.class_code = 0x9ABCDE;
    result.resource_id = 0x0A0B;
    return result;
}

TEST(Send, IoDevinfo) {
    frame_bytes expected = {
        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,              // destination
        0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC,              // source
        0x81, 0x00, 0x82, 0x34, 0x88, 0xB6,              // tag with priority 4, type
        0x10, 0xFF, 0x5A, 0x00, 0x0D, 0x01, 0xC3,        // subtype to link status
        0x11, 0xA2, 0x77,                                // switch status
        0x06, 0x02, 0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,  // sub-state, server card
        0x34, 0x12, 0x78, 0x56, 0x00, 0xDE, 0xBC, 0x9A,  // device, vendor, class
    };
    ASSERT_EQ(expected.size(), 44U);
    expected.resize(60);
    EXPECT_EQ(encode(full_io_card(card_speed::g1_10), message::devinfo, 0), expected);
}

TEST(Send, IoDevinfoInTagChangeMode) {
    card changed = full_io_card(card_speed::g1_10);
    const frame_bytes normal = encode(changed, message::devinfo, 0);
    changed.vlan_change_mode = true;
    const frame_bytes frame = encode(changed, message::devinfo, 0);
    EXPECT_EQ(slice(frame, 12, 6), (frame_bytes{0x88, 0xB6, 0x81, 0x00, 0x82, 0x34}));
    EXPECT_EQ(slice(frame, 0, 12), slice(normal, 0, 12));
    EXPECT_EQ(slice(frame, 18, 42), slice(normal, 18, 42));
}

TEST(Send, MultiRootCardHasResourceIdAndSwappedFaults) {
    card root = full_io_card(card_speed::g40);
    root.version = 1;
    const frame_bytes frame = encode(root, message::devinfo, 0);
    EXPECT_EQ(frame.size(), 60U);
    EXPECT_EQ(frame[22], 0x0E);  // link 0's fault is bit 1 here
    EXPECT_EQ(frame[26], 0xA1);
    EXPECT_EQ(slice(frame, 44, 3), (frame_bytes{0x0A, 0x0B, 0x00}));

    root.link0_fault = false;
    root.link1_fault = true;
    EXPECT_EQ(encode(root, message::devinfo, 0)[22], 0x0D);
}

TEST(Send, SubtypeFollowsSpeedAndMessage) {
    const card slow = make_card("a", card_kind::qnio, card_speed::g1_10, 2);
    const card fast = make_card("b", card_kind::qnio, card_speed::g40, 4);
    EXPECT_EQ(encode(slow, message::devinfo, 0)[18], 0x10);
    EXPECT_EQ(encode(slow, message::notify, 0)[18], 0x11);
    EXPECT_EQ(encode(fast, message::devinfo, 0)[18], 0x18);
    EXPECT_EQ(encode(fast, message::notify, 0)[18], 0x19);
    EXPECT_EQ(encode(slow, message::devinfo, 0)[21], 0);
    EXPECT_EQ(encode(fast, message::devinfo, 0)[21], 1);
}

TEST(Send, NotifyDiffersInSubtypeOnly) {
    frame_bytes notify = encode(full_io_card(card_speed::g40), message::notify, 1);
    notify[18] = 0x18;
    EXPECT_EQ(notify, encode(full_io_card(card_speed::g40), message::devinfo, 1));
}

TEST(Send, PathIsTheLowestBitOfTheSource) {
    const card fast = full_io_card(card_speed::g40);
    EXPECT_EQ(encode(fast, message::devinfo, 0)[11], 0xBC);
    EXPECT_EQ(encode(fast, message::devinfo, 1)[11], 0xBD);
}

TEST(Send, PathThatTheCardDoesNotHaveIsRefused) {
    EXPECT_THROW(encode(full_io_card(card_speed::g1_10), message::devinfo, 1), cardsim::error);
    EXPECT_THROW(encode(full_io_card(card_speed::g40), message::devinfo, 2), cardsim::error);
}

TEST(Send, HeaderFieldsOfTheCard) {
    card odd = make_card("odd", card_kind::qnio, card_speed::g1_10, 0x020000000001);
    odd.destination = 0x0A0B0C0D0E0F;
    odd.ether_type = 0x9000;
    odd.priority = 5;
    odd.vlan_id = 0xFFF;
    odd.flow_id_da = 0x12;
    odd.ver = 9;
    odd.power = false;
    const frame_bytes frame = encode(odd, message::devinfo, 0);
    EXPECT_EQ(slice(frame, 0, 6), (frame_bytes{0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F}));
    EXPECT_EQ(slice(frame, 12, 6), (frame_bytes{0x81, 0x00, 0xAF, 0xFF, 0x90, 0x00}));
    EXPECT_EQ(slice(frame, 19, 4), (frame_bytes{0x12, 0x00, 0x09, 0x00}));
}

cardsim::bridge bridge_from(std::uint8_t first) {
    const auto b = [first](unsigned offset) { return static_cast<std::uint8_t>(first + offset); };
    const auto w = [&](unsigned o) { return static_cast<std::uint16_t>(b(o) | b(o + 1) << 8); };
    const auto d = [&](unsigned o) { return w(o) | static_cast<std::uint32_t>(w(o + 2)) << 16; };
    return {.pri_bus_num = b(0),
            .sec_bus_num = b(1),
            .sub_bus_num = b(2),
            .command = b(3),
            .memory_base = w(4),
            .memory_limit = w(6),
            .pre_memory_base = w(8),
            .pre_memory_limit = w(10),
            .pre_base_upper = d(12),
            .pre_limit_upper = d(16)};
}

// The bytes of bridge_from(first) on the wire: ascending.
frame_bytes ascending(std::uint8_t first, std::size_t size) {
    frame_bytes bytes;
    for (std::size_t i = 0; i < size; ++i)
        bytes.push_back(static_cast<std::uint8_t>(first + i));
    return bytes;
}

card full_server_card(card_speed speed) {
    card result = make_card("sv", card_kind::qnsv, speed, 0x020000000010);
    result.up_port = bridge_from(0x01);
    for (std::size_t k = 0; k < result.down_ports.size(); ++k) {
        const auto mark = static_cast<std::uint8_t>(k << 4);
        result.down_ports[k].port_status = {mark, 0x02};
        result.down_ports[k].io_mac = 0x020000001000 + k;
        result.down_ports[k].com_port = bridge_from(mark);
    }
    return result;
}

void expect_server_payload(const frame_bytes& frame, std::size_t ports) {
    ASSERT_EQ(frame.size(), 48 + 28 * ports);
    EXPECT_EQ(frame[23], 0);
    EXPECT_EQ(slice(frame, 28, 20), ascending(0x01, 20));
    for (std::size_t k = 0; k < ports; ++k) {
        const std::size_t at = 48 + 28 * k;
        const auto low = static_cast<std::uint8_t>(k);
        const auto mark = static_cast<std::uint8_t>(k << 4);
        EXPECT_EQ(slice(frame, at, 8),
                  (frame_bytes{mark, 0x02, 0x02, 0x00, 0x00, 0x00, 0x10, low}));
        EXPECT_EQ(slice(frame, at + 8, 20), ascending(mark, 20));
    }
}

TEST(Send, ServerDevinfoCarriesEightDownPorts) {
    const frame_bytes frame = encode(full_server_card(card_speed::g1_10), message::devinfo, 0);
    EXPECT_EQ(frame.size(), 272U);
    expect_server_payload(frame, 8);
}

TEST(Send, ServerDevinfoAt40GCarriesSixteenDownPorts) {
    const frame_bytes frame = encode(full_server_card(card_speed::g40), message::devinfo, 1);
    EXPECT_EQ(frame.size(), 496U);
    expect_server_payload(frame, 16);
}

TEST(Send, VersionOneServerCardIsNoMultiRootCard) {
    card server = full_server_card(card_speed::g40);
    server.version = 1;
    server.link0_fault = true;
    const frame_bytes frame = encode(server, message::devinfo, 0);
    EXPECT_EQ(frame.size(), 496U);
    EXPECT_EQ(frame[22], 0x09);
}

}  // namespace
