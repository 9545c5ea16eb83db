// What the terminal's description says.
#pragma once

namespace qnmctl {

// Whether the terminal of standard output, by TERM, is one whose cursor can be moved.
bool can_move_cursor();

}  // namespace qnmctl
