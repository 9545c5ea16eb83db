// The command of the full-screen view.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_top(command_tree& tree);

}  // namespace qnmctl
