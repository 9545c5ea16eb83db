// program.cpp - a program that a test starts, watches and ends.

#include "program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "rig.h"

namespace e2e {

program::program(std::vector<std::string> words, const std::string& dir)
    : output_(dir + "/output") {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
}

program::~program() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::string program::output() const {
    std::ifstream file(output_);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool program::prints(const std::string& line) const {
    return wait_for(
        [&] { return ("\n" + output()).find("\n" + line + "\n") != std::string::npos; });
}

void program::wait_for_signals() const {
    const std::string path = "/proc/" + std::to_string(pid_) + "/status";
    EXPECT_TRUE(wait_for([&] {
        std::ifstream file(path);
        std::string word;
        while (file >> word && word != "SigBlk:")
            continue;
        uint64_t blocked = 0;
        file >> std::hex >> blocked;
        return (blocked >> (SIGINT - 1) & 1) != 0;
    }));
}

void program::send(int signal) const {
    kill(pid_, signal);
}

int program::wait() {
    int status = 0;
    if (!wait_for([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace e2e
