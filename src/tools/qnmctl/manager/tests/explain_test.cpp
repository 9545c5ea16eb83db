// The reasons of a failed start, in words.
#include "manager/explain.h"

#include <gtest/gtest.h>

#include <fstream>

#include "common/tests/temporary_dir.h"
#include "output/text.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

using lines = std::vector<std::string>;

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// An operator's directory with the files it should have.
class OperatorsDir : public testing::Test {
  protected:
    OperatorsDir() {
        where.dir = base.path();
        fs::create_directory(where.dir / "conf");
        write(where.properties(), "");
    }
    static void write(const fs::path& name, const std::string& text) {
        std::ofstream(name) << text;
    }

    tools::temporary_dir base;
    installation where;
};

TEST_F(OperatorsDir, HasToExist) {
    where.dir = base.path() / "missing";
    EXPECT_TRUE(
        holds(find_obstacle(where).value(), where.dir.string() + ": there is no such directory"));
    where.dir = where.dir.parent_path() / "conf" / "qnm_log4c.properties";
    EXPECT_TRUE(holds(find_obstacle(where).value(), "is not a directory"));
}

TEST_F(OperatorsDir, NeedsThePropertiesFile) {
    fs::remove(where.properties());
    const std::string text = find_obstacle(where).value();
    EXPECT_TRUE(holds(text, where.properties().string() + ": there is no such file"));
    EXPECT_TRUE(holds(text, "Copy the sample qnm_log4c.properties there"));
}

TEST_F(OperatorsDir, HasANameThatTheLibraryTakes) {
    for (int depth = 0; depth < 5; ++depth)
        where.dir /= std::string(100, 'x');
    fs::create_directories(where.dir);
    EXPECT_TRUE(holds(find_obstacle(where).value(), "too long"));
}

TEST_F(OperatorsDir, IsNamedWithTheLineOfAWrongKey) {
    write(where.config(), "# comment\nfrob = 1\n");
    const std::string text = failed_start_text(
        QNM_API_EPROTO, where,
        {"Unknown config parameter: frob", "Failed to _qnm_config_read() err=71"});
    EXPECT_TRUE(holds(text, "QNM_API_EPROTO"));
    EXPECT_TRUE(holds(text, where.config().string() + ":2: Unknown config parameter: frob\n"));
    EXPECT_TRUE(holds(text, "Correct or remove this key"));
    EXPECT_FALSE(holds(text, "_qnm_config_read"));
    EXPECT_FALSE(holds(text, "no such interface"));  // the ports were not tried
}

TEST_F(OperatorsDir, IsNamedForEveryKindOfWrongValue) {
    write(where.config(), "tag_max = 1\ntag_min = 2\n");
    const auto text = [&](const std::string& line) {
        return failed_start_text(QNM_API_EPROTO, where, {line});
    };
    const std::string name = where.config().string();
    EXPECT_TRUE(holds(text("config parameter parse error: tag_max"),
                      name + ":1: config parameter parse error: tag_max\n"));
    EXPECT_TRUE(
        holds(text("out of range error: tag_min"), name + ":2: out of range error: tag_min\n"));
    EXPECT_TRUE(holds(text("config parameter error: tag_min > tag_max"),
                      name + ":2: config parameter error: tag_min > tag_max\n"));
}

TEST_F(OperatorsDir, HasPortsThatCannotBeOpened) {
    write(where.config(), "ether_port = qnmctl-none\n");
    const std::string text =
        failed_start_text(QNM_API_EPROTO, where,
                          {"Failed to pcap_open_live(). qnmctl-none: No such device exists",
                           "Failed to _qnm_socket_open(). port=0, err=71"});
    EXPECT_TRUE(holds(text, "interface \"qnmctl-none\": there is no such interface\n"));
    EXPECT_TRUE(holds(text, "The library's log: Failed to pcap_open_live(). qnmctl-none"));
    EXPECT_FALSE(holds(text, "_qnm_socket_open"));
}

TEST_F(OperatorsDir, GetsTheCodesOwnWordsWhenNothingElseIsKnown) {
    write(where.config(), "ether_port = lo\n");
    const std::string text = failed_start_text(QNM_API_ENOMEM, where, {});
    EXPECT_TRUE(holds(text, code_remedy(QNM_API_ENOMEM)));
}

TEST(FailedStart, OfATemporaryDirectoryNamesTheOption) {
    installation where;
    install({.ports = {"lo"}, .keys = {"frob=1"}}, where);
    const std::string text =
        failed_start_text(QNM_API_EPROTO, where, {"Unknown config parameter: frob"});
    EXPECT_TRUE(holds(text, "--set: Unknown config parameter: frob\n"));
}

TEST(PortProblem, IsThatOfAMissingInterface) {
    EXPECT_TRUE(holds(port_problem("qnmctl-none").value(), "no such interface"));
    EXPECT_TRUE(holds(port_problem("qnmctl-much-too-long").value(), "too long"));
}

TEST(ErrorLines, AreThoseOfErrorsWithoutTheFunction) {
    const std::string log =
        "2026-11-21 03:19:23,601 INFO  qnm_init_manager: no ERROR here\n"
        "2026-11-21 03:19:23,601 ERROR _qnm_config_read: Unknown config parameter: frob\n"
        "2026-11-21 03:19:23,601 WARN  _qnm_x: warning\n"
        "2026-11-21 03:19:23,601 FATAL qnm_fini: terminated\n"
        "2026-11-21 03:19:23,601 ERROR no function: here\n";
    EXPECT_EQ((lines{"Unknown config parameter: frob", "terminated", "no function: here"}),
              error_lines(log));
}

}  // namespace
}  // namespace qnmctl
