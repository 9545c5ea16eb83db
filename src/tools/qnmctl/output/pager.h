// Shows a text that is longer than the terminal in the user's pager.
#pragma once

#include <string>

namespace qnmctl {

// Returns when the pager has ended. It is ended as soon as `signals` becomes readable.
// False when the text should be written as usual: standard output is not a terminal or the text
// fits, $PAGER is empty or "cat", or the pager cannot be started. Without $PAGER, less is used.
bool show_in_pager(const std::string& text, int signals);

}  // namespace qnmctl
