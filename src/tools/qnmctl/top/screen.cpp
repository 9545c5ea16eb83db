// All use of ncurses.
//
// It handles no signals: SIGWINCH, Ctrl-Z and those that end the program are blocked and arrive as
// input, so no handler of ncurses runs.
#include "top/screen.h"

#define NCURSES_NOMACROS
#include <ncurses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <limits>

#include "output/text.h"
#include "top/stuck.h"
#include "top/terminal.h"

namespace qnmctl {

namespace {

struct style_row {
    attr_t attributes;
    attr_t without_colours;
    short foreground;  // -1: the terminal's own
};

// Indexed by top_style; the pair of colours of each has the number behind it.
constexpr style_row styles[] = {
    {A_NORMAL, A_NORMAL, -1},           {A_BOLD, A_BOLD, -1},
    {A_REVERSE, A_REVERSE, -1},         {A_REVERSE | A_BOLD, A_REVERSE | A_BOLD, COLOR_CYAN},
    {A_NORMAL, A_NORMAL, COLOR_YELLOW}, {A_NORMAL, A_BOLD, COLOR_RED},
};
static_assert(std::size(styles) == static_cast<std::size_t>(top_style::alarm) + 1);

constexpr int ctrl_h = 8;
constexpr int ctrl_l = 12;
constexpr int ctrl_u = 21;
constexpr int escape = 27;
constexpr int del = 127;

struct key_pair {
    int theirs;
    int ours;
};

constexpr key_pair keys[] = {
    {KEY_UP, key_up},
    {KEY_DOWN, key_down},
    {KEY_PPAGE, key_page_up},
    {KEY_NPAGE, key_page_down},
    {KEY_HOME, key_home},
    {KEY_END, key_end},
    {KEY_ENTER, key_enter},
    {'\n', key_enter},
    {'\r', key_enter},
    {escape, key_escape},
    {KEY_BACKSPACE, key_backspace},
    {ctrl_h, key_backspace},
    {del, key_backspace},
    {ctrl_u, key_clear},
};

int key_of(int theirs) {
    const auto found = std::find_if(std::begin(keys), std::end(keys),
                                    [&](const key_pair& pair) { return pair.theirs == theirs; });
    if (found != std::end(keys)) return found->ours;
    return theirs >= ' ' && theirs <= '~' ? theirs : 0;
}

// The largest screen that is used. ncurses keeps a cell for each character in several buffers (some
// 85 MB at this size), and beyond 32,767 its counts overflow, so a terminal that claims more would
// take all memory or end the view. Of a larger screen the upper left part is used.
constexpr unsigned short largest_side = 1000;

// Parses a size as ncurses does, which also accepts "+80", " 80", octal and hexadecimal; 0 if
// ncurses would ignore it.
int side_of_environment(const char* name) {
    const char* const text = std::getenv(name);
    if (text == nullptr) return 0;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 0);
    if (*end != '\0' || value < 0 || value > std::numeric_limits<int>::max()) return 0;
    return static_cast<int>(value);
}

// A size in the environment takes precedence over that of the terminal.
void limit_side(const char* name, unsigned short heard) {
    const int chosen = side_of_environment(name);
    if ((chosen > 0 ? chosen : heard) > largest_side)
        setenv(name, std::to_string(largest_side).c_str(), 1);
}

}  // namespace

std::optional<std::string> screen_problem() {
    constexpr char instead[] =
        "\n\"list\" shows the cards once, \"watch\" tells events as they come; both need none.";
    if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
        return std::string("top needs a terminal for its input and its output") + instead;
    }
    if (can_move_cursor()) return std::nullopt;
    const char* const term = std::getenv("TERM");
    return "top needs a terminal with a cursor that can be moved, and TERM is " +
           (term == nullptr ? "not set" : '"' + std::string(term) + '"') + instead;
}

void limit_screen() {
    winsize now{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &now);  // 0 by 0 where it has none
    limit_side("LINES", now.ws_row);
    limit_side("COLUMNS", now.ws_col);
}

top_screen::top_screen(bool coloured) : own_(newterm(nullptr, stdout, stdin)) {
    if (own_ == nullptr) throw error("cannot use the terminal as a screen");
    cbreak();
    noecho();
    nonl();
    curs_set(0);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(50);  // milliseconds in which the rest of a key's sequence comes
    coloured_ = coloured && has_colors() && start_color() == OK && use_default_colors() == OK;
    for (std::size_t at = 0; coloured_ && at < std::size(styles); ++at)
        init_pair(static_cast<short>(at + 1), styles[at].foreground, -1);
}

top_screen::~top_screen() {
    if (!left_ && !is_in_background()) endwin();
    delscreen(own_);
}

top_size top_screen::size() const {
    return {static_cast<std::size_t>(getmaxx(stdscr)), static_cast<std::size_t>(getmaxy(stdscr))};
}

void top_screen::draw(const std::vector<top_line>& lines) {
    erase();
    int row = 0;
    for (const top_line& line : lines) {
        const auto style = static_cast<std::size_t>(line.style);
        mvaddstr(row, 0, line.text.c_str());
        mvchgat(row, 0, -1, coloured_ ? styles[style].attributes : styles[style].without_colours,
                static_cast<short>(coloured_ ? style + 1 : 0), nullptr);
        ++row;
    }
    refresh();
    left_ = false;
}

// Also when a shell has taken the terminal already, as it does when the script stops first that
// has started this: then the change of the mode would stop it by SIGTTOU, half done.
void top_screen::leave() {
    sigset_t in_background;
    sigset_t before;
    sigemptyset(&in_background);
    sigaddset(&in_background, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &in_background, &before);
    endwin();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    left_ = true;
}

// The size may have changed while a shell had the terminal; no signal came for that. If the screen
// was left in order, ncurses restores the terminal's mode and contents itself; otherwise another
// program has changed the mode.
void top_screen::resume() {
    if (!left_) reset_prog_mode();
    clearok(curscr, TRUE);
    resize();
}

void top_screen::resize() {
    winsize now{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &now) != 0 || now.ws_row == 0 || now.ws_col == 0) return;
    resizeterm(std::min(now.ws_row, largest_side), std::min(now.ws_col, largest_side));
}

std::optional<int> top_screen::key() {
    const int theirs = getch();
    if (theirs == ERR) return std::nullopt;
    if (theirs == ctrl_l) clearok(curscr, TRUE);
    return key_of(theirs);
}

}  // namespace qnmctl
