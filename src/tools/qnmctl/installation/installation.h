// The installation directory that the library is started with. It is never the operator's own, but
// a private folder of this run with a copy of its configuration. The logs go there as well, so the
// logs of a host program that uses the original are neither written to nor rotated.
//
// The folder is removed by the destructor, so on every way out, after signals too, which arrive as
// input.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "installation/log_text.h"
#include "installation/private_folder.h"
#include "qnm.h"

namespace qnmctl {

inline constexpr char default_dir[] = "/opt/tarvo/qnm";
inline constexpr char config_name[] = "conf/qnm.conf";
inline constexpr char properties_name[] = "conf/qnm_log4c.properties";

// The global options.
struct settings {
    std::string dir = {};                 // empty: the library's default
    std::vector<std::string> ports = {};  // not empty: a temporary directory with these ports
    const char* ports_from = "--ports";   // who named them, for messages
    std::vector<std::string> keys = {};   // "KEY=VALUE", further lines of qnm.conf
    std::string log =
        {};  // file for the library's log; empty: only what explains a failure is kept
    bool keep_logs = false;
    qnm_log_level_t log_level = QNM_LOGLVL_NONE;
};

// Which logs the operator wants. By default they hold only what the command itself reads.
struct wanted_logs {
    std::filesystem::path file = {};  // the library's log is appended to it; empty: a private one
    at_the_end folder = at_the_end::removed;

    bool any() const { return !file.empty() || folder == at_the_end::kept; }
};

struct installation {
    std::optional<private_folder> temporary = {};  // none: the directory is the operator's
    std::filesystem::path dir = {};
    std::filesystem::path log = {};    // if private: the library's log
    std::filesystem::path stats = {};  // if private: the status dumps
    wanted_logs wanted = {};
    log_mark before = {};  // if private: where this run's part of the log begins

    std::filesystem::path config() const { return dir / config_name; }
    std::filesystem::path properties() const { return dir / properties_name; }
};

// What is wrong with the ports and keys, without trying them.
std::optional<std::string> wrong_settings(const settings& chosen);

// The levels of the library's loggers in a properties file.
struct logger_levels {
    std::string log = "ALL";
    std::string syslog = "ALL";
};
logger_levels levels_of(const std::string& properties);

// The contents of the two files in a private directory.
std::string config_text(const settings& chosen);
std::string properties_text(const installation& where, const logger_levels& levels);

// Fills `made`, because a private folder cannot be moved. Throws error.
void install(const settings& chosen, installation& result);

// Makes a copy of an operator's installation for a manager to run on: the same configuration and
// log levels, but the logs go to its folder, and no other appender is used. Throws error.
void install_copy(const installation& original, installation& result);

}  // namespace qnmctl
