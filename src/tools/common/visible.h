// Makes visible what a terminal would otherwise obey.
//
// Names, keys, values and log lines may come from anywhere. Every text passes through here once,
// where it leaves the program, so code that makes texts need not care. Control characters (C0, DEL
// and C1) and bytes that are not UTF-8 become \x1b and the like; the rest stays. Doing it twice
// changes nothing.
//
// Control sequences of the program's own are marked with a secret of this process, which nobody
// can have put into a file.
#pragma once

#include <string>
#include <string_view>

namespace tools {

// For lines: newlines and tabs stay.
std::string visible(std::string_view text);

// For a line or a word: newlines and tabs become visible as well.
std::string visible_line(std::string_view text);

// From here on own() marks its sequences. To be called before the first text and any thread.
void mark_own_sequences();

// Marks a control sequence of the program's own, such as "\033[1m", so that visible() lets it
// through. Without mark_own_sequences() it returns the sequence as it is, and visible() does not.
std::string own(std::string_view sequence);

}  // namespace tools
