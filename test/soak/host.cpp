// host.cpp - the process of the host: a manager, eight workers, and the checks.
//
// In the first and the last tenth of the time the manager is restarted in quick succession, under
// load. In between, one manager runs all the time, so that growth inside it shows. When a manager
// has stopped, it must have given back everything.

#include "host.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "checks/compare.h"
#include "checks/stress.h"
#include "checks/tally.h"
#include "checks/watch.h"
#include "qnm_counters.h"
#include "rig.h"
#include "site.h"
#include "worker.h"

namespace soak {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds k_call_limit{300};  // far above what any call drawn here may need
constexpr seconds k_stop_limit{60};
constexpr seconds k_calm_limit{120};

// Growth in KiB that is no leak: fragmentation of the allocator, and random differences of the
// load.
constexpr size_t k_held_allowance = 1024;
constexpr size_t k_in_use_allowance = 32;

constexpr int k_samples = 240;  // of the memory, while the long-lived manager runs

// The machine may be slow: a call counts as failing for good after this many attempts, or when it
// has not succeeded once in a run of this length.
constexpr uint64_t k_enough_calls = 200;
constexpr seconds k_all_succeed_after{300};

// Foreign frames a second that a run of this length must have seen while they were sent, of the
// 100,000 that a fast machine sends.
constexpr double k_foreign_rate = 80000;

std::atomic<uint64_t> signals_taken;

// Without SA_RESTART, so that system calls are interrupted.
void take_signals() {
    struct sigaction action = {};
    action.sa_handler = [](int) { signals_taken++; };
    for (const int signal : {SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH, SIGIO})
        sigaction(signal, &action, nullptr);
}

qnm_sd_stats_t statistics() {
    pthread_mutex_lock(&qnm_stats_mutex.em_mutex);
    const qnm_sd_stats_t copy = qnm_stats;
    pthread_mutex_unlock(&qnm_stats_mutex.em_mutex);
    return copy;
}

uint32_t backlog() {
    const qnm_sd_stats_t now = statistics();
    return now.est_evt_node_al - now.est_evt_node_fr;
}

struct counter_pair {
    const char* name;
    uint32_t qnm_sd_stats_t::*got;
    uint32_t qnm_sd_stats_t::*given_back;
};

constexpr counter_pair k_pairs[] = {
    {"sv_node", &qnm_sd_stats_t::est_sv_node_al, &qnm_sd_stats_t::est_sv_node_fr},
    {"io_node", &qnm_sd_stats_t::est_io_node_al, &qnm_sd_stats_t::est_io_node_fr},
    {"bl_node", &qnm_sd_stats_t::est_bl_node_al, &qnm_sd_stats_t::est_bl_node_fr},
    {"evt_node", &qnm_sd_stats_t::est_evt_node_al, &qnm_sd_stats_t::est_evt_node_fr},
    {"wreg_node", &qnm_sd_stats_t::est_wreg_node_al, &qnm_sd_stats_t::est_wreg_node_fr},
    {"idlist", &qnm_sd_stats_t::est_idlist_al, &qnm_sd_stats_t::est_idlist_fr},
    {"cbinfo", &qnm_sd_stats_t::est_cbinfo_al, &qnm_sd_stats_t::est_cbinfo_fr},
    {"addrs", &qnm_sd_stats_t::est_addrs_al, &qnm_sd_stats_t::est_addrs_fr},
    {"callback", &qnm_sd_stats_t::est_cb_call, &qnm_sd_stats_t::est_cb_return},
};

// Reads the tables in the callback from time to time, and sometimes makes the following events
// wait.
void on_event(uint64_t id, qnm_evt_type_t, void* arg) {
    const uint64_t number = ++*static_cast<std::atomic<uint64_t>*>(arg);
    if (number % 16 == 0) {
        qnm_qnsv_t record;
        qnm_get_qnsv(id, &record);
    }
    if (number % 1024 == 0) std::this_thread::sleep_for(milliseconds(20));
}

// ---- The host ----------------------------------------------------------------------------------

class host {
  public:
    host(stage& shared, const plan& planned) : shared_(shared), planned_(planned) {
        qnm_log_init(site_.path().c_str());
        take_signals();
        for (unsigned number = 0; number < k_workers + k_hurried; number++) {
            workers_.push_back(std::make_unique<worker>(number, planned.seed * 100 + number, life_,
                                                        shared.hold, tally_));
            const auto use = number < k_workers ? &host::work : &host::hurry;
            threads_.emplace_back(
                [this, use, self = workers_.back().get()] { (this->*use)(*self); });
        }
    }

    ~host() {
        over_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }

    bool run() {
        const auto tenth = std::chrono::duration_cast<milliseconds>(planned_.duration) / 10;
        descriptors_ = descriptors();
        tasks_ = threads();
        shared_.host_ready = true;
        restart_for(tenth);
        let_rival_access();
        calm(true);  // a port whose link is down at the start would never be used
        start();
        calm(false);
        take_hold();
        stay(8 * tenth, &running_);
        await_stress();
        compare_with_cards();
        stop();
        restart_for(tenth);
        let_rival_access();
        judge();
        return tally_.failures() == 0;
    }

  private:
    // Uses the library without end, except while the gate is closing or closed.
    void work(worker& self) {
        while (!over_) {
            if (!gate_closing_) {
                const std::shared_lock inside(gate_);
                self.step();
            }
            std::this_thread::sleep_for(self.rest());
        }
    }

    // The same, but only in times of hurry, and without a rest.
    void hurry(worker& self) {
        while (!over_) {
            if (shared_.hurry && life_ % 2 == 1 && !gate_closing_) {
                const std::shared_lock inside(gate_);
                self.hurry();
            } else {
                std::this_thread::sleep_for(milliseconds(5));
            }
        }
    }

    // Returns when no worker is in a call any more.
    std::unique_lock<std::shared_mutex> close_gate() {
        gate_closing_ = true;
        std::unique_lock closed(gate_, std::defer_lock);
        const auto limit = clock::now() + k_call_limit;
        while (!closed.try_lock()) {
            if (clock::now() > limit) give_up("calls do not return");
            std::this_thread::sleep_for(milliseconds(1));
        }
        gate_closing_ = false;
        return closed;
    }

    // ---- The manager ---------------------------------------------------------------------------

    void start() {
        frames_before_ += frames_of_this_manager();
        ended_ = false;
        manager_ = std::thread([this] {
            result_ = qnm_init_manager(site_.path().c_str(), QNM_LOGLVL_NONE);
            ended_ = true;
        });
        for (int type = 0; type < QNM_EVT_MAX; type++) {
            const auto event = static_cast<qnm_evt_type_t>(type);
            qnm_cbid_t handle = nullptr;
            e2e::wait_for([&] {
                return ended_ ||
                       qnm_register_callback(event, on_event, &events_, &handle) == QNM_API_SUCCESS;
            });
        }
        if (qnm_start_manager() != QNM_API_SUCCESS) give_up("the manager does not start");
        life_++;
    }

    // Stops under load; the next manager is started only after all calls have returned.
    void stop() {
        life_++;
        if (shared_.hold % 2 == 1) shared_.hold++;
        qnm_fini_manager();
        const auto limit = clock::now() + k_stop_limit;
        while (!ended_) {
            if (clock::now() > limit) give_up("the manager does not stop");
            std::this_thread::sleep_for(milliseconds(1));
        }
        manager_.join();
        restarts_++;
        if (result_ != QNM_API_SUCCESS) {
            tally_.fail("qnm_init_manager returned " + std::to_string(result_));
        }
        const std::unique_lock alone = close_gate();
        check_given_back();
    }

    void check_given_back() {
        const qnm_sd_stats_t now = statistics();
        for (const counter_pair& it : k_pairs) {
            const uint32_t got = now.*it.got;
            const uint32_t given_back = now.*it.given_back;
            if (got == given_back) continue;
            tally_.fail(std::string("counters of ") + it.name + " do not balance: " +
                        std::to_string(got) + " and " + std::to_string(given_back));
        }
        if (now.est_alloc_err != 0) {
            tally_.fail("failed allocations: " + std::to_string(now.est_alloc_err));
        }
        // A thread that was joined may still be on its way out of the process.
        if (!e2e::wait_for([&] { return threads() == tasks_; })) {
            tally_.fail("threads are left: " + std::to_string(threads()));
        }
        if (descriptors() != descriptors_) {
            tally_.fail("descriptors are left: " + std::to_string(descriptors()) + " instead of " +
                        std::to_string(descriptors_));
        }
        stopped_.push_back(held());
        in_use_.push_back(in_use());
    }

    void restart_for(milliseconds time) {
        const auto stay_for = std::clamp(time / 4, milliseconds(1500), milliseconds(15000));
        const auto end = clock::now() + time;
        while (clock::now() < end) {
            start();
            stay(stay_for, nullptr);
            stop();
        }
    }

    // A thread that hangs cannot be joined; the core file shows where it is.
    [[noreturn]] void give_up(const std::string& why) {
        fprintf(stderr, "FAILED: %s\n", why.c_str());
        abort();
    }

    // ---- The rival -----------------------------------------------------------------------------

    // While no manager of the host runs, nothing keeps the rival from the ports.
    void let_rival_access() {
        const uint64_t before = shared_.rival_reads;
        if (!e2e::wait_for([&] { return shared_.rival_reads > before; })) {
            tally_.fail("the rival cannot read a card, although no manager runs here");
        }
    }

    // The rival may have the ports at first, until its manager stops. Once a card that is heard on
    // only one port has answered there, the host has that port.
    void take_hold() {
        const auto accesses = [](size_t number) {
            uint32_t value = 0;
            return qnm_read_register(card_id(number), k_preset_registers, &value, nullptr, 0) ==
                   QNM_API_SUCCESS;
        };
        for (const size_t number : k_heard_on_one_port) {
            if (!e2e::wait_for([&] { return accesses(number); })) {
                tally_.fail("card " + std::to_string(number) + " cannot be read beside the rival");
                return;
            }
        }
        shared_.hold++;
    }

    // ---- Watching ------------------------------------------------------------------------------

    // Lets the manager run, and samples its memory. There are not too many samples, because each
    // returns what the allocator keeps.
    void stay(milliseconds time, std::vector<size_t>* samples) {
        const auto end = clock::now() + time;
        const auto sample_every = std::max(milliseconds(1000), time / k_samples);
        auto sample_at = clock::now();
        while (clock::now() < end) {
            if (clock::now() >= report_at_) report();
            if (samples != nullptr && clock::now() >= sample_at) {
                peak_ = std::max(peak_, resident());
                samples->push_back(held());
                sample_at += sample_every;
            }
            look_for_hangs();
            backlog_ = std::max(backlog_, backlog());
            std::this_thread::sleep_for(milliseconds(50));
        }
    }

    void look_for_hangs() {
        for (const auto& it : workers_) {
            const slow_call call = it->under_way();
            if (call.lasted > k_call_limit) give_up(std::string(call.name) + " hangs");
        }
        if (ended_) give_up("the manager has ended by itself");
    }

    static uint64_t frames_of_this_manager() {
        const qnm_sd_stats_t now = statistics();
        return now.est_stats_p0[QNM_STATS_R_TOTAL] + now.est_stats_p1[QNM_STATS_R_TOTAL];
    }

    void report() {
        const slow_call slowest = tally_.take_slowest();
        const auto minutes =
            std::chrono::duration<double, std::ratio<60>>(clock::now() - begin_).count();
        printf(
            "%6.1f min  resident %zu KiB, held %zu KiB, descriptors %zu, threads %zu, backlog up "
            "to %u, cards %u, frames %lu, foreign frames %lu (%.0f a second), forgeries %lu, port "
            "flaps %lu, rival refused %lu, events %lu, calls %lu, slowest %.0f ms %s, failures "
            "%lu, errors: %s\n",
            minutes, std::max(std::exchange(peak_, 0), resident()), held(), descriptors(),
            threads(), std::exchange(backlog_, 0), e2e::qnsv_total() + e2e::qnio_total(),
            frames_before_ + frames_of_this_manager(), shared_.foreign.load(),
            foreign_rate(shared_), forgeries(shared_), shared_.port_flaps.load(),
            shared_.rival_refused.load(), events_.load(), tally_.calls(),
            std::chrono::duration<double, std::milli>(slowest.lasted).count(), slowest.name,
            tally_.failures(), tally_.errors().c_str());
        fflush(stdout);
        report_at_ += seconds(60);
    }

    // Returns whether the cards rest, with the links up.
    void calm(bool wanted) {
        shared_.calm_wanted = wanted;
        if (!e2e::wait_for([&] { return shared_.calm == wanted; }))
            give_up("the cards do not rest");
    }

    // ---- The comparison ------------------------------------------------------------------------

    // While everything rests, the library must learn all that the cards announce.
    void compare_with_cards() {
        const std::unique_lock alone = close_gate();
        calm(true);
        for (size_t number = 0; number < k_cards; number++)
            qnm_restart_monitor(card_id(number));
        require_none([this] { return find_difference(shared_); });
        for (size_t number = 0; number < k_lasting; number++)
            require_none([this, number] { return read_card(number); });
        compare_vlans();
        calm(false);
    }

    // Within the limit every fault must have gone.
    void require_none(const std::function<std::string()>& find_fault) {
        const auto limit = clock::now() + k_calm_limit;
        std::string fault = find_fault();
        while (!fault.empty() && clock::now() < limit) {
            std::this_thread::sleep_for(milliseconds(100));
            fault = find_fault();
        }
        if (!fault.empty()) tally_.fail(fault);
    }

    // Returns why the card cannot be accessed; empty if it can.
    std::string read_card(size_t number) {
        const std::string name = "card " + std::to_string(number);
        const uint64_t id = card_id(number);
        uint32_t value = 0;
        const auto ret = qnm_read_register(id, k_preset_registers, &value, nullptr, 0);
        if (ret != QNM_API_SUCCESS) return name + " cannot be read: " + std::to_string(ret);
        if (value != preset_value(id, k_preset_registers)) tally_.fail("wrong register of " + name);
        return "";
    }

    void compare_vlans() {
        for (size_t number = 0; number < k_lasting; number++) {
            const uint16_t given = workers_[number % k_workers]->vlan_of(number);
            if (given == 0 || given == shared_.cards[number].vlan_id) continue;
            tally_.fail("wrong VLAN ID of card " + std::to_string(number));
        }
    }

    // ---- The end -------------------------------------------------------------------------------

    void judge() {
        if (planned_.judge_memory) {
            const std::string running = growth(running_, k_held_allowance);
            if (!running.empty()) tally_.fail("memory grows while the manager runs " + running);
            const std::string early = growth_from_start(running_, k_held_allowance);
            if (!early.empty()) tally_.fail("memory has grown while the manager ran " + early);
            const std::string stopped = growth(stopped_, k_held_allowance);
            if (!stopped.empty()) tally_.fail("memory grows from stop to stop " + stopped);
            const std::string kept = growth(in_use_, k_in_use_allowance);
            if (!kept.empty()) tally_.fail("memory in use grows from stop to stop " + kept);
        }
        check_rotation();
        tally_.require_successes(planned_.duration < k_all_succeed_after ? k_enough_calls : 0);
        require_stress();
        if (shared_.faulty != 0) tally_.fail("frames that break a rule of the protocol");
        report();
        printf("soak: %s; foreign frames %.0f a second while they came\n",
               all_stress(shared_).c_str(), foreign_rate(shared_));
        printf("soak: %u managers, %lu calls, %lu events, %lu signals taken, %lu failures\n",
               restarts_, tally_.calls(), events_.load(), signals_taken.load(), tally_.failures());
    }

    // Troubles that have not happened yet get some more time, because the machine may be slow.
    void await_stress() {
        const auto limit = clock::now() + k_calm_limit;
        while (!missing_stress(shared_).empty() && clock::now() < limit)
            stay(seconds(1), nullptr);
    }

    // A trouble that did not happen proves nothing.
    void require_stress() {
        const std::string missing = missing_stress(shared_);
        if (!missing.empty()) tally_.fail("there were no " + missing);
        if (signals_taken == 0) tally_.fail("no signals were taken");
        if (events_ == 0) tally_.fail("there were no events");
        if (planned_.duration >= k_all_succeed_after && foreign_rate(shared_) < k_foreign_rate)
            tally_.fail("too few foreign frames a second: " +
                        std::to_string(foreign_rate(shared_)));
    }

    void check_rotation() {
        const std::string missing = site_.unrotated();
        if (!missing.empty()) tally_.fail("log files do not rotate: no" + missing);
    }

    stage& shared_;
    const plan planned_;
    site site_;
    tally tally_{k_called};
    std::atomic<unsigned> life_ = 0;  // odd from the start of a manager to its stop
    std::vector<std::unique_ptr<worker>> workers_;
    std::vector<std::thread> threads_;
    std::atomic<bool> over_ = false;
    std::shared_mutex gate_;                  // a worker shares it during an operation
    std::atomic<bool> gate_closing_ = false;  // so that waiting for the gate comes to an end

    std::thread manager_;
    std::atomic<bool> ended_ = false;
    qnm_api_code_t result_ = QNM_API_SUCCESS;
    std::atomic<uint64_t> events_ = 0;
    uint32_t backlog_ = 0;  // the longest since the last report
    unsigned restarts_ = 0;
    uint64_t frames_before_ = 0;  // of the managers before this one

    size_t descriptors_ = 0;  // before the first manager
    size_t tasks_ = 0;
    size_t peak_ = 0;              // resident memory, the most since the last report
    std::vector<size_t> running_;  // samples of the memory, while the long-lived manager runs
    std::vector<size_t> stopped_;  // and after each stop
    std::vector<size_t> in_use_;   // what is left in use then
    const clock::time_point begin_ = clock::now();
    clock::time_point report_at_ = begin_;
};

}  // namespace

bool run_host(stage& shared, const plan& planned) {
    return host(shared, planned).run();
}

}  // namespace soak
