// qnm_log_check.h - finds out why the log cannot be written, and says so on standard error.
#pragma once

#include <cstddef>

namespace log4cxx {
class Logger;
namespace spi {
class LoggerRepository;
}
}  // namespace log4cxx

namespace qnm {

// What is wrong, as far as it fits; empty when nothing is.
struct problem_text {
    char text[1024] = "";
    void add(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
};

}  // namespace qnm

extern "C" {

// Whether the file can be read at all.
void _qnm_log_check_file(const char* name, qnm::problem_text* problem);

// Whether each of the three loggers that is not off writes somewhere, once log4cxx is configured.
// Appenders that cannot write are taken off, so that log4cxx has no reason to complain about them
// upon the first line.
void _qnm_log_check_loggers(log4cxx::spi::LoggerRepository* loggers, qnm::problem_text* problem);

// Whether a line of the logger has anywhere to go. May throw what an allocation throws.
int _qnm_log_has_appender(log4cxx::Logger* logger);

// Reports a problem with the file in one line on standard error, under the name of the function
// that met it. The same problem is reported once: first a host program reads the file, then the
// manager.
void _qnm_log_tell(const char* func, const char* name, const qnm::problem_text* problem);

}  // extern "C"
