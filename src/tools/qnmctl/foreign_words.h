// Words of unknown origin: from files that somebody else has written.
#pragma once

#include <string>
#include <string_view>

namespace qnmctl {

// Cut where it is long, and without anything that a terminal would obey.
std::string printable(std::string_view word);

std::string in_quotes(std::string_view word);  // likewise

}  // namespace qnmctl
