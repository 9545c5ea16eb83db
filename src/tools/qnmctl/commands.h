// All commands of qnmctl.
#pragma once

#include "cli/command.h"

namespace qnmctl {

// In the order of the help. A new command is one more line.
void define_all_commands(command_tree& tree);

}  // namespace qnmctl
