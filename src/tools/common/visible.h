// Texts on their way to a terminal or into a line: what a terminal would obey is made visible.
//
// Names, keys, values and log lines come from others. Every text passes here once, where it leaves
// the program, so no place that makes texts has to think of it. Control characters, C0 with DEL and
// C1, and bytes that are no UTF-8 become \x1b; the rest stays. To do it twice changes nothing.
//
// What the program itself tells a terminal is marked by a secret of this process, which nobody can
// have put into a file.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// Of lines: their ends and tabs stay.
std::string visible(std::string_view text);

// Of one line, or of a word in it: ends and tabs become visible, too.
std::string visible_line(std::string_view text);

// From now on own() marks. Before the first text, and before any thread.
void mark_own_sequences();

// A sequence of the program's own, "\033[1m", as visible() lets it through. It is as given when no
// marks are made, and then none gets through.
std::string own(std::string_view sequence);

}  // namespace tools
