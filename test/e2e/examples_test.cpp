// examples_test.cpp - the example host programs around an event loop: what they report, and how
// they end.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <ostream>
#include <string>

#include "rig.h"

namespace e2e {
namespace {

struct example_row {
    const char* name;
    const char* program;
    const char* learnt;  // lines about a QNSV card that is heard on both ports
    const char* lost;    // ... and then on port 1 only
};

// A program whose standard output and error go to one file. Killed if it is still there at the end.
class program {
  public:
    program(const std::string& path, const std::string& dir) : output_(dir + "/output") {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        std::string words[] = {path, dir};
        char* argv[] = {words[0].data(), words[1].data(), nullptr};
        if (posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv, environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~program() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    std::string output() const {
        std::ifstream file(output_);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    bool prints(const std::string& line) const {
        return wait_for(
            [&] { return ("\n" + output()).find("\n" + line + "\n") != std::string::npos; });
    }

    // Until SIGINT is blocked, that is, does not just kill it.
    void wait_for_signals() const {
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

    void send(int signal) const { kill(pid_, signal); }

    // The exit status, or -1 when it has not ended by exit() within the limit.
    int wait() {
        int status = 0;
        if (!wait_for([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    std::string output_;
    pid_t pid_ = -1;
};

// Names the row in the list of tests.
void PrintTo(const example_row& row, std::ostream* out) {
    *out << row.name;
}

struct examples : testing::TestWithParam<example_row> {};

INSTANTIATE_TEST_SUITE_P(host, examples,
                         testing::Values(example_row{"watch_loop_c", WATCH_LOOP_EXAMPLE,
                                                     "0x020000001000 channel qnsv CDCD",
                                                     "0x020000001000 channel qnsv DDCD"},
                                         example_row{"event_loop_cpp", EVENT_LOOP_EXAMPLE,
                                                     "0x020000001000 qnsv vlan 1 CDCD",
                                                     "0x020000001000 qnsv vlan 1 DDCD"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(examples, reports_what_becomes_of_a_card_until_a_signal_comes) {
    const cables wires;
    const installation install(k_two_ports);
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    cards->start();
    program host(GetParam().program, install.path());
    EXPECT_TRUE(host.prints(GetParam().learnt)) << host.output() << install.log();
    cards->silence(k_id, 0, 0);
    EXPECT_TRUE(host.prints(GetParam().lost)) << host.output() << install.log();
    host.send(SIGTERM);
    EXPECT_EQ(host.wait(), 0) << host.output();
}

TEST_P(examples, ends_cleanly_while_it_starts) {
    const cables wires;
    const installation install(k_two_ports);
    program host(GetParam().program, install.path());
    host.wait_for_signals();
    host.send(SIGINT);
    EXPECT_EQ(host.wait(), 0) << host.output();
}

TEST_P(examples, ends_with_a_failure_when_the_manager_cannot_start) {
    const installation install("ether_port = absent0\n");
    program host(GetParam().program, install.path());
    EXPECT_EQ(host.wait(), 1);
    EXPECT_THAT(host.output(), testing::HasSubstr("the manager ended with code 6"));
}

}  // namespace
}  // namespace e2e
