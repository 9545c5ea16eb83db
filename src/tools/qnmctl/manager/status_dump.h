// The manager's status dump as numbers.
#pragma once

#include <string>

#include "output/writer.h"

namespace qnmctl {

// Reads the text of a dump. What the dump does not have, for instance the results per call of one
// that is not verbose, is left out. Cards and configuration have commands of their own and are not
// read.
json status_dump_json(const std::string& text);

}  // namespace qnmctl
