// The commands that help to use the command: completion, manual page, and the help of lines.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_help_commands(command_tree& tree);

}  // namespace qnmctl
