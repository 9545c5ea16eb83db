// The three files that a program begins with.
#pragma once

#include <string_view>

namespace tools {

// The exit status of both programs when standard output could not be written and nothing else has
// failed.
inline constexpr int exit_output = 4;

// A descriptor that is opened later would otherwise take the place of one that is closed, and be
// written to as that. Standard output stays one that cannot be written. False: there is no place.
bool open_standard_files();

// Texts to standard error, made visible; from any thread. What it does not take is lost: there is
// nobody else to tell it to.
void tell(std::string_view text);

// The same behind a sequence of the program's own, for a terminal.
void tell(std::string_view sequence, std::string_view text);

// A whole text to standard output, for programs that write nothing else there. The exit status,
// `signalled` when a signal ended it; `program` begins the message when it failed.
int print(std::string_view text, std::string_view program, int signalled);

}  // namespace tools
