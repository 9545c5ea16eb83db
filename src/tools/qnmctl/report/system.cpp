// Asks the loader, the kernel and the interfaces.
#include "report/system.h"

#include <archive.h>
#include <link.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <iterator>
#include <sstream>

#include "installation/config_file.h"
#include "output/text.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

// ---- Versions -----------------------------------------------------------------------------------

struct wanted_library {
    std::string start;  // of its file's name
    std::string found;
};

int look_for_library(dl_phdr_info* loaded, std::size_t, void* of) {
    auto& wanted = *static_cast<wanted_library*>(of);
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

struct asking {
    explicit asking(const std::string& interface) : fd(socket(AF_INET, SOCK_DGRAM, 0)) {
        interface.copy(request.ifr_name, IFNAMSIZ - 1);
    }
    ~asking() {
        if (fd >= 0) close(fd);
    }
    asking(const asking&) = delete;
    asking& operator=(const asking&) = delete;

    bool ask(unsigned long what) { return fd >= 0 && ioctl(fd, what, &request) == 0; }

    int fd;
    ifreq request{};
};

json mac_json(asking& of) {
    if (!of.ask(SIOCGIFHWADDR)) return {};
    std::uint64_t mac = 0;
    for (int i = 0; i < 6; ++i)
        mac = mac << 8 | static_cast<unsigned char>(of.request.ifr_hwaddr.sa_data[i]);
    return mac_text(mac);
}

json driver_json(asking& of) {
    ethtool_drvinfo driver{};
    driver.cmd = ETHTOOL_GDRVINFO;
    of.request.ifr_data = reinterpret_cast<char*>(&driver);
    const bool told = of.ask(SIOCETHTOOL);
    of.request.ifr_data = nullptr;
    if (!told) return {};
    return {{"name", driver.driver},
            {"version", driver.version},
            {"firmware", driver.fw_version},
            {"bus", driver.bus_info}};
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
    if (interface.size() >= IFNAMSIZ) return std::nullopt;
    asking of(interface);
    if (!of.ask(SIOCGIFFLAGS)) return std::nullopt;
    json object = {{"port", number},
                   {"interface", interface},
                   {"up", (of.request.ifr_flags & IFF_UP) != 0},
                   {"link", (of.request.ifr_flags & IFF_RUNNING) != 0},
                   {"promiscuous", (of.request.ifr_flags & IFF_PROMISC) != 0}};
    object["mac"] = mac_json(of);
    object["mtu"] = of.ask(SIOCGIFMTU) ? json(of.request.ifr_mtu) : json();
    object["driver"] = driver_json(of);
    // The one of the command's own network namespace, whatever /sys shows.
    object["counters"] = counters_json(read_text("/proc/self/net/dev"), interface);
    return object;
}

json counters_json(const std::string& table, const std::string& interface) {
    constexpr const char* names[] = {
        "rx_bytes",       "rx_packets",      "rx_errors",         "rx_dropped",
        "rx_fifo_errors", "rx_frame_errors", "rx_compressed",     "rx_multicast",
        "tx_bytes",       "tx_packets",      "tx_errors",         "tx_dropped",
        "tx_fifo_errors", "collisions",      "tx_carrier_errors", "tx_compressed"};
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::vector<std::string> name = split(line.substr(0, colon), " ");
        const std::vector<std::string> values = split(line.substr(colon + 1), " ");
        if (name.size() != 1 || name.front() != interface) continue;
        json counters = json::object();
        for (std::size_t at = 0; at < std::min(values.size(), std::size(names)); ++at)
            counters[names[at]] = parse_number(values[at]).value_or(0);
        return counters;
    }
    return {};
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
