// All commands of qnmctl.
#pragma once

#include "cli/command.h"

namespace qnmctl {

// In the order in which help shows them. A new command is one line here.
void define_all_commands(command_tree& tree);

}  // namespace qnmctl
