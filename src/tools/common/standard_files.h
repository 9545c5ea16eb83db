// Standard input, output and error.
#pragma once

#include <string_view>

namespace tools {

// The exit status when only writing to standard output has failed.
inline constexpr int exit_output = 4;

// Opens those that are closed, because a file that is opened later would otherwise take their
// place and get what is written to them. A closed standard output remains one that cannot be
// written. False: no descriptor is left.
bool open_standard_files();

// Writes a text to standard error, made visible; from any thread. What cannot be written is lost.
void tell(std::string_view text);

// The same, after a control sequence for a terminal.
void tell(std::string_view sequence, std::string_view text);

// A whole text to standard output, for programs that write nothing else there. The exit status,
// `signalled` when a signal ended it; `program` begins the message when it failed.
int print(std::string_view text, std::string_view program, int signalled);

}  // namespace tools
