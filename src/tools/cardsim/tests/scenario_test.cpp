// Tests of scenarios: the cards that they make, and errors that name the place.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <ostream>

#include "cardsim.h"
#include "refusal.h"
#include "temporary_file.h"

namespace {

using cardsim::card;
using cardsim::parse_scenario;
using cardsim::scenario;

scenario parsed(const std::string& text) {
    return parse_scenario(text, "test.toml");
}

std::string refusal(const std::string& text) {
    return refusal_of([&] { parsed(text); });
}

// The minimum for a card, on lines 1 to 5; `more` begins on line 6.
std::string card_text(const std::string& more = {}, const std::string& speed = "1g10g") {
    return "[[card]]\nname = \"a\"\nkind = \"qnsv\"\nspeed = \"" + speed +
           "\"\nid = 0x020000000010\n" + more;
}

TEST(Scenario, Defaults) {
    const scenario read = parsed(card_text());
    EXPECT_EQ(read.ether_type, 0x88B6);
    EXPECT_TRUE(read.ports.empty());
    ASSERT_EQ(read.cards.size(), 1U);
    const card& result = read.cards[0];
    EXPECT_EQ(result.name, "a");
    EXPECT_EQ(result.id, 0x020000000010U);
    EXPECT_EQ(result.ether_type, 0x88B6);
    EXPECT_EQ(result.interval_ms, 1000U);
    EXPECT_TRUE(result.heard[0][0]);
    EXPECT_FALSE(result.heard[0][1] || result.heard[1][0] || result.heard[1][1]);
}

TEST(Scenario, HeardOnEveryPortAndPathByDefault) {
    const scenario read = parsed("ports = [\"x\", \"y\"]\n" + card_text({}, "40g"));
    EXPECT_EQ(read.ports, (std::vector<std::string>{"x", "y"}));
    for (const auto& port : read.cards[0].heard)
        EXPECT_TRUE(port[0] && port[1]);
    EXPECT_EQ(read.cards[0].ver, 1);
}

TEST(Scenario, GivenPortsStandInsteadOfItsOwn) {
    const std::string text = "ports = [\"x\", \"y\"]\n" + card_text();
    const scenario read = parse_scenario(text, "test.toml", {"z"});
    EXPECT_EQ(read.ports, (std::vector<std::string>{"z"}));
    EXPECT_TRUE(read.cards[0].heard[0][0]);
    EXPECT_FALSE(read.cards[0].heard[1][0]);
}

TEST(Scenario, HeardAsListed) {
    const scenario read = parsed(card_text("heard = [\"P0M1\", \"P1M0\"]\n", "40g"));
    const auto& heard = read.cards[0].heard;
    EXPECT_TRUE(heard[0][1] && heard[1][0]);
    EXPECT_FALSE(heard[0][0] || heard[1][1]);
}

TEST(Scenario, EtherTypeOfScenarioAndCard) {
    const std::string other =
        "[[card]]\nname=\"b\"\nkind=\"qnio\"\nspeed=\"40g\"\nid=\"02:00:00:00:00:20\"\n"
        "ether_type = 0x9001\n";
    const scenario read = parsed("ether_type = 0x9000\n" + card_text() + other);
    EXPECT_EQ(read.cards[0].ether_type, 0x9000);
    EXPECT_EQ(read.cards[1].ether_type, 0x9001);
}

TEST(Scenario, TablesInsideTheCard) {
    const scenario read =
        parsed(card_text("[card.up_port]\ncommand = 7\n"
                         "[[card.down_port]]\nindex = 3\nconnected = true\n"
                         "io_mac = \"0x020000000099\"\nmemory_limit = 0xFFF0\n"));
    EXPECT_EQ(read.cards[0].up_port.command, 7);
    EXPECT_EQ(read.cards[0].down_ports[3].port_status[1], 0x02);
    EXPECT_EQ(read.cards[0].down_ports[3].io_mac, 0x020000000099U);
    EXPECT_EQ(read.cards[0].down_ports[3].com_port.memory_limit, 0xFFF0);
}

TEST(Scenario, RegistersAndEeprom) {
    const card result = parsed(card_text("register_default = 0xFFFFFFFF\neeprom_fill = 0\n"
                                         "eeprom_file = \"a.eeprom\"\n"
                                         "silent_registers = [0x20, 0x24]\nfault_seed = 7\n"
                                         "lose_answers = 50\n"
                                         "[card.registers]\n0x1000 = 0x12345678\n\"4\" = 5\n"
                                         "[card.eeprom]\n0x10 = \"SERIAL\"\n0x20 = 0x01020304\n"))
                            .cards[0];
    EXPECT_EQ(result.device.register_default, 0xFFFFFFFFU);
    EXPECT_EQ(result.device.eeprom_fill, 0);
    EXPECT_EQ(result.device.eeprom_file, "a.eeprom");
    EXPECT_EQ(result.device.registers,
              (std::map<std::uint32_t, std::uint32_t>{{0x1000, 0x12345678}, {4, 5}}));
    EXPECT_EQ(result.device.eeprom,
              (std::map<std::uint32_t, std::string>{{0x10, "SERIAL"}, {0x20, "\4\3\2\1"}}));
    EXPECT_EQ(result.faults.silent_registers, (std::vector<std::uint32_t>{0x20, 0x24}));
    EXPECT_EQ(result.faults.seed, 7U);
    EXPECT_EQ(result.faults.lose_answers, 50);
}

TEST(Scenario, NoSilentRegisterIsAnEmptyList) {
    EXPECT_TRUE(
        parsed(card_text("silent_registers = []\n")).cards[0].faults.silent_registers.empty());
}

TEST(Scenario, CountUnfoldsWithAscendingIdsSpreadOverTheInterval) {
    const scenario read = parsed(card_text("count = 4\ninterval_ms = 1000\n"));
    ASSERT_EQ(read.cards.size(), 4U);
    EXPECT_EQ(read.cards[0].name, "a-0");
    EXPECT_EQ(read.cards[3].name, "a-3");
    EXPECT_EQ(read.cards[0].id, 0x020000000010U);
    EXPECT_EQ(read.cards[3].id, 0x020000000016U);
    EXPECT_EQ(read.cards[0].phase_ms, 0U);
    EXPECT_EQ(read.cards[3].phase_ms, 750U);
}

TEST(Scenario, CountWithStepAndBurst) {
    const scenario read = parsed(card_text("count = 3\nstep = 0x100\nburst = true\n"));
    EXPECT_EQ(read.cards[2].id, 0x020000000210U);
    EXPECT_EQ(read.cards[2].phase_ms, 0U);
}

struct wrong {
    const char* what;
    std::string text;
    std::string expected;
};

void PrintTo(const wrong& test, std::ostream* out) {
    *out << test.what;
}

class Wrong : public testing::TestWithParam<wrong> {};

TEST_P(Wrong, IsNamedWithItsPlace) {
    EXPECT_EQ(refusal(GetParam().text), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Scenario, Wrong,
    testing::Values(
        wrong{"CardKey", card_text("vlanid = 3\n"),
              "test.toml:6: no key \"vlanid\"; the nearest is \"vlan_id\""},
        wrong{"TopKey", "prots = [\"x\"]\n" + card_text(),
              "test.toml:1: no key \"prots\"; the nearest is \"ports\""},
        wrong{"UpPortKey", card_text("[card.up_port]\ncomand = 1\n"),
              "test.toml:7: no bridge field \"comand\"; the nearest is \"command\""},
        wrong{"DownPortKey", card_text("[[card.down_port]]\nindex = 1\nio_amc = 1\n"),
              "test.toml:8: no downstream port field \"io_amc\"; the nearest is \"io_mac\""},
        wrong{"DownPortIndex", card_text("[[card.down_port]]\nindex = 16\n"),
              "test.toml:7: \"index\" takes a number from 0 to 15, not \"16\""},
        wrong{"Range", card_text("vlan_id = 4096\n"),
              "test.toml:6: \"vlan_id\" takes a number from 0 to 4095, not \"4096\""},
        wrong{"Negative", card_text("vlan_id = -1\n"),
              "test.toml:6: \"vlan_id\" takes a number from 0 to 4095, not \"-1\""},
        wrong{"List", card_text("vlan_id = [1]\n"),
              "test.toml:6: \"vlan_id\" takes a single value"},
        wrong{"Heard", card_text("heard = [\"P2M0\"]\n"),
              "test.toml:6: \"heard\" lists P0M0, P0M1, P1M0, P1M1 (port, path), not \"P2M0\""},
        wrong{"HeardText", card_text("heard = \"P0M0\"\n"), "test.toml:6: \"heard\" takes a list"},
        wrong{"PathOfSlowCard", card_text("heard = [\"P0M1\"]\n"),
              "test.toml:1: card \"a\": heard on P0M1, but a 1G/10G card has path 0 only"},
        wrong{"PortThatIsNot", "ports = [\"x\"]\n" + card_text("heard = [\"P1M0\"]\n"),
              "test.toml:2: card \"a\": heard on P1M0, but there is no such port"},
        wrong{"Kind", "[[card]]\nname = \"a\"\nkind = \"qnxx\"\nspeed = \"40g\"\nid = 2\n",
              "test.toml:3: \"kind\" takes \"qnsv\" or \"qnio\", not \"qnxx\""},
        wrong{"NoId", "[[card]]\nname = \"a\"\nkind = \"qnio\"\nspeed = \"40g\"\n",
              "test.toml:1: a [[card]] needs \"id\""},
        wrong{"SameId",
              card_text() + "[[card]]\nname = \"b\"\nkind = \"qnio\"\nspeed = \"40g\"\n"
                            "id = 0x020000000010\n",
              "test.toml:6: card \"b\": the ID 0x020000000010 is card \"a\" already"},
        wrong{"SameName", card_text() + card_text(),
              "test.toml:6: the name \"a\" is there already"},
        wrong{"Count", card_text("count = 0\n"), "test.toml:6: \"count\" takes at least 1"},
        wrong{"Burst", card_text("count = 2\nburst = 1\n"),
              "test.toml:7: \"burst\" takes true or false"},
        wrong{"AnsweringKey", card_text("lose_anwsers = 1\n"),
              "test.toml:6: no key \"lose_anwsers\"; the nearest is \"lose_answers\""},
        wrong{"Rate", card_text("wrong_tag = 1001\n"),
              "test.toml:6: \"wrong_tag\" takes a number from 0 to 1000, not \"1001\""},
        wrong{"RegisterAddress", card_text("[card.registers]\n0x400000 = 1\n"),
              "test.toml:7: \"address\" takes a number from 0 to 4194300, not \"0x400000\""},
        wrong{"RegisterName", card_text("[card.registers]\nserial = 1\n"),
              "test.toml:7: \"address\" takes a number from 0 to 4194300, not \"serial\""},
        wrong{"RegisterValue", card_text("[card.registers]\n0x10 = 0x100000000\n"),
              "test.toml:7: \"0x10\" takes a number from 0 to 4294967295, not \"4294967296\""},
        wrong{"RegisterUneven", card_text("[card.registers]\n0x11 = 1\n"),
              "test.toml:1: card \"a\": register address 0x000011: an address is a multiple of "
              "4, at most 0x3ffffc"},
        wrong{"RegisterOfEeprom", card_text("[card.registers]\n0x5010 = 1\n"),
              "test.toml:1: card \"a\": register 0x005010 belongs to the EEPROM and cannot be "
              "preset"},
        wrong{"RegistersNoTable", card_text("registers = 1\n"),
              "test.toml:6: \"registers\" is a table, written with [ ]"},
        wrong{"EepromAddress", card_text("[card.eeprom]\n2048 = 1\n"),
              "test.toml:7: \"address\" takes a number from 0 to 2047, not \"2048\""},
        wrong{"EepromEnd", card_text("[card.eeprom]\n2045 = 1\n"),
              "test.toml:1: card \"a\": the EEPROM preset at 0x0007fd goes beyond its 2048 "
              "bytes"},
        wrong{"SilentRegister", card_text("silent_registers = [\"x\"]\n"),
              "test.toml:6: \"silent_registers\" takes a number from 0 to 4194300, not \"x\""},
        wrong{"SameEepromFile", card_text("count = 2\neeprom_file = \"f\"\n"),
              "test.toml:1: card \"a-1\": the EEPROM file \"f\" is that of card \"a-0\" already"},
        wrong{"NoCard", "ports = [\"x\"]\n", "test.toml: no [[card]] in this scenario"},
        wrong{"ThreePorts", "ports = [\"x\", \"y\", \"z\"]\n" + card_text(),
              "test.toml:1: \"ports\" lists one or two interfaces"}),
    testing::PrintToStringParamName());

TEST(Scenario, SyntaxErrorsHaveAPlace) {
    EXPECT_EQ(refusal(card_text("vlan_id = \n")).substr(0, 12), "test.toml:6:");
}

std::string refusal_of_file(const std::filesystem::path& name) {
    return refusal_of([&] { cardsim::load_scenario(name); });
}

TEST(Scenario, MissingFileIsNamed) {
    EXPECT_EQ(refusal_of_file("/nonexistent/cards.toml"),
              "cannot read the scenario \"/nonexistent/cards.toml\": No such file or directory");
}

// No process writes to the FIFO, so reading it would wait for ever.
TEST(Scenario, IsARegularFileOfBoundedSize) {
    const temporary_file own;
    const std::string start = "cannot read the scenario \"" + own.path.string() + "\": it ";
    ASSERT_EQ(0, mkfifo(own.path.c_str(), 0600));
    EXPECT_EQ(refusal_of_file(own.path), start + "is a FIFO, not a regular file");
    std::filesystem::remove(own.path);
    std::ofstream(own.path).close();
    std::filesystem::resize_file(own.path, 300'000'000);
    EXPECT_EQ(refusal_of_file(own.path), start + "has 300000000 bytes and may have 16777216");
    EXPECT_EQ(refusal_of_file("/dev"),
              "cannot read the scenario \"/dev\": it is a directory, not a regular file");
}

// Each part of a dotted key is a table within the one before, for the parser and for its result.
TEST(Scenario, KeyOfManyPartsIsRefused) {
    std::string key = "a";
    for (int part = 1; part < 40'000; ++part)
        key += ".a";
    const std::string expected = "test.toml:1: tables lie within each other more than 32 deep";
    EXPECT_EQ(refusal(key + " = 1\n"), expected);
    EXPECT_EQ(refusal("[" + key + "]\n"), expected);
    EXPECT_EQ(refusal("b = {" + key + " = 1}\n"), expected);
}

TEST(Scenario, ExamplesLoad) {
    const scenario demo = cardsim::load_scenario(SCENARIO_DIR "/demo.toml");
    EXPECT_EQ(demo.cards.size(), 6U);
    EXPECT_EQ(demo.ports, (std::vector<std::string>{"qsim0", "qsim1"}));
    EXPECT_EQ(demo.cards[0].device.registers.at(0x1000), 0x20261121U);
    EXPECT_EQ(demo.cards[0].device.eeprom.at(0), "SERVER CARD 10G");
    EXPECT_TRUE(demo.cards[1].device.id_lock);
    EXPECT_EQ(cardsim::load_scenario(SCENARIO_DIR "/rack.toml").cards.size(), 2000U);
}

}  // namespace
