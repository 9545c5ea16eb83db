// settings.cpp - any text in the files that qnmctl looks into: qnm.conf, the properties of the log,
// and the log itself.

#include <algorithm>
#include <string>

#include "fuzz.h"
#include "installation/config_file.h"
#include "installation/log_properties.h"
#include "manager/explain.h"
#include "memory_file.h"

namespace {

using fuzz::require;

constexpr std::string_view k_keys[] = {"ether_port", "tag_min", "ether_type", "log_level"};

void check_config(const std::string& text) {
    const auto lines = std::count(text.begin(), text.end(), '\n') + 1;
    for (const std::string_view key : k_keys) {
        const auto found = qnmctl::find_key(text, key);
        if (!found) continue;
        require(found->number >= 1 && found->number <= lines, "the line is one of the file");
        require(found->value.find('\n') == std::string::npos, "a value is from one line");
    }
    const auto ports = qnmctl::configured_ports(text);
    require(ports.size() <= 2, "there are two ports at most");
    for (const std::string& port : ports)
        require(!port.empty(), "a port has a name");
}

void check_properties(const std::string& text) {
    for (const std::string& file : qnmctl::log_files(qnmctl::read_log_properties(text))) {
        require(!file.empty() && file.size() < text.size(), "a file name is a part of the text");
        require(file.find('\n') == std::string::npos, "a file name is from one line");
    }
}

void check_log(const std::string& text) {
    for (const std::string& line : qnmctl::error_lines(text)) {
        require(text.find(line) != std::string::npos, "a line told is one of the log");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::memory_file file({data, size});
    const std::string text = qnmctl::read_text(file.path());
    require(text == fuzz::as_text({data, size}), "a file is read whole");
    check_config(text);
    check_properties(text);
    check_log(text);
    return 0;
}
