// The command as a program: its exit status, what it prints, how it ends. Where a manager has to
// run, it runs on the loopback device of a private network namespace, on which no card announces
// itself.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "common/standard_files.h"
#include "installation/config_file.h"
#include "installation/installation.h"
#include "output/text.h"
#include "tests/program.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

TEST(Command, WithoutAVerbIsWrongUsage) {
    program run(invocation({}));
    EXPECT_EQ(2, run.end());
    EXPECT_TRUE(holds(run.errors(), "no command is given"));
}

TEST(Command, WithAnUnknownNameIsWrongUsage) {
    program run(invocation({"frob"}));
    EXPECT_EQ(2, run.end());
    EXPECT_TRUE(holds(run.errors(), "frob"));
}

TEST(Command, HelpNamesEveryCommand) {
    program run(invocation({"help"}));
    const std::string help = run.read_all();
    command_tree tree(used_for::command_line);
    define_all_commands(tree);
    for (const command& shown : tree.commands) {
        const std::string start = "\n  " + split(shown.name, " ").front() + ' ';
        EXPECT_EQ(!shown.hidden, holds(help, start)) << shown.name;
    }
    EXPECT_EQ(0, run.end());
}

TEST(Command, WhatSteersAManagerIsALineOfWatch) {
    for (const words& line : {words{"monitor", "stop", "0x1000", "-o", "json"},
                              words{"loglevel", "debug"}, words{"monitor"}}) {
        program run(invocation(line));
        EXPECT_EQ(2, run.end());
        EXPECT_TRUE(holds(run.errors(), '"' + line[0] + "\" is a line of watch, not a command"));
    }
    program run(invocation({"monitor", "--help"}));
    EXPECT_TRUE(holds(run.read_all(), "a line to type into a running watch"));
    EXPECT_EQ(0, run.end());
}

TEST(Command, ADirectoryThatIsMissingIsNamed) {
    program run(invocation({"--dir", "/nonexistent/qnm", "list"}));
    EXPECT_EQ(1, run.end());
    EXPECT_TRUE(
        holds(run.errors(), "qnmctl: /nonexistent/qnm: there is no such directory\n  Name"));
}

TEST(Command, AMissingPropertiesFileIsNamed) {
    const tools::temporary_dir dir;
    program run(invocation({"--dir", dir.path(), "list"}));
    EXPECT_EQ(1, run.end());
    EXPECT_TRUE(holds(run.errors(), dir.path().string() + "/conf/qnm_log4c.properties"));
}

// ---- With a manager -----------------------------------------------------------------------------

words in_namespace(const words& arguments) {
    words all = {QNM_IN_NETNS};
    const words own = invocation(arguments);
    all.insert(all.end(), own.begin(), own.end());
    return all;
}

using Manager = NamespaceTest;

TEST_F(Manager, SaysThatNoCardWasHeard) {
    program run(in_namespace({"--ports", "lo", "list", "--for", "0.1"}));
    EXPECT_EQ("", run.read_all());
    EXPECT_EQ(exit_no_card, run.end());
    EXPECT_TRUE(holds(run.errors(), "qnmctl: no card was heard within 0.1 s\n")) << run.errors();
    EXPECT_FALSE(run.left_something());
}

TEST_F(Manager, ListsAsADocument) {
    program run(in_namespace({"--ports", "lo", "list", "--for", "0.1", "--json"}));
    const auto document = nlohmann::json::parse(run.read_all());
    EXPECT_EQ("list", document.at("command"));
    EXPECT_EQ(exit_no_card, document.at("status"));
    ASSERT_EQ(1U, document.at("records").size());
    EXPECT_EQ("error", document.at("records")[0].at("record"));
    EXPECT_EQ(exit_no_card, run.end());
}

TEST_F(Manager, TellsAFailureInTheDocument) {
    program run(in_namespace({"--ports", "lo", "show", "0x1", "--for", "0.1", "-o", "json"}));
    const auto document = nlohmann::json::parse(run.read_all());
    EXPECT_EQ(13, run.end());
    EXPECT_EQ(13, document.at("status"));
    ASSERT_EQ(1U, document.at("records").size());
    EXPECT_EQ("error", document.at("records")[0].at("record"));
    EXPECT_EQ("QNM_API_ENOENT", document.at("records")[0].at("result"));
}

TEST_F(Manager, ClosesTheDocumentAtASignal) {
    program run(in_namespace({"--ports", "lo", "watch", "-o", "json"}));
    run.say("help");
    run.read_until("Ends");
    run.signal(SIGTERM);
    const auto document = nlohmann::json::parse(run.read_all());
    EXPECT_EQ(0, run.end());
    EXPECT_EQ(1U, document.at("records").size());
    EXPECT_EQ(0, document.at("status"));
}

TEST_F(Manager, ShowsNoCardThatIsNotHeard) {
    program run(in_namespace({"--ports", "lo", "show", "0x1", "--for", "0.1"}));
    EXPECT_EQ(code_status(QNM_API_ENOENT), run.end());
    EXPECT_TRUE(holds(run.errors(), "no card 0x000000000001 has been heard"));
}

TEST_F(Manager, PrintsTheWholeDump) {
    program run(in_namespace({"--ports", "lo", "stats", "-v", "--for", "0.1"}));
    const std::string dump = run.read_all();
    EXPECT_EQ(0U, dump.find("*** "));
    EXPECT_TRUE(holds(dump, "qnm status dump (v1)\n"));
    EXPECT_TRUE(holds(dump, "  - Config parameters\n"));
    EXPECT_EQ(dump.find("*** "), dump.rfind("*** "));
    EXPECT_EQ(0, run.end());
}

TEST_F(Manager, AnswersLinesWhileItWatches) {
    program run(in_namespace({"--ports", "lo", "watch"}));
    run.say("list");
    run.say("frob");
    run.say("monitor stop 0x1000");
    run.say("monitor restart 0x1000");
    run.say("stats");
    run.say("quit");
    const std::string text = run.read_all();
    EXPECT_TRUE(holds(text, "0 QNSV, 0 QNIO\n"));
    EXPECT_TRUE(holds(text, "monitor stop 0x000000001000: QNM_API_SUCCESS"));
    EXPECT_TRUE(holds(text, "monitor restart 0x000000001000: QNM_API_SUCCESS"));
    EXPECT_TRUE(holds(text, "qnm status dump (v0)\n"));
    EXPECT_EQ(0, run.end());
    EXPECT_TRUE(holds(run.errors(), "unknown command \"frob\""));
    EXPECT_FALSE(run.left_something());
}

TEST_F(Manager, AnswersInJsonLinesWhenAsked) {
    program run(in_namespace({"--ports", "lo", "watch", "--json"}));
    for (const char* const line : {"list", "stats", "monitor stop 0x1000", "help", "quit"}) {
        run.say(line);
    }
    std::vector<nlohmann::json> objects;
    for (const std::string& line : split(run.read_all(), "\n")) {
        objects.push_back(nlohmann::json::parse(line));
    }
    ASSERT_EQ(4U, objects.size());  // of no card there is no record
    EXPECT_EQ("stats", objects[0]["record"]);
    EXPECT_TRUE(objects[0]["text"].is_string());
    EXPECT_EQ("0x000000001000", objects[1]["id"]);
    EXPECT_EQ("QNM_API_SUCCESS", objects[1]["result"]);
    EXPECT_EQ("MONITOR", objects[2]["event"]);
    EXPECT_EQ("help", objects[3]["record"]);
}

TEST_F(Manager, CountsWhatTheOperatorDoes) {
    program run(in_namespace({"--ports", "lo", "watch", "--event", "MONITOR", "--count", "1"}));
    run.say("monitor stop 0x1000");
    EXPECT_TRUE(holds(run.read_all(), "monitoring on -> off (stopped)"));
    EXPECT_EQ(0, run.end());
}

TEST_F(Manager, WatchesOnAfterTheEndOfStandardInput) {
    program run(in_namespace({"--ports", "lo", "watch"}));
    run.say("monitor stop 0x1000");
    run.read_until("QNM_API_SUCCESS");
    run.close_input();
    run.signal(SIGTERM);
    EXPECT_EQ(0, run.end());
}

TEST_F(Manager, EndsCleanlyAtASignal) {
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        program run(in_namespace({"--ports", "lo", "watch"}));
        run.say("help");
        run.read_until("Ends");
        run.signal(number);
        EXPECT_EQ(0, run.end()) << number;
        EXPECT_FALSE(run.left_something());
    }
}

TEST_F(Manager, SaysThatItsReaderHasGone) {
    for (const standard_files files : {standard_files::pipes, standard_files::socket}) {
        program run(in_namespace({"--ports", "lo", "watch"}), files);
        run.say("help");
        run.read_until("Ends");
        run.close_output();
        EXPECT_EQ(tools::exit_output, run.end());
        EXPECT_EQ("qnmctl: cannot write to standard output: its reader has gone\n", run.errors());
        EXPECT_FALSE(run.left_something());
    }
}

TEST_F(Manager, TakesNothingElseForAClosedStandardOutput) {
    words all = {QNM_IN_NETNS, "sh", "-c", "exec \"$@\" >&-", "sh"};
    const words own = invocation({"--ports", "lo", "stats", "--for", "0.1"});
    all.insert(all.end(), own.begin(), own.end());
    program run(all);
    EXPECT_EQ(tools::exit_output, run.end()) << run.errors();
    EXPECT_EQ("qnmctl: cannot write to standard output: it is closed\n", run.errors());
}

TEST_F(Manager, EndsAtASignalWhileItsReaderTakesNothing) {
    program run(in_namespace({"--ports", "lo", "watch"}));
    run.say("help");
    run.read_until("Ends");
    for (int dump = 0; dump < 64; ++dump)
        run.say("stats -v");  // more than a pipe holds
    run.signal(SIGTERM);
    EXPECT_EQ(0, run.end());
}

TEST_F(Manager, NamesAKeyThatIsUnknown) {
    program run(in_namespace({"--ports", "lo", "--set", "frob=1", "list"}));
    EXPECT_EQ(code_status(QNM_API_EPROTO), run.end());
    EXPECT_TRUE(holds(run.errors(), "--set: Unknown config parameter: frob\n")) << run.errors();
    EXPECT_FALSE(run.left_something());
}

TEST_F(Manager, NamesFileAndLineOfAnOperatorsUnknownKey) {
    installation where;
    install({.ports = {"lo"}, .keys = {"frob=1"}}, where);
    program run(in_namespace({"--dir", where.dir, "list"}));
    EXPECT_EQ(code_status(QNM_API_EPROTO), run.end());
    EXPECT_TRUE(
        holds(run.errors(), where.config().string() + ":2: Unknown config parameter: frob\n"))
        << run.errors();
    EXPECT_FALSE(run.left_something());
}

TEST_F(Manager, PrintsTheDumpOfAnOperatorsInstallationAndLogsNothingThere) {
    installation where;
    install({.ports = {"lo"}}, where);
    program run(in_namespace({"--dir", where.dir, "stats", "--for", "0.1"}));
    EXPECT_TRUE(holds(run.read_all(), "qnm status dump (v0)\n"));
    EXPECT_EQ(0, run.end()) << run.errors();
    EXPECT_FALSE(fs::exists(where.stats));
    EXPECT_FALSE(fs::exists(where.log));
    EXPECT_FALSE(run.left_something());
}

TEST_F(Manager, KeepsItsLogsWhenAsked) {
    program run(in_namespace({"--ports", "lo", "--keep-logs", "stats", "--for", "0.1", "--json"}));
    const auto document = nlohmann::json::parse(run.read_all());
    EXPECT_EQ(0, run.end());
    const std::string file = document.at("records")[0].at("file");
    EXPECT_TRUE(holds(read_text(file), document.at("records")[0].at("text")));
    EXPECT_EQ("qnmctl: the logs are kept in " + fs::path(file).parent_path().string() + '\n',
              run.errors());
    EXPECT_TRUE(run.left_something());
}

TEST_F(Manager, NamesAnInterfaceThatIsMissing) {
    program run(in_namespace({"--ports", "qnmctl-none", "list"}));
    EXPECT_EQ(code_status(QNM_API_EPROTO), run.end());
    EXPECT_TRUE(holds(run.errors(), "interface \"qnmctl-none\": there is no such interface"))
        << run.errors();
}

TEST_F(Manager, RunsOnOnePortAndNamesTheOther) {
    program run(in_namespace({"--ports", "lo,qnmctl-none", "stats", "--for", "0.1"}));
    EXPECT_EQ(0, run.end());
    EXPECT_TRUE(holds(run.errors(), "interface \"qnmctl-none\": there is no such interface"))
        << run.errors();
}

TEST_F(Manager, NamesAnInterfaceThatIsDown) {
    words all = {QNM_IN_NETNS, "sh", "-c", "ip link set lo down; exec \"$@\"", "sh"};
    const words own = invocation({"--ports", "lo", "list"});
    all.insert(all.end(), own.begin(), own.end());
    program run(all);
    EXPECT_EQ(code_status(QNM_API_EPROTO), run.end());
    EXPECT_TRUE(holds(run.errors(), "interface \"lo\" is down")) << run.errors();
    EXPECT_TRUE(holds(run.errors(), "sudo ip link set lo up"));
}

}  // namespace
}  // namespace qnmctl
