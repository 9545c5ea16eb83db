// The verb of the full-screen view.
#pragma once

#include "cli/command_line.h"

namespace qnmctl {

int run_top(context& with, const request& asked);

}  // namespace qnmctl
