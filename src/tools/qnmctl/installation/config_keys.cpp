// The table of the keys of qnm.conf.
#include "installation/config_keys.h"

#include <algorithm>

namespace qnmctl {

namespace {

constexpr std::uint32_t any = 0xFFFFFFFF;

using enum config_group;
using enum value_form;

constexpr config_group_row groups[] = {
    {ports, "Ports", ""},
    {monitoring, "Monitoring", ""},
    {log, "Log and statistics", ""},
    {access, "Register access and commands",
     "The library sends a frame and, where the card answers, waits. These keys hold wherever the "
     "host program passes no values of its own."},
    {eeprom, "EEPROM access",
     "The EEPROM of a card is shared with other parties. Each access first takes a lock on the "
     "card."},
};

constexpr config_key keys[] = {
    {ports, "ether_port", "eth0,eth1", interfaces, 0, 0, "",
     "Network interfaces that the cards are reached through: port 0 and, after a comma or blank, "
     "port 1",
     "With one name only port 0 is used. A name has up to 255 characters; Linux itself opens "
     "interfaces with names of up to 15. An interface has to be up when the library starts."},
    {ports, "ether_port_ifindex", "0,1", indexes, 0, any, "",
     "Interface indexes of port 0 and port 1",
     "Read and shown only: on Linux the index always comes from the interface named in "
     "ether_port."},
    {ports, "ether_type", "0x88B6", number, 0, 65535, "",
     "Ethernet type of all frames to and from the cards", "It has to be the cards' own.", true},
    {ports, "broadcast_mac", "03:00:ff:ff:ff:ff", mac, 0, 0, "",
     "MAC address that reset frames are sent to", ""},

    {monitoring, "devinfo_check_interval", "1000", number, 1000, 100000, "ms",
     "How often every path to every card is checked", ""},
    {monitoring, "devinfo_expire_time", "5000", number, 1000, 100000, "ms",
     "A path counts as lost when nothing was heard over it for this long",
     "It should be several times the interval at which the cards announce themselves. The loss is "
     "noticed at the next check, so up to one devinfo_check_interval later."},
    {monitoring, "devinfo_flag_check_interval", "100", number, 1, 100000, "ms",
     "How often the check loop looks whether it has to stop",
     "It is the step that devinfo_check_interval is counted in, and the longest time a stop waits "
     "for that loop."},
    {monitoring, "update_evt_mask", "2", number, 1, 2, "",
     "Which changes of a card are reported as an update",
     "1: all. 2: all but the status bits that change often, which are bits 0 to 2 of the first and "
     "bit 0 of the second status byte of each down port (QNSV) or of the card (QNIO)."},
    {monitoring, "id_list_upper_limit", "0xFFFFFFFF", number, 0, any, "",
     "Most card IDs in one list, for calls that name no limit of their own", "", true},
    {monitoring, "network_composition", "2", number, 1, 2, "",
     "How the ports and cards are wired together", "Read and shown only: nothing depends on it."},

    {log, "log_level", "3", number, 0, 5, "",
     "How much is logged when the host program names no level",
     "0: fatal, 1: error, 2: warning, 3: info, 4: debug, 5: trace. Where the lines go is told in "
     "qnm_log4c.properties."},
    {log, "stats_interval", "3600", number, 1, 2592000, "s",
     "Time between two status dumps into the statistics log",
     "One more is written at the start and one at the end. The longest interval is 30 days."},
    {log, "stats_verbose_level", "0", number, 0, any, "", "Detail of these dumps",
     "0: short. Any other number: also every field of every card, and the results of every single "
     "call."},

    {access, "frame_retry_interval", "100", number, 1, 1000, "ms",
     "Time to wait for an answer before the frame is sent again", ""},
    {access, "frame_retry_count", "10", number, 0, 100, "",
     "How often a frame is sent again when no answer comes", ""},
    {access, "frame_retry_interval_livecheck", "100", number, 1, 1000, "ms",
     "What frame_retry_interval is, for the live check",
     "The live check tries the paths to a card until it answers over one."},
    {access, "frame_retry_count_livecheck", "10", number, 0, 100, "",
     "What frame_retry_count is, for the live check", ""},
    {access, "register_verify_interval", "0", number, 0, 1000, "ms",
     "Pause before a register that does not hold its value yet is written and read back again", ""},
    {access, "vlan_check_interval", "10", number, 1, 1000, "ms",
     "How often it is looked whether a card has taken its new VLAN ID", ""},
    {access, "tag_min", "0", number, 0, 255, "",
     "Lowest tag by which answers are matched to requests",
     "As many requests can be under way at once as there are tags from tag_min to tag_max."},
    {access, "tag_max", "255", number, 0, 255, "",
     "Highest tag by which answers are matched to requests", "It must not be below tag_min."},

    {eeprom, "eeprom_type", "0", number, 0, 1, "", "Form of EEPROM addresses that 1G/10G cards get",
     "0: the packed form first, then the raw one if the card refuses it. 1: the raw form only. 40G "
     "cards always get the raw form."},
    {eeprom, "eeprom_retry_interval", "50", number, 1, 1000, "ms",
     "Pause after an attempt to take the lock that found it taken", ""},
    {eeprom, "eeprom_retry_count", "100", number, 0, 1000, "",
     "How often taking the lock is tried again", ""},
    {eeprom, "force_lock_try_count", "10", number, 0, 1000, "",
     "How often a lock that stays taken is broken, in calls that ask for force", ""},
    {eeprom, "eeprom_verify_count", "20", number, 0, 60, "",
     "How often a bit lock that was taken is read again, to be sure that nobody else took it "
     "meanwhile",
     "With 0 it is trusted at once."},
    {eeprom, "eeprom_verify_interval", "1", number, 1, any, "ms",
     "Pause before each of the readings of eeprom_verify_count", ""},
    {eeprom, "eeprom_lock_other_bit", "0x00000008", number, 0, any, "",
     "Bits of the lock register that belong to the other parties", "", true},
    {eeprom, "eeprom_id_number", "0x0100", number, 1, 32768, "",
     "ID of this manager in the ID lock", "Read and shown only: the lock always uses 4.", true},
    {eeprom, "eeprom_check_interval", "1", number, 0, 1000, "ms",
     "Pause before each look whether an EEPROM command is complete", ""},
    {eeprom, "eeprom_check_retry_count", "50", number, 0, 1000, "",
     "How often it is looked again before the command counts as not done", ""},
    {eeprom, "eeprom_rw_interval", "100", number, 0, 1000, "ms",
     "Pause before an EEPROM read or write that failed is tried again", ""},
};

constexpr const char* rules[] = {
    "One key a line, as \"key = value\". Blanks and tabs around both do not matter.",
    ("A comment is a line whose first character is #. An indented # is not a comment but an "
     "unknown key. What stands behind a value is ignored, with or without a #; but behind "
     "ether_port and ether_port_ifindex, which take up to two words, put no comment."),
    "A line of more than 127 characters is read as several. Keep lines, comments too, below that.",
    ("Keys and values are exact, upper and lower case matter. An unknown key, a value that is not "
     "understood or is out of range stops the start-up; the log names the key."),
    "If a key is given twice, the first one counts and the second is silently ignored.",
    "Numbers are decimal, hexadecimal (0x1F) or octal: 010 means 8.",
};

std::string number_text(const config_key& key) {
    if (key.least == 0 && key.most == any) return "any 32-bit number";
    const char* const between = key.most == key.least + 1 ? " or " : " to ";
    return std::to_string(key.least) + between + std::to_string(key.most);
}

std::string unit_text(std::string_view unit) {
    if (unit == "ms") return " milliseconds";
    return unit == "s" ? " seconds" : "";
}

}  // namespace

std::span<const config_group_row> config_groups() {
    return groups;
}

std::span<const config_key> config_keys() {
    return keys;
}

const config_key* find_config_key(std::string_view name) {
    const auto* row = std::find_if(std::begin(keys), std::end(keys),
                                   [&](const config_key& key) { return key.name == name; });
    return row != std::end(keys) ? row : nullptr;
}

std::string value_text(const config_key& key) {
    switch (key.form) {
        case interfaces:
            return "1 or 2 interface names";
        case indexes:
            return "1 or 2 numbers";
        case mac:
            return "six two-digit hexadecimal numbers with colons";
        case number:
            break;
    }
    return number_text(key) + unit_text(key.unit);
}

std::span<const char* const> config_rules() {
    return rules;
}

}  // namespace qnmctl
