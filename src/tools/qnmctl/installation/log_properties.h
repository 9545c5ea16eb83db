// Reads from a log4cxx properties file what the library's loggers do: their levels, their appenders
// and the files of these.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qnmctl {

// The library's loggers, in the order in which they are shown.
inline constexpr const char* library_loggers[] = {"logfile", "syslogfile", "statslogfile"};

// Keys and values; the last line with a key counts.
using log_properties = std::map<std::string, std::string>;

log_properties read_log_properties(const std::string& text);

struct appender {
    std::string name;
    std::string kind;  // the class, without its packages; empty: there is none
    std::string file;
    std::string largest;  // MaxFileSize
    std::string backups;  // MaxBackupIndex
    std::string layout;   // the class, without its packages; empty: there is none
};

struct logger {
    const char* name;
    bool is_configured;
    std::string level;
    std::vector<std::string> appenders;
};

// Includes the appenders of the root logger, which gets the lines as well unless the file turns
// that off. It can do so only for a logger that it configures.
logger find_logger(const log_properties& in, const char* name);

appender find_appender(const log_properties& in, const std::string& name);

// Whether it writes to a file, even if the file's name is missing.
bool writes_file(const appender& sink);

// The appenders of the library's loggers, each once.
std::vector<appender> all_appenders(const log_properties& in);

// The files of a logger, each once.
std::vector<std::string> files_of_logger(const log_properties& in, const char* name);

// The files of all the library's loggers, each once.
std::vector<std::string> log_files(const log_properties& in);

std::string in_small_letters(std::string text);

}  // namespace qnmctl
