// Why a manager cannot start, in an operator's words and with the remedy.
//
// The library returns a code and writes the reason into its log. What can be checked from outside
// is checked directly: directory and files before a start, privilege and interfaces. The rest comes
// from the error lines of the log, quoted with the place that they are about.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "installation/installation.h"
#include "qnm.h"

namespace qnmctl {

// What would make any start fail, checked before it is tried.
std::optional<std::string> find_obstacle(const installation& where);

// Why an interface cannot be opened as a port; nothing when it seems usable.
std::optional<std::string> port_problem(const std::string& interface);

// The error and fatal lines of a log without time, level and the name of the function.
std::vector<std::string> error_lines(const std::string& log);

// Those of this run, as far as the log can be read.
std::vector<std::string> error_lines_of(const installation& running);

// The message for a start that ended with a code; `lines` are those of error_lines().
std::string failed_start_text(qnm_api_code_t code, const installation& where,
                              const std::vector<std::string>& lines);

}  // namespace qnmctl
