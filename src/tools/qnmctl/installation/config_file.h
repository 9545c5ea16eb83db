// Looks up keys in qnm.conf, so that messages can name the line. What a value means is decided by
// the library's own table.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/regular_file.h"

namespace qnmctl {

struct config_line {
    int number;         // from 1
    std::string value;  // the rest of the line behind the "="
};

// The first line with the key, which is the one that counts.
std::optional<config_line> find_key(const std::string& config, std::string_view key);

// The number that a key has in qnm.conf, or its default.
std::uint32_t configured_number(const std::string& config, const char* key);

// The interfaces that qnm.conf names, or the default ones.
std::vector<std::string> configured_ports(const std::string& config);

// The contents of a regular file; empty when it cannot be read or is not a regular file.
std::string read_text(const std::string& name);

// The text of a configuration file; empty when it is missing or may not be read. Throws error when
// it is not a regular file, or far too long.
std::string read_config(const std::string& name);

// The same for a file that is already open.
std::string config_text_of(const tools::opened_file& file);

// What is wrong with a configuration file, if anything.
std::optional<std::string> wrong_config(const std::string& name);

}  // namespace qnmctl
