// Puts words of unknown origin, for example from a file, into a line of our own.
//
// These functions keep the line a single, short line. What a terminal would obey is made visible
// elsewhere, in every text that is written.
#pragma once

#include <string>
#include <string_view>

namespace qnmctl {

// Cut if it is long. Newlines and tabs become visible as well.
std::string printable(std::string_view word);

std::string in_quotes(std::string_view word);  // likewise

}  // namespace qnmctl
