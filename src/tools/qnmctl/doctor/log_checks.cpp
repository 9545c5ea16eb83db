// Checks a properties file and the places of the logs that it names.
#include "doctor/log_checks.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>
#include <string_view>

#include "installation/log_properties.h"
#include "output/foreign_words.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// Some appenders need a layout up to log4cxx 1.0 but not in 1.4. For versions in between it is
// unknown, so nothing is reported.
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

const appender_class* find_class(const appender& sink) {
    const auto* const found = std::find_if(
        std::begin(appender_classes), std::end(appender_classes),
        [kind = in_small_letters(sink.kind)](const auto& row) { return kind == row.name; });
    return found == std::end(appender_classes) ? nullptr : found;
}

bool is_known_layout(const appender& sink) {
    return std::find(std::begin(layout_classes), std::end(layout_classes),
                     in_small_letters(sink.layout)) != std::end(layout_classes);
}

// ---- Sizes --------------------------------------------------------------------------------------

constexpr std::uintmax_t mebi = std::uintmax_t{1} << 20;

// Parses "10MB" as log4cxx does; the default if it has another form.
std::uintmax_t size_of(const std::string& text, std::uintmax_t otherwise) {
    std::uintmax_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, problem] = std::from_chars(text.data(), end, value);
    if (problem != std::errc{}) return otherwise;
    std::string unit =
        join(split(std::string_view(stop, static_cast<std::size_t>(end - stop)), " \t"), "");
    for (char& c : unit)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (unit == "KB") return value << 10;
    if (unit == "MB") return value << 20;
    return unit == "GB" ? value << 30 : value;
}

// The size that all files together can reach.
struct room {
    std::uintmax_t bytes = 0;
    bool limited = true;  // otherwise it does for a while
};

room room_for(const appender& sink) {
    if (in_small_letters(sink.kind) != "rollingfileappender") return {64 * mebi, false};
    return {size_of(sink.largest, 10 * mebi) * (size_of(sink.backups, 1) + 1)};
}

std::string size_text(std::uintmax_t bytes) {
    return bytes < mebi ? std::to_string(bytes >> 10) + " KiB"
                        : std::to_string(bytes / mebi) + " MiB";
}

// ---- Findings -----------------------------------------------------------------------------------

// Whether the file can be used at all.
bool check_file(const file_facts& file, findings& found) {
    finding verdict = {.rank = severity::warning, .about = file.name};
    if (const auto wrong = properties_obstacle(file.state, file.problem)) {
        verdict = finding_of(file.name, *wrong);
    } else if (file.state == file_state::link) {
        verdict.text =
            "is a symbolic link, which is not followed here, so the logs were not looked at";
        verdict.remedy = "Put the file itself there.";
    } else if (file.size > file.text.size()) {
        verdict.text = "has " + std::to_string(file.size) + " bytes; only the first " +
                       std::to_string(file.text.size()) + " were looked at";
        verdict.remedy = "Is it the right file?";
    } else {
        return true;
    }
    found.push_back(verdict);
    return file.state == file_state::readable;
}

void check_level(const std::string& file, const logger& checked, findings& found) {
    constexpr const char* hiding[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
    std::string level = checked.level;
    for (char& c : level)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (std::find(std::begin(hiding), std::end(hiding), level) == std::end(hiding)) return;
    found.push_back({.rank = severity::note,
                     .about = file,
                     .text = std::string(checked.name) + " has the level " + level +
                             ", so lines below it are made and then dropped",
                     .remedy = "Set it to ALL, and how much is logged by log_level in qnm.conf."});
}

// Checks what a log needs; without it its lines are lost.
finding judge_appender(const appender& sink) {
    const std::string key = "Add: log4j.appender." + printable(sink.name);
    const appender_class* const known = find_class(sink);
    if (sink.kind.empty()) {
        return {.rank = severity::error,
                .text = ", which is not defined",
                .remedy = key + "=org.apache.log4j.RollingFileAppender"};
    }
    if (known == nullptr) {
        return {.rank = severity::warning,
                .text = ", whose class " + printable(sink.kind) +
                        " is not known; if log4cxx does not know it either, its lines are lost",
                .remedy = "Name one that is: org.apache.log4j.RollingFileAppender, say."};
    }
    if (writes_file(sink) && sink.file.empty()) {
        return {.rank = severity::error,
                .text = ", which has no file",
                .remedy = key + ".File=/var/log/qnm/qnm.log"};
    }
    if (!known->wants_layout || is_known_layout(sink)) return {};
    if (sink.layout.empty()) {
        return {.rank = severity::error,
                .text = ", which has no layout, so its lines are lost",
                .remedy = key + ".layout=org.apache.log4j.PatternLayout"};
    }
    return {.rank = severity::warning,
            .text = ", whose layout " + printable(sink.layout) +
                    " is not known; if log4cxx does not know it either, its lines are lost",
            .remedy = "Name one that is: org.apache.log4j.PatternLayout, say."};
}

void check_logger(const std::string& file, const log_properties& in, const logger& checked,
                  findings& found) {
    if (checked.appenders.empty()) {
        found.push_back({.rank = severity::warning,
                         .about = file,
                         .text = std::string("the logger ") + checked.name +
                                 (checked.is_configured ? " has no appender" : " is not there") +
                                 ", so its lines are lost",
                         .remedy = std::string("Add: log4j.logger.") + checked.name +
                                   "=ALL, and the name of an appender."});
    }
    for (const std::string& name : checked.appenders) {
        finding verdict = judge_appender(find_appender(in, name));
        verdict.about = file;
        verdict.text = std::string("the logger ") + checked.name + " writes to the appender " +
                       printable(name) + verdict.text;
        found.push_back(verdict);
    }
}

void check_log(const log_place& place, findings& found) {
    finding verdict = {.about = printable(place.file), .text = "can be written"};
    if (place.link) {
        verdict.rank = severity::note;
        verdict.text += ", but is a symbolic link, which a report does not follow";
    }
    if (!place.problem.empty()) {
        verdict.rank = severity::error;
        verdict.text = place.problem + ", so the lines are lost";
        verdict.remedy =
            "Let the user of the host program write there, or name another file in "
            "qnm_log4c.properties.";
    } else if (!place.file.starts_with('/')) {
        verdict.rank = severity::warning;
        verdict.text = "is taken from the working directory of the host program, whichever that is";
        verdict.remedy = "Name the file by its whole path.";
    } else if (!place.folder_writable) {
        verdict.rank = severity::warning;
        verdict.text = "can be written, but not renamed when it is full, because its folder cannot";
        verdict.remedy =
            "Let the user of the host program write to " + printable(place.folder) + '.';
    }
    found.push_back(verdict);
}

// For all logs of a folder.
room room_in(const std::string& folder, const std::vector<log_place>& places,
             const std::vector<appender>& writers) {
    room wanted;
    for (const log_place& place : places) {
        const auto writer = std::find_if(writers.begin(), writers.end(), [&](const appender& sink) {
            return sink.file == place.file;
        });
        if (place.folder != folder || writer == writers.end()) continue;
        const room space = room_for(*writer);
        wanted = {wanted.bytes + space.bytes, wanted.limited && space.limited};
    }
    return wanted;
}

void check_room(const log_place& place, const room& wanted, findings& found) {
    constexpr std::uintmax_t least = mebi;
    finding verdict = {.rank = wanted.limited ? severity::ok : severity::note,
                       .about = printable(place.folder),
                       .text = size_text(place.free_bytes) + " are free; the logs there grow " +
                               (wanted.limited ? "to " + size_text(wanted.bytes) + " together"
                                               : std::string("without limit")),
                       .remedy = wanted.limited ? "" : "Use a RollingFileAppender."};
    if (!place.files_can_be_made) {
        verdict.rank = severity::error;
        verdict.text = "no further file can be made there; the file system has no inodes left";
    } else if (place.free_bytes < least) {
        verdict.rank = severity::error;
        verdict.text = "the file system is full, so lines are lost";
    } else if (place.free_bytes < wanted.bytes) {
        verdict.rank = severity::warning;
        verdict.text = "only " + verdict.text;
    }
    if (verdict.rank == severity::warning || verdict.rank == severity::error) {
        verdict.remedy = wanted.limited
                             ? "Free some space, or lower MaxFileSize and MaxBackupIndex in "
                               "qnm_log4c.properties."
                             : "Free some space, and use a RollingFileAppender.";
    }
    found.push_back(verdict);
}

}  // namespace

std::span<const appender_class> known_appender_classes() {
    return appender_classes;
}

// The logs of a temporary configuration are the command's own, not the operator's.

void check_properties(const inspected& system, findings& found) {
    if (system.temporary) return;
    if (!check_file(system.properties, found)) return;
    const log_properties in = read_log_properties(system.properties.text);
    for (const char* const name : library_loggers) {
        const logger checked = find_logger(in, name);
        check_logger(system.properties.name, in, checked, found);
        check_level(system.properties.name, checked, found);
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
    const std::vector<appender> writers =
        all_appenders(read_log_properties(system.properties.text));
    std::set<std::string> seen;
    for (const log_place& place : system.logs) {
        if (place.folder.empty() || !seen.insert(place.folder).second) continue;
        check_room(place, room_in(place.folder, system.logs, writers), found);
    }
}

}  // namespace qnmctl
