// Tests of decode(): every frame that a card accepts, written out by hand in both header
// arrangements.
#include <gtest/gtest.h>

#include <ostream>

#include "cardsim.h"
#include "manager_frame.h"

namespace {

using cardsim::decode;
using cardsim::frame_bytes;
using cardsim::request;

enum class arrangement { normal, change };

void PrintTo(arrangement header, std::ostream* out) {
    *out << (header == arrangement::normal ? "Normal" : "TagChange");
}

// A frame with VLAN ID 0x234: header, the given bytes from 18 on, zeros up to `size`.
frame_bytes frame_of(arrangement header, const frame_bytes& message, std::size_t size = 60) {
    return manager_frame(0x020000000011, 0x234, header == arrangement::change, message, size);
}

const frame_bytes read_message = {0x91, 0xFF, 0xFF, 0x00, 0x00, 0x2A, 0x02, 0xBC, 0x0D, 0xEF};
const frame_bytes write_message = {0x90, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00,
                                   0x05, 0x02, 0x34, 0x01, 0x02, 0x03, 0x04};
const frame_bytes vlan_message = {0x80, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0xFE, 0xDC};
const frame_bytes reset_message = {0x30, 0xFF, 0xFF, 0x00, 0x00, 0x05};

request decoded(const frame_bytes& frame) {
    const auto received = decode(frame);
    if (received) return *received;
    ADD_FAILURE() << "not a frame of the protocol";
    return {};
}

class InBothArrangements : public testing::TestWithParam<arrangement> {};

INSTANTIATE_TEST_SUITE_P(Receive, InBothArrangements,
                         testing::Values(arrangement::normal, arrangement::change),
                         testing::PrintToStringParamName());

TEST_P(InBothArrangements, Header) {
    const request received = decoded(frame_of(GetParam(), reset_message));
    EXPECT_EQ(received.destination, 0x020000000011U);
    EXPECT_EQ(received.source, manager_mac);
    EXPECT_EQ(received.tci, 0x8234);
    EXPECT_EQ(received.vlan_change_mode, GetParam() == arrangement::change);
    EXPECT_EQ(received.subtype, 0x30);
    EXPECT_EQ(received.length, 60U);
}

TEST_P(InBothArrangements, RegisterRead) {
    const request received = decoded(frame_of(GetParam(), read_message));
    const auto& body = std::get<cardsim::register_read>(received.body);
    EXPECT_EQ(body.tag, 0x2A);
    EXPECT_EQ(body.address, 0x002BCDEFU);
    EXPECT_EQ(received.fault, "");
}

TEST_P(InBothArrangements, RegisterWrite) {
    const request received = decoded(frame_of(GetParam(), write_message));
    const auto& body = std::get<cardsim::register_write>(received.body);
    EXPECT_EQ(body.address, 0x00005234U);
    EXPECT_EQ(body.data, 0x04030201U);
    EXPECT_EQ(received.fault, "");
}

TEST_P(InBothArrangements, VlanSetCarriesSixteenBits) {
    const request received = decoded(frame_of(GetParam(), vlan_message));
    EXPECT_EQ(std::get<cardsim::vlan_set>(received.body).vlan_id, 0xFEDC);
    EXPECT_EQ(received.fault, "");
}

TEST_P(InBothArrangements, Reset) {
    const request received = decoded(frame_of(GetParam(), reset_message));
    EXPECT_EQ(std::get<cardsim::reset>(received.body).status, 0x05);
    EXPECT_EQ(received.fault, "");
}

TEST_P(InBothArrangements, MmsWrite) {
    frame_bytes message = {0x92, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0xDE, 0xAD, 0xBE, 0xEF};
    for (unsigned i = 0; i < 128; ++i)
        message.push_back(static_cast<std::uint8_t>(i));
    const frame_bytes frame = frame_of(GetParam(), message);
    ASSERT_EQ(frame.size(), 156U);
    const request received = decoded(frame);
    const auto& body = std::get<cardsim::mms_write>(received.body);
    EXPECT_EQ(body.page, 0xDEADBEEFU);
    EXPECT_EQ(body.data.front(), 0x03020100U);
    EXPECT_EQ(body.data.back(), 0x7F7E7D7CU);
    EXPECT_EQ(received.fault, "");
}

struct faulty {
    const char* what;
    frame_bytes message;
    std::size_t offset;  // byte that is changed
    std::uint8_t value;
    const char* fault;
};

void PrintTo(const faulty& test, std::ostream* out) {
    *out << test.what;
}

class Faults : public testing::TestWithParam<faulty> {};

TEST_P(Faults, AreNamed) {
    frame_bytes frame = frame_of(arrangement::normal, GetParam().message);
    EXPECT_EQ(decoded(frame).fault, "");
    frame[GetParam().offset] = GetParam().value;
    EXPECT_EQ(decoded(frame).fault, GetParam().fault);
}

INSTANTIATE_TEST_SUITE_P(
    Receive, Faults,
    testing::Values(
        faulty{"Priority", reset_message, 14, 0xA2, "the priority is not 4"},
        faulty{"Cfi", reset_message, 14, 0x92, "the CFI bit is set"},
        faulty{"FlowIdDa", reset_message, 19, 0x00, "a flow ID is not 0xFF"},
        faulty{"FlowIdSa", reset_message, 20, 0xFE, "a flow ID is not 0xFF"},
        faulty{"Version", reset_message, 21, 0x01, "the version or info byte is not 0"},
        faulty{"Info", reset_message, 22, 0x01, "the version or info byte is not 0"},
        faulty{"Padding", reset_message, 24, 0x01, "the padding is not zero"},
        faulty{"LastByte", write_message, 59, 0x01, "the padding is not zero"},
        faulty{"WriteTag", write_message, 23, 0x01, "the tag of a write is not 0"},
        faulty{"AddressGap", write_message, 26, 0xF2, "unused address bits are not zero"},
        faulty{"AddressTop", read_message, 24, 0x04, "unused address bits are not zero"},
        faulty{"VlanType", vlan_message, 23, 0x01, "the set type is not 0"},
        faulty{"VlanReserved", vlan_message, 27, 0x01, "reserved bytes are not zero"},
        faulty{"Subtype", reset_message, 18, 0x31, "no card takes this subtype"}),
    testing::PrintToStringParamName());

TEST(Receive, ShortFrameHasNoBody) {
    for (const frame_bytes& message : {read_message, write_message, vlan_message, reset_message}) {
        frame_bytes frame = frame_of(arrangement::normal, message);
        frame.pop_back();
        const request received = decoded(frame);
        EXPECT_EQ(received.fault, "the frame is too short");
        EXPECT_TRUE(std::holds_alternative<std::monostate>(received.body));
    }
}

TEST(Receive, OtherProtocolsAreNone) {
    frame_bytes other_type = frame_of(arrangement::normal, reset_message);
    other_type[17] = 0xB7;
    EXPECT_FALSE(decode(other_type));
    EXPECT_TRUE(decode(other_type, 0x88B7));

    frame_bytes no_tag = frame_of(arrangement::change, reset_message);
    no_tag[14] = 0x91;
    EXPECT_FALSE(decode(no_tag));
}

TEST(Receive, WhatOtherCardsSendIsNone) {
    for (const int subtype : {0x10, 0x11, 0x18, 0x19, 0x20}) {
        EXPECT_FALSE(
            decode(frame_of(arrangement::normal, {static_cast<std::uint8_t>(subtype)}, 500)));
    }
}

TEST(Receive, EveryLengthIsSurvived) {
    for (const int subtype : {0x00, 0x30, 0x80, 0x90, 0x91, 0x92, 0xFF}) {
        frame_bytes frame =
            frame_of(arrangement::normal, {static_cast<std::uint8_t>(subtype)}, 1600);
        for (std::size_t length = 0; length <= frame.size(); ++length) {
            EXPECT_EQ(decode(std::span(frame).first(length)).has_value(), length >= 19);
        }
    }
}

// At that many bytes after an aligned address, a careless read of a number is found by
// UndefinedBehaviorSanitizer, or gives another value.
TEST_P(InBothArrangements, IsReadAlikeAtAnyAddress) {
    frame_bytes mms_message = {0x92, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0xDE, 0xAD, 0xBE, 0xEF};
    mms_message.resize(mms_message.size() + 128, 0x5A);
    for (const frame_bytes& message :
         {read_message, write_message, vlan_message, reset_message, mms_message}) {
        const frame_bytes frame = frame_of(GetParam(), message);
        const std::string expected = describe(decoded(frame));
        for (std::size_t offset = 0; offset < 16; ++offset) {
            frame_bytes block(offset);
            block.insert(block.end(), frame.begin(), frame.end());
            const auto received = decode(std::span(block).subspan(offset));
            ASSERT_TRUE(received) << offset;
            EXPECT_EQ(describe(*received), expected) << offset;
        }
    }
}

TEST(Receive, DescriptionNamesTheMessageAndItsFault) {
    frame_bytes frame = frame_of(arrangement::change, read_message);
    EXPECT_EQ(describe(decoded(frame)),
              "Register Read tag=42 address=0x2bcdef subtype=0x91 to=0x020000000011 "
              "from=0x0a0000000001 vlan=564 (tag change mode) length=60");
    frame[19] = 0;
    EXPECT_NE(describe(decoded(frame)).find("FAULT: a flow ID is not 0xFF"), std::string::npos);
}

}  // namespace
