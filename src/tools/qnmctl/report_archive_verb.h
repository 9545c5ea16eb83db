// The verb that makes a report for a support case.
#pragma once

#include "command_line.h"
#include "verbs.h"

namespace qnmctl {

int run_report(context& with, const request& asked);

}  // namespace qnmctl
