// What the library will make of a qnm.conf, line by line.
#pragma once

#include "doctor/finding.h"
#include "doctor/system.h"

namespace qnmctl {

// The file as a whole.
void check_config_file(const inspected& system, findings& found);

// Its lines, those that are right as well.
void check_config_lines(const inspected& system, findings& found);

}  // namespace qnmctl
