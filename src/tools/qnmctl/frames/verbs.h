// The verbs about frames, which need no manager.
#pragma once

#include "manager/context.h"

namespace qnmctl {

int run_capture(context& with, const request& asked);
int run_decode(context& with, const request& asked);

}  // namespace qnmctl
