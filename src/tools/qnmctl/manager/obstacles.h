// What keeps a manager from starting, and what helps.
//
// The text of an obstacle follows the name of the directory, file or interface that it is about. A
// failed start and doctor use the same texts.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/regular_file.h"
#include "system/interfaces.h"
#include "system/privileges.h"

namespace qnmctl {

struct obstacle {
    std::string text;         // "is down, so it cannot be opened"
    std::string remedy = {};  // a sentence; empty: there is nothing to do
};

std::optional<obstacle> privilege_obstacle(const privileges& rights);

// Of the installation directory.
std::optional<obstacle> directory_obstacle(const std::filesystem::path& name);

// Of qnm.conf, which may be missing, and of qnm_log4c.properties, which may not. `problem` is the
// system's text for a file that cannot be read.
std::optional<obstacle> config_obstacle(tools::file_state state, const std::string& problem);
std::optional<obstacle> properties_obstacle(tools::file_state state, const std::string& problem);

// Of an interface as a port. `known` are the names of all interfaces.
std::optional<obstacle> interface_obstacle(const interface_state& state,
                                           const std::vector<std::string>& known);

}  // namespace qnmctl
