// locks_test.cpp - the locks of a card's EEPROM: two managers, each in a network namespace of its
// own, share them, and a manager that is stopped leaves none behind.
//
//     this process, port 0   qnm0 ==== qsim0   the card
//     another one,  port 0   qnm1 ==== qsim1   the same card
//
// All managers are one party to the card's locks: they are told apart from other parties, not from
// each other. So the tests check that no manager gets stuck, that every call ends as documented,
// and that no lock is left behind.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rig.h"

namespace e2e {
namespace {

constexpr unsigned k_words = 30;
constexpr qnm_retry_t k_retry = {20, 100};
const std::string k_brisk = "eeprom_verify_count = 5\neeprom_retry_interval = 10\n";

bool is_documented(qnm_api_code_t ret) {
    return ret == QNM_API_SUCCESS || ret == QNM_API_EBUSY || ret == QNM_API_ETIMEDOUT;
}

// Reads and writes words in turn, also by force; returns how many calls ended otherwise than
// documented.
int fight(uint32_t seed) {
    int wrong = 0;
    for (uint32_t n = 0; n < k_words; n++) {
        const uint32_t flags = n % 3 == 0 ? QNM_FLAG_FORCELOCK : 0;
        const uint32_t address = 4 * (seed + n);
        uint32_t word = 0;
        const qnm_api_code_t ret = n % 2 == 0
                                       ? qnm_write_eeprom(k_id, address, n, &k_retry, flags)
                                       : qnm_read_eeprom(k_id, address, &word, &k_retry, flags);
        if (!is_documented(ret)) wrong++;
    }
    return wrong;
}

// The other manager's process: waits until it has been given its cable, then fights.
[[noreturn]] void run_other(int go) {
    char byte = 0;
    if (unshare(CLONE_NEWNET) != 0) _exit(100);
    if (write(go, "r", 1) != 1 || read(go, &byte, 1) != 1) _exit(101);
    run("ip link set qnm1 up");
    int wrong = 102;
    {
        const installation install("ether_port = qnm1\n" + k_brisk);
        manager host(install.path());
        if (host.is_running() && wait_for([] { return !paths(k_id).empty(); })) wrong = fight(64);
    }
    _exit(wrong);
}

struct locks : testing::TestWithParam<bool> {};

INSTANTIATE_TEST_SUITE_P(by_bits_and_by_id, locks, testing::Bool());

TEST_P(locks, two_managers_fight_and_none_is_stuck) {
    const cables wires;
    int go[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, go), 0);
    const pid_t other = fork();
    if (other == 0) run_other(go[1]);
    char byte = 0;
    ASSERT_EQ(read(go[0], &byte, 1), 1);
    run("ip link set qnm1 netns " + std::to_string(other));

    const auto cards = make_cards();
    cardsim::card card = lively(card_kind::qnio, card_speed::g40, k_id);
    card.device.id_lock = GetParam();
    cards->add(card);
    cards->start();
    const installation install("ether_port = qnm0\n" + k_brisk);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    ASSERT_TRUE(wait_for([] { return !paths(k_id).empty(); }));
    ASSERT_EQ(write(go[0], "g", 1), 1);
    std::atomic<bool> over = false;
    std::thread third([&] {
        while (!over) {
            cards->take_lock(k_id, 8);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            cards->drop_lock(k_id);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    EXPECT_EQ(fight(0), 0);
    int status = 0;
    EXPECT_EQ(waitpid(other, &status, 0), other);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    over = true;
    third.join();
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
    const cardsim::lock_holders left = cards->lock(k_id);
    EXPECT_EQ(left.bits, 0U);
    EXPECT_EQ(left.requests, 0U);
    EXPECT_EQ(left.holder, 0U);
    close(go[0]);
    close(go[1]);
}

// ---- Stopped in the middle ----------------------------------------------------------------------

// A card that stops the manager when it has obeyed a certain request for a register.
class stopping_card {
  public:
    explicit stopping_card(bool id_lock) {
        std::vector<cardsim::port> ports;
        ports.push_back(cardsim::open_port("qsim0"));
        cards_ = std::make_unique<cardsim::simulator>(std::move(ports), cardsim::default_ether_type,
                                                      [this](size_t, const cardsim::request&) {
                                                          if (--requests_left_ == 0)
                                                              qnm_fini_manager();
                                                      });
        cardsim::card card = lively(card_kind::qnio, card_speed::g40, k_id);
        card.heard[1] = {};
        card.device.id_lock = id_lock;
        cards_->add(card);
        cards_->start();
    }

    void stop_after(int requests) { requests_left_ = requests; }
    bool has_stopped() const { return requests_left_ <= 0; }

    // Whether the lock is free and the EEPROM waits for a command.
    bool is_clean() {
        const cardsim::lock_holders left = cards_->lock(k_id);
        constexpr uint32_t control = 0x40, ready = 0x40000000;
        return left.bits == 0 && left.requests == 0 && left.holder == 0 &&
               cards_->read_register(k_id, control) == ready;
    }

  private:
    std::atomic<int> requests_left_ = 0;
    std::unique_ptr<cardsim::simulator> cards_;
};

// Tries every moment within two words, for each kind of lock; a word takes some 20 requests.
TEST_P(locks, a_manager_that_is_stopped_leaves_none_behind) {
    const cables wires;
    const installation install("ether_port = qnm0\neeprom_verify_count = 3\n");
    stopping_card card(GetParam());
    const int moments = 30;
    for (int moment = 1; moment <= moments; moment++) {
        SCOPED_TRACE(moment);
        manager host(install.path());
        ASSERT_TRUE(host.is_running()) << install.log();
        ASSERT_TRUE(wait_for([] { return !paths(k_id).empty(); }));
        card.stop_after(moment);
        std::array<uint32_t, 64> words{};
        size_t len = sizeof words;
        EXPECT_EQ(qnm_dump_eeprom(k_id, 0, sizeof words, words.data(), &len, &k_retry, 0),
                  QNM_API_ENOSYS);
        EXPECT_TRUE(card.has_stopped());
        EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
        ASSERT_TRUE(wait_for([&] { return card.is_clean(); }));
    }
}

}  // namespace
}  // namespace e2e
