// qnmctl, the operator's command: watches and queries Quillnet adapter cards through the library's
// public interface, as any host program does.
//
// Signals are blocked in every thread and read as input, so a command ends by returning, and what
// it has made is removed. Exit status: 0 success, 1 failure, 2 wrong usage.
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "text.h"
#include "verbs.h"

namespace {

// Before any thread is started, so that they all inherit it.
int open_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a reader that has gone shows as EPIPE
    const int fd = signalfd(-1, &ends, SFD_CLOEXEC);
    if (fd < 0) throw qnmctl::error(std::string("cannot wait for signals: ") + strerror(errno));
    return fd;
}

int run(const qnmctl::command_line& given, int signals) {
    qnmctl::installation where;
    qnmctl::install(given.global, where);
    qnmctl::output out(STDOUT_FILENO, signals);
    qnmctl::context with{.where = where,
                         .log_level = given.global.log_level,
                         .out = out,
                         .signals = signals,
                         .coloured = qnmctl::wants_colour(STDOUT_FILENO),
                         .manager = nullptr,
                         .known = {}};
    return given.asked.asked->run(with, given.asked);
}

}  // namespace

int main(int argc, char** argv) {
    const int signals = open_signals();
    const auto parsed = qnmctl::parse_command_line(qnmctl::verbs, argc, argv);
    if (const int* status = std::get_if<int>(&parsed)) return *status;
    try {
        return run(std::get<qnmctl::command_line>(parsed), signals);
    } catch (const qnmctl::usage_error& e) {
        std::fputs(qnmctl::message_text(e.what()).c_str(), stderr);
        return qnmctl::exit_usage;
    } catch (const std::exception& e) {
        std::fputs(qnmctl::message_text(e.what()).c_str(), stderr);
        return qnmctl::exit_failed;
    }
}
