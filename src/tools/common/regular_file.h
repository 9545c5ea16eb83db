// Whole files that a user names: configurations, scenarios, images.
//
// They are regular files of a bounded size, or reached by symbolic links that lead to one. Anything
// else is refused without waiting for it: a FIFO has no end, a device may never give one, and what
// is far too long is the wrong file.
#pragma once

#include <cstddef>
#include <string>
#include <variant>

namespace tools {

struct file_problem {
    bool wrong_file = false;  // it can be looked at, and is none of that kind or too long
    std::string text;         // "it is a FIFO, not a regular file", or what the system says
};

// The contents, or why there are none.
using file_contents = std::variant<std::string, file_problem>;

file_contents read_regular_file(const std::string& name, std::size_t limit);

// What a file is that is none: "a FIFO"; empty for a regular one.
std::string strange_kind(unsigned mode);

}  // namespace tools
