// Finds out why a start failed and words the message.
#include "manager/explain.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "common/regular_file.h"
#include "installation/config_file.h"
#include "manager/obstacles.h"
#include "output/text.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

// A line of the library's log that names a configuration key at its end.
struct key_message {
    const char* text;
    const char* remedy;
};

constexpr key_message key_messages[] = {
    {"Unknown config parameter: ", "Correct or remove this key; upper and lower case matter."},
    {"config parameter parse error: ",
     "The value is missing or not of the right form; correct it."},
    {"out of range error: ", "The value is too small or too large; correct it."},
    {"config parameter error: tag_min > tag_max", "Set tag_min to at most tag_max."},
};

constexpr char sample_config[] = "qnm.conf(5) explains every key and its range.";

// "PATH is not a directory", "PATH: there is no such directory".
std::string text_of(const std::string& about, const obstacle& hindrance) {
    const bool is_predicate =
        hindrance.text.starts_with("is ") || hindrance.text.starts_with("cannot ");
    return about + (is_predicate ? " " : ": ") + hindrance.text +
           (hindrance.remedy.empty() ? "" : '\n' + hindrance.remedy);
}

// A file as the library opens it, which follows links.
std::optional<std::string> unusable_file(
    const fs::path& name,
    std::optional<obstacle> (*judge)(tools::file_state state, const std::string& problem)) {
    if (auto wrong = wrong_config(name)) return wrong;
    const tools::opened_file file = tools::open_regular(name, tools::links::followed);
    if (const auto found = judge(file.state, file.problem)) return text_of(file.name, *found);
    return std::nullopt;
}

// Where a key was set: an option, or a file and, if it is found there, the line.
std::string place_of(const installation& where, const std::string& key) {
    if (where.temporary) return key == "ether_port" ? "--ports" : "--set";
    const std::string name = where.config().string();
    const auto line = find_key(read_text(name), key);
    return line ? name + ':' + std::to_string(line->number) : name;
}

// A line about the configuration with its place and what to do; nothing for any other line.
std::optional<std::string> configuration_text(const installation& where, const std::string& line) {
    for (const key_message& known : key_messages) {
        if (!line.starts_with(known.text)) continue;
        const std::string key = line.substr(std::strlen(known.text));
        return place_of(where, key.empty() ? "tag_min" : key) + ": " + line + '\n' + known.remedy +
               ' ' + sample_config;
    }
    return std::nullopt;
}

// Such a line only repeats that a step failed; another line says why.
bool is_consequence(const std::string& line) {
    return line.starts_with("Failed to _qnm_");
}

std::string without_function(const std::string& text) {
    const std::size_t colon = text.find(": ");
    if (colon == std::string::npos) return text;
    const bool name = std::all_of(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(colon),
                                  [](unsigned char c) { return std::isalnum(c) || c == '_'; });
    return name ? text.substr(colon + 2) : text;
}

std::vector<std::string> reasons(const installation& where, const std::vector<std::string>& lines) {
    std::vector<std::string> found;
    for (const std::string& line : lines) {
        if (auto text = configuration_text(where, line)) found.push_back(*text);
    }
    if (!found.empty()) return found;  // the ports have not even been tried
    for (const std::string& interface : configured_ports(read_text(where.config()))) {
        if (auto problem = port_problem(interface)) found.push_back(*problem);
    }
    for (const std::string& line : lines) {
        if (!is_consequence(line)) found.push_back("The library's log: " + line);
    }
    return found;
}

}  // namespace

std::optional<std::string> find_obstacle(const installation& where) {
    if (!where.temporary) {
        if (const auto found = directory_obstacle(where.dir)) return text_of(where.dir, *found);
        if (auto wrong = unusable_file(where.config(), config_obstacle)) return wrong;
        if (auto wrong = unusable_file(where.properties(), properties_obstacle)) return wrong;
    }
    const auto found = privilege_obstacle(read_privileges());
    if (!found) return std::nullopt;
    return found->text + '\n' + found->remedy;
}

std::optional<std::string> port_problem(const std::string& interface) {
    const auto found = interface_obstacle(read_interface(interface), interface_names());
    if (!found) return std::nullopt;
    return text_of("interface \"" + interface + '"', *found);
}

std::vector<std::string> error_lines(const std::string& log) {
    constexpr std::size_t level_at = std::string_view("2026-01-31 23:59:59,999 ").size();
    constexpr std::string_view levels[] = {"ERROR ", "FATAL "};
    std::vector<std::string> found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() < level_at) continue;
        const std::string_view rest = std::string_view(line).substr(level_at);
        for (const std::string_view level : levels) {
            if (!rest.starts_with(level)) continue;
            found.push_back(without_function(std::string(rest.substr(level.size()))));
        }
    }
    return found;
}

std::vector<std::string> error_lines_of(const installation& running) {
    try {
        return error_lines(running.before.text_since());
    } catch (const error&) {
        return {};  // a log of the operator's that has been rotated
    }
}

std::string failed_start_text(qnm_api_code_t code, const installation& where,
                              const std::vector<std::string>& lines) {
    std::string text = std::string("the manager could not start: ") + code_name(code);
    const std::vector<std::string> found = reasons(where, lines);
    for (const std::string& reason : found)
        text += '\n' + reason;
    if (found.empty()) text += std::string("\n") + code_remedy(code);
    return text;
}

}  // namespace qnmctl
