// exclusion_test.cpp - processes that share an interface: one at a time accesses cards, all may
// listen.
//
// The other host is a process that is made before this one has threads. It obeys commands on a
// socket, one byte for a command and one for its answer.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "rig.h"

namespace e2e {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr qnm_retry_t k_patient = {20, 500};
constexpr uint32_t k_own = 0x1000, k_others = 0x2000;  // registers

enum command : char {
    start = 's',       // a manager, and wait until both ports have heard the card
    read_one = 'r',    // answers the result
    read_many = 'm',   // answers how many values were wrong; ends with a failure
    fork_child = 'f',  // which stays
    use_up = 'u',      // descriptors: there are no more for this process
    stop = 'x',
};

// All processes then take the same port, the first one.
bool is_heard_by_both() {
    return paths(k_id) == "CDCD";
}

char read_register(uint32_t address, uint32_t* data) {
    return static_cast<char>(qnm_read_register(k_id, address, data, &k_patient, 0));
}

// Reads while there are values; returns the number of wrong ones.
char count_wrong(uint32_t address, uint32_t right) {
    char wrong = 0;
    for (int n = 0; n < 5000; n++) {
        uint32_t data = 0;
        if (read_register(address, &data) != QNM_API_SUCCESS) return wrong;
        if (data != right && wrong < 100) wrong++;
    }
    return wrong;
}

// The lowest descriptor that no process with standard streams uses.
char use_up_descriptors() {
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return -1;
    return dup(0) == -1 ? 0 : -1;
}

[[noreturn]] void run_child() {
    for (;;)
        pause();
}

class host_process {
  public:
    host_process(const std::string& ports) : install(ports) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
        pid_ = fork();
        if (pid_ == 0) obey();
        close(ends_[1]);
    }
    ~host_process() {
        close(ends_[0]);
        if (pid_ != -1) waitpid(pid_, nullptr, 0);
    }
    host_process(const host_process&) = delete;
    host_process& operator=(const host_process&) = delete;

    int tell(command what) {
        char answer = -1;
        const char byte = what;
        if (write(ends_[0], &byte, 1) != 1 || read(ends_[0], &answer, 1) != 1) return -1;
        return answer;
    }
    // For an answer that is read later.
    void send(command what) { EXPECT_EQ(write(ends_[0], &what, 1), 1); }
    int answer() {
        char byte = -1;
        return read(ends_[0], &byte, 1) == 1 ? byte : -1;
    }

    void die() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    pid_t pid() const { return pid_; }

    installation install;

  private:
    [[noreturn]] void obey() {
        close(ends_[0]);
        std::unique_ptr<manager> host;
        pid_t child = -1;
        char what = 0;
        while (read(ends_[1], &what, 1) == 1) {
            uint32_t data = 0;
            char answer = 0;
            switch (what) {
                case start:
                    host = std::make_unique<manager>(install.path());
                    answer = host->is_running() && wait_for(is_heard_by_both);
                    break;
                case read_one:
                    answer = read_register(k_others, &data);
                    break;
                case read_many:
                    answer = count_wrong(k_others, k_others);
                    break;
                case fork_child:
                    child = fork();
                    if (child == 0) run_child();
                    break;
                case use_up:
                    answer = use_up_descriptors();
                    break;
                case stop:
                    answer = static_cast<char>(host->stop());
                    break;
            }
            if (write(ends_[1], &answer, 1) != 1) break;
        }
        host.reset();
        if (child != -1) kill(child, SIGKILL);
        _exit(0);
    }

    int ends_[2];
    pid_t pid_ = -1;
};

class squatter;

struct exclusion : testing::Test {
    cables wires;
    installation install{k_two_ports};
    host_process other{k_two_ports};
    std::unique_ptr<cardsim::simulator> cards = make_cards();
    std::unique_ptr<manager> host;

    void SetUp() override {
        cards->add(lively(card_kind::qnio, card_speed::g1_10, k_id));
        cards->write_register(k_id, k_own, k_own);
        cards->write_register(k_id, k_others, k_others);
        cards->start();
        start_host();
    }

    void start_host() {
        host = std::make_unique<manager>(install.path());
        ASSERT_TRUE(host->is_running()) << install.log();
        ASSERT_TRUE(wait_for(is_heard_by_both));
    }

    static int read_own() {
        uint32_t data = 0;
        return read_register(k_own, &data);
    }

    void expect_told_once(const squatter& stranger) const;

    std::string holder_line() const {
        return "are accessed by process " + std::to_string(other.pid()) + " (qnm-e2e)\n";
    }
};

TEST_F(exclusion, the_second_one_is_refused_until_the_first_one_stops) {
    ASSERT_EQ(other.tell(start), 1);
    EXPECT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_EBUSY);
    EXPECT_THAT(install.log(), HasSubstr(holder_line()));
    uint32_t word = 0;
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, &word, nullptr, 0), QNM_API_EBUSY);
    EXPECT_FALSE(paths(k_id).empty()) << "it listens nevertheless";
    EXPECT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
    ASSERT_EQ(other.tell(start), 1);
    EXPECT_EQ(other.tell(read_one), QNM_API_EBUSY) << "now it is the second one";
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);
    EXPECT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    EXPECT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(cards->count().faulty, 0U);
}

TEST_F(exclusion, a_manager_that_only_listens_keeps_nobody_out) {
    ASSERT_EQ(other.tell(start), 1);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
    EXPECT_EQ(other.tell(read_one), QNM_API_EBUSY);
}

TEST_F(exclusion, one_that_is_killed_keeps_nobody_out) {
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    ASSERT_EQ(read_own(), QNM_API_EBUSY);
    other.die();
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
}

TEST_F(exclusion, a_child_that_outlives_the_stop_keeps_nobody_out) {
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    ASSERT_EQ(other.tell(fork_child), 0);
    ASSERT_EQ(read_own(), QNM_API_EBUSY);
    ASSERT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
    EXPECT_THAT(install.log(), Not(HasSubstr("Going on without it")));
}

TEST_F(exclusion, two_that_read_at_once_get_no_wrong_value) {
    ASSERT_EQ(other.tell(start), 1);
    for (int round = 0; round < 3; round++) {
        other.send(read_many);
        EXPECT_EQ(count_wrong(k_own, k_own), 0);
        EXPECT_EQ(other.answer(), 0);
    }
}

TEST_F(exclusion, is_for_each_interface) {
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    cards->silence(k_id, 0, 0);
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "DDCD"; }));
    EXPECT_EQ(read_own(), QNM_API_SUCCESS) << "the other one has port 0 alone";
}

// ---- Names and namespaces -----------------------------------------------------------------------

void give_up_capabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, data) != 0) _exit(1);
}

socklen_t address_of(unsigned index, struct sockaddr_un& address) {
    const std::string name = "libqnm.port." + std::to_string(index);
    address = {};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    return static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + 1 + name.size());
}

// A process that holds the name for a port's interface, but is no manager and has no capabilities
// to be one.
class squatter {
  public:
    explicit squatter(const char* interface_name, bool is_privileged = false) {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0) {
            if (!is_privileged) give_up_capabilities();
            squat(if_nametoindex(interface_name), ready[1]);
        }
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        EXPECT_EQ(byte, 'l');
        close(ready[0]);
        close(ready[1]);
    }
    ~squatter() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    squatter(const squatter&) = delete;
    squatter& operator=(const squatter&) = delete;
    pid_t pid() const { return pid_; }

  private:
    [[noreturn]] static void squat(unsigned index, int ready) {
        struct sockaddr_un address;
        const socklen_t length = address_of(index, address);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const bool listens =
            bind(fd, reinterpret_cast<const struct sockaddr*>(&address), length) == 0 &&
            listen(fd, 0) == 0;
        if (write(ready, listens ? "l" : "-", 1) != 1) _exit(1);
        run_child();
    }

    pid_t pid_;
};

void exclusion::expect_told_once(const squatter& stranger) const {
    const std::string line = "Process " + std::to_string(stranger.pid()) +
                             " (qnm-e2e) has the lock of the port and is no manager.";
    const std::string log = install.log();
    const size_t told = log.find(line);
    ASSERT_NE(told, std::string::npos) << log;
    EXPECT_EQ(log.find(line, told + 1), std::string::npos) << "once";
}

// With all capabilities, as a set-uid program has that an ordinary user has started with the
// socket.
TEST_F(exclusion, a_process_that_is_no_manager_keeps_nobody_out) {
    for (const bool is_privileged : {false, true}) {
        const squatter stranger("qnm0", is_privileged);
        for (int n = 0; n < 100; n++)
            ASSERT_EQ(read_own(), QNM_API_SUCCESS) << is_privileged;
        expect_told_once(stranger);
        ASSERT_EQ(host->stop(), QNM_API_SUCCESS);
        start_host();
    }
}

struct squatted : exclusion {
    const squatter stranger{"qnm0"};

    void SetUp() override {
        exclusion::SetUp();
        ASSERT_EQ(other.tell(start), 1);
        ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    }
};

// The name then says nothing about its holder.
TEST_F(squatted, one_at_a_time_accesses_cards) {
    EXPECT_EQ(read_own(), QNM_API_EBUSY);
    EXPECT_THAT(install.log(),
                HasSubstr("are accessed by a process that cannot be seen from here"));
    EXPECT_THAT(install.log(), Not(HasSubstr("Going on without it")));
    EXPECT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
    ASSERT_EQ(other.tell(start), 1);
    EXPECT_EQ(other.tell(read_one), QNM_API_EBUSY);
}

TEST_F(squatted, one_that_is_killed_keeps_nobody_out) {
    ASSERT_EQ(read_own(), QNM_API_EBUSY);
    other.die();
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
}

TEST_F(squatted, a_child_that_outlives_the_stop_keeps_nobody_out) {
    ASSERT_EQ(other.tell(fork_child), 0);
    ASSERT_EQ(read_own(), QNM_API_EBUSY);
    ASSERT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
}

TEST_F(squatted, the_one_that_accesses_cards_keeps_them_when_its_interface_was_down) {
    e2e::run("ip link set qnm0 down");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "DDCD"; }));
    e2e::run("ip link set qnm0 up");
    ASSERT_TRUE(wait_for(is_heard_by_both));
    EXPECT_EQ(read_own(), QNM_API_EBUSY);
    EXPECT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
}

// The name is tried again, so that others are told who holds it.
TEST_F(exclusion, is_named_when_the_process_that_had_the_name_has_gone) {
    auto stranger = std::make_unique<squatter>("qnm0");
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    stranger.reset();
    EXPECT_TRUE(wait_for([&] {
        EXPECT_EQ(read_own(), QNM_API_EBUSY);
        return install.log().find(holder_line()) != std::string::npos;
    }));
}

// Connects to the holder of the name until its backlog is full; returns whether that was reached.
bool take_all_room(unsigned index, std::vector<int>& guests) {
    struct sockaddr_un address;
    const socklen_t length = address_of(index, address);
    constexpr size_t k_most = 10'000;
    for (size_t n = 0; n < k_most; n++) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd == -1) return false;
        guests.push_back(fd);
        if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0) {
            return errno == EAGAIN;
        }
    }
    return false;
}

TEST_F(exclusion, holds_against_somebody_who_takes_all_room_at_the_holder) {
    // The limit of this namespace, which is the test's own; a few connections are enough then.
    std::ofstream("/proc/sys/net/core/somaxconn") << 16;
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    for (int round = 0; round < 10; round++) {
        std::vector<int> guests;
        ASSERT_TRUE(take_all_room(if_nametoindex("qnm0"), guests));
        EXPECT_EQ(read_own(), QNM_API_EBUSY);
        for (const int guest : guests)
            close(guest);
    }
    EXPECT_EQ(install.log().find("Going on without it"), std::string::npos);
}

// The holder has no descriptor left to accept connections with.
TEST_F(exclusion, holds_against_somebody_who_takes_all_room_for_good) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the check of undefined behaviour needs descriptors itself";
#endif
    std::ofstream("/proc/sys/net/core/somaxconn") << 16;
    ASSERT_EQ(other.tell(start), 1);
    ASSERT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    ASSERT_EQ(other.tell(use_up), 0);
    std::vector<int> guests;
    const auto fill = [&] { return take_all_room(if_nametoindex("qnm0"), guests); };

    for (int round = 0; round < 10; round++) {
        ASSERT_TRUE(fill());
        EXPECT_EQ(read_own(), QNM_API_EBUSY);
    }
    for (const int guest : guests)
        close(guest);
    EXPECT_THAT(install.log(), Not(HasSubstr("Going on without it")));
    EXPECT_EQ(other.tell(stop), QNM_API_SUCCESS);
    EXPECT_EQ(read_own(), QNM_API_SUCCESS);
}

// What a thread does in another network namespace, where the names are free.
template <typename Work>
void elsewhere(Work work) {
    std::thread([&] {
        EXPECT_EQ(unshare(CLONE_NEWNET), 0);
        work();
    }).join();
}

TEST_F(exclusion, belongs_to_the_namespace_of_the_port_whatever_that_of_the_caller) {
    ASSERT_EQ(other.tell(start), 1);
    elsewhere([] { EXPECT_EQ(read_own(), QNM_API_SUCCESS); });
    EXPECT_EQ(other.tell(read_one), QNM_API_EBUSY);
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);
    EXPECT_EQ(other.tell(read_one), QNM_API_SUCCESS);
    start_host();
    elsewhere([] {
        for (int n = 0; n < 100; n++)
            EXPECT_EQ(read_own(), QNM_API_EBUSY);
    });
}

}  // namespace
}  // namespace e2e
