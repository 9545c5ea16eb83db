// What can come next on a line, by a table of verbs of the test's own.
#include "cli/completion.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

int run(context&, const request&) {
    return exit_ok;
}

constexpr operand addr[] = {{.name = "ADDR", .help = ""}};
constexpr operand file[] = {{.name = "FILE", .help = "", .form = operand_form::file}};

constexpr verb table[] = {
    {.name = "watch", .help = "Watches", .takes = takes_filter | takes_for, .run = run},
    {.name = "show", .help = "Shows", .takes = takes_id, .run = run},
    {.name = "monitor", .help = "Controls", .takes = takes_action | takes_id, .run = run},
    {.name = "reg read", .help = "Reads", .takes = takes_ids, .run = run, .operands = addr},
    {.name = "reg dump", .help = "Dumps", .takes = takes_id | takes_raw, .run = run},
    {.name = "eeprom restore", .help = "Restores", .takes = takes_id, .run = run, .operands = file},
    {.name = "secret", .help = "Is not told", .run = run, .hidden = true},
    {.name = "quit", .help = "Ends"},
};

std::vector<candidate> two_cards(const settings& given) {
    if (given.ports.empty() && given.dir.empty()) return {};
    return {{"0x020000001000", "QNSV card"}, {"0x020000002000", "QNIO card"}};
}

using words = std::vector<std::string>;

candidates of(const words& line) {
    return complete(table, line, two_cards);
}

words offered(const words& line) {
    words found;
    for (const candidate& one : of(line).words)
        found.push_back(one.word);
    return found;
}

TEST(Complete, OffersVerbsAndGroups) {
    EXPECT_EQ((words{"watch", "show", "monitor", "reg", "eeprom"}), offered({""}));
    EXPECT_EQ(words{"watch"}, offered({"w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports", "eth1", "w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports=eth1", "w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports", "=", "eth1", "w"}));
    EXPECT_EQ(words{}, offered({"q"}));
}

TEST(Complete, OffersTheVerbsOfAGroup) {
    EXPECT_EQ((words{"read", "dump"}), offered({"reg", ""}));
    EXPECT_EQ(words{"restore"}, offered({"eeprom", "r"}));
}

TEST(Complete, OffersOptions) {
    EXPECT_EQ((words{"--group"}), offered({"watch", "--gr"}));
    EXPECT_EQ((words{"--log", "--log-level"}), offered({"--lo"}));
    EXPECT_EQ(words{}, offered({"--gr"}));
    EXPECT_EQ("Seconds to listen, without limit if not given",
              of({"watch", "--for"}).words.at(0).help);
}

TEST(Complete, OffersTheWordsOfAnOption) {
    EXPECT_EQ((words{"qnsv", "qnio"}), offered({"watch", "--kind", ""}));
    EXPECT_EQ((words{"json", "jsonl"}), offered({"show", "-o", "j"}));
    EXPECT_EQ((words{"json", "jsonl"}), offered({"show", "--output", "=", "j"}));
    EXPECT_EQ(words{"CHANNELSTATECHANGE"}, offered({"watch", "--event", "CH"}));
    EXPECT_EQ(words{}, offered({"watch", "--for", ""}));
}

TEST(Complete, OffersTheWordsOfAVerb) {
    EXPECT_EQ((words{"stop", "restart"}), offered({"monitor", ""}));
}

TEST(Complete, OffersTheCardsThatAreHeard) {
    const words both = {"0x020000001000", "0x020000002000"};
    EXPECT_EQ(both, offered({"--ports", "eth1", "show", ""}));
    EXPECT_EQ(both, offered({"show", "--dir", "/opt", "0x"}));
    EXPECT_EQ(words{both[1]}, offered({"--ports", "eth1", "monitor", "stop", "0x020000002"}));
    EXPECT_EQ(both, offered({"--ports", "eth1", "watch", "--card", ""}));
    EXPECT_EQ(both, offered({"--ports", "eth1", "reg", "read", both[0], ""}));
    EXPECT_EQ(words{}, offered({"show", ""}));
    EXPECT_EQ(words{}, offered({"--ports", "eth1", "show", both[0], ""}));
}

TEST(Complete, LooksForCardsWhereOneIsWantedOnly) {
    int looks = 0;
    const auto counted = [&](const settings&) {
        ++looks;
        return std::vector<candidate>{};
    };
    complete(table, {"--ports", "eth1", "watch", "--kind", ""}, counted);
    complete(table, {"--ports", "eth1", ""}, counted);
    complete(table, {"--ports", "eth1", "show", "--"}, counted);
    EXPECT_EQ(0, looks);
    complete(table, {"--ports", "eth1", "show", ""}, counted);
    EXPECT_EQ(1, looks);
}

TEST(Complete, LeavesFilesToTheShell) {
    EXPECT_TRUE(of({"reg", "dump", "0x1", "--raw", ""}).files);
    EXPECT_TRUE(of({"eeprom", "restore", "0x1", ""}).files);
    EXPECT_FALSE(of({"eeprom", "restore", ""}).files);
    EXPECT_TRUE(of({"--dir", ""}).directories);
}

TEST(Complete, OffersASecondInterfaceBehindTheFirst) {
    EXPECT_EQ(words{"lo"}, offered({"--ports", "lo"}));
    EXPECT_EQ(words{"x,lo"}, offered({"--ports", "x,lo"}));
    EXPECT_EQ(words{}, offered({"--ports", "lo,lo"}));
}

TEST(Complete, SurvivesAnyLine) {
    EXPECT_EQ(words{}, offered({}));
    EXPECT_EQ(words{}, offered({"frob", "x"}));
    EXPECT_EQ(words{}, offered({"quit", ""}));
    EXPECT_EQ(words{}, offered({"--frob", "watch", "too", "many", ""}));
}

TEST(CandidatesText, HasALineForEach) {
    EXPECT_EQ("a\tA word\nb\t\n:files\n",
              candidates_text({.words = {{"a", "A word"}, {"b", ""}}, .files = true}));
}

}  // namespace
}  // namespace qnmctl
