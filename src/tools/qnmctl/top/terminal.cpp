// In a file of its own, because <term.h> defines macros such as lines and key_up.
#include "top/terminal.h"

#include <curses.h>
#include <term.h>
#include <unistd.h>

namespace qnmctl {

bool can_move_cursor() {
    int status = 0;  // asked for, so that no message is printed
    if (setupterm(nullptr, STDOUT_FILENO, &status) != OK) return false;
    const char* const move_cursor = tigetstr("cup");
    const bool can = move_cursor != nullptr && move_cursor != reinterpret_cast<char*>(-1);
    del_curterm(cur_term);
    return can;
}

}  // namespace qnmctl
