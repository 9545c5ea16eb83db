// The terminal as a screen of lines, by ncurses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "top/layout.h"

struct screen;  // of ncurses

namespace qnmctl {

// Why standard input and output cannot be used as a screen; nothing if they can.
std::optional<std::string> screen_problem();

// Keeps the screen that is made next from a size that no terminal has. To be called before any
// thread is started, since ncurses takes it from the environment.
void limit_screen();

// Restores the terminal at its end, unless a shell has taken it. Only one exists at a time, used by
// one thread.
class top_screen {
  public:
    explicit top_screen(bool coloured);
    ~top_screen();
    top_screen(const top_screen&) = delete;
    top_screen& operator=(const top_screen&) = delete;

    top_size size() const;
    void draw(const std::vector<top_line>& lines);  // sends what has changed
    void leave();                                   // gives the terminal back until the next draw()
    void resume();  // the process has been continued: the next draw() sends everything
    void resize();  // the terminal has another size

    // A key that has been pressed, as the model takes it, 0 for one that means nothing to it;
    // nothing when there is none. Ctrl-L has the whole screen sent again.
    std::optional<int> key();

  private:
    ::screen* own_;
    bool coloured_;
    bool left_ = false;
};

}  // namespace qnmctl
