// Texts that --help and the manual page share, besides the commands and their options.
#pragma once

#include <span>
#include <string>

#include "cli/command.h"

namespace qnmctl {

inline constexpr char summary[] = "Watches, queries, changes and diagnoses Quillnet adapter cards";

// Of the command as a whole; a command's own stand with its definition.
std::span<const example> examples();

// Examples and exit statuses, at the end of the help.
std::string help_footer();

}  // namespace qnmctl
