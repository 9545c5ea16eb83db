// A descriptor that, like a signalfd, is readable when a signal has come.
#pragma once

#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdlib>

struct signal_pipe {
    signal_pipe() {
        if (pipe(ends) != 0) std::abort();
    }
    ~signal_pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    signal_pipe(const signal_pipe&) = delete;
    signal_pipe& operator=(const signal_pipe&) = delete;

    int fd() const { return ends[0]; }
    void raise(int number) const {
        signalfd_siginfo info{};
        info.ssi_signo = static_cast<unsigned>(number);
        if (write(ends[1], &info, sizeof info) != sizeof info) std::abort();
    }

    int ends[2];
};
