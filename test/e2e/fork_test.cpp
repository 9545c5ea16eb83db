// fork_test.cpp - a host program that starts other processes while its manager runs.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "rig.h"

namespace {

using namespace e2e;
using testing::IsEmpty;

// The descriptors that a program executed now would inherit, except the standard streams and the
// eventfd that libpcap keeps with each capture and does not expose.
std::multiset<std::string> inherited() {
    std::multiset<std::string> targets;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const int flags = fcntl(fd, F_GETFD);
        if (fd <= STDERR_FILENO || flags == -1 || (flags & FD_CLOEXEC) != 0) continue;
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target == "anon_inode:[eventfd]") continue;
        targets.insert(target.substr(0, target.find(':')));
    }
    return targets;
}

TEST(fork_and_exec, an_executed_program_inherits_no_descriptor_of_the_manager) {
    const cables wires;
    const std::multiset<std::string> before = inherited();
    const installation install(k_two_ports);
    const manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    EXPECT_EQ(inherited(), before);
}

using forking_host = running_manager;

// The child has a copy of every descriptor and of the memory, and none of the threads.
TEST_F(forking_host, a_child_that_leaves_disturbs_nothing) {
    cards_->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    ASSERT_TRUE(host.wait_event(k_id, QNM_EVT_NEWDEVINFO));
    for (int children = 0; children < 20; children++) {
        const pid_t child = fork();
        if (child == 0) {
            if (children % 2 == 0) execl("/bin/true", "true", nullptr);
            _exit(0);
        }
        ASSERT_NE(child, -1);
        uint32_t value = 0;
        EXPECT_EQ(qnm_read_register(k_id, 0, &value, nullptr, 0), QNM_API_SUCCESS);
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    cards_->remove(k_id);
    EXPECT_TRUE(host.wait_event(k_id, QNM_EVT_CHANNELSTATECHANGE));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

}  // namespace
