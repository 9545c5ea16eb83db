// config.cpp - any bytes as qnm.conf.
//
// An accepted file has only values in range, and writing the record to a file and reading that
// gives the same record.

#include <cerrno>
#include <cstring>
#include <string>

#include "library.h"
#include "memory_file.h"

namespace {

using fuzz::require;

std::string number_line(const char* key, std::uint32_t value) {
    return std::string(key) + '=' + std::to_string(value) + '\n';
}

struct number_key {
    const char* key;
    std::uint32_t qnm_conf_t::*field;
    std::uint32_t min;
    std::uint32_t max;
};

// A second copy beside the reader's table, so that a mistake there shows.
constexpr number_key k_keys[] = {
    {"devinfo_check_interval", &qnm_conf_t::devinfo_check_interval, 1000, 100000},
    {"devinfo_expire_time", &qnm_conf_t::devinfo_expire_time, 1000, 100000},
    {"devinfo_flag_check_interval", &qnm_conf_t::devinfo_flag_check_interval, 1, 100000},
    {"vlan_check_interval", &qnm_conf_t::vlan_check_interval, 1, 1000},
    {"frame_retry_interval", &qnm_conf_t::frame_retry_interval, 1, 1000},
    {"frame_retry_count", &qnm_conf_t::frame_retry_count, 0, 100},
    {"frame_retry_interval_livecheck", &qnm_conf_t::frame_retry_interval_lc, 1, 1000},
    {"frame_retry_count_livecheck", &qnm_conf_t::frame_retry_count_lc, 0, 100},
    {"eeprom_id_number", &qnm_conf_t::eeprom_id_number, 1, 32768},
    {"eeprom_retry_interval", &qnm_conf_t::eeprom_retry_interval, 1, 1000},
    {"eeprom_retry_count", &qnm_conf_t::eeprom_retry_count, 0, 1000},
    {"eeprom_check_interval", &qnm_conf_t::eeprom_check_interval, 0, 1000},
    {"eeprom_check_retry_count", &qnm_conf_t::eeprom_check_retry_count, 0, 1000},
    {"eeprom_verify_count", &qnm_conf_t::eeprom_verify_count, 0, 60},
    {"eeprom_verify_interval", &qnm_conf_t::eeprom_verify_interval, 1, 0xFFFFFFFF},
    {"eeprom_lock_other_bit", &qnm_conf_t::eeprom_lock_other_bit, 0, 0xFFFFFFFF},
    {"eeprom_rw_interval", &qnm_conf_t::eeprom_rw_interval, 0, 1000},
    {"tag_min", &qnm_conf_t::tag_min, 0, 255},
    {"tag_max", &qnm_conf_t::tag_max, 0, 255},
    {"id_list_upper_limit", &qnm_conf_t::id_list_upper_limit, 0, 0xFFFFFFFF},
    {"log_level", &qnm_conf_t::log_level, 0, 5},
    {"network_composition", &qnm_conf_t::network_composition, 1, 2},
    {"eeprom_type", &qnm_conf_t::eeprom_type, 0, 1},
    {"stats_interval", &qnm_conf_t::stats_interval, 1, 2592000},
    {"stats_verbose_level", &qnm_conf_t::stats_verbose_level, 0, 0xFFFFFFFF},
    {"force_lock_try_count", &qnm_conf_t::force_lock_try_count, 0, 1000},
    {"register_verify_interval", &qnm_conf_t::register_verify_interval, 0, 1000},
    {"update_evt_mask", &qnm_conf_t::update_evt_mask, 1, 2},
};

// The record between the file name and the numbers.
void check_ports(const qnm_conf_t& config) {
    for (const auto& name : config.ether_port_name)
        require(memchr(name, '\0', sizeof name) != nullptr, "a name is terminated");
    require(config.ether_port_name[0][0] != '\0', "port 0 has a name");
    for (const std::uint32_t used : {config.use_port_num_linux, config.use_port_num_win})
        require(used == 1 || used == 2, "one or two ports are used");
}

std::string ports_text(const qnm_conf_t& config) {
    std::string text = std::string("ether_port=") + config.ether_port_name[0];
    if (config.use_port_num_linux == 2) text += std::string(",") + config.ether_port_name[1];
    text += "\nether_port_ifindex=" + std::to_string(config.ether_port_ifindex[0]);
    if (config.use_port_num_win == 2) text += ' ' + std::to_string(config.ether_port_ifindex[1]);
    return text + '\n';
}

std::string mac_text(std::uint64_t mac) {
    char text[40];
    snprintf(text, sizeof text, "broadcast_mac=%02x:%02x:%02x:%02x:%02x:%02x\n",
             static_cast<unsigned>(mac >> 40 & 0xFF), static_cast<unsigned>(mac >> 32 & 0xFF),
             static_cast<unsigned>(mac >> 24 & 0xFF), static_cast<unsigned>(mac >> 16 & 0xFF),
             static_cast<unsigned>(mac >> 8 & 0xFF), static_cast<unsigned>(mac & 0xFF));
    return text;
}

// Writes the accepted record as a file, and checks it on the way.
std::string write_out(const qnm_conf_t& config) {
    check_ports(config);
    require(config.tag_min <= config.tag_max, "there is a tag");
    require(config.broadcast_mac >> 48 == 0, "an address has 48 bits");
    std::string text = ports_text(config) + mac_text(config.broadcast_mac);
    for (const number_key& row : k_keys) {
        const std::uint32_t value = config.*row.field;
        require(value >= row.min && value <= row.max, "an accepted number is in its range");
        text += number_line(row.key, value);
    }
    return text + number_line("ether_type", config.ether_type);
}

int read_text(fuzz::bytes text) {
    const fuzz::memory_file file(text);
    std::string path = file.path();
    return _qnm_config_read(path.data());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Log lines are accepted and thrown away, so that they do not clutter the terminal.
    static log_capture lines;
    lines.clear();
    const int ret = read_text({data, size});
    require(ret == 0 || ret == EPROTO, "a file is read, or refused");
    if (ret != 0) return 0;
    const qnm_conf_t accepted = qnm_config;
    const std::string text = write_out(accepted);
    const int again = read_text({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    require(again == 0, "what was accepted is accepted again");
    require(memcmp(&accepted, &qnm_config, sizeof accepted) == 0, "and means the same");
    return 0;
}
