// The verbs of the command, in one table that parsing, help and dispatch are fed from.
#pragma once

#include <span>

#include "cli/command_line.h"

namespace qnmctl {

extern const std::span<const verb> verbs;

}  // namespace qnmctl
