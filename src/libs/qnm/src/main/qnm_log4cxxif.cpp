// qnm_log4cxxif.cpp - all diagnostic output, through three log4cxx loggers.
//
// There are two filters: g_log_level decides here whether a call formats anything at all, then the
// log4cxx configuration decides where the line goes. A line is formatted on the caller's stack and
// cut at 511 characters, so any thread may log at any time. log4cxx throws when an appender fails
// (a full disk). Such a line is lost, but the manager goes on, so every exception is caught.
//
// A process may end while threads still log, and then log4cxx's static objects are destroyed under
// them. So the lines under way are counted, and an exit handler refuses further ones and waits for
// these. It has to run before log4cxx's own handlers. The handler registered last runs first, and
// log4cxx creates some of its objects on first use. So ours is registered when the library is
// loaded, as a destructor, and again when log4cxx has been configured and has created everything.

#include "qnm_log4cxxif.h"

#include <cxxabi.h>
#include <log4cxx/defaultconfigurator.h>
#include <log4cxx/file.h>
#include <log4cxx/helpers/loglog.h>
#include <log4cxx/helpers/properties.h>
#include <log4cxx/helpers/transcoder.h>
#include <log4cxx/hierarchy.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/propertyconfigurator.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "qnm_log_check.h"
#include "qnm_thread.h"
#include "qnm_util.h"

// Stands for the library among those that are loaded.
extern "C" __attribute__((visibility("hidden"))) void* __dso_handle;

namespace {

using log4cxx::Level;
using log4cxx::LevelPtr;
using log4cxx::LoggerPtr;

constexpr char k_properties[] = "conf/qnm_log4c.properties";
constexpr size_t k_line_size = 512;

constexpr uint64_t k_exit_wait_ms = 1000;

// Other properties may make log4cxx create more objects, so each reading registers the handler
// again. The number is limited, because a manager may be restarted any number of times.
constexpr int k_exit_handlers = 16;

// The properties are read by one thread at a time.
qnm_mutex_t properties_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_LOG);

// As long as this is unknown, each line checks first whether its logger has an appender: without
// one log4cxx complains on standard error.
std::atomic<bool> all_loggers_write = false;

std::atomic<bool> exiting = false;
std::atomic<int> lines_under_way = 0;
std::atomic<int> exit_handlers = 0;

// A line under way, or any other stay inside log4cxx.
class line_guard {
  public:
    line_guard() { lines_under_way++; }
    ~line_guard() { lines_under_way--; }
    line_guard(const line_guard&) = delete;
    line_guard& operator=(const line_guard&) = delete;

    // Checked after the line has been counted, so the handler sees the line or the line sees the
    // handler.
    bool is_allowed() const { return !exiting; }
};

// Lives until the handler has seen the last line end; for ever if that takes too long.
template <typename Pointer>
union kept {
    explicit kept(Pointer made) : ptr(std::move(made)) {}
    ~kept() {}
    Pointer ptr;
};

using logger_handle = kept<LoggerPtr>;

// The first request for a logger makes log4cxx read a configuration from the current directory.
// Anybody may have put it there, and it would open, and empty, any file that it names, with the
// rights of this process. Only the host program may allow that, so during its own request the
// library names a file that does not exist.
struct no_default_configuration {
    no_default_configuration() { name("/nonexistent/log4cxx.properties"); }
    ~no_default_configuration() { name(""); }
    static void name(const char* file) {
        log4cxx::DefaultConfigurator::setConfigurationFileName(file);
    }
};

log4cxx::spi::LoggerRepositoryPtr get_hierarchy() {
    const no_default_configuration none;
    return log4cxx::LogManager::getLoggerRepository();
}

// The repository of all loggers, kept even if the host program has given log4cxx another one since.
// Its destructor closes their files and would wait for a line that is stuck, for instance in a pipe
// that nobody reads; so, like the loggers, it is never destroyed.
kept<log4cxx::spi::LoggerRepositoryPtr> hierarchy(get_hierarchy());

logger_handle logger_file(hierarchy.ptr->getLogger("logfile"));
logger_handle logger_syslog(hierarchy.ptr->getLogger("syslogfile"));
logger_handle logger_stats(hierarchy.ptr->getLogger("statslogfile"));

// Runs at the end of the process and when the library is unloaded, as often as it was registered;
// only the first run has work to do.
void close_log() {
    if (exiting.exchange(true)) return;
    const uint64_t deadline = _qnm_get_msec_monotonic() + k_exit_wait_ms;
    while (lines_under_way > 0) {
        if (_qnm_get_msec_monotonic() >= deadline) return;
        _qnm_msleep(1);
    }
    for (logger_handle* const logger : {&logger_file, &logger_syslog, &logger_stats})
        logger->ptr.reset();
    hierarchy.ptr.reset();
}

// Indexed by qnm_log_level_t.
LevelPtr (*const k_levels[])() = {Level::getFatal, Level::getError, Level::getWarn,
                                  Level::getInfo,  Level::getDebug, Level::getTrace};

// Does what atexit() does; the atexit() of ThreadSanitizer forgets which library calls it. Without
// memory for the handler, lines that are under way at the end of the process are not waited for.
void close_log_before_log4cxx() {
    if (exit_handlers >= k_exit_handlers) return;
    const auto handler = [](void*) { close_log(); };
    if (abi::__cxa_atexit(handler, nullptr, &__dso_handle) == 0) exit_handlers++;
}

// Silences log4cxx's own messages on standard error; the library reports problems itself.
struct quiet_log4cxx {
    quiet_log4cxx() { log4cxx::helpers::LogLog::setQuietMode(true); }
    ~quiet_log4cxx() { log4cxx::helpers::LogLog::setQuietMode(false); }
};

// Properties with a bit of everything that hosts configure. They are read into a hierarchy of their
// own, which is thrown away before anything is written.
constexpr const char* k_first_properties[][2] = {
    {"log4j.rootLogger", "OFF"},
    {"log4j.logger.first", "ALL, FIRST"},
    {"log4j.additivity.first", "false"},
    {"log4j.appender.FIRST", "org.apache.log4j.ConsoleAppender"},
    {"log4j.appender.FIRST.layout", "org.apache.log4j.PatternLayout"},
    {"log4j.appender.FIRST.layout.ConversionPattern", "%d{ISO8601} %-5p %c [%t] %m%n"},
};

// What log4cxx creates when it first reads properties must exist before the handler is registered;
// only then is it destroyed after close_log(). Otherwise a process that ends during its first
// reading would use objects that are gone.
void read_first_properties() {
    const quiet_log4cxx quiet;
    try {
        log4cxx::helpers::Properties properties;
        for (const auto& [key, value] : k_first_properties)
            properties.setProperty(key, value);
        log4cxx::PropertyConfigurator().doConfigure(properties, log4cxx::Hierarchy::create());
    } catch (...) {
    }
}

const struct load_time {
    load_time() {
        for (const auto& level : k_levels)
            level();
        read_first_properties();
    }
    ~load_time() { close_log(); }
} at_load;

void format_and_output(const logger_handle& logger, qnm_log_level_t level, const char* fmt,
                       va_list args) {
    const line_guard guard;
    if (!guard.is_allowed()) return;
    char line[k_line_size];
    vsnprintf(line, sizeof line, fmt, args);
    _qnm_output_log(logger.ptr, line, level);
}

bool is_ascii(unsigned char letter) {
    return letter < 0x80;
}

// log4cxx would convert the name letter by letter, a tenth of the work for a new card.
log4cxx::LogString decode(std::string_view text) {
    if (std::all_of(text.begin(), text.end(), is_ascii)) return {text.begin(), text.end()};
    LOG4CXX_DECODE_CHAR(decoded, std::string(text));
    return decoded;
}

// A broken properties file costs log lines, not the manager. Returns whether log4cxx did not throw.
bool read_properties(const char* name, qnm::problem_text& problem) {
    bool did_throw = false;
    _qnm_log_check_file(name, &problem);
    if (problem.text[0] != '\0') return true;
    try {
        const quiet_log4cxx quiet;
        const no_default_configuration none;
        const bool was_configured = hierarchy.ptr->isConfigured();
        log4cxx::PropertyConfigurator().doConfigure(log4cxx::File(name), hierarchy.ptr);
        hierarchy.ptr->setConfigured(was_configured);  // as the host program left it
        _qnm_log_check_loggers(hierarchy.ptr.get(), &problem);
    } catch (const std::exception& thrown) {
        problem.add("%s", thrown.what());
        did_throw = true;
    }
    all_loggers_write = problem.text[0] == '\0';
    return !did_throw;
}

}  // namespace

extern "C" {

qnm_log_level_t g_log_level = QNM_LOGLVL_INFO;

void _qnm_output_log(LoggerPtr logger, char* msg, qnm_log_level_t level) {
    if (static_cast<unsigned>(level) >= std::size(k_levels)) return;
    try {
        const LevelPtr log4cxx_level = k_levels[level]();
        if (logger->isEnabledFor(log4cxx_level) &&
            (all_loggers_write || _qnm_log_has_appender(logger.get()))) {
            logger->forcedLogLS(log4cxx_level, decode(msg), LOG4CXX_LOCATION);
        }
    } catch (...) {
    }
}

#define QNM_DEFINE_LOG(name, logger, level)              \
    void name(const char* fmt, ...) {                    \
        if (qnm::load(g_log_level) < (level)) return;    \
        va_list args;                                    \
        va_start(args, fmt);                             \
        format_and_output((logger), (level), fmt, args); \
        va_end(args);                                    \
    }

QNM_DEFINE_LOG(qnm_log_fatal, logger_file, QNM_LOGLVL_FATAL)
QNM_DEFINE_LOG(qnm_log_error, logger_file, QNM_LOGLVL_ERROR)
QNM_DEFINE_LOG(qnm_log_warn, logger_file, QNM_LOGLVL_WARN)
QNM_DEFINE_LOG(qnm_log_info, logger_file, QNM_LOGLVL_INFO)
QNM_DEFINE_LOG(qnm_log_debug, logger_file, QNM_LOGLVL_DEBUG)
QNM_DEFINE_LOG(qnm_log_trace, logger_file, QNM_LOGLVL_TRACE)
QNM_DEFINE_LOG(qnm_syslog_fatal, logger_syslog, QNM_LOGLVL_FATAL)
QNM_DEFINE_LOG(qnm_syslog_error, logger_syslog, QNM_LOGLVL_ERROR)
QNM_DEFINE_LOG(qnm_syslog_warn, logger_syslog, QNM_LOGLVL_WARN)
QNM_DEFINE_LOG(qnm_syslog_info, logger_syslog, QNM_LOGLVL_INFO)
QNM_DEFINE_LOG(qnm_syslog_debug, logger_syslog, QNM_LOGLVL_DEBUG)
QNM_DEFINE_LOG(qnm_syslog_trace, logger_syslog, QNM_LOGLVL_TRACE)

void qnm_statslog(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    format_and_output(logger_stats, QNM_LOGLVL_INFO, fmt, args);
    va_end(args);
}

qnm_api_code_t qnm_log_init(const char* path) {
    char name[qnm::k_filename_size];
    qnm::problem_text problem;
    const qnm::mutex_guard lock(properties_mutex);
    all_loggers_write = false;
    if (_qnm_make_filename(path, k_properties, name, sizeof name) != 0) {
        problem.add("the name of the directory is too long");
        _qnm_log_tell(__func__, path, &problem);
        return QNM_API_EPROTO;
    }
    errno = 0;
    if (_qnm_file_exist(name) != 0) {
        problem.add("%s", errno != 0 ? strerror(errno) : "is not a regular file");
        _qnm_log_tell(__func__, name, &problem);
        return QNM_API_EPROTO;
    }
    const line_guard guard;
    if (!guard.is_allowed()) return QNM_API_EPROTO;
    if (read_properties(name, problem)) {
        qnm_log_info("%s: Log initialize is done. logconfig_filepath:%s", __func__,
                     path != nullptr ? path : "(null)");
    }
    _qnm_log_tell(__func__, name, &problem);
    close_log_before_log4cxx();
    return QNM_API_SUCCESS;
}

}  // extern "C"
