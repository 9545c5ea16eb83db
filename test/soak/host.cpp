// host.cpp - the host's process: a manager, eight workers, and the checks.
//
// The first and the last tenth of the time see restarts in quick succession, under load; in between
// one manager runs through, so that what grows inside it shows. When a manager has stopped, all
// that it had must be given back.

#include "host.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qnm_stats.h"
#include "rig.h"
#include "tally.h"
#include "watch.h"
#include "worker.h"

namespace soak {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char k_conf[] =
    "ether_port = qnm0,qnm1\n"
    "devinfo_expire_time = 4000\n"
    "stats_interval = 20\n"
    "eeprom_retry_count = 20\n"
    "eeprom_verify_count = 5\n"
    "eeprom_rw_interval = 10\n";

constexpr seconds k_call_limit{300};  // far above what any call drawn here may need
constexpr seconds k_stop_limit{60};
constexpr seconds k_calm_limit{120};

// Growth in KiB that is no leak: what the allocator scatters, and how the load happens to differ.
constexpr size_t k_running_allowance = 1024;
constexpr size_t k_stopped_allowance = 512;

constexpr int k_samples = 240;  // of the memory, while the long-lived manager runs

// Nobody says how fast the machine is: a call counts as failing for good after so many attempts, or
// when it has not succeeded once in a run of this length.
constexpr uint64_t k_enough_calls = 200;
constexpr seconds k_all_succeed_after{300};

// Small files that are replaced all the time.
void install_rotation(const std::string& directory) {
    std::ofstream out(directory + "/conf/qnm_log4c.properties");
    for (const std::string logger : {"logfile", "syslogfile", "statslogfile"}) {
        const std::string appender = "log4j.appender." + logger;
        out << "log4j.logger." << logger << "=ALL, " << logger << '\n'
            << "log4j.additivity." << logger << "=false\n"
            << appender << "=org.apache.log4j.RollingFileAppender\n"
            << appender << ".File=" << directory << '/' << logger << '\n'
            << appender << ".MaxFileSize=50KB\n"
            << appender << ".MaxBackupIndex=2\n"
            << appender << ".layout=org.apache.log4j.PatternLayout\n"
            << appender << ".layout.ConversionPattern=%d{ISO8601} %-5p %m%n\n";
    }
}

std::atomic<uint64_t> signals_taken;

// Without SA_RESTART, so that calls of the system are interrupted.
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

struct counted_stress {
    const char* name;
    std::atomic<uint64_t> stage::*counter;
};

constexpr counted_stress k_stress[] = {
    {"frames", &stage::frames},
    {"cards swapped", &stage::swaps},
    {"cards changed", &stage::changes},
    {"oddities", &stage::oddities},
    {"link flaps", &stage::flaps},
    {"signals sent", &stage::signals},
    {"announcements lost", &stage::lost_announcements},
    {"announcements repeated", &stage::repeated_announcements},
    {"requests lost", &stage::lost_requests},
    {"answers lost", &stage::lost_answers},
    {"answers repeated", &stage::repeated_answers},
    {"answers from elsewhere", &stage::stray_answers},
    {"answers late", &stage::late_answers},
};

// Looks into the tables now and then, and now and then makes the events behind it wait.
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
    host(stage& shared, const plan& planned)
        : shared_(shared), planned_(planned), installation_(k_conf) {
        install_rotation(installation_.path());
        qnm_log_init(installation_.path().c_str());
        take_signals();
        for (unsigned number = 0; number < k_workers; number++) {
            workers_.push_back(
                std::make_unique<worker>(number, planned.seed * 100 + number, life_, tally_));
            threads_.emplace_back([this, self = workers_.back().get()] { work(*self); });
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
        calm(true);  // a port whose link is down at the start would never be used
        start();
        calm(false);
        stay(8 * tenth, &running_);
        compare_with_cards();
        stop();
        restart_for(tenth);
        judge();
        return tally_.failures() == 0;
    }

  private:
    // Uses the library without end; not while the gate is being closed, or is closed.
    void work(worker& self) {
        while (!over_) {
            if (!gate_closing_) {
                const std::shared_lock inside(gate_);
                self.step();
            }
            std::this_thread::sleep_for(self.rest());
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
            result_ = qnm_init_manager(installation_.path().c_str(), QNM_LOGLVL_NONE);
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

    // Under load; the next one is not started before all calls have returned.
    void stop() {
        life_++;
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
        // A thread that was joined may be on its way out of the process still.
        if (!e2e::wait_for([&] { return threads() == tasks_; })) {
            tally_.fail("threads are left: " + std::to_string(threads()));
        }
        if (descriptors() != descriptors_) {
            tally_.fail("descriptors are left: " + std::to_string(descriptors()) + " instead of " +
                        std::to_string(descriptors_));
        }
        stopped_.push_back(held());
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

    // What hangs cannot be joined; the core tells where it is.
    [[noreturn]] void give_up(const std::string& why) {
        fprintf(stderr, "FAILED: %s\n", why.c_str());
        abort();
    }

    // ---- Watching ------------------------------------------------------------------------------

    // Lets the manager run, and takes samples of the memory; not too many, because each gives back
    // what the allocator keeps.
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
            "to %u, cards "
            "%u, "
            "frames %lu, events %lu, calls %lu, slowest %.0f ms %s, failures %lu, "
            "errors: %s\n",
            minutes, std::max(std::exchange(peak_, 0), resident()), held(), descriptors(),
            threads(), std::exchange(backlog_, 0), e2e::qnsv_total() + e2e::qnio_total(),
            frames_before_ + frames_of_this_manager(), events_.load(), tally_.calls(),
            std::chrono::duration<double, std::milli>(slowest.lasted).count(), slowest.name,
            tally_.failures(), tally_.errors().c_str());
        fflush(stdout);
        report_at_ += seconds(60);
    }

    // Whether the cards rest, with the links up.
    void calm(bool wanted) {
        shared_.calm_wanted = wanted;
        if (!e2e::wait_for([&] { return shared_.calm == wanted; }))
            give_up("the cards do not rest");
    }

    // ---- The comparison ------------------------------------------------------------------------

    // With everything at rest, the library must come to know all that the cards announce.
    void compare_with_cards() {
        const std::unique_lock alone = close_gate();
        calm(true);
        for (size_t number = 0; number < k_cards; number++)
            qnm_restart_monitor(card_id(number));
        const auto limit = clock::now() + k_calm_limit;
        std::string difference = find_difference();
        while (!difference.empty() && clock::now() < limit) {
            std::this_thread::sleep_for(milliseconds(100));
            difference = find_difference();
        }
        if (!difference.empty()) tally_.fail(difference);
        compare_vlans();
        calm(false);
    }

    std::string find_difference() const {
        for (size_t number = 0; number < k_cards; number++) {
            const announced& expected = shared_.cards[number];
            const std::string name = "card " + std::to_string(number);
            const auto server = e2e::qnsv(card_id(number));
            const auto io = e2e::qnio(card_id(number));
            const bool silent = expected.paths == decltype(expected.paths){};
            if (!server && !io) {
                if (expected.present && !silent) return name + " is not known";
                continue;
            }
            const qnm_com_dev_t& dev = server ? server->esv_com_dev : io->eio_com_dev;
            for (size_t path = 0; path < 4; path++) {
                if ((dev.ecd_state[path / 2][path % 2] == 1) != expected.paths[path]) {
                    return name + " has a wrong path " + std::to_string(path);
                }
            }
            if (silent) continue;  // it keeps its last record
            const bool right = is_same(dev, expected) &&
                               (server ? is_same(*server, expected) : is_same(*io, expected));
            if (!right) return name + " has a wrong record";
        }
        return "";
    }

    static bool is_same(const qnm_com_dev_t& dev, const announced& expected) {
        return dev.ecd_uidsw == (expected.uid_switch ? 1U : 0U) &&
               dev.ecd_power == (expected.power ? 1U : 0U) &&
               dev.ecd_int_vector == expected.int_vector && dev.ecd_vlan_id == expected.vlan_id;
    }

    static bool is_same(const qnm_qnsv_t& card, const announced& expected) {
        for (size_t port = 0; port < expected.port_status1.size(); port++) {
            if (card.esv_down_port[port].edp_port_status[1] != expected.port_status1[port])
                return false;
        }
        return true;
    }

    static bool is_same(const qnm_qnio_t& card, const announced& expected) {
        return card.eio_link0fault == (expected.link0_fault ? 1 : 0) &&
               card.eio_substate[1] == expected.io_substate1;
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
            const std::string running = growth(running_, k_running_allowance);
            if (!running.empty()) tally_.fail("memory grows while the manager runs " + running);
            const std::string early = growth_from_start(running_, k_running_allowance);
            if (!early.empty()) tally_.fail("memory has grown while the manager ran " + early);
            const std::string stopped = growth(stopped_, k_stopped_allowance);
            if (!stopped.empty()) tally_.fail("memory grows from stop to stop " + stopped);
        }
        check_rotation();
        tally_.require_successes(planned_.duration < k_all_succeed_after ? k_enough_calls : 0);
        require_stress();
        if (shared_.faulty != 0) tally_.fail("frames that break a rule of the protocol");
        report();
        printf(
            "soak: %u managers, %lu calls, %lu events, %lu signals taken of %lu, %lu cards "
            "swapped, %lu changed, %lu link flaps, %lu failures\n",
            restarts_, tally_.calls(), events_.load(), signals_taken.load(), shared_.signals.load(),
            shared_.swaps.load(), shared_.changes.load(), shared_.flaps.load(), tally_.failures());
    }

    // What did not happen proves nothing.
    void require_stress() {
        for (const counted_stress& it : k_stress) {
            if (shared_.*it.counter == 0) tally_.fail(std::string("there were no ") + it.name);
        }
        if (signals_taken == 0) tally_.fail("no signals were taken");
        if (events_ == 0) tally_.fail("there were no events");
    }

    void check_rotation() {
        for (const char* const log : {"logfile.1", "statslogfile.1"}) {
            if (std::filesystem::exists(installation_.path() + '/' + log)) continue;
            tally_.fail(std::string("log files do not rotate: no ") + log);
        }
    }

    stage& shared_;
    const plan planned_;
    e2e::installation installation_;
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
    const clock::time_point begin_ = clock::now();
    clock::time_point report_at_ = begin_;
};

}  // namespace

bool run_host(stage& shared, const plan& planned) {
    return host(shared, planned).run();
}

}  // namespace soak
