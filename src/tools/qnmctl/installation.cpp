// Makes the temporary directory and writes its two files.
#include "installation.h"

#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <system_error>

#include "text.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t port_limit = 2;
constexpr std::size_t line_limit = 127;  // a longer line would be read as two
constexpr char port_key[] = "ether_port";

// Nobody reads the periodic dumps of a temporary directory; the longest interval keeps it small.
constexpr char stats_interval_key[] = "stats_interval";
constexpr char longest_stats_interval[] = "2592000";

std::string key_of(const std::string& setting) {
    return setting.substr(0, setting.find('='));
}

std::optional<std::string> wrong_ports(const settings& given) {
    if (given.ports.size() > port_limit) return "--ports: at most two interfaces";
    for (const std::string& name : given.ports) {
        if (name.size() >= IFNAMSIZ) {
            return "--ports: \"" + name +
                   "\" is too long; interface names have up to 15 characters";
        }
        if (name.find_first_of(" \t\r\n/") != std::string::npos) {
            return "--ports: \"" + name + "\" is no interface name";
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

// log4cxx reads a backslash as an escape.
std::string escaped(const std::string& path) {
    std::string text;
    for (const char c : path) {
        if (c == '\\') text += '\\';
        text += c;
    }
    return text;
}

// A file and the layout of its lines.
std::string appender_text(const char* name, const fs::path& file, const char* pattern) {
    const std::string key = std::string("log4j.appender.") + name;
    return key + "=org.apache.log4j.FileAppender\n" + key + ".File=" + escaped(file) + "\n" + key +
           ".Append=true\n" + key + ".ImmediateFlush=true\n" + key +
           ".layout=org.apache.log4j.PatternLayout\n" + key +
           ".layout.ConversionPattern=" + pattern + "\n";
}

std::string logger_text(const char* name, const char* level, const char* appender) {
    return std::string("log4j.logger.") + name + "=" + level + ", " + appender +
           "\nlog4j.additivity." + name + "=false\n";
}

void write_file(const fs::path& name, const std::string& text) {
    std::ofstream file(name);
    file << text;
    file.close();
    if (!file) throw error("cannot write " + name.string() + ": " + std::strerror(errno));
}

// log4cxx complains of a file it cannot write, and goes on without a log.
// A FIFO would hold up the manager, and its end, while nobody reads it.
void check_writable(const fs::path& log) {
    std::error_code ignored;
    if (fs::is_fifo(log, ignored))
        throw error("cannot write the log " + log.string() + ": it is a FIFO");
    const int fd = open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) throw error("cannot write the log " + log.string() + ": " + std::strerror(errno));
    close(fd);
}

void make_temporary(installation& made) {
    made.temporary.emplace();
    made.dir = made.temporary->path();
    made.log = made.dir / "qnm.log";
    made.stats = made.dir / "qnm_stats.log";
    std::error_code problem;
    fs::create_directory(made.dir / "conf", problem);
    if (problem) throw error("cannot make " + made.dir.string() + "/conf: " + problem.message());
}

}  // namespace

temporary_dir::temporary_dir() {
    const char* const base = std::getenv("TMPDIR");
    std::string name = fs::path(base != nullptr && *base != '\0' ? base : "/tmp") / "qnmctl.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw error("cannot make a temporary directory " + name + ": " + std::strerror(errno) +
                    "\nset TMPDIR to a directory that can be written");
    }
    path_ = name;
}

temporary_dir::~temporary_dir() {
    std::error_code ignored;  // nobody is left to be told
    fs::remove_all(path_, ignored);
}

std::optional<std::string> wrong_settings(const settings& given) {
    if (auto wrong = wrong_ports(given)) return wrong;
    std::set<std::string> seen;
    for (const std::string& setting : given.keys) {
        if (auto wrong = wrong_key(setting, seen)) return wrong;
    }
    return std::nullopt;
}

std::string config_text(const settings& given) {
    std::string text = std::string(port_key) + '=' + join(given.ports, ",") + '\n';
    for (const std::string& setting : given.keys)
        text += setting + '\n';
    // A key counts where it stands first, so the operator's own value wins.
    return text + stats_interval_key + '=' + longest_stats_interval + '\n';
}

std::string properties_text(const installation& of, bool whole_log) {
    const char* const level = whole_log ? "ALL" : "WARN";
    return appender_text("LOG", of.log, "%d{ISO8601} %-5p %m%n") +
           appender_text("STATS", of.stats, "%m%n") + logger_text("logfile", level, "LOG") +
           logger_text("syslogfile", level, "LOG") + logger_text("statslogfile", "ALL", "STATS");
}

void install(const settings& given, installation& made) {
    if (given.ports.empty()) {
        made.dir = given.dir.empty() ? default_dir : given.dir;
        return;
    }
    make_temporary(made);
    if (!given.log.empty()) {
        made.log = fs::absolute(given.log);
        check_writable(made.log);
    }
    write_file(made.config(), config_text(given));
    write_file(made.properties(), properties_text(made, !given.log.empty()));
}

void install_copy(const installation& original, installation& made) {
    make_temporary(made);
    if (fs::exists(original.config())) fs::copy_file(original.config(), made.config());
    write_file(made.properties(), properties_text(made, false));
}

}  // namespace qnmctl
