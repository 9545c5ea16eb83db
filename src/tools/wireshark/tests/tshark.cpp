// Runs tshark and parses its tables.
#include "tshark.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

void share(const fs::path& made) {
    const auto read = fs::perms::group_read | fs::perms::others_read;
    const auto enter = fs::perms::group_exec | fs::perms::others_exec;
    const bool is_directory = fs::is_directory(made);
    fs::permissions(made, is_directory ? read | enter : read, fs::perm_options::add);
}

scratch_directory::scratch_directory() {
    std::string name = (fs::temp_directory_path() / "wireshark-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make " + name);
    path_ = name;
    share(path_);
}

scratch_directory::~scratch_directory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

namespace tshark {

namespace {

constexpr char k_prefix[] = "quillnet.";

// Occurs in no value.
constexpr char k_between_values = '|';

std::string in_quotes(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string contents(const fs::path& file) {
    std::ifstream in(file);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

std::string read_to_end(FILE* from) {
    std::string text;
    std::array<char, 65536> buffer{};
    while (const std::size_t count = fread(buffer.data(), 1, buffer.size(), from))
        text.append(buffer.data(), count);
    return text;
}

words split(const std::string& text, char at) {
    words parts(1);
    for (const char c : text) {
        if (c == at) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

// Wireshark 4.4 shows words for the two values of a flag.
std::string to_decimal(const std::string& value) {
    if (value == "True") return "1";
    if (value == "False") return "0";
    if (!value.starts_with("0x") || value.find_first_of(" (,") != std::string::npos) return value;
    return std::to_string(std::stoull(value, nullptr, 16));
}

row to_row(const std::string& line, const words& columns) {
    const words cells = split(line, '\t');
    if (cells.size() != columns.size()) throw std::runtime_error("tshark: a bad line: " + line);
    row made;
    for (std::size_t i = 0; i < cells.size(); i++) {
        if (cells[i].empty()) continue;
        words values = split(cells[i], k_between_values);
        std::transform(values.begin(), values.end(), values.begin(), to_decimal);
        made[columns[i]] = values;
    }
    return made;
}

// Wireshark 4.2 and later silently load no plugins for root unless they are installed for all
// users. So for root, tshark runs as another user where that is possible.
const std::string& as_user() {
    static const std::string prefix = [] {
        const std::string change = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
        const bool can_change =
            geteuid() == 0 && std::system((change + "true 2>/dev/null").c_str()) == 0;
        return can_change ? change : std::string();
    }();
    return prefix;
}

}  // namespace

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

std::string mac(std::uint64_t value) {
    std::string text;
    for (int shift = 40; shift >= 0; shift -= 8) {
        std::array<char, 4> part{};
        snprintf(part.data(), part.size(), "%02x%s", static_cast<unsigned>(value >> shift & 0xFF),
                 shift == 0 ? "" : ":");
        text += part.data();
    }
    return text;
}

std::string bytes(std::span<const std::uint8_t> value) {
    std::string text;
    for (const std::uint8_t byte : value) {
        std::array<char, 3> part{};
        snprintf(part.data(), part.size(), "%02x", byte);
        text += part.data();
    }
    return text;
}

std::string duration(std::uint64_t nanoseconds) {
    std::array<char, 40> text{};
    snprintf(text.data(), text.size(), "%llu.%09llu",
             static_cast<unsigned long long>(nanoseconds / 1'000'000'000),
             static_cast<unsigned long long>(nanoseconds % 1'000'000'000));
    return text.data();
}

std::string run(const words& arguments) {
    const scratch_directory own;
    const fs::path plugins = own.path() / "plugins";
    fs::create_directory(plugins);
    fs::copy_file(QUILLNET_LUA, plugins / "quillnet.lua");
    share(plugins);
    share(plugins / "quillnet.lua");
    const std::string said = (own.path() / "said").string();
    // The folder of plugins for all users is set to one that does not exist.
    const fs::path none = own.path() / "none";
    fs::create_directory(none);
    share(none);
    std::string command = "WIRESHARK_PLUGIN_DIR=" + in_quotes(none) + " ";
    for (const char* const name : {"HOME", "WIRESHARK_CONFIG_DIR"})
        command += std::string(name) + "=" + in_quotes(own.path()) + " ";
    command += as_user() + "tshark";
    for (const std::string& argument : arguments)
        command += " " + in_quotes(argument);
    command += " 2>" + in_quotes(said);
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("cannot run " + command);
    std::string text = read_to_end(pipe);
    const int status = pclose(pipe);
    const std::string errors = contents(said);
    if (status != 0 || errors.find("Lua") != std::string::npos)
        throw std::runtime_error(command + ": " + errors);
    return text;
}

const words& names() {
    static const words all = [] {
        words found;
        for (const std::string& line : split(run({"-G", "fields"}), '\n')) {
            const words cells = split(line, '\t');
            if (cells.size() > 2 && cells[0] == "F" && cells[2].starts_with(k_prefix))
                found.push_back(cells[2].substr(sizeof k_prefix - 1));
        }
        if (found.empty()) throw std::runtime_error("tshark has not loaded the dissector");
        std::sort(found.begin(), found.end());
        found.erase(std::unique(found.begin(), found.end()), found.end());
        return found;
    }();
    return all;
}

std::vector<row> read(const capture& taken, const words& options) {
    const scratch_directory own;
    const std::string file = (own.path() / "capture.pcap").string();
    taken.write(file);
    share(file);
    words arguments = {"-r", file, "-n", "-T", "fields", "-E", std::string("aggregator=|")};
    arguments.insert(arguments.end(), options.begin(), options.end());
    words columns = names();
    for (const std::string& name : columns)
        arguments.insert(arguments.end(), {"-e", k_prefix + name});
    columns.emplace_back(k_note);
    arguments.insert(arguments.end(), {"-e", "_ws.expert.message"});

    words lines = split(run(arguments), '\n');
    lines.pop_back();  // behind the last line's end
    std::vector<row> rows;
    for (const std::string& line : lines) {
        if (line.find("Lua Error") != std::string::npos)
            throw std::runtime_error("tshark: " + line);
        rows.push_back(to_row(line, columns));
    }
    if (rows.size() != taken.count()) throw std::runtime_error("tshark: frames are missing");
    return rows;
}

}  // namespace tshark
