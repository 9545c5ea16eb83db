// The private installation directory and what is written into it.
#include "installation/installation.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "common/tests/temporary_dir.h"
#include "installation/config_file.h"
#include "installation/log_properties.h"
#include "output/text.h"
#include "tests/program.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

TEST(Install, TakesTheOperatorsDirectoryAsItIs) {
    installation given;
    install({.dir = "/some/where"}, given);
    EXPECT_EQ("/some/where", given.dir);
    EXPECT_FALSE(given.temporary);
    installation none;
    install({}, none);
    EXPECT_EQ("/opt/tarvo/qnm", none.dir);
}

// The only file that a logger writes to.
std::string file_of(const std::string& properties, const char* name) {
    const std::vector<std::string> files = files_of_logger(read_log_properties(properties), name);
    return files.size() == 1 ? files.front() : "";
}

std::string level_of(const std::string& properties, const char* name) {
    return find_logger(read_log_properties(properties), name).level;
}

TEST(Install, WritesBothFilesForPorts) {
    installation made;
    install({.ports = {"qnm0", "qnm1"}, .keys = {"tag_max=7", "stats_interval=60"}}, made);
    const std::string config = read_text(made.config());
    EXPECT_EQ((std::vector<std::string>{"qnm0", "qnm1"}), configured_ports(config));
    EXPECT_EQ("7", find_key(config, "tag_max")->value);
    EXPECT_EQ("60", find_key(config, "stats_interval")->value);
    const std::string properties = read_text(made.properties());
    EXPECT_EQ(made.log, file_of(properties, "logfile"));
    EXPECT_EQ(made.log, file_of(properties, "syslogfile"));
    EXPECT_EQ(made.stats, file_of(properties, "statslogfile"));
    EXPECT_EQ(made.dir, made.log.parent_path());
}

TEST(Install, LogsIntoTheFileThatIsGiven) {
    const tools::temporary_dir dir;
    const fs::path log = dir.path() / "my.log";
    installation made;
    install({.ports = {"qnm0"}, .log = log}, made);
    EXPECT_EQ(log, file_of(read_text(made.properties()), "logfile"));
    EXPECT_EQ("ALL", level_of(read_text(made.properties()), "logfile"));
    EXPECT_TRUE(fs::exists(log));
}

// A file of the operator's is appended to and not renamed; a private one has a limited size.
TEST(Install, RotatesItsOwnLogsAlone) {
    const tools::temporary_dir dir;
    installation own;
    install({.ports = {"qnm0"}}, own);
    EXPECT_TRUE(holds(read_text(own.properties()), "LOG=org.apache.log4j.RollingFileAppender"));
    installation given;
    install({.ports = {"qnm0"}, .log = dir.path() / "my.log"}, given);
    EXPECT_TRUE(holds(read_text(given.properties()), "LOG=org.apache.log4j.FileAppender"));
}

TEST(Install, KeepsTheFolderWhenAsked) {
    fs::path kept;
    {
        installation made;
        testing::internal::CaptureStderr();
        install({.ports = {"qnm0"}, .keep_logs = true}, made);
        kept = made.dir;
        EXPECT_EQ("qnmctl: the logs are kept in " + kept.string() + '\n',
                  testing::internal::GetCapturedStderr());
        EXPECT_EQ("ALL", level_of(read_text(made.properties()), "logfile"));
    }
    EXPECT_TRUE(fs::exists(kept / config_name));
    fs::remove_all(kept);
}

TEST(Install, RefusesALogThatCannotBeWritten) {
    const tools::temporary_dir dir;
    installation made;
    EXPECT_THROW(install({.ports = {"qnm0"}, .log = dir.path() / "missing" / "my.log"}, made),
                 error);
}

// An operator's installation, whose appenders write to any place.
class InstallCopy : public testing::Test {
  protected:
    InstallCopy() {
        fs::create_directory(dir.path() / "conf");
        original.dir = dir.path();
        write(original.config(), "ether_port = qnm0\nfrob=1\n");
        write(
            original.properties(),
            "log4j.rootLogger=ALL, SCREEN\nlog4j.appender.SCREEN=org.apache.log4j.ConsoleAppender\n"
            "log4j.logger.logfile=INFO, NET, FILE\nlog4j.logger.syslogfile = OFF, FILE\n"
            "log4j.appender.NET=org.apache.log4j.net.SyslogAppender\n"
            "log4j.appender.FILE=org.apache.log4j.FileAppender\n"
            "log4j.appender.FILE.File=" +
                (dir.path() / "his.log").string() + '\n');
    }
    static void write(const fs::path& file, const std::string& text) {
        std::ofstream(file, std::ios::binary) << text;
    }
    std::string copied() {
        install_copy(original, copy);
        return read_text(copy.properties());
    }

    tools::temporary_dir dir;
    installation original;
    installation copy;
};

TEST_F(InstallCopy, HasTheConfigurationAndLogsOfItsOwn) {
    const std::string properties = copied();
    EXPECT_NE(original.dir, copy.dir);
    EXPECT_EQ(read_text(original.config()), read_text(copy.config()));
    for (const char* const logger : {"logfile", "syslogfile"})
        EXPECT_EQ(copy.log, file_of(properties, logger));
    EXPECT_EQ(copy.stats, file_of(properties, "statslogfile"));
    EXPECT_EQ(copy.dir, copy.log.parent_path());
    EXPECT_EQ(copy.dir, copy.stats.parent_path());
    for (const char* const his : {"his.log", "rootLogger", "Console", "Syslog"})
        EXPECT_FALSE(holds(properties, his)) << his;
}

TEST_F(InstallCopy, LogsOnlyWhatTheCommandReads) {
    const std::string properties = copied();
    EXPECT_EQ("WARN", level_of(properties, "logfile"));
    EXPECT_EQ("WARN", level_of(properties, "syslogfile"));
    EXPECT_EQ("ALL", level_of(properties, "statslogfile"));
}

TEST_F(InstallCopy, HasTheLevelsWhereSomebodyElseReadsIt) {
    original.wanted.file = dir.path() / "my.log";
    const std::string properties = copied();
    EXPECT_EQ("INFO", level_of(properties, "logfile"));
    EXPECT_EQ("ERROR", level_of(properties, "syslogfile"));  // why a start failed is kept
    EXPECT_EQ(original.wanted.file, file_of(properties, "logfile"));
}

TEST_F(InstallCopy, TakesNothingElseForALevel) {
    EXPECT_EQ("WARN", levels_of("log4j.rootLogger=WARN\nlog4j.logger.logfile=INHERITED, A\n").log);
    EXPECT_EQ("ALL", levels_of("log4j.logger.logfile=ALL${x}, A\n").log);
    EXPECT_EQ("TRACE", levels_of("log4j.logger.logfile=TRACE, A\n").log);
    EXPECT_EQ("ALL", levels_of("").syslog);
}

TEST_F(InstallCopy, DoesWithoutAConfiguration) {
    fs::remove(original.config());
    copied();
    EXPECT_FALSE(fs::exists(copy.config()));
}

TEST_F(InstallCopy, TakesRegularFilesOfAboutTheRightSize) {
    fs::remove(original.config());
    ASSERT_EQ(0, mkfifo(original.config().c_str(), 0600));
    EXPECT_THROW(copied(), error);
    fs::remove(original.config());
    write(original.config(), std::string(std::size_t{1} << 20, '#'));
    copied();
    write(original.config(), std::string((std::size_t{1} << 20) + 1, '#'));
    EXPECT_THROW(copied(), error);
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

// The library would ignore some of these, and misread the others.
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
