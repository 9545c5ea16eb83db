// The command that makes a report for a support case.
#pragma once

#include "cli/command.h"

namespace qnmctl {

void define_report(command_tree& tree);

}  // namespace qnmctl
