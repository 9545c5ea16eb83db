// Findings as text and as JSON.
#pragma once

#include <string>

#include "doctor/doctor.h"
#include "output/output.h"
#include "output/writer.h"

namespace qnmctl {

// A line for each finding and one for its remedy, then how many there are.
std::string findings_text(const findings& all, const look& how);
json finding_json(const finding& verdict);
json summary_json(const findings& all);

}  // namespace qnmctl
