// clock_test.cpp - a host program that does not run for a while.
//
// The machine's clock cannot be set here, nor in a namespace. test_keepalive and the model check
// with a clock of their own what happens to cards when it is set.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "rig.h"

namespace e2e {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr uint64_t k_dead = k_id + 2;
constexpr std::chrono::seconds k_expire_time{6};

// The host program of the examples, in a process of its own; it ends with its standard input.
class host_process {
  public:
    explicit host_process(const std::string& dir) {
        int input[2];
        if (pipe2(input, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        input_ = input[1];
        pid_ = fork();
        if (pid_ == 0) {
            dup2(input[0], STDIN_FILENO);
            dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
            execl(HOST_EXAMPLE, HOST_EXAMPLE, dir.c_str(), nullptr);
            _exit(127);
        }
        close(input[0]);
    }

    ~host_process() {
        signal(SIGCONT);
        close(input_);
        int status = -1;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        EXPECT_EQ(status, 0);
    }

    host_process(const host_process&) = delete;
    host_process& operator=(const host_process&) = delete;

    void signal(int number) const { EXPECT_EQ(kill(pid_, number), 0); }

  private:
    pid_t pid_ = -1;
    int input_ = -1;
};

size_t occurrences(const std::string& log, const std::string& text) {
    size_t found = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        found++;
    return found;
}

std::string line_of(uint64_t id, const char* change) {
    char text[64];
    snprintf(text, sizeof text, "id=0x%.12lx%s", id, change);
    return text;
}

TEST(clock, a_process_that_was_stopped_hears_its_cards_before_it_judges_them) {
    const cables wires;
    const installation install("ether_port = qnm0,qnm1\nlog_level = 5\ndevinfo_expire_time = " +
                               std::to_string(std::chrono::milliseconds(k_expire_time).count()) +
                               "\n");
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    cards->add(lively(card_kind::qnio, card_speed::g1_10, k_dead));
    cards->start();
    const host_process host(install.path());
    const auto has = [&](const std::string& text) {
        return install.log().find(text) != std::string::npos;
    };
    for (const uint64_t id : {k_id, k_dead}) {
        ASSERT_TRUE(wait_for([&] { return has("information is added. " + line_of(id, "")); }))
            << id;
    }

    // A stopped process hears nothing, and nothing is kept for it.
    cards->remove(k_id);
    cards->remove(k_dead);
    host.signal(SIGSTOP);
    std::this_thread::sleep_for(k_expire_time + std::chrono::seconds(1));
    const std::string check = "DEVINFO interval check end";
    const size_t checks = occurrences(install.log(), check);
    host.signal(SIGCONT);
    ASSERT_TRUE(wait_for([&] { return occurrences(install.log(), check) >= checks + 2; }));
    EXPECT_THAT(install.log(), HasSubstr("_qnm_interval_check: Has not run for "));
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));

    EXPECT_TRUE(wait_for([&] { return has(line_of(k_dead, " state change to disconnect")); }));
    EXPECT_THAT(install.log(), Not(HasSubstr(line_of(k_id, " state change to disconnect"))));
}

}  // namespace
}  // namespace e2e
