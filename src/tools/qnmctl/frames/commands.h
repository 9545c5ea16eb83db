// The commands about frames, which need no manager.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_capture(command_tree& tree);
void define_decode(command_tree& tree);

}  // namespace qnmctl
