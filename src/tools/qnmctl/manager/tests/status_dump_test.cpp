// The status dump as numbers.
#include "manager/status_dump.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/sample_dump.h"

namespace qnmctl {
namespace {

TEST(StatusDump, HasTheStateOfTheManager) {
    EXPECT_EQ(
        status_dump_json(sample_dump)["state"],
        (json{
            {"initialized", true}, {"started", true}, {"stopping", false}, {"log_level", "INFO"}}));
}

TEST(StatusDump, HasPortsWithAddressesAsElsewhere) {
    EXPECT_EQ(
        status_dump_json(sample_dump)["ports"],
        (json::array(
            {{{"port", 0}, {"macaddr", "02:00:00:00:00:01"}, {"link", "up"}, {"link_losses", 0}},
             {{"port", 1},
              {"macaddr", "0a:00:00:00:00:02"},
              {"link", "up"},
              {"link_losses", 0}}})));
}

TEST(StatusDump, CountsCardsByKindAndGroup) {
    const json cards = status_dump_json(sample_dump)["cards"];
    EXPECT_EQ(cards["qnsv"], 2);
    EXPECT_EQ(cards["qnio"], 4);
    ASSERT_EQ(cards["groups"].size(), 4U);
    EXPECT_EQ(cards["groups"][2], (json{{"vlan_id", 30}, {"qnsv", 0}, {"qnio", 1}}));
}

TEST(StatusDump, HasEveryCounterUnderItsName) {
    const json dump = status_dump_json(sample_dump);
    EXPECT_EQ(dump["memory"]["evt_node"], (json{{"in_use", 0}, {"allocated", 26}, {"freed", 26}}));
    EXPECT_EQ(dump["memory"].size(), 8U);
    EXPECT_EQ(dump["callbacks"], (json{{"called", 26}, {"returned", 26}}));
    EXPECT_EQ(dump["events"]["UPDATEDEVINFO"], 10);
    EXPECT_EQ(dump["events"].size(), 6U);
    ASSERT_EQ(dump["frames"].size(), 2U);
    EXPECT_EQ(dump["frames"][0]["received"], (json{{"total", 53},
                                                   {"devinfo", 17},
                                                   {"devinfo_40g", 36},
                                                   {"notify", 0},
                                                   {"notify_40g", 0},
                                                   {"completion", 0}}));
    EXPECT_EQ(dump["frames"][1]["received"]["total"], 41);
    EXPECT_EQ(dump["frames"][1]["sent"].size(), 6U);
    EXPECT_EQ(dump["results"]["QNM_API_ENOENT"], 26);
    EXPECT_EQ(dump["results"].size(), 10U);
    EXPECT_EQ(dump["stopped"], json::array({"0x020000003000"}));
}

TEST(StatusDump, HasTheResultsPerCallOfAVerboseDump) {
    const json calls = status_dump_json(sample_dump)["calls"];
    ASSERT_TRUE(calls.contains("qnm_get_qnsvids"));
    EXPECT_EQ(calls["qnm_get_qnsvids"].size(), 10U);
}

TEST(StatusDump, LeavesOutWhatADumpDoesNotHave) {
    EXPECT_EQ(status_dump_json(""), json::object());
    EXPECT_EQ(status_dump_json("  - Weather\n    rain: 3\n"), json::object());
    EXPECT_FALSE(status_dump_json("  - State\n").contains("calls"));
}

// A log may be cut at any place.
TEST(StatusDump, SurvivesEveryCut) {
    const std::string whole = sample_dump;
    for (std::size_t length = 0; length < whole.size(); ++length)
        EXPECT_TRUE(status_dump_json(whole.substr(0, length)).is_object());
}

}  // namespace
}  // namespace qnmctl
