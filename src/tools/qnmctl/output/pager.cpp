// Runs the pager with the text as its input and waits for it, and for signals.
#include "output/pager.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "common/descriptor.h"
#include "common/descriptor_writer.h"
#include "common/end_signals.h"
#include "common/visible.h"

namespace qnmctl {

namespace {

// less shows colours, ends at once if the text fits, and leaves it on the screen.
constexpr char less_options[] = "LESS=FRX";

bool is_longer_than_terminal(const std::string& text) {
    winsize size{};
    if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return false;
    const auto lines = std::count(text.begin(), text.end(), '\n');
    return size.ws_row != 0 && lines >= size.ws_row;
}

std::string wanted_pager() {
    const char* const pager = std::getenv("PAGER");
    const std::string_view wanted = pager == nullptr ? "less" : pager;
    return std::string(wanted == "cat" ? "" : wanted);
}

// Sets LESS, unless the user has.
std::vector<char*> environment_for_pager() {
    std::vector<char*> all;
    for (char** variable = environ; *variable != nullptr; ++variable)
        all.push_back(*variable);
    if (std::getenv("LESS") == nullptr) all.push_back(const_cast<char*>(less_options));
    all.push_back(nullptr);
    return all;
}

// Unblocks the signals that this process takes as input.
pid_t start_pager(const std::string& command, int input) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    const char* const words[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid = -1;
    const int code = posix_spawn(&pid, "/bin/sh", &actions, &attributes,
                                 const_cast<char* const*>(words), environment_for_pager().data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    return code == 0 ? pid : -1;
}

// A shell passes no signals on to what it runs, so its children get them first.
void send_to_pager(pid_t shell, int signal) {
    const std::string thread = std::to_string(shell);
    std::ifstream children("/proc/" + thread + "/task/" + thread + "/children");
    for (pid_t child = 0; children >> child;)
        kill(child, signal);
    kill(shell, signal);
}

// The terminal as it was before, also if the pager has no time to restore it.
void end_pager(pid_t pid, int process, const termios* before) {
    constexpr int patience_ms = 2000;
    pollfd ended{process, POLLIN, 0};
    send_to_pager(pid, SIGTERM);
    if (poll(&ended, 1, patience_ms) == 0) send_to_pager(pid, SIGKILL);
    if (before != nullptr) tcsetattr(STDOUT_FILENO, TCSANOW, before);
}

// Ctrl-C is for the pager, which gets it as well. Other signals end the pager.
int wait_for_pager(pid_t pid, int signals, const termios* before) {
    const tools::descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    while (process.fd >= 0 && !tools::wait_until_ready(process.fd, POLLIN, signals)) {
        const int number = tools::take_end_signal(signals);
        if (number == SIGINT) continue;
        end_pager(pid, process.fd, before);
        tools::return_end_signal(number);
        break;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// The exit statuses by which a shell says that a command is missing or cannot be run.
bool was_started(int status) {
    constexpr int not_runnable = 126;
    constexpr int not_found = 127;
    if (!WIFEXITED(status)) return true;
    return WEXITSTATUS(status) != not_runnable && WEXITSTATUS(status) != not_found;
}

}  // namespace

bool show_in_pager(const std::string& text, int signals) {
    if (!is_longer_than_terminal(text)) return false;
    const std::string command = wanted_pager();
    int ends[2];
    if (command.empty() || pipe2(ends, O_CLOEXEC) != 0) return false;
    termios before{};
    const bool is_known = tcgetattr(STDOUT_FILENO, &before) == 0;
    tools::descriptor read_end(ends[0]);
    tools::descriptor write_end(ends[1]);
    const pid_t pid = start_pager(command, read_end.fd);
    read_end = {};  // so that a pager that ends early is noticed
    if (pid > 0) tools::descriptor_writer(write_end.fd, signals).write(tools::visible(text));
    write_end = {};  // the pager waits for the end of its input
    return pid > 0 && was_started(wait_for_pager(pid, signals, is_known ? &before : nullptr));
}

}  // namespace qnmctl
