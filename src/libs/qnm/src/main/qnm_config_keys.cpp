// qnm_config_keys.cpp - the table of the keys of qnm.conf, and the reading of one value.
//
// The rows stand in the order of the configuration record.
#include "qnm_config_keys.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

using qnm::config_form;
using qnm::config_verdict;
using enum qnm::config_base;
using enum qnm::config_form;
using enum qnm::config_group;
using enum qnm::config_minus;
using enum qnm::config_verdict;

constexpr char k_blanks[] = " \t\r\n";
constexpr char k_list_blanks[] = " ,\t";
constexpr char k_line_end[] = "\r\n";
constexpr size_t k_max_index_length = 10;
constexpr size_t k_mac_length = 17;
constexpr size_t k_initial_size = 32;  // of the longest default
constexpr uint32_t k_any = 0xFFFFFFFF;

#define FIELD(name) &qnm_conf_flag_t::ecf_##name, &qnm_conf_t::name
#define FLAG(name) &qnm_conf_flag_t::ecf_##name, nullptr

constexpr qnm_config_key_t k_keys[] = {
    {"ether_port", FLAG(ether_port_name), ports, interfaces, "eth0,eth1", 0, 0, "",
     "Network interfaces that the cards are reached through: port 0 and, after a comma or blank, "
     "port 1",
     "With one name only port 0 is used. A name has up to 255 characters; Linux itself opens "
     "interfaces with names of up to 15. An interface has to be up when the library starts."},
    {"broadcast_mac", FLAG(broadcast_mac), ports, mac, "03:00:ff:ff:ff:ff", 0, 0, "",
     "MAC address that reset frames are sent to"},
    {"ether_port_ifindex", FLAG(ether_port_ifindex), ports, indexes, "0,1", 0, 0, "",
     "Interface indexes of port 0 and port 1",
     "Read and shown only: on Linux the index always comes from the interface named in "
     "ether_port."},
    {"devinfo_check_interval", FIELD(devinfo_check_interval), monitoring, number, "1000", 1000,
     100000, "ms", "How often every path to every card is checked"},
    {"devinfo_expire_time", FIELD(devinfo_expire_time), monitoring, number, "5000", 1000, 100000,
     "ms", "A path counts as lost when nothing was heard over it for this long",
     "It should be several times the interval at which the cards announce themselves. The loss is "
     "noticed at the next check, so up to one devinfo_check_interval later."},
    {"devinfo_flag_check_interval", FIELD(devinfo_flag_check_interval), monitoring, number, "100",
     1, 100000, "ms", "How often the check loop looks whether it has to stop",
     "It is the step that devinfo_check_interval is counted in, and the longest time a stop waits "
     "for that loop."},
    {"vlan_check_interval", FIELD(vlan_check_interval), access, number, "10", 1, 1000, "ms",
     "How often it is looked whether a card has taken its new VLAN ID"},
    {"frame_retry_interval", FIELD(frame_retry_interval), access, number, "100", 1, 1000, "ms",
     "Time to wait for an answer before the frame is sent again"},
    {"frame_retry_count", FIELD(frame_retry_count), access, number, "10", 0, 100, "",
     "How often a frame is sent again when no answer comes"},
    {"frame_retry_interval_livecheck", FIELD(frame_retry_interval_lc), access, number, "100", 1,
     1000, "ms", "What frame_retry_interval is, for the live check",
     "The live check tries the paths to a card until it answers over one."},
    {"frame_retry_count_livecheck", FIELD(frame_retry_count_lc), access, number, "10", 0, 100, "",
     "What frame_retry_count is, for the live check"},
    {"eeprom_id_number", FIELD(eeprom_id_number), eeprom, number, "0x0100", 1, 32768, "",
     "ID of this manager in the ID lock", "Read and shown only: the lock always uses 4.", unchecked,
     hex4},
    {"eeprom_retry_interval", FIELD(eeprom_retry_interval), eeprom, number, "50", 1, 1000, "ms",
     "Pause after an attempt to take the lock that found it taken"},
    {"eeprom_retry_count", FIELD(eeprom_retry_count), eeprom, number, "100", 0, 1000, "",
     "How often taking the lock is tried again"},
    {"eeprom_check_interval", FIELD(eeprom_check_interval), eeprom, number, "1", 0, 1000, "ms",
     "Pause before each look whether an EEPROM command is complete"},
    {"eeprom_check_retry_count", FIELD(eeprom_check_retry_count), eeprom, number, "50", 0, 1000, "",
     "How often it is looked again before the command counts as not done"},
    {"eeprom_verify_count", FIELD(eeprom_verify_count), eeprom, number, "20", 0, 60, "",
     "How often a bit lock that was taken is read again, to be sure that nobody else took it "
     "meanwhile",
     "With 0 it is trusted at once."},
    {"eeprom_verify_interval", FIELD(eeprom_verify_interval), eeprom, number, "1", 1, k_any, "ms",
     "Pause before each of the readings of eeprom_verify_count"},
    {"eeprom_lock_other_bit", FIELD(eeprom_lock_other_bit), eeprom, number, "0x00000008", 0, k_any,
     "", "Bits of the lock register that belong to the other parties", "", unchecked, hex8},
    {"eeprom_rw_interval", FIELD(eeprom_rw_interval), eeprom, number, "100", 0, 1000, "ms",
     "Pause before an EEPROM read or write that failed is tried again"},
    {"tag_min", FIELD(tag_min), access, number, "0", 0, 255, "",
     "Lowest tag by which answers are matched to requests",
     "As many requests can be under way at once as there are tags from tag_min to tag_max."},
    {"tag_max", FIELD(tag_max), access, number, "255", 0, 255, "",
     "Highest tag by which answers are matched to requests", "It must not be below tag_min."},
    {"id_list_upper_limit", FIELD(id_list_upper_limit), monitoring, number, "0xFFFFFFFF", 0, k_any,
     "", "Most card IDs in one list, for calls that name no limit of their own", "", unchecked,
     hex8},
    {"log_level", FIELD(log_level), log, number, "3", 0, 5, "",
     "How much is logged when the host program names no level",
     "0: fatal, 1: error, 2: warning, 3: info, 4: debug, 5: trace. Where the lines go is told in "
     "qnm_log4c.properties."},
    {"network_composition", FIELD(network_composition), monitoring, number, "2", 1, 2, "",
     "How the ports and cards are wired together", "Read and shown only: nothing depends on it."},
    {"eeprom_type", FIELD(eeprom_type), eeprom, number, "0", 0, 1, "",
     "Form of EEPROM addresses that 1G/10G cards get",
     "0: the packed form first, then the raw one if the card refuses it. 1: the raw form only. 40G "
     "cards always get the raw form."},
    {"stats_interval", FIELD(stats_interval), log, number, "3600", 1, 2592000, "s",
     "Time between two status dumps into the statistics log",
     "One more is written at the start and one at the end. The longest interval is 30 days."},
    {"stats_verbose_level", FIELD(stats_verbose_level), log, number, "0", 0, k_any, "",
     "Detail of these dumps",
     "0: short. Any other number: also every field of every card, and the results of every single "
     "call."},
    {"force_lock_try_count", FIELD(force_lock_try_count), eeprom, number, "10", 0, 1000, "",
     "How often a lock that stays taken is broken, in calls that ask for force"},
    {"register_verify_interval", FIELD(register_verify_interval), access, number, "0", 0, 1000,
     "ms",
     "Pause before a register that does not hold its value yet is written and read back again"},
    {"update_evt_mask", FIELD(update_evt_mask), monitoring, number, "2", 1, 2, "",
     "Which changes of a card are reported as an update",
     "1: all. 2: all but the status bits that change often, which are bits 0 to 2 of the first and "
     "bit 0 of the second status byte of each down port (QNSV) or of the card (QNIO)."},
    {"ether_type", FLAG(ether_type), ports, ether_type, "0x88B6", 0, 65535, "",
     "Ethernet type of all frames to and from the cards", "It has to be the cards' own.",
     unchecked},
};

#undef FIELD
#undef FLAG

static_assert(std::ranges::all_of(k_keys, [](const qnm_config_key_t& key) {
    return std::char_traits<char>::length(key.initial) < k_initial_size;
}));

// ---- Values -------------------------------------------------------------------------------------

config_verdict set_number(const qnm_config_key_t& key, char* value, qnm_conf_t& config) {
    char* rest = nullptr;
    const char* const word = strtok_r(value, k_blanks, &rest);
    if (word == nullptr) return not_understood;
    if (key.minus == refused && word[0] == '-') return not_understood;
    uint32_t read = 0;
    if (!_qnm_config_number(word, &read)) return not_understood;
    if (read < key.least || read > key.most) return out_of_range;
    if (key.form == ether_type) {
        config.ether_type = static_cast<uint16_t>(read);
    } else {
        config.*key.field = read;
    }
    return ok;
}

// One or two names.
config_verdict set_interfaces(const qnm_config_key_t&, char* value, qnm_conf_t& config) {
    memset(config.ether_port_name, 0, sizeof config.ether_port_name);
    value[strcspn(value, k_line_end)] = '\0';
    uint32_t count = 0;
    char* rest = nullptr;
    for (const char* word = strtok_r(value, k_list_blanks, &rest);
         word != nullptr && count < std::size(config.ether_port_name);
         word = strtok_r(nullptr, k_list_blanks, &rest)) {
        const size_t length = strlen(word);
        if (length >= sizeof config.ether_port_name[0]) return not_understood;
        memcpy(config.ether_port_name[count++], word, length + 1);
    }
    if (count == 0) return not_understood;
    config.use_port_num_linux = count;
    return ok;
}

// One or two numbers. A word that is not a number ends the list.
config_verdict set_indexes(const qnm_config_key_t&, char* value, qnm_conf_t& config) {
    memset(config.ether_port_ifindex, 0, sizeof config.ether_port_ifindex);
    config.use_port_num_win = 0;
    value[strcspn(value, k_line_end)] = '\0';
    uint32_t count = 0;
    char* rest = nullptr;
    for (const char* word = strtok_r(value, k_list_blanks, &rest);
         word != nullptr && count < std::size(config.ether_port_ifindex);
         word = strtok_r(nullptr, k_list_blanks, &rest)) {
        if (word[0] == '-' || strlen(word) > k_max_index_length) return not_understood;
        char* end = nullptr;
        strtoul(word, &end, 0);
        if (end == word || *end != '\0') break;
        if (!_qnm_config_number(word, &config.ether_port_ifindex[count])) return not_understood;
        count++;
    }
    if (count == 0) return not_understood;
    config.use_port_num_win = count;
    return ok;
}

// Six pairs of hexadecimal digits with colons. A sign in a pair makes it overflow its byte.
config_verdict set_mac(const qnm_config_key_t&, char* value, qnm_conf_t& config) {
    char* rest = nullptr;
    const char* const word = strtok_r(value, k_blanks, &rest);
    if (word == nullptr || strlen(word) != k_mac_length) return not_understood;
    unsigned pair[6];
    if (sscanf(word, "%02x:%02x:%02x:%02x:%02x:%02x", &pair[0], &pair[1], &pair[2], &pair[3],
               &pair[4], &pair[5]) != 6) {
        return not_understood;
    }
    uint64_t read = 0;
    for (const unsigned byte : pair) {
        if (byte > 0xFF) return out_of_range;
        read = read << 8 | byte;
    }
    config.broadcast_mac = read;
    return ok;
}

using set_func = config_verdict (*)(const qnm_config_key_t& key, char* value, qnm_conf_t& config);

set_func setter_of(config_form form) {
    switch (form) {
        case interfaces:
            return set_interfaces;
        case indexes:
            return set_indexes;
        case mac:
            return set_mac;
        case number:
        case ether_type:
            break;
    }
    return set_number;
}

}  // namespace

extern "C" {

const qnm_config_key_t* _qnm_config_keys(size_t* count) {
    *count = std::size(k_keys);
    return k_keys;
}

const qnm_config_key_t* _qnm_find_config_key(const char* name) {
    const auto* const row = std::ranges::find_if(
        k_keys, [&](const qnm_config_key_t& key) { return strcmp(key.name, name) == 0; });
    return row != std::end(k_keys) ? row : nullptr;
}

bool _qnm_config_number(const char* word, uint32_t* number) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(word, &end, 0);
    if (errno != 0 || end == word || *end != '\0' || value > k_any) return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

config_verdict _qnm_set_config_value(const qnm_config_key_t* key, char* value, qnm_conf_t* config) {
    return setter_of(key->form)(*key, value, *config);
}

void _qnm_set_config_defaults(qnm_conf_t* config) {
    *config = {};
    for (const qnm_config_key_t& key : k_keys) {
        char value[k_initial_size];
        memcpy(value, key.initial, strlen(key.initial) + 1);
        _qnm_set_config_value(&key, value, config);
    }
}

}  // extern "C"
