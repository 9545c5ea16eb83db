// Requests from words, by a table of verbs of the test's own.
#include "cli/command_line.h"

#include <gtest/gtest.h>

#include "output/text.h"
#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

int run(context&, const request&) {
    return exit_ok;
}
void answer(context&, const request&) {}

constexpr operand addr = {.name = "ADDR", .help = "", .most = 0xFFC, .step = 4};
constexpr operand value = {.name = "VALUE", .help = ""};
constexpr operand addr_only[] = {addr};
constexpr operand addr_value[] = {addr, value};
constexpr operand range[] = {{.name = "START", .help = "", .optional = true},
                             {.name = "END", .help = "", .optional = true}};
constexpr operand file[] = {{.name = "FILE", .help = "", .form = operand_form::file}};

constexpr verb table[] = {
    {.name = "watch",
     .help = "Watches",
     .takes = takes_filter | takes_for | takes_count,
     .run = run,
     .streams = true},
    {.name = "graph", .help = "Draws", .takes = takes_dot, .run = run},
    {.name = "rest", .help = "Takes all", .takes = takes_rest, .run = run, .hidden = true},
    {"show", "Shows", "", takes_id | takes_for, 10, run, answer},
    {"stats", "Dumps", "", takes_verbose | takes_for, 3, run, answer},
    {"monitor", "Controls", "", takes_action | takes_id, 0, run, answer},
    {"reg read", "Reads", "", takes_ids | takes_wait | takes_retry | takes_livecheck, 0, run,
     answer, addr_only},
    {"reg write", "Writes", "", takes_ids | takes_verify | takes_force_lock, 0, run, answer,
     addr_value},
    {"eeprom dump", "Dumps", "", takes_id | takes_raw, 0, run, answer, range},
    {"eeprom restore", "Restores", "", takes_id | takes_yes, 0, run, nullptr, file},
    {"eeprom unlock", "Unlocks", "", takes_ids, 0, run, answer},
    {"loglevel", "Sets", "", takes_level, 0, run, answer},
    {.name = "screen", .help = "Shows", .takes = takes_top | takes_for, .run = run},
    {"quit", "Ends", "", takes_nothing, 0, nullptr, answer},
};

// The exit status, or the parsed line.
std::variant<command_line, int> parse(std::vector<const char*> words) {
    words.insert(words.begin(), "qnmctl");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    auto parsed = parse_command_line(table, static_cast<int>(words.size()), words.data());
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return parsed;
}

command_line parsed(const std::vector<const char*>& words) {
    return std::get<command_line>(parse(words));
}

int status(const std::vector<const char*>& words) {
    return std::get<int>(parse(words));
}

std::string help_of(std::vector<const char*> words) {
    words.insert(words.begin(), "qnmctl");
    words.push_back("--help");
    testing::internal::CaptureStdout();
    parse_command_line(table, static_cast<int>(words.size()), words.data());
    return testing::internal::GetCapturedStdout();
}

TEST(CommandLine, GlobalOptionsStandBeforeOrBehindTheVerb) {
    for (const command_line& line :
         {parsed({"--ports", "qnm0,qnm1", "--set", "a=1", "--set", "b=2", "watch"}),
          parsed({"watch", "--ports", "qnm0,qnm1", "--set", "a=1", "--set", "b=2"})}) {
        EXPECT_EQ((std::vector<std::string>{"qnm0", "qnm1"}), line.global.ports);
        EXPECT_EQ((std::vector<std::string>{"a=1", "b=2"}), line.global.keys);
        EXPECT_STREQ("watch", line.asked.asked->name);
    }
}

TEST(CommandLine, LogLevelsHaveNames) {
    EXPECT_EQ(QNM_LOGLVL_NONE, parsed({"watch"}).global.log_level);
    EXPECT_EQ(QNM_LOGLVL_FATAL, parsed({"--log-level", "fatal", "watch"}).global.log_level);
    EXPECT_EQ(QNM_LOGLVL_TRACE, parsed({"--log-level", "trace", "watch"}).global.log_level);
    EXPECT_EQ(exit_usage, status({"--log-level", "loud", "watch"}));
}

TEST(CommandLine, TimeHasTheVerbsDefault) {
    EXPECT_EQ(0, parsed({"watch"}).asked.seconds);
    EXPECT_EQ(10, parsed({"show", "0x1"}).asked.seconds);
    EXPECT_EQ(0.5, parsed({"show", "0x1", "--for", "0.5"}).asked.seconds);
}

TEST(CommandLine, VerbsTakeTheirOwnOptions) {
    EXPECT_EQ(7U, parsed({"watch", "--count", "7"}).asked.count);
    EXPECT_TRUE(parsed({"stats", "-v"}).asked.verbose);
    const request monitor = parsed({"monitor", "restart", "02:00:00:00:10:00"}).asked;
    EXPECT_EQ(monitor_action::restart, monitor.action);
    EXPECT_EQ(0x020000001000U, monitor.id);
}

TEST(CommandLine, EveryVerbHasItsOutputInAForm) {
    EXPECT_EQ(output_form::text, parsed({"show", "0x1"}).asked.form);
    EXPECT_EQ(output_form::text, parsed({"show", "0x1", "-o", "text"}).asked.form);
    EXPECT_EQ(output_form::json_document, parsed({"show", "0x1", "-o", "json"}).asked.form);
    EXPECT_EQ(output_form::json_lines, parsed({"loglevel", "warn", "-o", "jsonl"}).asked.form);
    EXPECT_EQ(output_form::json_lines, parsed({"stats", "--output=jsonl"}).asked.form);
    EXPECT_EQ(output_form::dot, parsed({"graph", "-o", "dot"}).asked.form);
    EXPECT_EQ(output_form::json_document, parsed({"graph", "-o", "json"}).asked.form);
    EXPECT_EQ(exit_usage, status({"show", "0x1", "-o", "dot"}));
    EXPECT_EQ(exit_usage, status({"show", "0x1", "-o", "xml"}));
}

TEST(CommandLine, AScreenHasNoForm) {
    EXPECT_EQ(exit_usage, status({"screen", "-o", "json"}));
    const std::string help = help_of({"screen"});
    EXPECT_EQ(std::string::npos, help.find("--output")) << help;
    EXPECT_NE(std::string::npos, help.find("Seconds to run, without limit")) << help;
}

// What reads a stream reads lines.
TEST(CommandLine, JsonIsShortForTheFormThatFits) {
    EXPECT_EQ(output_form::json_document, parsed({"show", "0x1", "--json"}).asked.form);
    EXPECT_EQ(output_form::json_document, parsed({"graph", "--json"}).asked.form);
    EXPECT_EQ(output_form::json_lines, parsed({"watch", "--json"}).asked.form);
}

TEST(CommandLine, EventsAreFiltered) {
    const request watch = parsed({"watch", "--card", "0x1", "--card", "0x2", "--kind", "qnio",
                                  "--group", "20", "--event", "NEWDEVINFO", "--event", "MONITOR"})
                              .asked;
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2}), watch.cards.ids);
    EXPECT_EQ(card_kind::device, watch.cards.kind);
    EXPECT_EQ(20, watch.cards.group);
    EXPECT_EQ((std::vector<std::string>{"NEWDEVINFO", "MONITOR"}), watch.events);
    EXPECT_EQ(exit_usage, status({"watch", "--event", "EVERYTHING"}));
    EXPECT_EQ(exit_usage, status({"watch", "--card", "12"}));
}

TEST(CommandLine, TheRestIsTakenAsItIs) {
    EXPECT_EQ((std::vector<std::string>{"--ports", "a", "show", ""}),
              parsed({"rest", "--", "--ports", "a", "show", ""}).asked.rest);
}

TEST(CommandLine, HiddenVerbsAreNotInTheHelp) {
    const std::string help = help_of({});
    EXPECT_NE(std::string::npos, help.find("\n  watch "));
    EXPECT_EQ(std::string::npos, help.find("rest"));
}

TEST(CommandLine, HelpHasEveryExitStatus) {
    const std::string help = help_of({});
    for (const status_row& row : exit_statuses()) {
        EXPECT_NE(std::string::npos, help.find(std::to_string(row.status) + "  " + row.meaning))
            << help;
    }
}

TEST(CommandLine, OperandsStandBehindTheIds) {
    const request one = parsed({"reg", "write", "0x1000", "0x100", "0b11"}).asked;
    EXPECT_STREQ("reg write", one.asked->name);
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000}, one.cards.ids);
    EXPECT_EQ((std::vector<std::uint32_t>{0x100, 3}), one.numbers);
    const request two = parsed({"reg", "read", "0x1000", "02:00:00:00:10:00", "256"}).asked;
    EXPECT_EQ((std::vector<std::uint64_t>{0x1000, 0x020000001000}), two.cards.ids);
    EXPECT_EQ(std::vector<std::uint32_t>{256}, two.numbers);
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000},
              parsed({"eeprom", "unlock", "0x1000"}).asked.cards.ids);
}

TEST(CommandLine, OptionsMayStandBetweenOperands) {
    const request asked = parsed({"reg", "write", "0x1000", "--verify", "0x100", "7"}).asked;
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000}, asked.cards.ids);
    EXPECT_EQ((std::vector<std::uint32_t>{0x100, 7}), asked.numbers);
    EXPECT_EQ(static_cast<std::uint32_t>(QNM_FLAG_VERIFY), asked.how.flags);
}

TEST(CommandLine, CardsAreChosenByProperties) {
    const selection all = parsed({"reg", "read", "--all", "0"}).asked.cards;
    EXPECT_TRUE(all.all && all.ids.empty());
    const selection some =
        parsed({"reg", "read", "0", "--kind", "qnio", "--group", "0x14"}).asked.cards;
    EXPECT_EQ(card_kind::device, some.kind);
    EXPECT_EQ(20, some.group);
    EXPECT_TRUE(some.by_property());
}

TEST(CommandLine, AccessHasItsOptions) {
    const request bare = parsed({"reg", "read", "0x1", "0"}).asked;
    EXPECT_FALSE(bare.how.retries || bare.how.interval || bare.wait);
    EXPECT_EQ(0U, bare.how.flags);
    const request read = parsed({"reg", "read", "0x1", "0", "--retries", "0", "--interval", "0x10",
                                 "--livecheck", "--wait", "1.5"})
                             .asked;
    EXPECT_EQ(0U, read.how.retries);
    EXPECT_EQ(16U, read.how.interval);
    EXPECT_EQ(1.5, read.wait);
    EXPECT_EQ(static_cast<std::uint32_t>(QNM_FLAG_LIVECHECK), read.how.flags);
    EXPECT_EQ(
        static_cast<std::uint32_t>(QNM_FLAG_VERIFY | QNM_FLAG_FORCELOCK),
        parsed({"reg", "write", "0x1", "0", "1", "--verify", "--force-lock"}).asked.how.flags);
}

TEST(CommandLine, LastOperandsMayBeLeftOut) {
    EXPECT_TRUE(parsed({"eeprom", "dump", "0x1"}).asked.numbers.empty());
    EXPECT_EQ(std::vector<std::uint32_t>{4}, parsed({"eeprom", "dump", "0x1", "4"}).asked.numbers);
    const request dump = parsed({"eeprom", "dump", "0x1", "4", "8", "--raw", "image"}).asked;
    EXPECT_EQ((std::vector<std::uint32_t>{4, 8}), dump.numbers);
    EXPECT_EQ("image", dump.raw);
}

TEST(CommandLine, AFileIsTakenAsItIs) {
    const request asked = parsed({"eeprom", "restore", "0x1", "dir/image 1", "--yes"}).asked;
    EXPECT_EQ("dir/image 1", asked.file);
    EXPECT_TRUE(asked.yes);
}

TEST(CommandLine, LevelsOfTheRunningLogIncludeNone) {
    EXPECT_EQ(QNM_LOGLVL_TRACE, parsed({"loglevel", "trace"}).asked.level);
    EXPECT_EQ(QNM_LOGLVL_NONE, parsed({"loglevel", "none"}).asked.level);
    EXPECT_STREQ("trace", level_word(QNM_LOGLVL_TRACE));
    EXPECT_STREQ("none", level_word(QNM_LOGLVL_NONE));
}

TEST(CommandLine, HelpShowsOperandsInTheirOrder) {
    EXPECT_NE(std::string::npos, help_of({"reg", "write"}).find(" [ID...] ADDR VALUE\n"))
        << help_of({"reg", "write"});
    EXPECT_NE(std::string::npos, help_of({"eeprom", "dump"}).find(" ID [START] [END]\n"));
}

TEST(CommandLine, HelpOfAGroupListsItsVerbs) {
    const std::string help = help_of({"reg"});
    EXPECT_NE(std::string::npos, help.find("\n  read "));
    EXPECT_NE(std::string::npos, help.find("\n  write "));
    EXPECT_EQ(std::string::npos, help.find("\n  dump "));
}

TEST(CommandLine, HelpAndVersionLeaveNothingToRun) {
    EXPECT_EQ(exit_ok, status({"--help"}));
    EXPECT_EQ(exit_ok, status({"--version"}));
    EXPECT_EQ(exit_ok, status({"show", "--help"}));
}

std::string complaint(std::vector<const char*> words) {
    words.insert(words.begin(), "qnmctl");
    testing::internal::CaptureStderr();
    const auto parsed = parse_command_line(table, static_cast<int>(words.size()), words.data());
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(exit_usage, std::get<int>(parsed));
    return told.substr(0, told.find('\n'));
}

TEST(CommandLine, SaysWhatIsWrong) {
    EXPECT_EQ("qnmctl: not expected: a b", complaint({"watch", "a", "b"}));
    EXPECT_EQ("qnmctl: not expected: --frob", complaint({"--frob", "watch"}));
    EXPECT_EQ("qnmctl: unknown command \"wach\"; is \"watch\" meant?", complaint({"wach", "a"}));
    EXPECT_EQ("qnmctl: unknown command \"rge\"; is \"reg\" meant?", complaint({"rge"}));
    EXPECT_EQ("qnmctl: unknown command \"reg raed\"; is \"reg read\" meant?",
              complaint({"reg", "raed", "0x1"}));
    EXPECT_EQ("qnmctl: unknown command \"frobnicate\"", complaint({"help", "frobnicate"}));
    EXPECT_EQ("qnmctl: no command of reg is given; they are read, write", complaint({"reg"}));
    EXPECT_EQ("qnmctl: no command is given", complaint({}));
    EXPECT_EQ("qnmctl: ID is required", complaint({"show"}));
}

TEST(CommandLine, HelpIsACommandToo) {
    const auto told = [](std::vector<const char*> words) {
        words.insert(words.begin(), "qnmctl");
        testing::internal::CaptureStdout();
        parse_command_line(table, static_cast<int>(words.size()), words.data());
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(help_of({}), told({"help"}));
    EXPECT_EQ(help_of({"reg"}), told({"help", "reg"}));
    EXPECT_EQ(help_of({"reg", "read"}), told({"help", "reg", "read"}));
    EXPECT_NE(help_of({}), help_of({"reg", "read"}));
}

class WrongUsage : public testing::TestWithParam<const char*> {};

TEST_P(WrongUsage, IsStatusTwo) {
    const std::vector<std::string> words = split(GetParam(), " ");
    std::vector<const char*> arguments;
    for (const std::string& word : words)
        arguments.push_back(word.c_str());
    EXPECT_EQ(exit_usage, status(arguments));
}

INSTANTIATE_TEST_SUITE_P(CommandLine, WrongUsage,
                         testing::Values("", "frob", "quit", "watch show", "show", "show 12",
                                         "show 0x1 0x2", "show 0x1 --count 1", "monitor halt 0x1",
                                         "monitor stop", "watch --for 0", "watch --for -1",
                                         "watch --for inf", "watch --for nan", "watch --for soon",
                                         "watch --count 0", "--ports a --dir /x watch",
                                         "--ports , watch", "--ports a,b,c watch",
                                         "--set a=1 watch", "--keep-logs frob",
                                         "--ports a --set a watch"));

INSTANTIATE_TEST_SUITE_P(
    Access, WrongUsage,
    testing::Values("reg", "reg frob", "read 0x1 0", "reg read", "reg read 0", "reg read 0x1",
                    "reg read 0x1 2", "reg read 0x1 0x1000", "reg read 0x1 -4", "reg read 0x1 12 0",
                    "reg read --all", "reg write --kind qnio", "reg read 0x1 0 --all",
                    "reg read 0x1 0 --kind qnsv", "reg read --kind both 0", "reg read --group 0 0",
                    "reg read --group 4095 0", "reg read 0x1 0 --verify",
                    "reg read 0x1 0 --retries -1", "reg read 0x1 0 --retries few",
                    "reg read 0x1 0 --interval 0", "reg read 0x1 0 --interval 0x100000000",
                    "reg read 0x1 0 --wait 0", "reg write 0x1 0", "reg write 0x1 0 0x100000000",
                    "eeprom dump", "eeprom dump 0x1 0 4 8", "eeprom dump --all",
                    "eeprom restore 0x1", "eeprom restore 0x1 a b", "eeprom unlock", "loglevel",
                    "loglevel loud"));

request line_request(const std::string& line) {
    return std::get<request>(parse_line(table, line));
}

std::string line_error(const std::string& line) {
    return std::get<std::string>(parse_line(table, line));
}

TEST(Line, IsAVerbWithItsArguments) {
    const request monitor = line_request("  monitor\tstop  0x1000 \r");
    EXPECT_STREQ("monitor", monitor.asked->name);
    EXPECT_EQ(monitor_action::stop, monitor.action);
    EXPECT_EQ(0x1000U, monitor.id);
    EXPECT_TRUE(line_request("stats -v").verbose);
    EXPECT_STREQ("quit", line_request("quit").asked->name);
}

TEST(Line, MayBeAnAccess) {
    const request read = line_request("reg read 0x1 0x2 8 --retries 3 --livecheck");
    EXPECT_STREQ("reg read", read.asked->name);
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2}), read.cards.ids);
    EXPECT_EQ(std::vector<std::uint32_t>{8}, read.numbers);
    EXPECT_EQ(3U, read.how.retries);
    EXPECT_TRUE(line_request("reg read --all 8").cards.all);
    EXPECT_EQ("image", line_request("eeprom dump 0x1 --raw image").raw);
}

TEST(Line, MayBeBlank) {
    EXPECT_EQ(nullptr, line_request(" \t").asked);
}

TEST(Line, SaysWhatIsWrong) {
    EXPECT_EQ("unknown command \"frob\"; \"help\" lists the commands", line_error("frob 1"));
    EXPECT_NE(std::string::npos, line_error("stats a b").find("not expected: a b; usage"));
    EXPECT_NE(std::string::npos, line_error("watch").find("unknown command"));
    EXPECT_NE(std::string::npos, line_error("show").find("usage: show ID"));
    EXPECT_NE(std::string::npos, line_error("show 12").find("\"12\" is no card ID"));
    EXPECT_NE(std::string::npos, line_error("show 0x1 --json").find("usage: show ID"));
    EXPECT_NE(std::string::npos,
              line_error("monitor halt 0x1").find("usage: monitor stop|restart ID"));
    EXPECT_NE(std::string::npos, line_error("reg frob").find("unknown command \"reg frob\""));
    EXPECT_NE(std::string::npos, line_error("eeprom restore 0x1 a").find("unknown command"));
    EXPECT_NE(std::string::npos, line_error("reg read 0x1 3").find("ADDR: 3 is no multiple of 4"));
    EXPECT_NE(std::string::npos, line_error("reg read 8").find("too few words"));
    EXPECT_NE(std::string::npos, line_error("reg read --all").find("too few words"));
    EXPECT_NE(std::string::npos, line_error("eeprom unlock").find("no card is named"));
    EXPECT_NE(std::string::npos, line_error("reg write 0x1").find("usage: reg write ID... ADDR"));
    EXPECT_NE(std::string::npos, line_error("reg read 0x1 0 --wait 1").find("usage: reg read"));
}

TEST(LinesHelp, ListsTheVerbsThatLinesHave) {
    EXPECT_EQ(
        "  show ID                      Shows\n"
        "  stats [-v]                   Dumps\n"
        "  monitor stop|restart ID      Controls\n"
        "  reg read ID... ADDR          Reads\n"
        "  reg write ID... ADDR VALUE   Writes\n"
        "  eeprom dump ID [START] [END] Dumps\n"
        "  eeprom unlock ID...          Unlocks\n"
        "  loglevel LEVEL               Sets\n"
        "  quit                         Ends\n",
        lines_help(table));
}

TEST(FittingIds, AreThoseOfTheKnownCardsThatFit) {
    qnm_qnsv_t second = sample_server();
    second.esv_com_dev.ecd_id = 0x1;
    second.esv_com_dev.ecd_vlan_id = 30;
    const std::vector<card> known = {sample_server(), second, sample_device()};
    using ids = std::vector<std::uint64_t>;
    EXPECT_EQ((ids{0x1, 0x020000001000, 0x020000003000}), fitting_ids(known, {.all = true}));
    EXPECT_EQ((ids{0x1, 0x020000001000}), fitting_ids(known, {.kind = card_kind::server}));
    EXPECT_EQ(ids{0x020000003000}, fitting_ids(known, {.kind = card_kind::device}));
    EXPECT_EQ((ids{0x1, 0x020000003000}), fitting_ids(known, {.group = 30}));
    EXPECT_EQ(ids{0x1}, fitting_ids(known, {.kind = card_kind::server, .group = 30}));
    EXPECT_EQ(ids{}, fitting_ids(known, {.group = 99}));
}

TEST(FittingIds, HasACardThatIsKnownAsBothKindsOnce) {
    qnm_qnio_t changed = sample_device();
    changed.eio_com_dev.ecd_id = 0x020000001000;
    EXPECT_EQ(std::vector<std::uint64_t>{0x020000001000},
              fitting_ids({sample_server(), changed}, {.all = true}));
}

}  // namespace
}  // namespace qnmctl
