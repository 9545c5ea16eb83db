// qnm_log4cxxif.cpp - all diagnostic output, through three log4cxx loggers.
//
// Two filters stand in a row: g_log_level decides here whether a call formats anything at all, then
// the log4cxx configuration decides where the line goes. A line is formatted on the caller's stack
// and cut at 511 characters, so any thread may log at any time. log4cxx throws when an appender
// fails (a full disk); a line lost that way must not take the manager with it, so nothing is let
// through.

#include "qnm_log4cxxif.h"

#include <log4cxx/file.h>
#include <log4cxx/logger.h>
#include <log4cxx/propertyconfigurator.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>

#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

using log4cxx::Level;
using log4cxx::LevelPtr;
using log4cxx::LoggerPtr;

constexpr char k_properties[] = "conf/qnm_log4c.properties";
constexpr size_t k_line_size = 512;

LoggerPtr logger_file(log4cxx::Logger::getLogger("logfile"));
LoggerPtr logger_syslog(log4cxx::Logger::getLogger("syslogfile"));
LoggerPtr logger_stats(log4cxx::Logger::getLogger("statslogfile"));

// Indexed by qnm_log_level_t.
LevelPtr (*const k_levels[])() = {Level::getFatal, Level::getError, Level::getWarn,
                                  Level::getInfo,  Level::getDebug, Level::getTrace};

void format_and_output(const LoggerPtr& logger, qnm_log_level_t level, const char* fmt,
                       va_list args) {
    char line[k_line_size];
    vsnprintf(line, sizeof line, fmt, args);
    _qnm_output_log(logger, line, level);
}

}  // namespace

extern "C" {

qnm_log_level_t g_log_level = QNM_LOGLVL_INFO;

void _qnm_output_log(LoggerPtr logger, char* msg, qnm_log_level_t level) {
    if (static_cast<unsigned>(level) >= std::size(k_levels)) return;
    try {
        const LevelPtr log4cxx_level = k_levels[level]();
        if (logger->isEnabledFor(log4cxx_level)) {
            logger->forcedLog(log4cxx_level, std::string(msg), LOG4CXX_LOCATION);
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
    if (_qnm_make_filename(path, k_properties, name, sizeof name) != 0) return QNM_API_EPROTO;
    if (_qnm_file_exist(name) != 0) return QNM_API_EPROTO;
    try {
        log4cxx::PropertyConfigurator::configure(log4cxx::File(name));
        qnm_log_info("%s: Log initialize is done. logconfig_filepath:%s", __func__,
                     path != nullptr ? path : "(null)");
    } catch (const std::exception&) {
        // A broken properties file costs log lines, not the manager.
    }
    return QNM_API_SUCCESS;
}

}  // extern "C"
