// Ends the full-screen view even if the terminal accepts no output, for instance after Ctrl-S.
//
// ncurses writes to a blocking descriptor and retries after each signal. So a signal that is to end
// the view would also wait for the terminal.
#pragma once

#include <pthread.h>
#include <termios.h>

#include <thread>

#include "common/wake_event.h"

namespace qnmctl {

// Whether a shell has the terminal, in a mode of its own. Whoever changes the mode then is stopped.
bool is_in_background();

// While it is there, a signal ends what this thread writes to standard output: when the view has
// not ended soon after it, /dev/null takes the terminal's place. At the end the terminal is set as
// it was before.
class stuck_terminal {
  public:
    explicit stuck_terminal(int signals);  // throws error
    ~stuck_terminal();
    stuck_terminal(const stuck_terminal&) = delete;
    stuck_terminal& operator=(const stuck_terminal&) = delete;

  private:
    void watch() const;

    int signals_;
    tools::wake_event done_;
    pthread_t writer_;
    termios before_ = {};  // in front of what fills it
    bool is_terminal_;
    std::thread thread_;
};

}  // namespace qnmctl
