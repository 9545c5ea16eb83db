// The manual page qnmctl(1), made from the tables of verbs and options.
#pragma once

#include <span>
#include <string>

#include "cli/command_line.h"

namespace qnmctl {

std::string man_page(std::span<const verb> verbs);

}  // namespace qnmctl
