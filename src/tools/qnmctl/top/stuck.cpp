// Runs a thread that waits for the signal, and then for the end of the view.
#include "top/stuck.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "common/end_signals.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr int interrupting = SIGUSR1;  // a call under way returns; nothing else
constexpr int patience_milliseconds = 3000;
constexpr int pause_milliseconds = 100;

extern "C" void do_nothing(int) {}

// Waits for the event; returns whether it came in time.
bool comes(const tools::wake_event& event, int milliseconds) {
    pollfd waited{event.fd(), POLLIN, 0};
    return poll(&waited, 1, milliseconds) > 0;
}

}  // namespace

bool is_in_background() {
    const pid_t foreground = tcgetpgrp(STDIN_FILENO);
    return foreground != -1 && foreground != getpgrp();
}

stuck_terminal::stuck_terminal(int signals)
    : signals_(signals),
      writer_(pthread_self()),
      is_terminal_(tcgetattr(STDIN_FILENO, &before_) == 0) {
    struct sigaction action {};
    action.sa_handler = do_nothing;  // without SA_RESTART
    sigaction(interrupting, &action, nullptr);
    thread_ = std::thread([this] { watch(); });
}

stuck_terminal::~stuck_terminal() {
    done_.set();
    thread_.join();
    if (is_terminal_ && !is_in_background()) tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void stuck_terminal::watch() const {
    if (tools::wait_until_ready(done_.fd(), POLLIN, signals_)) return;
    if (comes(done_, patience_milliseconds)) return;
    const tools::descriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (nowhere.fd < 0) return;
    dup2(nowhere.fd, STDOUT_FILENO);
    // What is written already began with the terminal, so it has to begin anew.
    do
        pthread_kill(writer_, interrupting);
    while (!comes(done_, pause_milliseconds));
}

}  // namespace qnmctl
