// qnm_log_check.cpp - finds out why the log cannot be written, and says so on standard error.
//
// log4cxx reports problems on standard error in several lines, some of them only with the first
// line logged, and names neither the file nor what to do. So it is silenced while it reads, and the
// result is checked here: a logger without an appender means a wrong name, a class that does not
// exist or a file without settings; an appender that cannot write has no layout or no file.

#include "qnm_log_check.h"

#include <log4cxx/fileappender.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggerrepository.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using log4cxx::AppenderPtr;
using log4cxx::Logger;
using log4cxx::LoggerPtr;

constexpr const char* k_loggers[] = {"logfile", "syslogfile", "statslogfile"};

using file_handle = std::unique_ptr<FILE, int (*)(FILE*)>;

// 0, or why the file cannot be opened.
int try_open(const char* name, const char* mode) {
    const file_handle file(fopen(name, mode), fclose);
    return file != nullptr ? 0 : errno;
}

// These errors say nothing about the file: it can be opened another time.
bool is_passing(int err) {
    return err == EMFILE || err == ENFILE || err == ENOMEM || err == EINTR;
}

// log4cxx has opened the file already, if that was possible.
bool can_write(const log4cxx::FileAppender& appender, qnm::problem_text& problem) {
    const std::string file = appender.getFile();
    if (file.empty()) {
        problem.add("no File for the appender %s", appender.getName().c_str());
        return false;
    }
    const int err = try_open(file.c_str(), "ae");
    if (err == 0 || is_passing(err)) return true;
    problem.add("cannot write %s: %s", file.c_str(), strerror(err));
    return false;
}

bool can_write(const AppenderPtr& appender, qnm::problem_text& problem) {
    if (appender->requiresLayout() && appender->getLayout() == nullptr) {
        problem.add("no layout for the appender %s", appender->getName().c_str());
        return false;
    }
    const auto* const file = dynamic_cast<const log4cxx::FileAppender*>(appender.get());
    return file == nullptr || can_write(*file, problem);
}

// Calls use(logger, appender) for each appender that gets the logger's lines.
template <typename Use>
void for_each_appender(Logger* logger, Use use) {
    for (LoggerPtr parent; logger != nullptr; logger = parent.get()) {
        for (const AppenderPtr& appender : logger->getAllAppenders())
            use(*logger, appender);
        parent = logger->getAdditivity() ? logger->getParent() : nullptr;
    }
}

struct attachment {
    Logger* logger;
    AppenderPtr appender;
};

// Notes an appender that cannot write. It is removed later, because other loggers may use it too.
void check_logger(const LoggerPtr& logger, qnm::problem_text& problem,
                  std::vector<attachment>& broken) {
    if (!logger->isEnabledFor(log4cxx::Level::getFatal())) return;
    bool has_some = false;
    for_each_appender(logger.get(), [&](Logger& owner, const AppenderPtr& appender) {
        has_some = true;
        if (!can_write(appender, problem)) broken.push_back({&owner, appender});
    });
    if (!has_some) problem.add("no appender for the logger %s", logger->getName().c_str());
}

// Names from outside must not break the line or send control sequences to a terminal; some
// terminals take bytes beyond ASCII as such.
void make_printable(char* text) {
    for (; *text != '\0'; text++) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < ' ' || byte >= 0x7f) *text = '?';
    }
}

}  // namespace

namespace qnm {

void problem_text::add(const char* fmt, ...) {
    char part[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(part, sizeof part, fmt, args);
    va_end(args);
    // Three loggers may share one appender.
    if (strstr(text, part) != nullptr) return;
    const size_t length = strlen(text);
    snprintf(text + length, sizeof text - length, "%s%s", length != 0 ? "; " : "", part);
}

}  // namespace qnm

extern "C" {

void _qnm_log_check_file(const char* name, qnm::problem_text* problem) {
    const int err = try_open(name, "re");
    if (err != 0) problem->add("%s", strerror(err));
}

void _qnm_log_check_loggers(log4cxx::spi::LoggerRepository* loggers, qnm::problem_text* problem) {
    try {
        std::vector<attachment> broken;
        for (const char* const name : k_loggers)
            check_logger(loggers->getLogger(name), *problem, broken);
        for (const attachment& it : broken)
            it.logger->removeAppender(it.appender);
    } catch (const std::exception& thrown) {
        problem->add("%s", thrown.what());
    }
}

int _qnm_log_has_appender(log4cxx::Logger* logger) {
    int found = 0;
    for_each_appender(logger, [&](Logger&, const AppenderPtr&) { found = 1; });
    return found;
}

void _qnm_log_tell(const char* func, const char* name, const qnm::problem_text* problem) {
    static std::atomic<size_t> last_told = 0;
    char line[sizeof problem->text + 1024];
    snprintf(line, sizeof line, "%s: %.511s: %s", func, name, problem->text);
    make_printable(line);
    const bool is_problem = problem->text[0] != '\0';
    const size_t mark = is_problem ? std::hash<std::string_view>()(line) : 0;
    if (last_told.exchange(mark) != mark && is_problem) fprintf(stderr, "%s\n", line);
}

}  // extern "C"
