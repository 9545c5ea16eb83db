// qnmctl, the operator's command: watches and queries Quillnet adapter cards through the library's
// public interface, as any host program does.
//
// Signals are blocked in every thread and read as input, so a command ends by returning, and what
// it has made is removed.
#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "text.h"
#include "verbs.h"

namespace {

// A descriptor opened later would otherwise take the place of a standard file that is closed, and
// be written to as that.
void open_standard_files() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) < 0) _exit(qnmctl::exit_failed);
    }
}

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

int run(const qnmctl::command_line& given, qnmctl::writer& told, qnmctl::output& out, int signals) {
    qnmctl::installation where;
    qnmctl::install(given.global, where);
    qnmctl::context with{.where = where,
                         .log_level = given.global.log_level,
                         .out = out,
                         .told = told,
                         .signals = signals,
                         .how = qnmctl::look_of(STDOUT_FILENO),
                         .filter = {given.asked.cards, given.asked.events}};
    return given.asked.asked->run(with, given.asked);
}

// The exit status. What is told of a failure is a record, too, so the document ends behind it.
int run_and_tell(const qnmctl::command_line& given, int signals) {
    qnmctl::output out(STDOUT_FILENO, signals);
    qnmctl::writer told(out, given.asked.form, given.asked.asked->name);
    int status = qnmctl::exit_failed;
    try {
        status = run(given, told, out, signals);
    } catch (const qnmctl::error& e) {
        status = e.status;
        told.failure(e.what(), e.status, e.code);
    } catch (const std::exception& e) {
        told.failure(e.what(), status, std::nullopt);
    }
    told.end(status);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_files();
    const int signals = open_signals();
    const auto parsed = qnmctl::parse_command_line(qnmctl::verbs, argc, argv);
    if (const int* status = std::get_if<int>(&parsed)) return *status;
    try {
        return run_and_tell(std::get<qnmctl::command_line>(parsed), signals);
    } catch (const std::exception& e) {
        std::fputs(qnmctl::message_text(e.what()).c_str(), stderr);
        return qnmctl::exit_failed;
    }
}
