// What can come next on a line, for a command tree of the test's own.
#include "cli/completion.h"

#include <gtest/gtest.h>

#include "cli/tests/sample_commands.h"

namespace qnmctl {
namespace {

std::vector<candidate> two_cards(const settings& given) {
    if (given.ports.empty() && given.dir.empty()) return {};
    return {{"0x020000001000", "QNSV card"}, {"0x020000002000", "QNIO card"}};
}

using words = std::vector<std::string>;

candidates completed(const words& line, const card_source& cards) {
    sample_options given;
    command_tree tree(used_for::command_line);
    define_sample_commands(tree, given);
    return complete(tree, line, cards);
}

candidates of(const words& line) {
    return completed(line, two_cards);
}

words offered(const words& line) {
    words found;
    for (const candidate& one : of(line).words)
        found.push_back(one.word);
    return found;
}

TEST(Complete, OffersCommandsAndGroups) {
    EXPECT_EQ((words{"watch", "graph", "screen", "show", "stats", "start", "reg", "eeprom"}),
              offered({""}));
    EXPECT_EQ(words{"watch"}, offered({"w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports", "eth1", "w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports=eth1", "w"}));
    EXPECT_EQ(words{"watch"}, offered({"--ports", "=", "eth1", "w"}));
    EXPECT_EQ(words{}, offered({"q"}));
}

TEST(Complete, OffersTheCommandsOfAGroup) {
    EXPECT_EQ((words{"read", "write"}), offered({"reg", ""}));
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
    EXPECT_EQ(words{"CHANGED"}, offered({"watch", "--event", "CH"}));
    EXPECT_EQ(words{}, offered({"watch", "--for", ""}));
}

TEST(Complete, OffersTheWordsOfACommand) {
    EXPECT_EQ((words{"bash", "zsh"}), offered({"start", ""}));
}

TEST(Complete, OffersTheCardsThatAreHeard) {
    const words both = {"0x020000001000", "0x020000002000"};
    EXPECT_EQ(both, offered({"--ports", "eth1", "show", ""}));
    EXPECT_EQ(both, offered({"show", "--dir", "/opt", "0x"}));
    EXPECT_EQ(words{both[1]}, offered({"--ports", "eth1", "start", "zsh", "0x020000002"}));
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
    completed({"--ports", "eth1", "watch", "--kind", ""}, counted);
    completed({"--ports", "eth1", ""}, counted);
    completed({"--ports", "eth1", "show", "--"}, counted);
    EXPECT_EQ(0, looks);
    completed({"--ports", "eth1", "show", ""}, counted);
    EXPECT_EQ(1, looks);
}

TEST(Complete, LeavesFilesToTheShell) {
    EXPECT_TRUE(of({"eeprom", "dump", "0x1", "--raw", ""}).files);
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
