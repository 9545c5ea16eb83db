// The verbs that help to use the command: completion and the manual page.
#pragma once

#include "cli/command_line.h"
#include "manager/context.h"

namespace qnmctl {

int run_completion(context& with, const request& asked);
int run_complete(context& with, const request& asked);
int run_man_page(context& with, const request& asked);

}  // namespace qnmctl
