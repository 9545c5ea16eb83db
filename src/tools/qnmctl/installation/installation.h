// The installation directory that the library is started with: never the operator's own, but a copy
// of its configuration in a private folder of this run, whose logs lie there, too. So a host
// program that runs on the original keeps its logs to itself: nothing is written to them, nor are
// they rotated.
//
// The folder is removed with its record, so on every way out that unwinds, signals included, since
// those arrive as input.
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

// The options in front of the command.
struct settings {
    std::string dir = {};                 // empty: the library's own directory
    std::vector<std::string> ports = {};  // not empty: a temporary directory for these
    std::vector<std::string> keys = {};   // "KEY=VALUE", further lines of its configuration
    std::string log = {};                 // the library's log; empty: only what explains a failure
    bool keep_logs = false;
    qnm_log_level_t log_level = QNM_LOGLVL_NONE;
};

// What an operator wants to have of the logs. Otherwise they hold only what the command itself
// reads.
struct wanted_logs {
    std::filesystem::path file = {};  // that the library's log is added to; empty: a private one
    at_the_end folder = at_the_end::removed;

    bool any() const { return !file.empty() || folder == at_the_end::kept; }
};

struct installation {
    std::optional<private_folder> temporary = {};  // not there: the directory is the operator's
    std::filesystem::path dir = {};
    std::filesystem::path log = {};    // of a private one: the library's log
    std::filesystem::path stats = {};  // of a private one: the status dumps
    wanted_logs wanted = {};
    log_mark before = {};  // of a private one: where its part of the log begins

    std::filesystem::path config() const { return dir / config_name; }
    std::filesystem::path properties() const { return dir / properties_name; }
};

// What is wrong with ports and keys by themselves, before anything is tried.
std::optional<std::string> wrong_settings(const settings& given);

// The levels of the library's loggers, as a properties file has them.
struct logger_levels {
    std::string log = "ALL";
    std::string syslog = "ALL";
};
logger_levels levels_of(const std::string& properties);

// The contents of the two files of a private directory.
std::string config_text(const settings& given);
std::string properties_text(const installation& of, const logger_levels& levels);

// Into `made`, because a folder stays where it is. Throws error.
void install(const settings& given, installation& made);

// The copy of an operator's installation that a manager runs on: the same configuration and levels,
// but the logs are in its folder, and what else his appenders would write to is left alone. Throws
// error.
void install_copy(const installation& original, installation& made);

}  // namespace qnmctl
