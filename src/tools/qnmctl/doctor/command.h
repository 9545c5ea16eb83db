// The command that finds out why a manager might not run; it starts none itself.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_doctor(command_tree& tree);

}  // namespace qnmctl
