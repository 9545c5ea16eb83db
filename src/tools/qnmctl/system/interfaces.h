// What the kernel says of network interfaces, in the network namespace of the calling thread.
//
// Nothing is changed by asking: no module is loaded and no interface becomes promiscuous.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qnmctl {

struct interface_state {
    std::string name = {};
    int error = 0;  // errno of asking for it; ENODEV: there is none. The rest is unknown then.
    bool up = false;
    bool running = false;  // it is up and has a link, as the library sees it
    bool promiscuous = false;
    int hardware = 0;                       // ARPHRD_...
    std::optional<std::uint64_t> mac = {};  // none where it cannot be asked for
    std::optional<int> mtu = {};
};

interface_state read_interface(const std::string& name);

std::vector<std::string> interface_names();

// ---- ethtool ------------------------------------------------------------------------------------

// The link as the driver tells it, which has to know it: the library opens no other interface.
struct driver_link {
    int error = 0;  // errno
    bool up = false;
};

driver_link read_driver_link(const std::string& name);

struct interface_driver {
    std::string name = {};
    std::string version = {};
    std::string firmware = {};
    std::string bus = {};
};

std::optional<interface_driver> read_driver(const std::string& name);

struct feature {
    bool on = false;
    bool fixed = false;  // by the driver
};

// A feature by ethtool's name, such as "rx-vlan-filter"; nothing where there is none.
std::optional<feature> read_feature(const std::string& name, const char* wanted);

// ---- Counters -----------------------------------------------------------------------------------

// The names of counters, in the order of the kernel's table.
inline constexpr std::array counter_names = {
    "rx_bytes",       "rx_packets",      "rx_errors",         "rx_dropped",
    "rx_fifo_errors", "rx_frame_errors", "rx_compressed",     "rx_multicast",
    "tx_bytes",       "tx_packets",      "tx_errors",         "tx_dropped",
    "tx_fifo_errors", "collisions",      "tx_carrier_errors", "tx_compressed"};
inline constexpr std::size_t rx_packets_at = 1;
inline constexpr std::size_t tx_packets_at = 9;

using interface_counters = std::array<std::uint64_t, counter_names.size()>;

// By name, of all interfaces.
using all_interface_counters = std::map<std::string, interface_counters>;

all_interface_counters read_counters();

// From the text of the kernel's table. Lines that are no row of it are left out.
all_interface_counters parse_counters(std::string_view table);

}  // namespace qnmctl
