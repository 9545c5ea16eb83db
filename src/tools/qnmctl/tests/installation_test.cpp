// The temporary installation directory and what is written into it.
#include "installation.h"

#include <gtest/gtest.h>

#include "config_file.h"
#include "text.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

TEST(TemporaryDir, GoesWithItsRecord) {
    fs::path path;
    {
        const temporary_dir dir;
        path = dir.path();
        EXPECT_TRUE(fs::is_directory(path));
        fs::create_directories(path / "a" / "b");
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(TemporaryDir, IsMadeBelowTmpdir) {
    const temporary_dir base;
    const char* const old = std::getenv("TMPDIR");
    const std::string kept = old != nullptr ? old : "";
    setenv("TMPDIR", base.path().c_str(), 1);
    const fs::path made = temporary_dir().path();
    setenv("TMPDIR", (base.path() / "missing").c_str(), 1);
    EXPECT_THROW(temporary_dir(), error);
    old != nullptr ? setenv("TMPDIR", kept.c_str(), 1) : unsetenv("TMPDIR");
    EXPECT_EQ(base.path(), made.parent_path());
}

TEST(Install, TakesTheOperatorsDirectoryAsItIs) {
    installation given;
    install({.dir = "/some/where"}, given);
    EXPECT_EQ("/some/where", given.dir);
    EXPECT_FALSE(given.temporary);
    installation none;
    install({}, none);
    EXPECT_EQ("/opt/tarvo/qnm", none.dir);
}

TEST(Install, WritesBothFilesForPorts) {
    installation made;
    install({.ports = {"qnm0", "qnm1"}, .keys = {"tag_max=7", "stats_interval=60"}}, made);
    const std::string config = read_text(made.config());
    EXPECT_EQ((std::vector<std::string>{"qnm0", "qnm1"}), configured_ports(config));
    EXPECT_EQ("7", find_key(config, "tag_max")->value);
    EXPECT_EQ("60", find_key(config, "stats_interval")->value);
    const std::string properties = read_text(made.properties());
    EXPECT_EQ(made.log, file_of_logger(properties, "logfile"));
    EXPECT_EQ(made.log, file_of_logger(properties, "syslogfile"));
    EXPECT_EQ(made.stats, file_of_logger(properties, "statslogfile"));
    EXPECT_EQ(made.dir, made.log.parent_path());
}

TEST(Install, LogsIntoTheFileThatIsGiven) {
    const temporary_dir dir;
    const fs::path log = dir.path() / "my.log";
    installation made;
    install({.ports = {"qnm0"}, .log = log}, made);
    EXPECT_EQ(log, file_of_logger(read_text(made.properties()), "logfile"));
    EXPECT_TRUE(fs::exists(log));
}

TEST(Install, RefusesALogThatCannotBeWritten) {
    const temporary_dir dir;
    installation made;
    EXPECT_THROW(install({.ports = {"qnm0"}, .log = dir.path() / "missing" / "my.log"}, made),
                 error);
}

TEST(InstallCopy, KeepsTheConfigurationAndHasItsOwnLog) {
    installation original;
    install({.ports = {"qnm0"}, .keys = {"frob=1"}}, original);
    installation copy;
    install_copy(original, copy);
    EXPECT_NE(original.dir, copy.dir);
    EXPECT_EQ(read_text(original.config()), read_text(copy.config()));
    EXPECT_EQ(copy.log, file_of_logger(read_text(copy.properties()), "logfile"));
}

TEST(InstallCopy, DoesWithoutAConfiguration) {
    installation original;
    original.dir = "/nonexistent";
    installation copy;
    install_copy(original, copy);
    EXPECT_FALSE(fs::exists(copy.config()));
}

TEST(WrongSettings, FindsNothingWrongWithGoodOnes) {
    EXPECT_EQ(std::nullopt,
              wrong_settings({.ports = {"qnm0", "qnm1"}, .keys = {"a=1", "b=x=y", "c="}}));
}

TEST(WrongSettings, RefusesPortsThatNoKernelHas) {
    EXPECT_TRUE(wrong_settings({.ports = {"a", "b", "c"}}));
    EXPECT_TRUE(wrong_settings({.ports = {"a234567890123456"}}));
    EXPECT_FALSE(wrong_settings({.ports = {"a23456789012345"}}));
    EXPECT_TRUE(wrong_settings({.ports = {"a b"}}));
}

// The library would take no notice of some of these, and misread the others.
TEST(WrongSettings, RefusesKeysThatWouldBeMisread) {
    const auto wrong = [](const std::vector<std::string>& keys) {
        return wrong_settings({.ports = {"a"}, .keys = keys}).has_value();
    };
    EXPECT_TRUE(wrong({"tag_max"}));
    EXPECT_TRUE(wrong({"=1"}));
    EXPECT_TRUE(wrong({"tag_max=1\nfrob=2"}));
    EXPECT_TRUE(wrong({"tag_max=1", "tag_max=2"}));
    EXPECT_TRUE(wrong({"ether_port=b"}));
    EXPECT_TRUE(wrong({"tag_max=" + std::string(120, '0')}));
    EXPECT_FALSE(wrong({"tag_max=" + std::string(119, '0')}));
}

}  // namespace
}  // namespace qnmctl
