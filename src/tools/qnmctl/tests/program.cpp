// Programs started, watched and ended.
#include "tests/program.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "installation/config_file.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds limit(60);

int checked(int result) {
    if (result < 0) {
        perror("a test's program");
        std::abort();
    }
    return result;
}

}  // namespace

words invocation(const words& arguments) {
    words all = {QNMCTL_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

program::program(words command, standard_files files) {
    if (files == standard_files::terminal) {
        open_terminal();
    } else {
        open_pipes(files);
    }
    pid_ = checked(fork());
    if (pid_ == 0) become(std::move(command));
    for (int& fd : theirs_)
        close_end(fd);
}

program::~program() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close_input();
    close_output();
}

void program::open_pipes(standard_files files) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    checked(pipe2(in.data(), O_CLOEXEC));
    checked(files == standard_files::socket
                ? socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, out.data())
                : pipe2(out.data(), O_CLOEXEC));
    theirs_[STDIN_FILENO] = in[0];
    theirs_[STDOUT_FILENO] = out[1];
    theirs_[STDERR_FILENO] =
        checked(open((dir_.path() / "errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    in_ = in[1];
    out_ = out[0];
}

void program::open_terminal() {
    out_ = checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    checked(grantpt(out_));
    checked(unlockpt(out_));
    in_ = checked(fcntl(out_, F_DUPFD_CLOEXEC, 0));
    for (int& fd : theirs_)
        fd = checked(open(ptsname(out_), O_RDWR | O_NOCTTY | O_CLOEXEC));
}

void program::become(words command) const {
    for (int fd = 0; fd < 3; ++fd)
        dup2(theirs_[fd], fd);
    setenv("TMPDIR", dir_.path().c_str(), 1);
    setenv("XDG_STATE_HOME", dir_.path().c_str(), 1);
    std::vector<char*> arguments;
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

void program::say(const std::string& line) const {
    const std::string text = line + '\n';
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(in_, text.data(), text.size()));
}

void program::signal(int number) const {
    kill(pid_, number);
}

const std::string& program::read_until(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (seen_.find(text) == std::string::npos && read_some(deadline)) {
    }
    return seen_;
}

const std::string& program::read_all() {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (read_some(deadline)) {
    }
    return seen_;
}

int program::end() {
    if (out_ >= 0) read_all();
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string program::errors() const {
    return read_text(dir_.path() / "errors");
}

// Besides its errors and the empty folder of the command's state. The thread sanitizer creates a
// file of its own for a moment, before main() is entered.
bool program::left_something() const {
    const auto is_expected = [](const std::string& name) {
        return name == "errors" || name == "qnmctl" || name.starts_with("tsan.");
    };
    return !std::ranges::all_of(
        fs::recursive_directory_iterator(dir_.path()),
        [&](const auto& entry) { return is_expected(entry.path().filename()); });
}

// A terminal whose program has gone reads as an error.
bool program::read_some(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waited{out_, POLLIN, 0};
    if (left.count() <= 0 || poll(&waited, 1, static_cast<int>(left.count())) <= 0) {
        ADD_FAILURE() << "nothing more after: " << seen_;
        kill(pid_, SIGKILL);
        return false;
    }
    char chunk[4096];
    const ssize_t length = read(out_, chunk, sizeof chunk);
    if (length > 0) seen_.append(chunk, static_cast<std::size_t>(length));
    return length > 0;
}

void program::close_end(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

void NamespaceTest::SetUp() {
    constexpr int no_namespace = 125;
    program probe({QNM_IN_NETNS, "true"});
    const int status = probe.end();
    if (status == no_namespace) GTEST_SKIP() << probe.errors();
    ASSERT_EQ(0, status) << probe.errors();
}

}  // namespace qnmctl
