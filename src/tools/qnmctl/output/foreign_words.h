// Words of unknown origin, from files that somebody else has written, within lines of our own.
//
// What a terminal would obey is made visible in every text that is written, so that is not what
// they are for: they keep a line one line, and short.
#pragma once

#include <string>
#include <string_view>

namespace qnmctl {

// Cut where it is long, and one line: ends of lines and tabs are visible, too.
std::string printable(std::string_view word);

std::string in_quotes(std::string_view word);  // likewise

}  // namespace qnmctl
