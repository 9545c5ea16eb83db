// test_log4cxxif.cpp - the log calls, their two filters and the reading of the properties file.

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/file.h>
#include <log4cxx/helpers/transcoder.h>
#include <log4cxx/hierarchy.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/spi/repositoryselector.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config_file.h"
#include "fail.h"
#include "log_capture.h"
#include "qnm_log4cxxif.h"
#include "qnm_thread.h"
#include "qnm_util.h"

// ---- The look at the properties file ------------------------------------------------------------

namespace {

// What was asked for, and the answer in place of the real one.
std::vector<std::string> asked;
std::optional<int> answer;

bool configuring_throws = false;

}  // namespace

extern "C" {

int __real__qnm_file_exist(const char* path);
int __wrap__qnm_file_exist(const char* path);

int __wrap__qnm_file_exist(const char* path) {
    asked.push_back(path);
    return answer.has_value() ? *answer : __real__qnm_file_exist(path);
}

// Replaces log4cxx::PropertyConfigurator::doConfigure(const File&, LoggerRepositoryPtr). This
// version of log4cxx catches errors in the file by itself.
#define DO_CONFIGURE                                                        \
    "_ZN7log4cxx20PropertyConfigurator11doConfigureERKNS_4FileESt10shared_" \
    "ptrINS_3spi16LoggerRepositoryEE"
int real_do_configure(void* self, const log4cxx::File& file,
                      void* loggers) asm("__real_" DO_CONFIGURE);
int wrap_do_configure(void* self, const log4cxx::File& file,
                      void* loggers) asm("__wrap_" DO_CONFIGURE);

int wrap_do_configure(void* self, const log4cxx::File& file, void* loggers) {
    if (configuring_throws) throw std::runtime_error("no space left on device");
    return real_do_configure(self, file, loggers);
}

}  // extern "C"

namespace {

class Log : public testing::Test {
  protected:
    ~Log() override { qnm::store(g_log_level, QNM_LOGLVL_INFO); }

    static void set_running_level(int level) {
        qnm::store(g_log_level, static_cast<qnm_log_level_t>(level));
    }

    log_capture log_;
};

// ---- The family of log calls --------------------------------------------------------------------

struct log_row {
    const char* name;
    void (*write)(const char* fmt, ...);
    const char* logger;
    int level;
    int needs;  // the lowest running level at which it writes
};

class LogCall : public Log, public testing::WithParamInterface<log_row> {
  protected:
    const log_row& row() const { return GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(
    family, LogCall,
    testing::Values(log_row{"log_fatal", qnm_log_fatal, "logfile", 0, 0},
                    log_row{"log_error", qnm_log_error, "logfile", 1, 1},
                    log_row{"log_warn", qnm_log_warn, "logfile", 2, 2},
                    log_row{"log_info", qnm_log_info, "logfile", 3, 3},
                    log_row{"log_debug", qnm_log_debug, "logfile", 4, 4},
                    log_row{"log_trace", qnm_log_trace, "logfile", 5, 5},
                    log_row{"syslog_fatal", qnm_syslog_fatal, "syslogfile", 0, 0},
                    log_row{"syslog_error", qnm_syslog_error, "syslogfile", 1, 1},
                    log_row{"syslog_warn", qnm_syslog_warn, "syslogfile", 2, 2},
                    log_row{"syslog_info", qnm_syslog_info, "syslogfile", 3, 3},
                    log_row{"syslog_debug", qnm_syslog_debug, "syslogfile", 4, 4},
                    log_row{"syslog_trace", qnm_syslog_trace, "syslogfile", 5, 5},
                    log_row{"statslog", qnm_statslog, "statslogfile", 3, QNM_LOGLVL_NONE}),
    [](const auto& each) { return std::string(each.param.name); });

TEST_P(LogCall, writes_from_its_level_on_to_its_logger) {
    for (int running = QNM_LOGLVL_NONE; running <= QNM_LOGLVL_TRACE; running++) {
        set_running_level(running);
        log_.clear();
        row().write("%s: level %d", "caller", running);
        const std::vector<log_line> lines = log_.lines();
        ASSERT_EQ(lines.size(), running >= row().needs ? 1u : 0u) << "running level " << running;
        if (lines.empty()) continue;
        EXPECT_EQ(lines[0].logger, row().logger);
        EXPECT_EQ(lines[0].level, row().level);
        EXPECT_EQ(lines[0].text, "caller: level " + std::to_string(running));
    }
}

// With %n, formatting the text would be noticed.
TEST_P(LogCall, formats_nothing_below_its_level) {
    int formatted = -1;
    set_running_level(row().needs);
    row().write("text%n", &formatted);
    EXPECT_EQ(formatted, 4);
    if (row().needs == QNM_LOGLVL_NONE) return;
    formatted = -1;
    set_running_level(row().needs - 1);
    row().write("text%n", &formatted);
    EXPECT_EQ(formatted, -1);
}

TEST_P(LogCall, cuts_a_line_at_511_characters) {
    set_running_level(QNM_LOGLVL_TRACE);
    const std::string message = std::string(510, 'a') + "bc" + std::string(88, 'd');
    for (const size_t length : {510u, 511u, 512u, 600u}) {
        log_.clear();
        row().write("%s", message.substr(0, length).c_str());
        EXPECT_TRUE(
            log_.has(row().level, message.substr(0, std::min<size_t>(length, 511)), row().logger))
            << length;
    }
}

TEST_P(LogCall, leaves_the_last_word_to_the_loggers_own_level) {
    set_running_level(QNM_LOGLVL_TRACE);
    const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger(row().logger);
    logger->setLevel(log4cxx::Level::getWarn());
    row().write("text");
    EXPECT_EQ(log_.lines().size(), row().level <= QNM_LOGLVL_WARN ? 1u : 0u);
    logger->setLevel(log4cxx::Level::getOff());
    log_.clear();
    row().write("text");
    EXPECT_TRUE(log_.lines().empty());
}

TEST(RunningLevel, is_info_at_first) {
    EXPECT_EQ(g_log_level, QNM_LOGLVL_INFO);
}

TEST_F(Log, adds_nothing_to_a_line) {
    qnm_log_info("%s", "100%d \t~");
    EXPECT_EQ(log_.texts(), std::vector<std::string>{"100%d \t~"});
}

TEST_F(Log, letters_beyond_ascii_are_those_that_the_locale_has) {
    for (const std::string text : {"caf\u00e9", "\u65e5\u672c", "caf\xff", "\xc3"}) {
        log_.clear();
        qnm_log_info("%s", text.c_str());
        LOG4CXX_DECODE_CHAR(decoded, text);
        std::string expected;
        log4cxx::helpers::Transcoder::encodeUTF8(decoded, expected);
        EXPECT_EQ(log_.texts(), std::vector<std::string>{expected});
    }
}

// ---- The back end -------------------------------------------------------------------------------

TEST_F(Log, output_writes_at_the_level_that_matches) {
    char text[] = "text";
    set_running_level(QNM_LOGLVL_NONE);  // does not matter here
    for (int level = QNM_LOGLVL_FATAL; level <= QNM_LOGLVL_TRACE; level++) {
        log_.clear();
        _qnm_output_log(log4cxx::Logger::getLogger("syslogfile"), text,
                        static_cast<qnm_log_level_t>(level));
        EXPECT_EQ(log_.lines().size(), 1u);
        EXPECT_TRUE(log_.has(level, "text", "syslogfile")) << level;
    }
}

TEST_F(Log, output_writes_nothing_at_other_levels) {
    char text[] = "text";
    for (const int level : {-1, 6, 100, INT32_MIN, INT32_MAX}) {
        _qnm_output_log(log4cxx::Logger::getLogger("logfile"), text,
                        static_cast<qnm_log_level_t>(level));
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(Log, lines_of_several_threads_arrive_whole) {
    constexpr int k_threads = 4;
    constexpr int k_lines = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < k_threads; i++) {
        threads.emplace_back([i] {
            const std::string text(500, static_cast<char>('a' + i));
            for (int line = 0; line < k_lines; line++)
                qnm_log_error("%s", text.c_str());
        });
    }
    for (int i = 0; i < 1000; i++)
        set_running_level(i % 2 == 0 ? QNM_LOGLVL_ERROR : QNM_LOGLVL_TRACE);
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < k_threads; i++)
        EXPECT_EQ(log_.count(1, std::string(500, static_cast<char>('a' + i))), size_t{k_lines});
    EXPECT_EQ(log_.lines().size(), size_t{k_threads * k_lines});
}

}  // namespace

// ---- An appender that fails ---------------------------------------------------------------------

// The macros of log4cxx name these without their scope.
namespace helpers = log4cxx::helpers;
using log4cxx::AppenderSkeleton;

class full_disk_appender : public log4cxx::AppenderSkeleton {
  public:
    DECLARE_ABSTRACT_LOG4CXX_OBJECT(full_disk_appender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(full_disk_appender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void close() override {}
    bool requiresLayout() const override { return false; }
    int calls() const { return calls_; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr&, log4cxx::helpers::Pool&) override {
        calls_++;
        throw std::runtime_error("no space left on device");
    }

  private:
    int calls_ = 0;
};

IMPLEMENT_LOG4CXX_OBJECT(full_disk_appender)

// A host program that has loggers of its own.
class chosen_loggers : public virtual log4cxx::spi::RepositorySelector {
  public:
    DECLARE_LOG4CXX_OBJECT(chosen_loggers)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(log4cxx::spi::RepositorySelector)
    END_LOG4CXX_CAST_MAP()

    log4cxx::spi::LoggerRepositoryPtr getLoggerRepository() override { return loggers; }

    log4cxx::spi::LoggerRepositoryPtr loggers = log4cxx::Hierarchy::create();
};

IMPLEMENT_LOG4CXX_OBJECT(chosen_loggers)

namespace {

TEST_F(Log, a_line_that_cannot_be_written_is_lost_and_nothing_else) {
    const log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger("logfile");
    const auto appender = std::make_shared<full_disk_appender>();
    logger->addAppender(appender);
    EXPECT_NO_THROW(qnm_log_error("text"));
    logger->removeAppender(appender);
    EXPECT_EQ(appender->calls(), 1);
}

// ---- Initialisation -----------------------------------------------------------------------------

class LogInit : public Log {
  protected:
    LogInit() {
        asked.clear();
        answer.reset();
    }
    ~LogInit() override { answer.reset(); }

    // An installation directory and the file that its properties send "logfile" to.
    std::string write_properties() const {
        const std::string output = dir_.path() + "/output.log";
        std::ofstream(dir_.properties())
            << "log4j.rootLogger=OFF\n"
               "log4j.logger.logfile=ALL, out\n"
               "log4j.appender.out=org.apache.log4j.FileAppender\n"
               "log4j.appender.out.File="
            << output
            << "\n"
               "log4j.appender.out.layout=org.apache.log4j.PatternLayout\n"
               "log4j.appender.out.layout.ConversionPattern=%c %p [%F] %m%n\n";
        return output;
    }

    static std::string read(const std::string& name) {
        std::ostringstream text;
        text << std::ifstream(name).rdbuf();
        return text.str();
    }

    install_dir dir_;
};

TEST_F(LogInit, without_a_directory_looks_at_the_default_file) {
    answer = -1;
    EXPECT_EQ(qnm_log_init(nullptr), QNM_API_EPROTO);
    EXPECT_EQ(qnm_log_init(""), QNM_API_EPROTO);
    EXPECT_EQ(asked, std::vector<std::string>(2, "/opt/tarvo/qnm/conf/qnm_log4c.properties"));
}

TEST_F(LogInit, fails_when_the_file_is_missing) {
    dir_.remove_properties();
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_EPROTO);
    EXPECT_EQ(asked, std::vector<std::string>{dir_.path() + "/conf/qnm_log4c.properties"});
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LogInit, takes_a_directory_of_up_to_485_characters) {
    answer = -1;
    const std::string longest(485, 'd');
    EXPECT_EQ(qnm_log_init(longest.c_str()), QNM_API_EPROTO);
    EXPECT_EQ(asked, std::vector<std::string>{longest + "/conf/qnm_log4c.properties"});
    answer = 0;
    EXPECT_EQ(qnm_log_init((longest + "d").c_str()), QNM_API_EPROTO);
    EXPECT_EQ(asked.size(), 1u);
}

// Replaces the settings of log_capture. Afterwards its appender is detached from the loggers.
TEST_F(LogInit, configures_the_loggers_and_logs_the_directory_with_its_location) {
    const std::string output = write_properties();
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    const std::string text = read(output);
    log4cxx::LogManager::resetConfiguration();
    EXPECT_EQ(text.substr(0, 14), "logfile INFO [");
    EXPECT_NE(text.find("qnm_log4cxxif.cpp] qnm_log_init: Log initialize is done. "
                        "logconfig_filepath:" +
                        dir_.path() + "\n"),
              std::string::npos)
        << text;
}

TEST_F(LogInit, may_be_repeated_and_reads_the_file_again) {
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    const std::string output = write_properties();
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    const std::string text = read(output);
    log4cxx::LogManager::resetConfiguration();
    EXPECT_NE(text.find("Log initialize is done."), std::string::npos);
}

TEST_F(LogInit, logs_the_directory_as_given_and_survives_broken_lines) {
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    EXPECT_TRUE(
        log_.has(3, "qnm_log_init: Log initialize is done. logconfig_filepath:" + dir_.path()));
    std::ofstream(dir_.properties(), std::ios::binary) << "log4j.rootLogger=\\u12\nno such=\\";
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
}

TEST_F(LogInit, survives_what_log4cxx_throws) {
    configuring_throws = true;
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    configuring_throws = false;
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LogInit, keeps_its_loggers_when_the_host_gives_log4cxx_others) {
    const std::string output = write_properties();
    // Only the library keeps them meanwhile.
    const std::weak_ptr<log4cxx::spi::LoggerRepository> first =
        log4cxx::LogManager::getLoggerRepository();
    const auto chosen = std::make_shared<chosen_loggers>();
    log4cxx::LogManager::setRepositorySelector(chosen, nullptr);
    EXPECT_EQ(qnm_log_init(dir_.path().c_str()), QNM_API_SUCCESS);
    qnm_log_error("%s: a line", "caller");
    const bool is_touched = chosen->loggers->exists("logfile") != nullptr;
    const auto before = std::make_shared<chosen_loggers>();
    before->loggers = first.lock();
    ASSERT_NE(before->loggers, nullptr);
    log4cxx::LogManager::setRepositorySelector(before, nullptr);
    log4cxx::LogManager::resetConfiguration();
    EXPECT_NE(read(output).find("caller: a line\n"), std::string::npos);
    EXPECT_FALSE(is_touched);
}

// ---- Where there is no log ----------------------------------------------------------------------

// log4cxx's own complaint would appear with the first line of each logger at the latest.
std::string told_by_reading(const std::string& dir, qnm_api_code_t expected) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(qnm_log_init(dir.c_str()), expected);
    qnm_log_error("text");
    qnm_syslog_error("text");
    qnm_statslog("text");
    return testing::internal::GetCapturedStderr();
}

struct problem_row {
    const char* name;
    std::string properties;  // {dir} stands for the installation directory
    std::string problem;
};

std::string logger(const std::string& name, const std::string& more) {
    return "log4j.logger." + name + "=ALL, " + name + "\nlog4j.additivity." + name +
           "=false\nlog4j.appender." + name + more;
}

std::string appender(const std::string& name, const std::string& file) {
    return logger(name, "=org.apache.log4j.FileAppender\nlog4j.appender." + name + ".File=" + file +
                            "\nlog4j.appender." + name + ".layout=org.apache.log4j.SimpleLayout\n");
}

const std::string k_others =
    appender("syslogfile", "{dir}/a") + appender("statslogfile", "{dir}/b");

const problem_row k_problems[] = {
    {"empty", "",
     "no appender for the logger logfile; no appender for the logger syslogfile; "
     "no appender for the logger statslogfile"},
    {"misspelt", k_others + appender("log_file", "{dir}/c"), "no appender for the logger logfile"},
    {"unknown_appender", k_others + logger("logfile", "=org.apache.log4j.NoSuchAppender\n"),
     "no appender for the logger logfile"},
    {"undefined_appender", k_others + "log4j.logger.logfile=ALL, nowhere\n",
     "no appender for the logger logfile"},
    {"no_layout",
     k_others + logger("logfile",
                       "=org.apache.log4j.FileAppender\n"
                       "log4j.appender.logfile.File={dir}/c\n"),
     "no layout for the appender logfile"},
    {"no_file",
     k_others + logger("logfile",
                       "=org.apache.log4j.FileAppender\n"
                       "log4j.appender.logfile.layout=org.apache.log4j.SimpleLayout\n"),
     "no File for the appender logfile"},
    {"missing_folder", k_others + appender("logfile", "/proc/none/log"),
     "cannot write /proc/none/log: No such file or directory"},
    {"file_for_a_folder", k_others + appender("logfile", "{dir}/conf/qnm_log4c.properties/log"),
     "cannot write {dir}/conf/qnm_log4c.properties/log: Not a directory"},
    {"folder_for_a_file", k_others + appender("logfile", "{dir}/conf"),
     "cannot write {dir}/conf: Is a directory"},
    {"rolling",
     k_others + logger("logfile",
                       "=org.apache.log4j.RollingFileAppender\n"
                       "log4j.appender.logfile.File=/proc/none/log\n"
                       "log4j.appender.logfile.MaxFileSize=1MB\n"
                       "log4j.appender.logfile.layout=org.apache.log4j.SimpleLayout\n"),
     "cannot write /proc/none/log: No such file or directory"},
    {"shared_appender",
     "log4j.rootLogger=ALL, ROOT\nlog4j.appender.ROOT=org.apache.log4j.FileAppender\n"
     "log4j.appender.ROOT.File={dir}/conf\n"
     "log4j.appender.ROOT.layout=org.apache.log4j.SimpleLayout\n",
     "cannot write {dir}/conf: Is a directory"},
};

std::string fill_in(std::string text, const std::string& dir) {
    const std::string mark = "{dir}";
    for (size_t at; (at = text.find(mark)) != std::string::npos;)
        text.replace(at, mark.size(), dir);
    return text;
}

// Prints the name of the row in the list of tests.
void PrintTo(const problem_row& row, std::ostream* out) {
    *out << row.name;
}

class LogProblem : public testing::TestWithParam<problem_row> {
  protected:
    LogProblem() {
        answer.reset();
        log4cxx::LogManager::resetConfiguration();
    }
    ~LogProblem() override { log4cxx::LogManager::resetConfiguration(); }

    std::string line(const std::string& problem) const {
        return "qnm_log_init: " + dir_.properties() + ": " + problem + "\n";
    }

    void write(const std::string& properties) const {
        std::ofstream(dir_.properties()) << fill_in(properties, dir_.path());
    }

    const fail::guard fails_;
    install_dir dir_;
};

INSTANTIATE_TEST_SUITE_P(properties, LogProblem, testing::ValuesIn(k_problems),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_P(LogProblem, is_told_in_one_line_that_names_the_file) {
    write(GetParam().properties);
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS),
              line(fill_in(GetParam().problem, dir_.path())));
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
}

TEST_F(LogProblem, is_told_again_when_it_has_been_away) {
    write("");
    EXPECT_NE(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
    write(k_others + appender("logfile", "{dir}/c"));
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
    write("log4j.logger.logfile=ALL, nowhere\n");
    EXPECT_NE(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
}

TEST_F(LogProblem, is_no_logger_that_is_off) {
    write("log4j.logger.syslogfile=OFF\nlog4j.logger.statslogfile=OFF\n" +
          appender("logfile", "{dir}/c"));
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
}

TEST_F(LogProblem, may_be_a_missing_file) {
    dir_.remove_properties();
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_EPROTO), line("No such file or directory"));
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_EPROTO), "");
}

TEST_F(LogProblem, may_be_a_directory) {
    dir_.remove_properties();
    std::filesystem::create_directory(dir_.properties());
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_EPROTO), line("is not a regular file"));
}

TEST_F(LogProblem, may_be_a_lack_of_rights) {
    fail::nth(fail::call::fopen, 1, EACCES);
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS), line("Permission denied"));
}

TEST_F(LogProblem, may_be_a_log_that_others_own) {
    write(k_others + appender("logfile", "{dir}/c"));
    fail::nth(fail::call::fopen, 2, EACCES);
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS),
              line("cannot write " + dir_.path() + "/c: Permission denied"));
}

TEST_F(LogProblem, is_no_lack_of_descriptors_for_the_look_at_the_log) {
    write(k_others + appender("logfile", "{dir}/c"));
    fail::nth(fail::call::fopen, 2, EMFILE);
    EXPECT_EQ(told_by_reading(dir_.path(), QNM_API_SUCCESS), "");
    std::string text;
    EXPECT_TRUE(std::getline(std::ifstream(dir_.path() + "/c"), text));
}

TEST_F(LogProblem, may_be_the_name_of_the_directory) {
    const std::string long_name(486, 'd');
    EXPECT_EQ(told_by_reading(long_name, QNM_API_EPROTO),
              "qnm_log_init: " + long_name + ": the name of the directory is too long\n");
}

TEST_F(LogProblem, gives_no_orders_to_a_terminal) {
    EXPECT_EQ(
        told_by_reading("/none/\x1b[2J\n\x7f", QNM_API_EPROTO),
        "qnm_log_init: /none/?[2J\?\?/conf/qnm_log4c.properties: No such file or directory\n");
    EXPECT_EQ(told_by_reading("/none/\xc2\x9b"
                              "2J",
                              QNM_API_EPROTO),
              "qnm_log_init: /none/\?\?2J/conf/qnm_log4c.properties: No such file or directory\n")
        << "an order in one byte, as UTF-8";
}

}  // namespace
