// Levels, appenders and files of the library's loggers in a properties file.
#include "installation/log_properties.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

using names = std::vector<std::string>;

names files(const char* text, const char* logger = "logfile") {
    return files_of_logger(read_log_properties(text), logger);
}

constexpr char properties[] =
    "# log4j.logger.statslogfile=ALL, NONE\n"
    "! log4j.logger.statslogfile=ALL, NONE\n"
    "log4j.logger.statslogfile = ALL, STATS\r\n"
    "log4j.appender.STATS=org.apache.log4j.RollingFileAppender\r\n"
    "log4j.appender.STATS.File = /var/log/with blank/stats.log\r\n";

TEST(FilesOfLogger, AreThoseOfItsAppenders) {
    EXPECT_EQ(names{"/var/log/with blank/stats.log"}, files(properties, "statslogfile"));
    EXPECT_EQ(names{}, files(properties));
    EXPECT_EQ(names{}, files("log4j.logger.logfile=ALL, A\n"));
}

TEST(FilesOfLogger, MayStandBehindAColon) {
    EXPECT_EQ(names{"/x.log"}, files("log4j.logger.logfile: ALL, A\n"
                                     "log4j.appender.A: org.apache.log4j.FileAppender\n"
                                     "log4j.appender.A.File: /x.log\n"));
}

TEST(FilesOfLogger, MayBelongToALaterAppender) {
    EXPECT_EQ((names{"/x.log", "/y.log"}), files("log4j.logger.logfile=ALL, C, A, B\n"
                                                 "log4j.appender.C=ConsoleAppender\n"
                                                 "log4j.appender.A=FileAppender\n"
                                                 "log4j.appender.A.File=/x.log\n"
                                                 "log4j.appender.B=RollingFileAppender\n"
                                                 "log4j.appender.B.File=/y.log\n"));
}

TEST(FilesOfLogger, AreThoseOfTheRootLoggerToo) {
    constexpr char text[] =
        "log4j.rootLogger=WARN, R\n"
        "log4j.logger.syslogfile=ALL\n"
        "log4j.additivity.syslogfile=false\n"
        "log4j.appender.R=FileAppender\n"
        "log4j.appender.R.File=/root.log\n";
    EXPECT_EQ(names{"/root.log"}, files(text));
    EXPECT_EQ(names{}, files(text, "syslogfile"));
    EXPECT_EQ("WARN", find_logger(read_log_properties(text), "logfile").level);
}

TEST(LogFiles, HaveEachFileOnce) {
    EXPECT_EQ(names{"/x.log"}, log_files(read_log_properties("log4j.logger.logfile=ALL, A\n"
                                                             "log4j.logger.syslogfile=ALL, A\n"
                                                             "log4j.appender.A=FileAppender\n"
                                                             "log4j.appender.A.File=/x.log\n")));
}

}  // namespace
}  // namespace qnmctl
