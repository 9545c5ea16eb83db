// The verb that needs no manager to run, because it tells why one might not.
#pragma once

#include "manager/context.h"

namespace qnmctl {

int run_doctor(context& with, const request& asked);

}  // namespace qnmctl
