// Finds the appenders of each logger and of the root logger, and their files.
#include "installation/log_properties.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>

#include "output/text.h"

namespace qnmctl {

namespace {

constexpr char blanks[] = " \t\r\n\f";

std::string trimmed(const std::string& text) {
    const std::size_t start = text.find_first_not_of(blanks);
    if (start == std::string::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) + 1 - start);
}

std::string without_escapes(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) ++at;
        result += text[at];
    }
    return result;
}

std::string value_of(const log_properties& in, const std::string& key) {
    const auto found = in.find(key);
    return found == in.end() ? "" : found->second;
}

// "LEVEL, APPENDER, APPENDER"; without a level the parent's holds.
logger read_logger(const char* name, const std::string& value) {
    const std::size_t comma = std::min(value.find(','), value.size());
    logger found = {.name = name,
                    .is_configured = false,
                    .level = trimmed(value.substr(0, comma)),
                    .appenders = split(value.substr(comma), ", \t")};
    const std::string word = in_small_letters(found.level);
    if (word == "inherited" || word == "null") found.level.clear();
    return found;
}

// The parent of the three. log4cxx has a default level for it.
logger find_root(const log_properties& in) {
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

// A class name without its packages. log4cxx finds the class by it, in any case of letters.
std::string class_of(const log_properties& in, const std::string& key) {
    const std::string type = value_of(in, key);
    return type.substr(type.rfind('.') + 1);
}

void add_files(const std::vector<appender>& writers, std::vector<std::string>& files) {
    for (const appender& writer : writers) {
        if (writes_file(writer) && !writer.file.empty()) add_missing({writer.file}, files);
    }
}

}  // namespace

log_properties read_log_properties(const std::string& text) {
    log_properties found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        const std::size_t sign = line.find_first_of("=:");
        if (line.starts_with('#') || line.starts_with('!') || sign == std::string::npos) continue;
        found[trimmed(line.substr(0, sign))] = without_escapes(trimmed(line.substr(sign + 1)));
    }
    return found;
}

logger find_logger(const log_properties& in, const char* name) {
    const std::string key = std::string("log4j.logger.") + name;
    const std::string former_key = std::string("log4j.category.") + name;
    logger found = read_logger(name, value_of(in, in.count(key) > 0 ? key : former_key));
    found.is_configured = in.count(key) > 0 || in.count(former_key) > 0;
    const logger root = find_root(in);
    const std::string adds =
        in_small_letters(value_of(in, std::string("log4j.additivity.") + name));
    if (!found.is_configured || !adds.starts_with("false"))
        add_missing(root.appenders, found.appenders);
    if (found.level.empty() && !found.appenders.empty()) found.level = root.level;
    return found;
}

appender find_appender(const log_properties& in, const std::string& name) {
    const std::string key = "log4j.appender." + name;
    return {.name = name,
            .kind = class_of(in, key),
            .file = value_of(in, key + ".File"),
            .largest = value_of(in, key + ".MaxFileSize"),
            .backups = value_of(in, key + ".MaxBackupIndex"),
            .layout = class_of(in, key + ".layout")};
}

bool writes_file(const appender& sink) {
    return in_small_letters(sink.kind).ends_with("fileappender");
}

std::vector<appender> all_appenders(const log_properties& in) {
    std::vector<appender> found;
    std::set<std::string> names;
    for (const char* const name : library_loggers) {
        for (const std::string& text : find_logger(in, name).appenders) {
            if (names.insert(text).second) found.push_back(find_appender(in, text));
        }
    }
    return found;
}

std::vector<std::string> files_of_logger(const log_properties& in, const char* name) {
    std::vector<appender> writers;
    for (const std::string& writer : find_logger(in, name).appenders)
        writers.push_back(find_appender(in, writer));
    std::vector<std::string> files;
    add_files(writers, files);
    return files;
}

std::vector<std::string> log_files(const log_properties& in) {
    std::vector<std::string> files;
    add_files(all_appenders(in), files);
    return files;
}

std::string in_small_letters(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace qnmctl
