// Commands about qnmctl itself: completion, manual page, and the help for lines.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_help_commands(command_tree& tree);

}  // namespace qnmctl
