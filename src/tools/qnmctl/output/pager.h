// The reader's pager, for a text that is longer than the terminal.
#pragma once

#include <string>

namespace qnmctl {

// Returns when the pager has ended, or was told to by a signal; `signals` becomes readable then.
// False when the text is to be written as usual: standard output is no terminal or is long enough,
// $PAGER is empty or "cat", or the pager cannot be started. Without $PAGER it is less.
bool show_in_pager(const std::string& text, int signals);

}  // namespace qnmctl
