// Tests of set_field(): which fields and values it accepts, where it stores them, what it refuses.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>

#include "cardsim.h"
#include "fields.h"
#include "refusal.h"

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
    return refusal_of([&] { set_field(changed, field, value); });
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

// No two fields share a place: setting one changes no other.
TEST(Fields, EveryAnsweringFieldHasAPlaceOfItsOwn) {
    using cardsim::device_settings, cardsim::fault_settings;
    card changed = io_card();
    std::uint64_t next = 100;
    const auto numbered = [&](std::string_view name, const auto& member) {
        set_field(changed, name, std::to_string(++next));
        return [&member, expected = next] { return member == expected; };
    };
    device_settings& device = changed.device;
    fault_settings& faults = changed.faults;
    const std::function<bool()> checks[] = {
        numbered("register_default", device.register_default),
        numbered("lock_retake_reads", device.lock_retake_reads),
        numbered("eeprom_fill", device.eeprom_fill),
        numbered("eeprom_busy_polls", device.eeprom_busy_polls),
        numbered("fault_seed", faults.seed),
        numbered("lose_requests", faults.lose_requests),
        numbered("lose_answers", faults.lose_answers),
        numbered("duplicate_answers", faults.duplicate_answers),
        numbered("reorder_answers", faults.reorder_answers),
        numbered("wrong_port", faults.wrong_port),
        numbered("wrong_mac", faults.wrong_mac),
        numbered("wrong_tag", faults.wrong_tag),
        numbered("lose_announcements", faults.lose_announcements),
        numbered("duplicate_announcements", faults.duplicate_announcements),
        numbered("delay_min_ms", faults.delay_min_ms),
        numbered("delay_max_ms", faults.delay_max_ms),
    };
    for (const auto& check : checks)
        EXPECT_TRUE(check()) << &check - checks;
    const std::pair<std::string_view, bool device_settings::*> flags[] = {
        {"vlan_frozen", &device_settings::vlan_frozen},
        {"id_lock", &device_settings::id_lock},
        {"lock_stubborn", &device_settings::lock_stubborn},
        {"eeprom_packed", &device_settings::eeprom_packed},
        {"eeprom_refusing", &device_settings::eeprom_refusing}};
    for (const auto& [set, member] : flags) {
        card flagged = io_card();
        flagged.device.eeprom_packed = false;
        set_field(flagged, set, "true");
        for (const auto& [name, other] : flags)
            EXPECT_EQ(flagged.device.*other, name == set) << set << " and " << name;
    }
    const std::size_t lists = 1;
    EXPECT_EQ(cardsim::answering_field_names().size(),
              std::size(checks) + std::size(flags) + lists);
}

TEST(Fields, SilentRegistersAreAList) {
    card changed = io_card();
    set_field(changed, "silent_registers", "0x10,20");
    EXPECT_EQ(changed.faults.silent_registers, (std::vector<std::uint32_t>{0x10, 20}));
    set_field(changed, "silent_registers", "8");
    EXPECT_EQ(changed.faults.silent_registers, std::vector<std::uint32_t>{8});
    set_field(changed, "silent_registers", "none");
    EXPECT_TRUE(changed.faults.silent_registers.empty());
    EXPECT_EQ(refusal("silent_registers", "8,,9"),
              "\"silent_registers\" takes a number from 0 to 4194300, not \"\"");
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
    EXPECT_EQ(refusal("lose_answers", "1001"),
              "\"lose_answers\" takes a number from 0 to 1000, not \"1001\"");
    EXPECT_EQ(refusal("eeprom_fill", "256"),
              "\"eeprom_fill\" takes a number from 0 to 255, not \"256\"");
    EXPECT_EQ(refusal("lose_answer", "1"),
              "no field \"lose_answer\"; the nearest is \"lose_answers\"");
    EXPECT_EQ(refusal("registers", "1"), "\"registers\" cannot be set: use reg");
    EXPECT_EQ(refusal("eeprom_file", "x"),
              "\"eeprom_file\" cannot be set: use eeprom with load and save");
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
