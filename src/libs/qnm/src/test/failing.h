// failing.h - lives of the whole manager in which something fails, and what has to hold after each.
//
// A sweep lets the first occurrence of a failure come, then the second and so on, until none is
// left, each in a life of its own. What each leads to stands in a table. Whatever that is, the same
// act succeeds in the same life afterwards, the life ends without a trace, and the next one begins.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "whole_manager.h"

// A line of the log that is due.
struct due_line {
    int level;
    std::string text;
    std::string logger = "logfile";
};

// What that many occurrences in a row lead to: the result of the act, and lines of the log. Where
// no line of an error is due, none appears.
struct consequence {
    unsigned times;
    qnm_api_code_t code;
    std::vector<due_line> lines = {};
};
using consequences = std::vector<consequence>;

// A way to fail: arm makes the n-th occurrence from now fail, came tells whether it has, and disarm
// takes back what has not come.
struct failure {
    std::function<void(unsigned n)> arm;
    std::function<bool()> came;
    std::function<void()> disarm = [] {};
};

// Allocations of this thread, or of all.
inline failure allocation_here() {
    return {alloc::fail_nth, alloc::all_used};
}

inline failure allocation_anywhere() {
    return {alloc::fail_nth_anywhere, alloc::all_used};
}

// Calls of the library on whatever thread; for calls that only one of them makes.
inline failure call_anywhere(fail::call which, int err) {
    return {[=](unsigned n) { fail::nth(which, n, err); }, fail::all_used,
            [=] { fail::clear(which); }};
}

// Calls of the library on the threads that is_meant holds for.
inline failure call_where(fail::call which, int err, std::function<bool()> is_meant) {
    const auto left = std::make_shared<std::atomic<unsigned>>(0);
    const auto decide = [=](uint64_t) -> fail::outcome {
        if (*left == 0 || !is_meant() || --*left != 0) return fail::pass;
        return err;
    };
    return {[=](unsigned n) {
                *left = n;
                fail::on(which, decide);
            },
            [=] { return *left == 0; }, [=] { fail::clear(which); }};
}

// One after the other of a list of failures, each ordered by a call of its own; those that last are
// taken back by another.
inline failure each_of(
    std::vector<std::function<void()>> orders, std::function<void()> take_back = [] {}) {
    const auto ordered = std::make_shared<bool>(false);
    return {[=](unsigned n) {
                *ordered = n <= orders.size();
                if (*ordered) orders[n - 1]();
            },
            [=] { return *ordered; }, std::move(take_back)};
}

inline size_t count_threads() {
    const std::filesystem::directory_iterator entries("/proc/self/task");
    return static_cast<size_t>(
        std::distance(std::filesystem::begin(entries), std::filesystem::end(entries)));
}

// Counted before the first life: a thread that has been joined is listed until the system has taken
// it down, and would be counted after one. Counted on a thread: with the first one ThreadSanitizer
// starts one of its own.
inline const size_t g_own_threads = [] {
    size_t others = 0;
    std::thread([&] { others = count_threads() - 1; }).join();
    return others;
}();

struct failing : whole_manager {
    static constexpr char k_quick_conf[] =
        "ether_port = port0,port1\n"
        "devinfo_flag_check_interval = 1\n"
        "devinfo_check_interval = 100000\n"  // no keepalive check comes between
        "devinfo_expire_time = 100000\n"
        "vlan_check_interval = 1\n"
        "eeprom_verify_count = 1\n";

    size_t descriptors = 0;

    failing() {
        dir.write_conf(k_quick_conf);
        begin();  // what stays open from the first life on belongs to the logging and the fakes
        end(QNM_API_SUCCESS);
        descriptors = fail::open_descriptors();
    }

    // Whether the calling thread has begun a worker's task, told by the first line of that.
    bool is_on(const std::string& first_line) const {
        const auto lines = logs.lines();
        return std::any_of(lines.begin(), lines.end(), [&](const log_line& line) {
            return line.thread == std::this_thread::get_id() && line.text == first_line;
        });
    }

    // The event thread would see a stop once a second; waits that end early cost these many lives
    // less time.
    fail::outcome hurry() const {
        static thread_local const bool is_event_thread = is_on("_qnm_event_task_com: start.");
        return is_event_thread ? fail::done : fail::pass;
    }

    void hurry_event_thread() {
        fail::on(fail::call::pthread_cond_timedwait, [this](uint64_t) { return hurry(); });
    }

    void begin() {
        logs.clear();
        hurry_event_thread();
        start(QNM_LOGLVL_TRACE);
        EXPECT_EQ(qnm_start_manager(), QNM_API_SUCCESS);
    }

    // The life ends with this result, by a stop where it does not end by itself.
    void end(qnm_api_code_t code) {
        if (code == QNM_API_SUCCESS) {
            stop();
        } else {
            EXPECT_TRUE(wait_until([] { return !is_up(); }));
            manager.join();
        }
        EXPECT_EQ(result, code);
        expect_no_trace();
    }

    void expect_no_trace() const {
        expect_down();
        expect_balance();
        EXPECT_TRUE(wait_until([] { return count_threads() == g_own_threads; }));
        if (descriptors == 0) return;  // the first life
        EXPECT_EQ(fail::open_descriptors(), descriptors);
    }

    static void expect_balance() {
        EXPECT_EQ(qnm_stats.est_sv_node_al, qnm_stats.est_sv_node_fr);
        EXPECT_EQ(qnm_stats.est_io_node_al, qnm_stats.est_io_node_fr);
        EXPECT_EQ(qnm_stats.est_bl_node_al, qnm_stats.est_bl_node_fr);
        EXPECT_EQ(qnm_stats.est_evt_node_al, qnm_stats.est_evt_node_fr);
        EXPECT_EQ(qnm_stats.est_wreg_node_al, qnm_stats.est_wreg_node_fr);
        EXPECT_EQ(qnm_stats.est_idlist_al, qnm_stats.est_idlist_fr);
        EXPECT_EQ(qnm_stats.est_cbinfo_al, qnm_stats.est_cbinfo_fr);
        EXPECT_EQ(qnm_stats.est_addrs_al, qnm_stats.est_addrs_fr);
        EXPECT_EQ(qnm_stats.est_cb_call, qnm_stats.est_cb_return);
    }

    static unsigned total(const consequences& expected) {
        unsigned sum = 0;
        for (const consequence& it : expected)
            sum += it.times;
        return sum;
    }

    static const consequence& nth(const consequences& expected, unsigned n) {
        auto it = expected.begin();
        for (; n > it->times; ++it)
            n -= it->times;
        return *it;
    }

    // The log is looked at when its lines have been written, if by another thread.
    void expect_lines(const std::vector<due_line>& due) const {
        for (const due_line& it : due) {
            EXPECT_TRUE(logs.wait_for(it.level, it.text, 1, it.logger, std::chrono::seconds(30)))
                << it.text;
        }
    }

    static bool is_error(int level) { return level == k_fatal || level == k_error; }

    static constexpr char k_own_line[] = "text 1";  // what a test logs

    // Without a line of an error among those due, nothing was one.
    void expect_no_error_but(const std::vector<due_line>& due) const {
        for (const due_line& it : due) {
            if (is_error(it.level)) return;
        }
        for (const log_line& line : logs.lines()) {
            EXPECT_TRUE(!is_error(line.level) || line.text == k_own_line)
                << line.logger << ": " << line.text;
        }
    }

    // What fails while the manager runs: before() prepares act(), which is `good` without failure.
    template <typename Before, typename Act>
    void sweep(const failure& how, Before before, Act act, const consequences& expected,
               qnm_api_code_t good = QNM_API_SUCCESS) {
        const unsigned all = total(expected);
        for (unsigned n = 1; n <= all + 1; n++) {
            SCOPED_TRACE(testing::Message() << "occurrence " << n);
            begin();
            before();
            how.arm(n);
            const qnm_api_code_t code = act();
            const bool came = how.came();
            how.disarm();
            EXPECT_EQ(came, n <= all) << "there are others than " << all;
            hurry_event_thread();
            const consequence due = n <= all ? nth(expected, n) : consequence{1, good};
            EXPECT_EQ(code, due.code);
            expect_lines(due.lines);
            expect_no_error_but(due.lines);
            before();
            EXPECT_EQ(act(), good) << "afterwards";
            end(QNM_API_SUCCESS);
            if (HasFailure()) return;  // the waits of all others would last too long
        }
    }
};
