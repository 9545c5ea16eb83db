// The keys of qnm.conf in one table, which the sample file, the manual page and the checks of a
// user's file are made from. What the library makes of a file is decided in qnm_config.cpp.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qnmctl {

enum class value_form { number, interfaces, indexes, mac };

// Sections of the file, in their order.
enum class config_group { ports, monitoring, log, access, eeprom };

struct config_group_row {
    config_group group;
    const char* title;
    const char* text;  // what holds for all of its keys, or ""
};

struct config_key {
    config_group group;
    const char* name;
    const char* initial;  // the default, as the sample file writes it
    value_form form;
    std::uint32_t least;  // of a number
    std::uint32_t most;
    const char* unit;          // "ms", "s", or ""
    const char* brief;         // what it is for, without a full stop
    const char* more;          // further sentences, or ""
    bool takes_minus = false;  // as the C library reads it, -1 for the largest 64-bit number
};

// The rows, in the order in which they are shown.
std::span<const config_group_row> config_groups();
std::span<const config_key> config_keys();

// nullptr when there is no such key.
const config_key* find_config_key(std::string_view name);

// What a value can be: "1000 to 100000 milliseconds", "1 or 2 interface names".
std::string value_text(const config_key& key);

// What holds for the lines of the file, a rule a sentence or two.
std::span<const char* const> config_rules();

}  // namespace qnmctl
