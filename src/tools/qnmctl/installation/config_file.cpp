// Looks up keys in the text of qnm.conf.
#include "installation/config_file.h"

#include <cstdint>
#include <sstream>
#include <utility>
#include <variant>

#include "common/regular_file.h"
#include "output/text.h"
#include "qnm_config_keys.h"

namespace qnmctl {

namespace {

constexpr char blanks[] = " \t\r\n";
constexpr std::size_t config_size_limit = std::size_t{1024} * 1024;

// A file that cannot be opened is reported elsewhere, where that matters.
std::optional<std::string> wrong_file(const std::string& name, const tools::file_contents& read) {
    const auto* const problem = std::get_if<tools::file_problem>(&read);
    if (problem == nullptr || !problem->wrong_file) return std::nullopt;
    return "cannot use " + name + ": " + problem->text;
}

}  // namespace

std::optional<config_line> find_key(const std::string& config, std::string_view key) {
    std::istringstream lines(config);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (line.starts_with('#')) continue;
        const std::size_t equals = std::min(line.find('='), line.size());
        const std::vector<std::string> words = split(line.substr(0, equals), blanks);
        if (words.empty() || words.front() != key) continue;
        return config_line{number, equals < line.size() ? line.substr(equals + 1) : ""};
    }
    return std::nullopt;
}

std::uint32_t configured_number(const std::string& config, const char* key) {
    const qnm_config_key_t& row = *_qnm_find_config_key(key);
    std::uint32_t number = 0;
    _qnm_config_number(row.initial, &number);
    if (const auto line = find_key(config, key)) {
        const std::vector<std::string> words = split(line->value, blanks);
        if (!words.empty()) _qnm_config_number(words.front().c_str(), &number);
    }
    return number;
}

std::vector<std::string> configured_ports(const std::string& config) {
    constexpr std::size_t port_limit = 2;
    const auto line = find_key(config, "ether_port");
    const std::string value = line ? line->value : _qnm_find_config_key("ether_port")->initial;
    std::vector<std::string> names = split(value, ", \t\r\n");
    if (names.size() > port_limit) names.resize(port_limit);
    return names;
}

std::string read_text(const std::string& name) {
    auto read = tools::read_regular_file(name, SIZE_MAX);
    auto* const contents = std::get_if<std::string>(&read);
    return contents != nullptr ? std::move(*contents) : std::string();
}

std::string read_config(const std::string& name) {
    return config_text_of(tools::open_regular(name, tools::links::followed));
}

std::string config_text_of(const tools::opened_file& file) {
    auto read = tools::contents_of(file, config_size_limit);
    if (const auto wrong = wrong_file(file.name, read)) throw error(*wrong);
    auto* const contents = std::get_if<std::string>(&read);
    return contents != nullptr ? std::move(*contents) : std::string();
}

std::optional<std::string> wrong_config(const std::string& name) {
    return wrong_file(name, tools::read_regular_file(name, config_size_limit));
}

}  // namespace qnmctl
