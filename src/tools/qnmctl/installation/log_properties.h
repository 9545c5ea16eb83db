// What a properties file of log4cxx says of the library's loggers: their levels, their appenders,
// and the files that these write.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace qnmctl {

// The library's, in the order in which they are told.
inline constexpr const char* library_loggers[] = {"logfile", "syslogfile", "statslogfile"};

// Keys and values; a key counts where it stands last.
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
    bool given;
    std::string level;
    std::vector<std::string> appenders;
};

// With the appenders of the root logger, which gets the lines as well unless the file says
// otherwise. It can say so only of a logger that it gives.
logger find_logger(const log_properties& in, const char* name);

appender find_appender(const log_properties& in, const std::string& name);

// Whether it is one for files, named or not.
bool writes_file(const appender& of);

// The appenders of the library's loggers, each once.
std::vector<appender> all_appenders(const log_properties& in);

// The files that a logger's lines go to, each once.
std::vector<std::string> files_of_logger(const log_properties& in, const char* name);

// Those of all the library's loggers, each once.
std::vector<std::string> log_files(const log_properties& in);

std::string in_small_letters(std::string text);

}  // namespace qnmctl
