// Texts that --help and the manual page share, besides the commands and their options.
#pragma once

#include <span>
#include <string>

namespace qnmctl {

inline constexpr char summary[] = "Watches, queries, changes and diagnoses Quillnet adapter cards";

struct example {
    const char* command;
    const char* meaning;
};

std::span<const example> examples();

// Examples and exit statuses, at the end of the help.
std::string help_footer();

}  // namespace qnmctl
