// Looks for the reasons of a failed start and puts them into words.
#include "manager/explain.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "installation/config_file.h"
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

std::optional<std::string> missing_dir(const installation& where) {
    const std::string dir = where.dir.string();
    std::error_code problem;
    const fs::file_status status = fs::status(where.dir, problem);
    std::string wrong;
    if (status.type() == fs::file_type::not_found)
        wrong = "there is no directory " + dir;
    else if (problem)
        wrong = "cannot read the directory " + dir + ": " + problem.message();
    else if (!fs::is_directory(status))
        wrong = dir + " is not a directory";
    else
        return std::nullopt;
    return wrong + "\nName the installation directory by --dir, or the interfaces by --ports.";
}

std::optional<std::string> unusable_files(const installation& where) {
    if (where.dir.string().size() > longest_dir) {
        return "the name of the directory is too long; the library takes up to 485 characters";
    }
    for (const fs::path& file : {where.config(), where.properties()}) {
        if (auto wrong = wrong_config(file)) return wrong;
    }
    std::error_code ignored;  // what cannot be looked at is no regular file
    if (!fs::is_regular_file(where.properties(), ignored)) {
        return "there is no file " + where.properties().string() +
               "\nThe library does not start without it. Copy the sample "
               "qnm_log4c.properties there (packages have it in /usr/share/qnm/conf), or name "
               "the interfaces by --ports.";
    }
    if (access(where.properties().c_str(), R_OK) != 0) {
        return "cannot read " + where.properties().string() + ": " + std::strerror(errno);
    }
    if (fs::is_regular_file(where.config(), ignored) && access(where.config().c_str(), R_OK) != 0) {
        return "cannot read " + where.config().string() + ": " + std::strerror(errno);
    }
    return std::nullopt;
}

std::optional<std::string> missing_privilege() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        close(fd);
        return std::nullopt;
    }
    if (errno != EPERM && errno != EACCES) {
        return std::string("cannot open a raw socket: ") + std::strerror(errno);
    }
    std::error_code ignored;
    const fs::path program = fs::read_symlink("/proc/self/exe", ignored);
    return "no privilege for raw sockets (capability CAP_NET_RAW)\nRun it under sudo, or give it "
           "the "
           "capability once: sudo setcap cap_net_raw+ep " +
           (program.empty() ? std::string("qnmctl") : program.string());
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

// That a step failed is no news beside the line that tells why.
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
        if (auto told = configuration_text(where, line)) found.push_back(*told);
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
        if (auto wrong = missing_dir(where)) return wrong;
        if (auto wrong = unusable_files(where)) return wrong;
    }
    return missing_privilege();
}

std::optional<std::string> port_problem(const std::string& interface) {
    const std::string quoted = '"' + interface + '"';
    if (interface.size() >= IFNAMSIZ) return "the interface name " + quoted + " is too long";
    ifreq asked{};
    interface.copy(asked.ifr_name, IFNAMSIZ - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return std::nullopt;
    const int result = ioctl(fd, SIOCGIFFLAGS, &asked);
    const int code = result == 0 ? 0 : errno;
    close(fd);
    if (code == ENODEV) return "no such interface: " + quoted + "\n\"ip link\" lists them.";
    if (code != 0) return "interface " + quoted + ": " + std::strerror(code);
    if ((asked.ifr_flags & IFF_UP) == 0) {
        return "interface " + quoted +
               " is down, so it cannot be opened\nBring it up: sudo ip link set " + interface +
               " up";
    }
    return std::nullopt;
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
