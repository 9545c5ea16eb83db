// Requests from words, by a table of verbs of the test's own.
#include "command_line.h"

#include <gtest/gtest.h>

#include "text.h"

namespace qnmctl {
namespace {

int run(context&, const request&) {
    return exit_ok;
}
void answer(context&, const request&) {}

constexpr verb table[] = {
    {"watch", "Watches", "", takes_json | takes_for | takes_count, 0, run, nullptr},
    {"show", "Shows", "", takes_id | takes_json | takes_for, 10, run, answer},
    {"stats", "Dumps", "", takes_verbose | takes_for, 3, run, answer},
    {"monitor", "Controls", "", takes_action | takes_id, 0, run, answer},
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
    const request watch = parsed({"watch", "--json", "--count", "7"}).asked;
    EXPECT_TRUE(watch.as_json);
    EXPECT_EQ(7U, watch.count);
    EXPECT_TRUE(parsed({"stats", "-v"}).asked.verbose);
    const request monitor = parsed({"monitor", "restart", "02:00:00:00:10:00"}).asked;
    EXPECT_EQ(monitor_action::restart, monitor.action);
    EXPECT_EQ(0x020000001000U, monitor.id);
}

TEST(CommandLine, HelpAndVersionLeaveNothingToRun) {
    EXPECT_EQ(exit_ok, status({"--help"}));
    EXPECT_EQ(exit_ok, status({"--version"}));
    EXPECT_EQ(exit_ok, status({"show", "--help"}));
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
                                         "--set a=1 watch", "--log x watch",
                                         "--ports a --set a watch"));

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

TEST(Line, MayBeBlank) {
    EXPECT_EQ(nullptr, line_request(" \t").asked);
}

TEST(Line, SaysWhatIsWrong) {
    EXPECT_EQ("unknown command \"frob\"; \"help\" lists the commands", line_error("frob 1"));
    EXPECT_NE(std::string::npos, line_error("watch").find("unknown command"));
    EXPECT_NE(std::string::npos, line_error("show").find("usage: show ID"));
    EXPECT_NE(std::string::npos, line_error("show 12").find("\"12\" is no card ID"));
    EXPECT_NE(std::string::npos, line_error("show 0x1 --json").find("usage: show ID"));
    EXPECT_NE(std::string::npos,
              line_error("monitor halt 0x1").find("usage: monitor stop|restart ID"));
}

TEST(LinesHelp, ListsTheVerbsThatLinesHave) {
    EXPECT_EQ(
        "  show ID                 Shows\n"
        "  stats [-v]              Dumps\n"
        "  monitor stop|restart ID Controls\n"
        "  quit                    Ends\n",
        lines_help(table));
}

}  // namespace
}  // namespace qnmctl
