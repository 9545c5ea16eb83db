// rig.h - the set-up of the end-to-end tests: two cables, simulated cards at their far ends, and
// the library at their near ends.
//
//     port 0   qnm0 ======== qsim0
//     port 1   qnm1 ======== qsim1
//
// Every wait is for a condition; the limit only says when a test gives up.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cardsim.h"
#include "qnm.h"

namespace e2e {

using cardsim::card_kind;
using cardsim::card_speed;

// The first card; further ones have the even IDs after it.
constexpr uint64_t k_id = 0x020000001000;

constexpr std::chrono::seconds k_limit{60};

// Whether the condition came true within the limit.
bool wait_for(const std::function<bool()>& condition);

// Runs a command of the system; a failure ends the test with an exception.
void run(const std::string& command);

// Two cables, up; taken down again at the end.
struct cables {
    cables();
    ~cables();
};

// An installation directory with this qnm.conf, whose log goes to a file in it.
class installation {
  public:
    explicit installation(const std::string& conf);
    ~installation();
    installation(const installation&) = delete;
    installation& operator=(const installation&) = delete;
    const std::string& path() const { return path_; }
    std::string log() const;  // what has been logged so far

  private:
    std::string path_;
};

struct seen_event {
    uint64_t id;
    qnm_evt_type_t type;
};

// A running, started manager with callbacks for every event.
class manager {
  public:
    explicit manager(const std::string& dir);
    ~manager();
    manager(const manager&) = delete;
    manager& operator=(const manager&) = delete;

    // Returns whether start-up succeeded; if not, result() tells how it ended.
    bool is_running() const { return running_; }
    bool has_ended() const { return ended_; }
    qnm_api_code_t stop();  // the result of qnm_init_manager()

    std::vector<seen_event> events() const;
    size_t count(uint64_t id, qnm_evt_type_t type) const;
    bool wait_event(uint64_t id, qnm_evt_type_t type, size_t times = 1) const;
    void forget_events();

  private:
    static void on_event(uint64_t id, qnm_evt_type_t type, void* self);

    std::thread thread_;
    std::atomic<bool> ended_ = false;
    bool running_ = false;
    qnm_api_code_t result_ = QNM_API_SUCCESS;
    mutable std::mutex mutex_;
    std::vector<seen_event> events_;
};

std::optional<qnm_qnsv_t> qnsv(uint64_t id);
std::optional<qnm_qnio_t> qnio(uint64_t id);
uint32_t qnsv_total();
uint32_t qnio_total();

// The paths of a card of either kind, as "CDCD" for P0M0, P0M1, P1M0, P1M1; "" when it is unknown.
std::string paths(uint64_t id);

// Simulated cards on both cables.
std::unique_ptr<cardsim::simulator> make_cards();

// A card that is heard on the given paths and announces itself ten times a second.
cardsim::card lively(card_kind kind, card_speed speed, uint64_t id);

constexpr char k_two_ports[] = "ether_port = qnm0,qnm1\ndevinfo_expire_time = 1000\n";

// A manager that runs on both ports, with further lines of configuration if needed, and no card
// yet.
struct running_manager : testing::Test {
    explicit running_manager(const std::string& more = "") : install(k_two_ports + more) {}

    cables wires;
    installation install;
    manager host{install.path()};
    std::unique_ptr<cardsim::simulator> cards_ = make_cards();

    void SetUp() override {
        ASSERT_TRUE(host.is_running()) << install.log();
        cards_->start();
    }
};

}  // namespace e2e
