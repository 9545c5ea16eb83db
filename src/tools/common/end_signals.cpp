// Reads signals from a signalfd and waits with poll().
#include "common/end_signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace tools {

namespace {

int opened = -1;

}  // namespace

int open_end_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a write then fails with EPIPE
    std::signal(SIGXFSZ, SIG_IGN);  // a write then fails with EFBIG
    opened = signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
    return opened;
}

int end_signals() {
    return opened;
}

bool is_end_signalled(int signals) {
    pollfd waited{signals, POLLIN, 0};
    return poll(&waited, 1, 0) > 0;
}

int take_end_signal(int signals) {
    signalfd_siginfo taken{};
    const ssize_t length = read(signals, &taken, sizeof taken);
    return length == sizeof taken ? static_cast<int>(taken.ssi_signo) : 0;
}

// Sent to the process, where it is blocked, so it stays pending until it is read again.
void return_end_signal(int number) {
    if (number != 0) kill(getpid(), number);
}

bool wait_until_ready(int fd, short events, int signals) {
    pollfd waited[] = {{fd, events, 0}, {signals, POLLIN, 0}};
    while (poll(waited, 2, -1) < 0) {
        // poll() itself has failed. The caller's next call blocks or tells what is wrong.
        if (errno != EINTR) return true;
    }
    return waited[0].revents != 0;
}

}  // namespace tools
