// The verbs that help to use the command: completion and the manual page.
#pragma once

#include "command_line.h"
#include "verbs.h"

namespace qnmctl {

int run_completion(context& with, const request& asked);
int run_complete(context& with, const request& asked);
int run_man_page(context& with, const request& asked);

}  // namespace qnmctl
