// Commands parsed from words, for a command tree of the test's own.
#include "cli/command_line.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "cli/tests/sample_commands.h"

namespace qnmctl {
namespace {

// The result of a line.
struct understood {
    std::string name;
    settings global;
    output_form form;
    sample_options options;
};

// Prints help or an error.
std::variant<understood, int> parse(std::vector<const char*> words) {
    words.insert(words.begin(), "qnmctl");
    sample_options given;
    command_tree tree(used_for::command_line);
    define_sample_commands(tree, given);
    const auto parsed = parse_command_line(tree, static_cast<int>(words.size()), words.data());
    if (const int* const status = std::get_if<int>(&parsed)) return *status;
    const command& found = *std::get<const command*>(parsed);
    return understood{found.name, tree.global, found.form, given};
}

understood parsed(const std::vector<const char*>& words) {
    return std::get<understood>(parse(words));
}

sample_options options(const std::vector<const char*>& words) {
    return parsed(words).options;
}

int status(const std::vector<const char*>& words) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto result = parse(words);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    const int* const number = std::get_if<int>(&result);
    return number == nullptr ? -1 : *number;
}

std::string printed(const std::vector<const char*>& words) {
    testing::internal::CaptureStdout();
    parse(words);
    return testing::internal::GetCapturedStdout();
}

std::string help_of(std::vector<const char*> words) {
    words.push_back("--help");
    return printed(words);
}

TEST(CommandLine, GlobalOptionsStandBeforeOrBehindTheVerb) {
    for (const understood& line :
         {parsed({"--ports", "qnm0,qnm1", "--set", "a=1", "--set", "b=2", "watch"}),
          parsed({"watch", "--ports", "qnm0,qnm1", "--set", "a=1", "--set", "b=2"})}) {
        EXPECT_EQ((std::vector<std::string>{"qnm0", "qnm1"}), line.global.ports);
        EXPECT_EQ((std::vector<std::string>{"a=1", "b=2"}), line.global.keys);
        EXPECT_EQ("watch", line.name);
    }
}

// Sets an environment variable while it lives.
struct variable {
    variable(const char* its_name, const char* value) : name(its_name) { setenv(name, value, 1); }
    ~variable() { unsetenv(name); }
    variable(const variable&) = delete;
    variable& operator=(const variable&) = delete;

    const char* name;
};

TEST(CommandLine, PortsHaveADefaultInTheEnvironment) {
    const variable ports("QNMCTL_PORTS", "qnm0,qnm1");
    EXPECT_EQ((std::vector<std::string>{"qnm0", "qnm1"}), parsed({"watch"}).global.ports);
    EXPECT_EQ(std::vector<std::string>{"x"}, parsed({"--ports", "x", "watch"}).global.ports);
    EXPECT_TRUE(parsed({"--dir", "/x", "watch"}).global.ports.empty());
    EXPECT_EQ(std::vector<std::string>{"a=1"}, parsed({"--set", "a=1", "watch"}).global.keys);
}

TEST(CommandLine, LogLevelsHaveNames) {
    EXPECT_EQ(QNM_LOGLVL_NONE, parsed({"watch"}).global.log_level);
    EXPECT_EQ(QNM_LOGLVL_FATAL, parsed({"--log-level", "fatal", "watch"}).global.log_level);
    EXPECT_EQ(QNM_LOGLVL_TRACE, parsed({"--log-level", "trace", "watch"}).global.log_level);
    EXPECT_EQ(exit_usage, status({"--log-level", "loud", "watch"}));
}

TEST(CommandLine, TimeHasTheCommandsDefault) {
    EXPECT_EQ(0, parsed({"watch"}).options.seconds);
    EXPECT_EQ(10, parsed({"show", "0x1"}).options.show_seconds);
    EXPECT_EQ(0.5, parsed({"show", "0x1", "--for", "0.5"}).options.show_seconds);
}

TEST(CommandLine, CommandsTakeTheirOwnOptions) {
    EXPECT_EQ(7U, options({"watch", "--count", "7"}).count);
    EXPECT_TRUE(options({"stats", "-v"}).verbose);
    const sample_options start = options({"start", "zsh", "02:00:00:00:10:00"});
    EXPECT_EQ("zsh", start.shell);
    EXPECT_EQ(0x020000001000U, start.id);
}

TEST(CommandLine, EveryCommandHasItsOutputInAForm) {
    EXPECT_EQ(output_form::text, parsed({"show", "0x1"}).form);
    EXPECT_EQ(output_form::text, parsed({"show", "0x1", "-o", "text"}).form);
    EXPECT_EQ(output_form::json_document, parsed({"show", "0x1", "-o", "json"}).form);
    EXPECT_EQ(output_form::json_lines, parsed({"stats", "--output=jsonl"}).form);
    EXPECT_EQ(output_form::dot, parsed({"graph", "-o", "dot"}).form);
    EXPECT_EQ(output_form::json_document, parsed({"graph", "-o", "json"}).form);
    EXPECT_EQ(exit_usage, status({"show", "0x1", "-o", "dot"}));
    EXPECT_EQ(exit_usage, status({"show", "0x1", "-o", "xml"}));
}

TEST(CommandLine, AScreenHasNoForm) {
    EXPECT_EQ(exit_usage, status({"screen", "-o", "json"}));
    const std::string help = help_of({"screen"});
    EXPECT_EQ(std::string::npos, help.find("--output")) << help;
    EXPECT_NE(std::string::npos, help.find("Seconds to run, without limit")) << help;
}

// Commands that stream print lines of JSON.
TEST(CommandLine, JsonIsShortForTheFormThatFits) {
    EXPECT_EQ(output_form::json_document, parsed({"show", "0x1", "--json"}).form);
    EXPECT_EQ(output_form::json_document, parsed({"graph", "--json"}).form);
    EXPECT_EQ(output_form::json_lines, parsed({"watch", "--json"}).form);
}

TEST(CommandLine, EventsAreFiltered) {
    const sample_options watch =
        options({"watch", "--card", "0x1", "--card", "0x2", "--kind", "qnio", "--group", "20",
                 "--event", "NEW", "--event", "GONE"});
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2}), watch.cards.ids);
    EXPECT_EQ(card_kind::device, watch.cards.kind);
    EXPECT_EQ(20, watch.cards.group);
    EXPECT_EQ((std::vector<std::string>{"NEW", "GONE"}), watch.events);
    EXPECT_EQ(exit_usage, status({"watch", "--event", "EVERYTHING"}));
    EXPECT_EQ(exit_usage, status({"watch", "--card", "12"}));
}

TEST(CommandLine, TheRestIsTakenAsItIs) {
    EXPECT_EQ((std::vector<std::string>{"--ports", "a", "show", ""}),
              parsed({"rest", "--", "--ports", "a", "show", ""}).options.rest);
}

TEST(CommandLine, HiddenCommandsAreNotInTheHelp) {
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
    const understood write = parsed({"reg", "write", "0x1000", "0x100", "0b11"});
    EXPECT_EQ("reg write", write.name);
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000}, write.options.cards.ids);
    EXPECT_EQ(0x100U, write.options.addr);
    EXPECT_EQ(3U, write.options.word);
    const sample_options read = options({"reg", "read", "0x1000", "02:00:00:00:10:00", "256"});
    EXPECT_EQ((std::vector<std::uint64_t>{0x1000, 0x020000001000}), read.cards.ids);
    EXPECT_EQ(256U, read.addr);
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000},
              options({"eeprom", "unlock", "0x1000"}).cards.ids);
}

TEST(CommandLine, OptionsMayStandBetweenOperands) {
    const sample_options write = options({"reg", "write", "0x1000", "--verify", "0x100", "7"});
    EXPECT_EQ(std::vector<std::uint64_t>{0x1000}, write.cards.ids);
    EXPECT_EQ(0x100U, write.addr);
    EXPECT_EQ(7U, write.word);
    EXPECT_EQ(verify_bit, write.flags);
}

TEST(CommandLine, CardsAreChosenByProperties) {
    const selection all = options({"reg", "read", "--all", "0"}).cards;
    EXPECT_TRUE(all.all && all.ids.empty());
    const selection some = options({"reg", "read", "0", "--kind", "qnio", "--group", "0x14"}).cards;
    EXPECT_EQ(card_kind::device, some.kind);
    EXPECT_EQ(20, some.group);
    EXPECT_TRUE(some.by_property());
}

TEST(CommandLine, WhatIsNotGivenIsLeftAsItIs) {
    const sample_options bare = options({"reg", "read", "0x1", "0"});
    EXPECT_FALSE(bare.retries || bare.wait);
    const sample_options read =
        options({"reg", "read", "0x1", "0", "--retries", "0", "--wait", "1.5"});
    EXPECT_EQ(0U, read.retries);
    EXPECT_EQ(1.5, read.wait);
}

TEST(CommandLine, LastOperandsMayBeLeftOut) {
    const sample_options whole = options({"eeprom", "dump", "0x1"});
    EXPECT_FALSE(whole.start || whole.end);
    const sample_options part = options({"eeprom", "dump", "0x1", "4"});
    EXPECT_EQ(4U, part.start);
    EXPECT_FALSE(part.end);
    const sample_options dump = options({"eeprom", "dump", "0x1", "4", "8", "--raw", "image"});
    EXPECT_EQ(8U, dump.end);
    EXPECT_EQ("image", dump.file);
}

TEST(CommandLine, AFileIsTakenAsItIs) {
    EXPECT_EQ("dir/image 1", options({"eeprom", "restore", "0x1", "dir/image 1"}).file);
    EXPECT_EQ(exit_usage, status({"eeprom", "restore", "0x1", ""}));
}

TEST(CommandLine, LevelsHaveWords) {
    EXPECT_STREQ("trace", level_word(QNM_LOGLVL_TRACE));
    EXPECT_STREQ("none", level_word(QNM_LOGLVL_NONE));
}

TEST(CommandLine, HelpShowsOperandsInTheirOrder) {
    EXPECT_NE(std::string::npos, help_of({"reg", "write"}).find(" [ID...] ADDR VALUE\n"))
        << help_of({"reg", "write"});
    EXPECT_NE(std::string::npos, help_of({"eeprom", "dump"}).find(" ID [START] [END]\n"));
}

TEST(CommandLine, HelpOfAGroupListsItsCommands) {
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

std::string complaint(const std::vector<const char*>& words) {
    testing::internal::CaptureStderr();
    const auto result = parse(words);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(exit_usage, std::get<int>(result));
    return text.substr(0, text.find('\n'));
}

TEST(CommandLine, PortsOfTheEnvironmentAreCheckedToo) {
    {
        const variable ports("QNMCTL_PORTS", "a,b,c");
        EXPECT_EQ("qnmctl: QNMCTL_PORTS: at most two interfaces", complaint({"watch"}));
    }
    const variable ports("QNMCTL_PORTS", ",");
    EXPECT_EQ("qnmctl: QNMCTL_PORTS: \",\" is no interface name", complaint({"watch"}));
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
    EXPECT_EQ("qnmctl: ADDR: \"-4\" is no number; write decimal, 0x1F or 0b11",
              complaint({"reg", "read", "0x1", "-4"}));
    EXPECT_EQ("qnmctl: ADDR: 0x1000 is above 4092", complaint({"reg", "read", "0x1", "0x1000"}));
    EXPECT_EQ("qnmctl: ADDR: 5 is no multiple of 4", complaint({"reg", "read", "0x1", "5"}));
    EXPECT_EQ("qnmctl: --group: 0 is below 1", complaint({"watch", "--group", "0"}));
    EXPECT_EQ("qnmctl: VALUE: 0x100000000 is above 4294967295",
              complaint({"reg", "write", "0x1", "0", "0x100000000"}));
    EXPECT_EQ("qnmctl: --kind: \"both\" is none of qnsv, qnio",
              complaint({"watch", "--kind", "both"}));
    EXPECT_EQ("qnmctl: --card: \"12\" is no card ID; write 0x001122334455 or 00:11:22:33:44:55",
              complaint({"watch", "--card", "12"}));
}

TEST(CommandLine, HelpIsACommandToo) {
    EXPECT_EQ(help_of({}), printed({"help"}));
    EXPECT_EQ(help_of({"reg"}), printed({"help", "reg"}));
    EXPECT_EQ(help_of({"reg", "read"}), printed({"help", "reg", "read"}));
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
                                         "show 0x1 0x2", "show 0x1 --count 1", "start csh 0x1",
                                         "start bash", "watch --for 0", "watch --for -1",
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
                    "reg read 0x1 0 --retries 0x100000000", "reg read 0x1 0 --wait 0",
                    "reg write 0x1 0", "reg write 0x1 0 0x100000000", "eeprom dump",
                    "eeprom dump 0x1 0 4 8", "eeprom dump --all", "eeprom restore 0x1",
                    "eeprom restore 0x1 a b", "eeprom unlock"));

// ---- Lines --------------------------------------------------------------------------------------

// A blank line gives a command without a name.
std::variant<understood, std::string> parse_one_line(const std::string& line) {
    sample_options given;
    command_tree tree(used_for::lines);
    define_sample_commands(tree, given);
    const auto result = parse_line(tree, line);
    if (const auto* const wrong = std::get_if<std::string>(&result)) return *wrong;
    const command* const found = std::get<const command*>(result);
    return understood{found == nullptr ? "" : found->name, {}, output_form::text, given};
}

understood line_parsed(const std::string& line) {
    return std::get<understood>(parse_one_line(line));
}

std::string line_error(const std::string& line) {
    return std::get<std::string>(parse_one_line(line));
}

TEST(Line, IsACommandWithItsArguments) {
    const understood start = line_parsed("  start\tbash  0x1000 \r");
    EXPECT_EQ("start", start.name);
    EXPECT_EQ("bash", start.options.shell);
    EXPECT_EQ(0x1000U, start.options.id);
    EXPECT_TRUE(line_parsed("stats -v").options.verbose);
    EXPECT_EQ("quit", line_parsed("quit").name);
}

TEST(Line, MayBeAnAccess) {
    const understood read = line_parsed("reg read 0x1 0x2 8 --retries 3");
    EXPECT_EQ("reg read", read.name);
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2}), read.options.cards.ids);
    EXPECT_EQ(8U, read.options.addr);
    EXPECT_EQ(3U, read.options.retries);
    EXPECT_TRUE(line_parsed("reg read --all 8").options.cards.all);
    EXPECT_EQ("image", line_parsed("eeprom dump 0x1 --raw image").options.file);
}

TEST(Line, MayBeBlank) {
    EXPECT_EQ("", line_parsed(" \t").name);
}

TEST(Line, SaysWhatIsWrong) {
    EXPECT_EQ("unknown command \"frob\"; \"help\" lists the commands", line_error("frob 1"));
    EXPECT_NE(std::string::npos, line_error("stats a b").find("not expected: a b; usage"));
    EXPECT_NE(std::string::npos, line_error("watch").find("unknown command"));
    EXPECT_NE(std::string::npos, line_error("show").find("usage: show ID"));
    EXPECT_NE(std::string::npos, line_error("show 12").find("\"12\" is no card ID"));
    EXPECT_NE(std::string::npos, line_error("show 0x1 --json").find("usage: show ID"));
    EXPECT_NE(std::string::npos, line_error("show --help").find("usage: show ID"));
    EXPECT_NE(std::string::npos, line_error("start csh 0x1").find("usage: start bash|zsh ID"));
    EXPECT_NE(std::string::npos, line_error("reg frob").find("unknown command \"reg frob\""));
    EXPECT_NE(std::string::npos, line_error("eeprom restore 0x1 a").find("unknown command"));
    EXPECT_NE(std::string::npos, line_error("reg read 0x1 3").find("ADDR: 3 is no multiple of 4"));
    EXPECT_NE(std::string::npos, line_error("reg read 8").find("too few words"));
    EXPECT_NE(std::string::npos, line_error("reg read --all").find("too few words"));
    EXPECT_NE(std::string::npos, line_error("eeprom unlock").find("no card is named"));
    EXPECT_NE(std::string::npos, line_error("reg write 0x1").find("usage: reg write ID... ADDR"));
    EXPECT_NE(std::string::npos, line_error("reg read 0x1 0 --wait 1").find("usage: reg read"));
}

TEST(LinesHelp, ListsTheCommandsThatLinesHave) {
    sample_options given;
    command_tree tree(used_for::lines);
    define_sample_commands(tree, given);
    EXPECT_EQ(
        "  show ID                      Shows\n"
        "  stats [-v]                   Dumps\n"
        "  start bash|zsh ID            Starts\n"
        "  reg read ID... ADDR          Reads\n"
        "  reg write ID... ADDR VALUE   Writes\n"
        "  eeprom dump ID [START] [END] Dumps\n"
        "  eeprom unlock ID...          Unlocks\n"
        "  quit                         Ends\n",
        lines_help(tree));
}

}  // namespace
}  // namespace qnmctl
