// The sections of qnm.conf, its rules, and what a value can be.
#include "installation/config_keys.h"

#include <cstdint>
#include <string_view>

namespace qnmctl {

namespace {

using enum qnm::config_form;
using enum qnm::config_group;

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

std::string number_text(const qnm_config_key_t& key) {
    if (key.least == 0 && key.most == UINT32_MAX) return "any 32-bit number";
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

std::string value_text(const qnm_config_key_t& key) {
    switch (key.form) {
        case interfaces:
            return "1 or 2 interface names";
        case indexes:
            return "1 or 2 numbers";
        case mac:
            return "six two-digit hexadecimal numbers with colons";
        case number:
        case ether_type:
            break;
    }
    return number_text(key) + unit_text(key.unit);
}

std::span<const char* const> config_rules() {
    return rules;
}

}  // namespace qnmctl
