// The verb that makes a report for a support case.
#pragma once

#include "cli/command_line.h"
#include "manager/context.h"

namespace qnmctl {

int run_report(context& with, const request& asked);

}  // namespace qnmctl
