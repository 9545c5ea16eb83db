// The command that needs no manager to run, because it tells why one might not.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_doctor(command_tree& tree);

}  // namespace qnmctl
