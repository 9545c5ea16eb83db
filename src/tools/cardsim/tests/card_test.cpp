// Fields by name: what set_field() takes, where it puts it, what it refuses.
#include <gtest/gtest.h>

#include "cardsim.h"
#include "fields.h"

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::make_card;
using cardsim::set_field;

card io_card() {
    return make_card("io", card_kind::qnio, card_speed::g1_10, 0x020000000010);
}

std::string refusal(std::string_view field, std::string_view value) {
    card changed = io_card();
    try {
        set_field(changed, field, value);
    } catch (const cardsim::error& e) {
        return e.what();
    }
    return "accepted";
}

TEST(Fields, EveryFieldChangesTheFrame) {
    card before = io_card();
    before.version = 1;  // so that the resource ID travels
    before.vlan_id = 0;
    before.port0_link = before.port1_link = before.power = before.pcie_presence = false;
    for (const std::string_view name : cardsim::card_field_names()) {
        if (name.ends_with("_ms")) continue;  // timing is no part of a frame
        card changed = before;
        set_field(changed, name, name == "version" ? "0" : "1");
        EXPECT_NE(encode(changed, cardsim::message::devinfo, 0),
                  encode(before, cardsim::message::devinfo, 0))
            << name;
    }
}

TEST(Fields, NumbersAreDecimalOrHexadecimal) {
    card changed = io_card();
    set_field(changed, "vlan_id", "4095");
    EXPECT_EQ(changed.vlan_id, 4095);
    set_field(changed, "vlan_id", "0x10");
    EXPECT_EQ(changed.vlan_id, 16);
    set_field(changed, "ser_mac", "02:00:00:00:aB:10");
    EXPECT_EQ(changed.ser_mac, 0x02000000AB10U);
    set_field(changed, "ser_mac", "0x020000000011");
    EXPECT_EQ(changed.ser_mac, 0x020000000011U);
}

TEST(Fields, FlagsAreTrueOrFalse) {
    card changed = io_card();
    set_field(changed, "uid_switch", "true");
    EXPECT_TRUE(changed.uid_switch);
    set_field(changed, "uid_switch", "0");
    EXPECT_FALSE(changed.uid_switch);
    EXPECT_EQ(refusal("uid_switch", "yes"), "\"uid_switch\" takes true or false, not \"yes\"");
}

TEST(Fields, ConnectedIsBitOneOfTheSecondStatusByte) {
    card changed = io_card();
    changed.io_substate = {0xFF, 0x05};
    set_field(changed, "connected", "true");
    EXPECT_EQ(changed.io_substate[1], 0x07);
    set_field(changed, "connected", "false");
    EXPECT_EQ(changed.io_substate[1], 0x05);
    EXPECT_EQ(changed.io_substate[0], 0xFF);
    set_field(changed, "down_port.3.connected", "true");
    EXPECT_EQ(changed.down_ports[3].port_status[1], 0x02);
}

TEST(Fields, RecordsInsideTheCardAreReached) {
    card changed = io_card();
    set_field(changed, "up_port.pre_limit_upper", "0xFFFFFFFF");
    EXPECT_EQ(changed.up_port.pre_limit_upper, 0xFFFFFFFFU);
    set_field(changed, "down_port.15.io_mac", "0x020000000099");
    EXPECT_EQ(changed.down_ports[15].io_mac, 0x020000000099U);
    set_field(changed, "down_port.0.memory_base", "7");
    EXPECT_EQ(changed.down_ports[0].com_port.memory_base, 7);
    set_field(changed, "down_port.0.port_status0", "8");
    EXPECT_EQ(changed.down_ports[0].port_status[0], 8);
}

TEST(Fields, RefusalsSayWhatIsTaken) {
    EXPECT_EQ(refusal("vlan_id", "4096"),
              "\"vlan_id\" takes a number from 0 to 4095, not \"4096\"");
    EXPECT_EQ(refusal("vlan_id", "-1"), "\"vlan_id\" takes a number from 0 to 4095, not \"-1\"");
    EXPECT_EQ(refusal("vlan_id", "7x"), "\"vlan_id\" takes a number from 0 to 4095, not \"7x\"");
    EXPECT_EQ(refusal("vlan_id", ""), "\"vlan_id\" takes a number from 0 to 4095, not \"\"");
    EXPECT_NE(refusal("ser_mac", "02:00:00:00:00").find("48-bit"), std::string::npos);
    EXPECT_NE(refusal("ser_mac", "02:00:00:00:00-10").find("48-bit"), std::string::npos);
    EXPECT_NE(refusal("ser_mac", "0x1000000000000").find("48-bit"), std::string::npos);
    EXPECT_EQ(refusal("vlanid", "1"), "no field \"vlanid\"; the nearest is \"vlan_id\"");
    EXPECT_EQ(refusal("up_port.comand", "1"),
              "no bridge field \"comand\"; the nearest is \"command\"");
    EXPECT_EQ(refusal("down_port.1.iomac", "1"),
              "no downstream port field \"iomac\"; the nearest is \"io_mac\"");
    EXPECT_EQ(refusal("down_port.16.io_mac", "1"),
              "\"down_port\" takes a number from 0 to 15, not \"16\"");
    EXPECT_EQ(refusal("down_port.1", "1"), "a downstream port is set by down_port.N.FIELD");
    EXPECT_EQ(refusal("heard", "P0M0"), "\"heard\" cannot be set: use silence and wake");
    EXPECT_EQ(refusal("id", "1"),
              "\"id\" cannot be set: it tells which card this is; add another card instead");
}

TEST(Fields, CardsThatCannotExistAreRefused) {
    card odd = make_card("odd", card_kind::qnsv, card_speed::g40, 0x020000000011);
    EXPECT_THROW(check_card(odd, 1), cardsim::error);
    card wide = make_card("wide", card_kind::qnsv, card_speed::g1_10, 0x1000000000000);
    EXPECT_THROW(check_card(wide, 1), cardsim::error);
    card second_path = io_card();
    second_path.heard[0][1] = true;
    EXPECT_THROW(check_card(second_path, 2), cardsim::error);
    card second_port = io_card();
    second_port.heard[1][0] = true;
    EXPECT_THROW(check_card(second_port, 1), cardsim::error);
    EXPECT_NO_THROW(check_card(second_port, 2));
    for (const char* name : {"", "0x12", "two words"}) {
        card named = io_card();
        named.name = name;
        EXPECT_THROW(check_card(named, 1), cardsim::error) << name;
    }
}

}  // namespace
