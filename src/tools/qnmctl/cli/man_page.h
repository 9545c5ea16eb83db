// The manual page qnmctl(1), made from the definitions of the commands.
#pragma once

#include <string>

#include "cli/command.h"

namespace qnmctl {

// From a tree for the command line and one for lines.
std::string man_page(const command_tree& tree, const command_tree& lines_tree);

}  // namespace qnmctl
