// Looks into qnm.conf, to name places in it. The library alone decides what it means; nothing here
// is needed for a start that succeeds.
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

// The line of qnm.conf in which a key stands first, which is the one that counts.
std::optional<config_line> find_key(const std::string& config, std::string_view key);

// The number that a key of the library has in qnm.conf, or its default where it has none.
std::uint32_t configured_number(const std::string& config, const char* key);

// The interfaces that qnm.conf names, or the library's defaults.
std::vector<std::string> configured_ports(const std::string& config);

// A whole regular file; empty when it cannot be read, or is none.
std::string read_text(const std::string& name);

// A configuration; empty when there is none, or it may not be read. Throws error when it is no
// regular file, or far too long for one.
std::string read_config(const std::string& name);

// Of a file that was opened.
std::string config_text_of(const tools::opened_file& file);

// As a text: what is wrong with a file of the configuration.
std::optional<std::string> wrong_config(const std::string& name);

}  // namespace qnmctl
