// Where the library's log lines go: what a properties file says, and what becomes of it.
#pragma once

#include "doctor.h"

namespace qnmctl {

// The files that the appenders of the library's loggers write to, each once, by the text of a
// properties file.
std::vector<std::string> log_files(const std::string& text);

void check_properties(const inspected& system, findings& found);
void check_logs(const inspected& system, findings& found);
void check_space(const inspected& system, findings& found);

}  // namespace qnmctl
