// Follows the library's three loggers to their appenders and those of the root logger, and these to
// their files.
#include "doctor/log_checks.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "output/foreign_words.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr const char* loggers[] = {"logfile", "syslogfile", "statslogfile"};
constexpr char blanks[] = " \t\r\n\f";

using properties = std::map<std::string, std::string>;

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

// ---- The file -----------------------------------------------------------------------------------

std::string trimmed(const std::string& text) {
    const std::size_t start = text.find_first_not_of(blanks);
    if (start == std::string::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) + 1 - start);
}

std::string without_escapes(const std::string& text) {
    std::string made;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) ++at;
        made += text[at];
    }
    return made;
}

properties read_properties(const std::string& text) {
    properties found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        const std::size_t sign = line.find_first_of("=:");
        if (line.starts_with('#') || line.starts_with('!') || sign == std::string::npos) continue;
        found[trimmed(line.substr(0, sign))] = without_escapes(trimmed(line.substr(sign + 1)));
    }
    return found;
}

std::string value_of(const properties& in, const std::string& key) {
    const auto found = in.find(key);
    return found == in.end() ? "" : found->second;
}

std::string lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// "LEVEL, APPENDER, APPENDER"; without a level it is the parent's.
logger read_logger(const char* name, const std::string& value) {
    const std::size_t comma = std::min(value.find(','), value.size());
    logger found = {.name = name,
                    .given = false,
                    .level = trimmed(value.substr(0, comma)),
                    .appenders = split(value.substr(comma), ", \t")};
    const std::string word = lower(found.level);
    if (word == "inherited" || word == "null") found.level.clear();
    return found;
}

// The parent of the three. log4cxx has a level for it where the file has none.
logger find_root(const properties& in) {
    const std::string value = value_of(in, "log4j.rootLogger");
    logger root = read_logger("", value.empty() ? value_of(in, "log4j.rootCategory") : value);
    if (root.level.empty()) root.level = "DEBUG";
    return root;
}

void add_missing(const std::vector<std::string>& names, std::vector<std::string>& to) {
    for (const std::string& name : names) {
        if (std::find(to.begin(), to.end(), name) == to.end()) to.push_back(name);
    }
}

// With the appenders of the root logger, which gets the lines as well unless the file says
// otherwise. It can say so only of a logger that it gives.
logger find_logger(const properties& in, const char* name) {
    const std::string key = std::string("log4j.logger.") + name;
    const std::string former_key = std::string("log4j.category.") + name;
    logger found = read_logger(name, value_of(in, in.count(key) > 0 ? key : former_key));
    found.given = in.count(key) > 0 || in.count(former_key) > 0;
    const logger root = find_root(in);
    const std::string adds = lower(value_of(in, std::string("log4j.additivity.") + name));
    if (!found.given || !adds.starts_with("false")) add_missing(root.appenders, found.appenders);
    if (found.level.empty() && !found.appenders.empty()) found.level = root.level;
    return found;
}

// A class without its packages, by which log4cxx finds it, whatever the case of its letters.
std::string class_of(const properties& in, const std::string& key) {
    const std::string type = value_of(in, key);
    return type.substr(type.rfind('.') + 1);
}

appender find_appender(const properties& in, const std::string& name) {
    const std::string key = "log4j.appender." + name;
    return {.name = name,
            .kind = class_of(in, key),
            .file = value_of(in, key + ".File"),
            .largest = value_of(in, key + ".MaxFileSize"),
            .backups = value_of(in, key + ".MaxBackupIndex"),
            .layout = class_of(in, key + ".layout")};
}

// Up to log4cxx 1.0 some appenders want a layout that do without one in 1.4. Between the two it is
// not known, and nothing is said.
constexpr std::string_view log4cxx_version = QNMCTL_LOG4CXX_VERSION;
constexpr bool is_strict = log4cxx_version.starts_with("0.") || log4cxx_version.starts_with("1.0.");

constexpr appender_class appender_classes[] = {
    {"asyncappender", false},     {"consoleappender", true},   {"dailyrollingfileappender", true},
    {"fileappender", true},       {"odbcappender", is_strict}, {"rollingfileappender", true},
    {"smtpappender", true},       {"syslogappender", true},    {"telnetappender", is_strict},
    {"xmlsocketappender", false},
};
constexpr const char* layout_classes[] = {"htmllayout", "jsonlayout", "patternlayout",
                                          "simplelayout", "xmllayout"};

const appender_class* find_class(const appender& of) {
    const auto* const found =
        std::find_if(std::begin(appender_classes), std::end(appender_classes),
                     [kind = lower(of.kind)](const auto& row) { return kind == row.name; });
    return found == std::end(appender_classes) ? nullptr : found;
}

bool is_known_layout(const appender& of) {
    return std::find(std::begin(layout_classes), std::end(layout_classes), lower(of.layout)) !=
           std::end(layout_classes);
}

bool writes_file(const appender& of) {
    return lower(of.kind).ends_with("fileappender");
}

// Each once, by the loggers' order.
std::vector<appender> all_appenders(const properties& in) {
    std::vector<appender> found;
    std::set<std::string> names;
    for (const char* const name : loggers) {
        for (const std::string& one : find_logger(in, name).appenders) {
            if (names.insert(one).second) found.push_back(find_appender(in, one));
        }
    }
    return found;
}

// ---- Sizes --------------------------------------------------------------------------------------

constexpr std::uintmax_t mebi = std::uintmax_t{1} << 20;

// "10MB", as log4cxx has it; the default where it is nothing of that form.
std::uintmax_t size_of(const std::string& text, std::uintmax_t otherwise) {
    std::uintmax_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    if (problem != std::errc{}) return otherwise;
    std::string unit = trimmed(std::string(stop, end));
    for (char& c : unit)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (unit == "KB") return value << 10;
    if (unit == "MB") return value << 20;
    return unit == "GB" ? value << 30 : value;
}

// What files can grow to together.
struct room {
    std::uintmax_t bytes = 0;
    bool limited = true;  // otherwise it does for a while
};

room room_for(const appender& of) {
    if (lower(of.kind) != "rollingfileappender") return {64 * mebi, false};
    return {size_of(of.largest, 10 * mebi) * (size_of(of.backups, 1) + 1)};
}

std::string size_text(std::uintmax_t bytes) {
    return bytes < mebi ? std::to_string(bytes >> 10) + " KiB"
                        : std::to_string(bytes / mebi) + " MiB";
}

// ---- Findings -----------------------------------------------------------------------------------

// Whether the file can be used at all.
bool check_file(const file_facts& file, findings& found) {
    finding told = {.rank = severity::error, .about = file.name};
    if (file.state == file_state::missing) {
        told.text = "there is no such file, and the library does not start without it";
        told.remedy = "Copy the sample conf/qnm_log4c.properties there.";
    } else if (file.state == file_state::link) {
        told.rank = severity::warning;
        told.text =
            "is a symbolic link, which is not followed here, so the logs were not looked at";
        told.remedy = "Put the file itself there.";
    } else if (file.state == file_state::no_file) {
        told.text = "is no regular file, and the library does not start without one";
        told.remedy = "Move it away, and copy the sample conf/qnm_log4c.properties there.";
    } else if (file.state == file_state::unreadable) {
        told.text = "cannot be read: " + file.problem;
        told.remedy = "Let the user of the host program read it: chmod, chown.";
    } else if (file.size > file.text.size()) {
        told.rank = severity::warning;
        told.text = "has " + std::to_string(file.size) + " bytes; only the first " +
                    std::to_string(file.text.size()) + " were looked at";
        told.remedy = "Is it the right file?";
    } else {
        return true;
    }
    found.push_back(told);
    return file.state == file_state::readable;
}

void check_level(const std::string& file, const logger& of, findings& found) {
    constexpr const char* hiding[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
    std::string level = of.level;
    for (char& c : level)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (std::find(std::begin(hiding), std::end(hiding), level) == std::end(hiding)) return;
    found.push_back({.rank = severity::note,
                     .about = file,
                     .text = std::string(of.name) + " has the level " + level +
                             ", so lines below it are made and then dropped",
                     .remedy = "Set it to ALL, and how much is logged by log_level in qnm.conf."});
}

// Without what the log cannot do without, its lines are lost.
finding judge_appender(const appender& of) {
    const std::string key = "Add: log4j.appender." + printable(of.name);
    const appender_class* const known = find_class(of);
    if (of.kind.empty()) {
        return {.rank = severity::error,
                .text = ", which is not defined",
                .remedy = key + "=org.apache.log4j.RollingFileAppender"};
    }
    if (known == nullptr) {
        return {.rank = severity::warning,
                .text = ", whose class " + printable(of.kind) +
                        " is not known; if log4cxx does not know it either, its lines are lost",
                .remedy = "Name one that is: org.apache.log4j.RollingFileAppender, say."};
    }
    if (writes_file(of) && of.file.empty()) {
        return {.rank = severity::error,
                .text = ", which has no file",
                .remedy = key + ".File=/var/log/qnm/qnm.log"};
    }
    if (!known->wants_layout || is_known_layout(of)) return {};
    if (of.layout.empty()) {
        return {.rank = severity::error,
                .text = ", which has no layout, so its lines are lost",
                .remedy = key + ".layout=org.apache.log4j.PatternLayout"};
    }
    return {.rank = severity::warning,
            .text = ", whose layout " + printable(of.layout) +
                    " is not known; if log4cxx does not know it either, its lines are lost",
            .remedy = "Name one that is: org.apache.log4j.PatternLayout, say."};
}

void check_logger(const std::string& file, const properties& in, const logger& of,
                  findings& found) {
    if (of.appenders.empty()) {
        found.push_back({.rank = severity::warning,
                         .about = file,
                         .text = std::string("the logger ") + of.name +
                                 (of.given ? " has no appender" : " is not there") +
                                 ", so its lines are lost",
                         .remedy = std::string("Add: log4j.logger.") + of.name +
                                   "=ALL, and the name of an appender."});
    }
    for (const std::string& name : of.appenders) {
        finding told = judge_appender(find_appender(in, name));
        told.about = file;
        told.text = std::string("the logger ") + of.name + " writes to the appender " +
                    printable(name) + told.text;
        found.push_back(told);
    }
}

void check_log(const log_place& place, findings& found) {
    finding told = {.about = printable(place.file), .text = "can be written"};
    if (place.link) {
        told.rank = severity::note;
        told.text += ", but is a symbolic link, which a report does not follow";
    }
    if (!place.problem.empty()) {
        told.rank = severity::error;
        told.text = place.problem + ", so the lines are lost";
        told.remedy =
            "Let the user of the host program write there, or name another file in "
            "qnm_log4c.properties.";
    } else if (!place.file.starts_with('/')) {
        told.rank = severity::warning;
        told.text = "is taken from the working directory of the host program, whichever that is";
        told.remedy = "Name the file by its whole path.";
    } else if (!place.folder_writable) {
        told.rank = severity::warning;
        told.text = "can be written, but not renamed when it is full, because its folder cannot";
        told.remedy = "Let the user of the host program write to " + printable(place.folder) + '.';
    }
    found.push_back(told);
}

// For all logs of a folder.
room room_in(const std::string& folder, const std::vector<log_place>& places,
             const std::vector<appender>& writers) {
    room wanted;
    for (const log_place& place : places) {
        const auto writer = std::find_if(writers.begin(), writers.end(),
                                         [&](const appender& of) { return of.file == place.file; });
        if (place.folder != folder || writer == writers.end()) continue;
        const room one = room_for(*writer);
        wanted = {wanted.bytes + one.bytes, wanted.limited && one.limited};
    }
    return wanted;
}

void check_room(const log_place& place, const room& wanted, findings& found) {
    constexpr std::uintmax_t least = mebi;
    finding told = {.rank = wanted.limited ? severity::ok : severity::note,
                    .about = printable(place.folder),
                    .text = size_text(place.free_bytes) + " are free; the logs there grow " +
                            (wanted.limited ? "to " + size_text(wanted.bytes) + " together"
                                            : std::string("without limit")),
                    .remedy = wanted.limited ? "" : "Use a RollingFileAppender."};
    if (!place.files_can_be_made) {
        told.rank = severity::error;
        told.text = "no further file can be made there; the file system has no inodes left";
    } else if (place.free_bytes < least) {
        told.rank = severity::error;
        told.text = "the file system is full, so lines are lost";
    } else if (place.free_bytes < wanted.bytes) {
        told.rank = severity::warning;
        told.text = "only " + told.text;
    }
    if (told.rank == severity::warning || told.rank == severity::error) {
        told.remedy = wanted.limited
                          ? "Free some space, or lower MaxFileSize and MaxBackupIndex in "
                            "qnm_log4c.properties."
                          : "Free some space, and use a RollingFileAppender.";
    }
    found.push_back(told);
}

}  // namespace

std::span<const appender_class> known_appender_classes() {
    return appender_classes;
}

std::vector<std::string> log_files(const std::string& text) {
    std::vector<std::string> files;
    for (const appender& one : all_appenders(read_properties(text))) {
        const bool known = std::find(files.begin(), files.end(), one.file) != files.end();
        if (writes_file(one) && !one.file.empty() && !known) files.push_back(one.file);
    }
    return files;
}

// Those of a temporary configuration are the command's own, and nothing that the operator has
// given.

void check_properties(const inspected& system, findings& found) {
    if (system.temporary) return;
    if (!check_file(system.properties, found)) return;
    const properties in = read_properties(system.properties.text);
    for (const char* const name : loggers) {
        const logger of = find_logger(in, name);
        check_logger(system.properties.name, in, of, found);
        check_level(system.properties.name, of, found);
    }
}

void check_logs(const inspected& system, findings& found) {
    if (system.temporary) return;
    for (const log_place& place : system.logs) {
        if (place.file.find("${") == std::string::npos) {
            check_log(place, found);
            continue;
        }
        found.push_back({.rank = severity::note,
                         .about = printable(place.file),
                         .text = "holds a variable of the host program, so it was not looked at",
                         .remedy = {}});
    }
}

void check_space(const inspected& system, findings& found) {
    if (system.temporary) return;
    const std::vector<appender> writers = all_appenders(read_properties(system.properties.text));
    std::set<std::string> told;
    for (const log_place& place : system.logs) {
        if (place.folder.empty() || !told.insert(place.folder).second) continue;
        check_room(place, room_in(place.folder, system.logs, writers), found);
    }
}

}  // namespace qnmctl
