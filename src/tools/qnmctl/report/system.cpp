// Collects versions and ports from the loader, the kernel and the interfaces.
#include "report/system.h"

#include <archive.h>
#include <link.h>
#include <pcap/pcap.h>
#include <sys/utsname.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <sstream>

#include "installation/config_file.h"
#include "output/text.h"
#include "system/interfaces.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

// ---- Versions -----------------------------------------------------------------------------------

struct wanted_library {
    std::string start;  // of its file's name
    std::string found;
};

int look_for_library(dl_phdr_info* loaded, std::size_t, void* handle) {
    auto& wanted = *static_cast<wanted_library*>(handle);
    const fs::path file = loaded->dlpi_name;
    if (!file.filename().string().starts_with(wanted.start)) return 0;
    std::error_code ignored;  // the name that it was loaded by says something, too
    const fs::path real = fs::canonical(file, ignored);
    wanted.found = real.empty() ? file : real;
    return 1;
}

// Null when the library is part of the program.
json loaded_file(const std::string& name) {
    wanted_library wanted{name + ".so", {}};
    dl_iterate_phdr(look_for_library, &wanted);
    return wanted.found.empty() ? json() : json(wanted.found);
}

json library_json(const char* name, const std::string& version) {
    return {{"version", version}, {"file", loaded_file(name)}};
}

json kernel_json() {
    utsname kernel{};  // its name of the host is left out
    if (uname(&kernel) != 0) return {};
    return {{"system", kernel.sysname},
            {"release", kernel.release},
            {"version", kernel.version},
            {"machine", kernel.machine}};
}

// ---- Ports --------------------------------------------------------------------------------------

json driver_json(const std::string& interface) {
    const auto driver = read_driver(interface);
    if (!driver) return {};
    return {{"name", driver->name},
            {"version", driver->version},
            {"firmware", driver->firmware},
            {"bus", driver->bus}};
}

json counters_json(const std::string& interface) {
    const all_interface_counters all = read_counters();
    const auto found = all.find(interface);
    if (found == all.end()) return {};
    json counters = json::object();
    for (std::size_t at = 0; at < counter_names.size(); ++at)
        counters[counter_names[at]] = found->second[at];
    return counters;
}

}  // namespace

json versions_json() {
    const std::string distribution = distribution_name(read_text("/etc/os-release"));
    return {{"qnmctl", QNMCTL_VERSION},
            {"libqnm", library_json("libqnm", QNMCTL_VERSION)},
            {"libpcap", library_json("libpcap", pcap_lib_version())},
            {"log4cxx", library_json("liblog4cxx", QNMCTL_LOG4CXX_VERSION)},
            {"libarchive", library_json("libarchive", archive_version_string())},
            {"kernel", kernel_json()},
            {"distribution", distribution.empty() ? json() : json(distribution)}};
}

std::optional<json> port_json(int number, const std::string& interface) {
    const interface_state state = read_interface(interface);
    if (state.error != 0) return std::nullopt;
    return json{{"port", number},
                {"interface", interface},
                {"up", state.up},
                {"link", state.running},
                {"promiscuous", state.promiscuous},
                {"mac", state.mac ? json(mac_text(*state.mac)) : json()},
                {"mtu", state.mtu ? json(*state.mtu) : json()},
                {"driver", driver_json(interface)},
                {"counters", counters_json(interface)}};
}

std::string distribution_name(const std::string& os_release) {
    constexpr std::string_view key = "PRETTY_NAME=";
    std::istringstream lines(os_release);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(key)) continue;
        std::string name = line.substr(key.size());
        std::erase(name, '"');
        return name;
    }
    return {};
}

}  // namespace qnmctl
