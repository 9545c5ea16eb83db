// Creates the private folder and writes its two files.
#include "installation/installation.h"

#include <fcntl.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "common/descriptor.h"
#include "common/regular_file.h"
#include "common/standard_files.h"
#include "installation/config_file.h"
#include "installation/log_properties.h"
#include "output/text.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t port_limit = 2;
constexpr std::size_t line_limit = 127;  // a longer line would be read as two
constexpr char port_key[] = "ether_port";
constexpr char log_link[] = "log";  // leads to a log whose name log4cxx would misread

// Nobody reads the periodic dumps in a temporary directory; the longest interval keeps it small.
constexpr char stats_interval_key[] = "stats_interval";
constexpr char longest_stats_interval[] = "2592000";

std::string key_of(const std::string& setting) {
    return setting.substr(0, setting.find('='));
}

std::optional<std::string> wrong_ports(const settings& chosen) {
    const std::string from = chosen.ports_from + std::string(": ");
    if (chosen.ports.size() > port_limit) return from + "at most two interfaces";
    for (const std::string& name : chosen.ports) {
        if (name.size() >= IFNAMSIZ) {
            return from + "\"" + name + "\" is too long; interface names have up to 15 characters";
        }
        if (name.find_first_of(" \t\r\n/,") != std::string::npos) {
            return from + "\"" + name + "\" is no interface name";
        }
    }
    return std::nullopt;
}

std::optional<std::string> wrong_key(const std::string& setting, std::set<std::string>& seen) {
    const std::string key = key_of(setting);
    if (key.size() == setting.size() || key.empty()) {
        return "--set: \"" + setting + "\" is not KEY=VALUE";
    }
    if (setting.find_first_of("\r\n") != std::string::npos || setting.size() > line_limit) {
        return "--set: " + key + ": the setting has to be one line of at most 127 characters";
    }
    if (key == port_key) return "--set: ether_port: name the interfaces by --ports";
    if (!seen.insert(key).second) return "--set: " + key + " is given twice";
    return std::nullopt;
}

// log4cxx takes a backslash for an escape character.
std::string escaped(const std::string& path) {
    std::string text;
    for (const char c : path) {
        if (c == '\\') text += '\\';
        text += c;
    }
    return text;
}

// An appender with its file and layout. Its size is limited, because nobody looks after the folder.
std::string appender_text(const char* name, const fs::path& file, const char* pattern,
                          const char* largest) {
    const std::string key = std::string("log4j.appender.") + name;
    const bool rolls = largest[0] != '\0';
    std::string text =
        key + "=org.apache.log4j." + (rolls ? "RollingFileAppender\n" : "FileAppender\n");
    if (rolls) text += key + ".MaxFileSize=" + largest + '\n' + key + ".MaxBackupIndex=1\n";
    return text + key + ".File=" + escaped(file) + '\n' + key + ".Append=true\n" + key +
           ".ImmediateFlush=true\n" + key + ".layout=org.apache.log4j.PatternLayout\n" + key +
           ".layout.ConversionPattern=" + pattern + '\n';
}

std::string logger_text(const char* name, const std::string& level, const char* appender) {
    return std::string("log4j.logger.") + name + "=" + level + ", " + appender +
           "\nlog4j.additivity." + name + "=false\n";
}

void write_file(const fs::path& name, const std::string& text) {
    std::ofstream file(name);
    file << text;
    file.close();
    if (!file) throw error("cannot write " + name.string() + ": " + std::strerror(errno));
}

// Checked here, because log4cxx goes on without a log when it cannot write the file, and a FIFO
// without a reader would block the manager.
void check_writable(const fs::path& log) {
    std::error_code ignored;
    if (fs::is_fifo(log, ignored))
        throw error("cannot write the log " + log.string() + ": it is a FIFO");
    const tools::descriptor file(
        open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (file.fd < 0)
        throw error("cannot write the log " + log.string() + ": " + std::strerror(errno));
}

void make_private(installation& result) {
    const wanted_logs& wanted = result.wanted;
    result.temporary.emplace(wanted.folder);
    result.dir = result.temporary->path();
    result.log = wanted.file.empty() ? result.dir / "qnm.log" : wanted.file;
    result.before = log_mark(result.log);
    result.stats = result.dir / "qnm_stats.log";
    if (wanted.folder == at_the_end::kept) {
        tools::tell(message_text("the logs are kept in " + result.dir.string()));
    }
    std::error_code problem;
    fs::create_directory(result.dir / "conf", problem);
    if (problem) throw error("cannot make " + result.dir.string() + "/conf: " + problem.message());
    if (is_plain_name(result.log)) return;
    fs::create_symlink(result.log, result.dir / log_link, problem);
    if (problem) throw error("cannot make " + result.dir.string() + "/log: " + problem.message());
}

// The log under a name that log4cxx understands.
fs::path log_in_properties(const installation& where) {
    return is_plain_name(where.log) ? where.log : where.dir / log_link;
}

// The levels that the command itself needs in a log that nobody else reads.
const logger_levels quiet = {.log = "WARN", .syslog = "WARN"};

// The text of a file that may be missing. The library follows every link. But wrong lines are
// quoted here and end up in a report, so the links of another user are not followed.
std::optional<std::string> file_text(const fs::path& name) {
    const tools::opened_file file = open_by_own_links(name, tools::links::followed);
    const bool refused =
        file.state == tools::file_state::unreadable || file.state == tools::file_state::link;
    if (file.state == tools::file_state::missing) return std::nullopt;
    if (refused) throw error(tools::refusal_text(file));
    return config_text_of(file);
}

}  // namespace

std::optional<std::string> wrong_settings(const settings& chosen) {
    if (auto wrong = wrong_ports(chosen)) return wrong;
    std::set<std::string> seen;
    for (const std::string& setting : chosen.keys) {
        if (auto wrong = wrong_key(setting, seen)) return wrong;
    }
    return std::nullopt;
}

std::string config_text(const settings& chosen) {
    std::string text = std::string(port_key) + '=' + join(chosen.ports, ",") + '\n';
    for (const std::string& setting : chosen.keys)
        text += setting + '\n';
    // The first line with a key counts, so the operator's own value wins.
    return text + stats_interval_key + '=' + longest_stats_interval + '\n';
}

// A level that would hide why a start failed is not taken.
logger_levels levels_of(const std::string& properties) {
    const log_properties in = read_log_properties(properties);
    const auto level = [&](const char* name) {
        constexpr const char* known[] = {"ERROR", "WARN", "INFO", "DEBUG", "TRACE", "ALL"};
        constexpr const char* hiding[] = {"OFF", "FATAL"};
        const logger found = find_logger(in, name);
        const std::string word = found.is_configured ? found.level : "";
        if (std::find(std::begin(hiding), std::end(hiding), word) != std::end(hiding))
            return std::string(known[0]);
        const bool is_known =
            std::find(std::begin(known), std::end(known), word) != std::end(known);
        return is_known ? word : std::string("ALL");
    };
    return {.log = level("logfile"), .syslog = level("syslogfile")};
}

std::string properties_text(const installation& where, const logger_levels& levels) {
    const char* const largest = where.wanted.file.empty() ? "10MB" : "";
    return appender_text("LOG", log_in_properties(where), "%d{ISO8601} %-5p %m%n", largest) +
           appender_text("STATS", where.stats, "%m%n", "100MB") +
           logger_text("logfile", levels.log, "LOG") +
           logger_text("syslogfile", levels.syslog, "LOG") +
           logger_text("statslogfile", "ALL", "STATS");
}

void install(const settings& chosen, installation& result) {
    if (chosen.keep_logs) result.wanted.folder = at_the_end::kept;
    if (!chosen.log.empty()) {
        result.wanted.file = fs::absolute(chosen.log);
        check_writable(result.wanted.file);
    }
    if (chosen.ports.empty()) {
        result.dir = chosen.dir.empty() ? default_dir : chosen.dir;
        return;
    }
    make_private(result);
    write_file(result.config(), config_text(chosen));
    write_file(result.properties(),
               properties_text(result, result.wanted.any() ? logger_levels{} : quiet));
}

void install_copy(const installation& original, installation& result) {
    const auto config = file_text(original.config());
    const auto properties = file_text(original.properties());
    result.wanted = original.wanted;
    make_private(result);
    if (config) write_file(result.config(), *config);
    const logger_levels levels = result.wanted.any() ? levels_of(properties.value_or("")) : quiet;
    write_file(result.properties(), properties_text(result, levels));
}

}  // namespace qnmctl
