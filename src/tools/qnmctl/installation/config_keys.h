// Texts about the keys of qnm.conf that the library's table of them does not have: for the sample
// file, the manual page and the checks of a user's file.
#pragma once

#include <span>
#include <string>

#include "qnm_config_keys.h"

namespace qnmctl {

struct config_group_row {
    qnm::config_group group;
    const char* title;
    const char* text;  // about all of its keys, or ""
};

// The sections in their order.
std::span<const config_group_row> config_groups();

// What a value can be: "1000 to 100000 milliseconds", "1 or 2 interface names".
std::string value_text(const qnm_config_key_t& key);

// The rules for the lines of the file, each a sentence or two.
std::span<const char* const> config_rules();

}  // namespace qnmctl
