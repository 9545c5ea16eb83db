// test_keepalive.cpp - paths that fall silent, restarts that run out, ports that go down.

#include <functional>
#include <thread>

#include "qnm_keepalive.h"
#include "qnm_util.h"
#include "units.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t k_id = 0x02;

struct keepalive : units {
    keepalive() { fail::set_monotonic_clock(std::chrono::hours(24)); }

    // Time passes: all clocks go on.
    static void pass(uint64_t ms) {
        fail::advance_monotonic_clock(std::chrono::milliseconds(ms));
        fail::advance_wall_clock(std::chrono::milliseconds(ms));
    }

    // Lets the loop sleep this often, then stops the manager. Returns the lengths of the sleeps.
    std::vector<std::chrono::nanoseconds> run(size_t sleeps) {
        std::vector<std::chrono::nanoseconds> slept;
        fail::on_sleep([&](std::chrono::nanoseconds duration) {
            slept.push_back(duration);
            if (slept.size() == sleeps) qnm::store(qnm_root.er_fini_flag, 0U);
        });
        EXPECT_EQ(_qnm_interval_check(), 0);
        set_running();
        return slept;
    }

    // One check without the loop.
    void check() {
        qnm_config.devinfo_flag_check_interval = qnm_config.devinfo_check_interval;
        run(1);
    }

    static void add(uint64_t id, const uint32_t (&state)[2][2], uint64_t heard,
                    uint32_t ignore_state = QNM_WATCH, bool server = true) {
        qnm_qnsv_t sv = {};
        qnm_qnio_t io = {};
        qnm_com_dev_t& dev = server ? sv.esv_com_dev : io.eio_com_dev;
        dev.ecd_id = id;
        for (int port = 0; port < 2; port++) {
            for (int path = 0; path < 2; path++) {
                dev.ecd_state[port][path] = state[port][path];
                dev.ecd_recvtime[port][path] = heard;
            }
        }
        const qnm::table_guard lock;
        const int err = server ? _qnm_set_qnsv(id, &sv, ignore_state, 0, QNM_VALID_ALL)
                               : _qnm_set_qnio(id, &io, ignore_state, 0, QNM_VALID_ALL);
        ASSERT_EQ(err, 0);
    }

    static std::string paths(uint64_t id) {
        qnm_qnsv_t sv = {};
        qnm_qnio_t io = {};
        if (qnm_get_qnsv(id, &sv) != QNM_API_SUCCESS) {
            EXPECT_EQ(qnm_get_qnio(id, &io), QNM_API_SUCCESS);
            sv.esv_com_dev = io.eio_com_dev;
        }
        std::string letters;
        for (const auto& port : sv.esv_com_dev.ecd_state) {
            for (const uint32_t state : port)
                letters += state != 0 ? 'C' : 'D';
        }
        return letters;
    }

    static uint32_t ignore_state(uint64_t id) {
        const qnm::table_guard lock;
        uint32_t state = 99;
        _qnm_get_qnsv(id, nullptr, &state, nullptr, QNM_VALID_IGNORE_STATE);
        return state;
    }

    static uint64_t updates() { return qnm_stats.est_evt[QNM_EVT_UPDATEDEVINFO]; }
    static uint64_t channels() { return qnm_stats.est_evt[QNM_EVT_CHANNELSTATECHANGE]; }
};

TEST_F(keepalive, a_check_runs_after_every_fourth_sleep_of_300_ms) {
    qnm_config.devinfo_check_interval = 1000;
    qnm_config.devinfo_flag_check_interval = 300;
    EXPECT_THAT(run(9), testing::Each(std::chrono::milliseconds(300)));
    EXPECT_EQ(logs.count(k_trace, "_qnm_interval_check: DEVINFO interval check start"), 2U);
    EXPECT_EQ(logs.count(k_trace, "_qnm_interval_check: DEVINFO interval check end"), 2U);
    EXPECT_TRUE(logs.has(k_info, "_qnm_interval_check: start."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_interval_check: end."));
}

TEST_F(keepalive, a_stop_is_noticed_after_one_sleep) {
    EXPECT_EQ(run(1).size(), 1U);
    EXPECT_FALSE(logs.has(k_trace, "_qnm_interval_check: DEVINFO interval check start"));
    qnm::store(qnm_root.er_fini_flag, 0U);
    fail::on_sleep([](auto) { ADD_FAILURE() << "slept although it was stopped"; });
    EXPECT_EQ(_qnm_interval_check(), 0);
}

TEST_F(keepalive, silence_of_exactly_the_expire_time_disconnects) {
    qnm_config.devinfo_expire_time = 3000;
    add(k_id, {{1, 1}, {1, 1}}, k_now - 2999);
    check();
    EXPECT_EQ(paths(k_id), "CCCC");
    EXPECT_EQ(updates(), 0U);
    pass(1);
    check();
    EXPECT_EQ(paths(k_id), "DDDD");
    EXPECT_EQ(updates(), 1U);
    EXPECT_EQ(channels(), 1U);
    EXPECT_TRUE(logs.has(k_info,
                         "_devinfo_keepalive_check: QNSV id=0x000000000002 state change to "
                         "disconnect. P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: DISCONNECT, "
                         "P1M1: DISCONNECT"));
    qnm_qnsv_t card;
    EXPECT_EQ(qnm_get_qnsv(k_id, &card), QNM_API_SUCCESS);
    EXPECT_EQ(card.esv_com_dev.ecd_updatetime, k_now + 1);
    check();
    EXPECT_EQ(updates(), 1U) << "a card that is down already raises nothing";
}

TEST_F(keepalive, io_cards_expire_as_well_and_have_their_own_word) {
    add(k_id, {{1, 0}, {0, 0}}, 1, QNM_WATCH, false);
    check();
    EXPECT_TRUE(logs.has(k_info,
                         "_devinfo_keepalive_check: QNIO id=0x000000000002 state change to "
                         "disconnect. P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: DISCONNECT, "
                         "P1M1: DISCONNECT"));
}

TEST_F(keepalive, an_ignored_card_keeps_its_paths_through_silence_and_port_down) {
    add(k_id, {{1, 0}, {1, 0}}, 1, QNM_IGNORE);
    check();
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_EQ(paths(k_id), "CDCD");
    EXPECT_EQ(updates(), 0U);
}

TEST_F(keepalive, a_restarted_silent_card_is_down_on_the_fourth_check) {
    qnm_config.devinfo_expire_time = 3000;
    qnm_config.devinfo_check_interval = 1000;
    add(k_id, {{1, 0}, {0, 0}}, k_now, QNM_WATCH_RESTART);
    for (int i = 0; i < 3; i++)
        check();
    EXPECT_EQ(ignore_state(k_id), uint32_t{QNM_WATCH_RESTART});
    EXPECT_EQ(paths(k_id), "CDDD");
    check();
    EXPECT_EQ(ignore_state(k_id), uint32_t{QNM_WATCH});
    EXPECT_EQ(paths(k_id), "DDDD");
    EXPECT_EQ(channels(), 1U);
}

TEST_F(keepalive, a_restart_that_runs_out_is_reported_even_when_the_card_was_down) {
    qnm_config.devinfo_expire_time = 1000;
    add(k_id, {{0, 0}, {0, 0}}, 0, QNM_WATCH_RESTART);
    check();
    check();
    EXPECT_EQ(ignore_state(k_id), uint32_t{QNM_WATCH});
    EXPECT_EQ(updates(), 1U);
}

TEST_F(keepalive, an_unknown_ignore_state_is_named_and_passed_over) {
    add(k_id, {{1, 0}, {0, 0}}, 1, 3);
    check();
    EXPECT_TRUE(logs.has(k_warn, "_update_keepalive_state: Unknown ignore_state. state=3"));
    EXPECT_EQ(paths(k_id), "CDDD");
}

TEST_F(keepalive, a_lost_event_does_not_stop_the_check) {
    add(k_id, {{1, 0}, {0, 0}}, 1);
    alloc::fail_nth(1);
    check();
    EXPECT_TRUE(logs.has(k_warn,
                         "_devinfo_keepalive_check: Failed to _qnm_add_event("
                         "QNM_EVT_UPDATEDEVINFO) id=0x000000000002"));
    EXPECT_EQ(paths(k_id), "DDDD");
    EXPECT_EQ(channels(), 1U);
}

TEST_F(keepalive, port_down_takes_its_own_paths_only) {
    add(1, {{1, 1}, {1, 1}}, k_now);
    add(2, {{1, 0}, {0, 0}}, k_now, QNM_WATCH, false);
    add(3, {{0, 0}, {0, 1}}, k_now, QNM_WATCH_RESTART, false);
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(1);
    }
    EXPECT_EQ(paths(1), "CCDD");
    EXPECT_EQ(paths(2), "CDDD");
    EXPECT_EQ(paths(3), "DDDD");
    EXPECT_EQ(updates(), 2U);
    EXPECT_EQ(channels(), 2U);
    EXPECT_TRUE(logs.has(k_info,
                         "_qnm_all_disconnect: QNSV id=0x000000000001 state change to disconnect. "
                         "P0M0: CONNECT, P0M1: CONNECT, P1M0: DISCONNECT, P1M1: DISCONNECT"));
    EXPECT_TRUE(logs.has(k_info,
                         "_qnm_all_disconnect: QNIO id=0x000000000003 state change to disconnect. "
                         "P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: DISCONNECT, P1M1: "
                         "DISCONNECT"));
}

TEST_F(keepalive, lost_events_of_a_port_down_are_warned_of_in_its_name) {
    add(1, {{1, 0}, {0, 0}}, k_now);
    alloc::fail_nth(2);
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_TRUE(logs.has(k_warn,
                         "_qnm_all_disconnect: Failed to _qnm_add_event("
                         "QNM_EVT_CHANNELSTATECHANGE) id=0x000000000001"));
}

// ---- Clocks that are set, and times in which nothing ran ----------------------------------------

TEST_F(keepalive, a_clock_that_is_set_forward_loses_no_card) {
    qnm_config.devinfo_expire_time = 3000;
    add(k_id, {{1, 1}, {1, 1}}, k_now);
    set_now(k_now + 3'600'000);
    check();
    EXPECT_EQ(paths(k_id), "CCCC");
    EXPECT_EQ(updates(), 0U);
    pass(3000);
    check();
    EXPECT_EQ(paths(k_id), "DDDD");
    qnm_qnsv_t card;
    EXPECT_EQ(qnm_get_qnsv(k_id, &card), QNM_API_SUCCESS);
    EXPECT_EQ(card.esv_com_dev.ecd_recvtime[0][0], k_now) << "hosts see the time of the wall clock";
    EXPECT_EQ(card.esv_com_dev.ecd_updatetime, k_now + 3'603'000);
}

TEST_F(keepalive, a_clock_that_is_set_back_keeps_no_dead_card) {
    qnm_config.devinfo_expire_time = 3000;
    add(k_id, {{1, 1}, {1, 1}}, k_now);
    set_now(k_now - 3'600'000);
    pass(2999);
    check();
    EXPECT_EQ(paths(k_id), "CCCC");
    pass(1);
    check();
    EXPECT_EQ(paths(k_id), "DDDD");
}

TEST_F(keepalive, a_record_from_the_future_was_heard_now) {
    qnm_config.devinfo_expire_time = 3000;
    add(k_id, {{1, 0}, {0, 0}}, k_now + 3'600'000);
    check();
    EXPECT_EQ(paths(k_id), "CDDD");
    pass(3000);
    check();
    EXPECT_EQ(paths(k_id), "DDDD");
}

// The time in a frame's record cannot be trusted: it comes from a clock that may be set at any
// moment.
TEST_F(keepalive, a_path_that_a_frame_was_heard_by_is_as_old_as_it_says) {
    qnm_config.devinfo_expire_time = 3000;
    const qnm_heard_t heard = {1, 0, _qnm_get_msec_monotonic() - 2999};
    qnm_qnio_t card = {};
    card.eio_com_dev.ecd_id = k_id;
    card.eio_com_dev.ecd_state[1][0] = 1;
    card.eio_com_dev.ecd_recvtime[1][0] = 1;
    {
        const qnm::table_guard lock;
        ASSERT_EQ(_qnm_set_heard_qnio(k_id, &card, QNM_WATCH, 0, QNM_VALID_ALL, &heard), 0);
    }
    check();
    EXPECT_EQ(paths(k_id), "DDCD");
    pass(1);
    check();
    EXPECT_EQ(paths(k_id), "DDDD");
}

constexpr char k_stopped_line[] =
    "_qnm_interval_check: Has not run for 10000 ms. Paths are not judged for 3000 ms.";

struct stopped : keepalive, testing::WithParamInterface<bool> {
    static constexpr uint64_t k_stop_ms = 10000;
    static constexpr uint64_t k_interval_ms = 1000;

    size_t sleeps = 0;

    stopped() {
        qnm_config.devinfo_expire_time = 3000;
        qnm_config.devinfo_check_interval = k_interval_ms;
        qnm_config.devinfo_flag_check_interval = k_interval_ms;
    }

    // Lets the loop sleep this often, the first time for longer by the time in which nothing runs.
    // Calls after() with the number of each sleep at its end.
    void run_stopped(size_t count, const std::function<void(size_t)>& after) {
        fail::on_sleep([&](std::chrono::nanoseconds) {
            pass(k_interval_ms);
            if (++sleeps == 1) stop_process();
            after(sleeps);
            if (sleeps == count) qnm::store(qnm_root.er_fini_flag, 0U);
        });
        EXPECT_EQ(_qnm_interval_check(), 0);
        set_running();
    }

    // The parameter says whether the machine is suspended, so that its monotonic clock stands
    // still.
    static void stop_process() {
        if (GetParam()) {
            fail::suspend_machine(std::chrono::milliseconds(k_stop_ms));
        } else {
            fail::advance_monotonic_clock(std::chrono::milliseconds(k_stop_ms));
        }
        fail::advance_wall_clock(std::chrono::milliseconds(k_stop_ms));
    }
};

INSTANTIATE_TEST_SUITE_P(keepalive, stopped, testing::Bool(),
                         [](const auto& it) { return it.param ? "suspended" : "sigstop"; });

TEST_P(stopped, process_gives_the_cards_the_expire_time_to_be_heard_again) {
    add(k_id, {{1, 1}, {0, 0}}, k_now);
    std::vector<std::string> seen;
    run_stopped(4, [&](size_t number) {
        seen.push_back(paths(k_id));
        if (number != 3) return;
        // One of the paths is heard again.
        qnm_qnsv_t card;
        ASSERT_EQ(qnm_get_qnsv(k_id, &card), QNM_API_SUCCESS);
        const qnm_heard_t heard = {0, 0, _qnm_get_msec_monotonic()};
        const qnm::table_guard lock;
        ASSERT_EQ(_qnm_set_heard_qnsv(k_id, &card, QNM_WATCH, 0, QNM_VALID_ALL, &heard), 0);
    });
    EXPECT_THAT(seen, testing::Each("CCDD"));
    EXPECT_EQ(paths(k_id), "CDDD") << "3 s after the stop the other one is judged";
    EXPECT_EQ(logs.count(k_info, k_stopped_line), 1U);
}

TEST_P(stopped, process_does_not_hurry_a_restarted_card) {
    add(k_id, {{1, 0}, {0, 0}}, k_now, QNM_WATCH_RESTART);
    std::vector<uint32_t> seen;
    run_stopped(7, [&](size_t) { seen.push_back(ignore_state(k_id)); });
    EXPECT_THAT(seen, testing::Each(uint32_t{QNM_WATCH_RESTART}));
    EXPECT_EQ(ignore_state(k_id), uint32_t{QNM_WATCH}) << "the fourth check after the pause";
}

TEST_F(keepalive, a_little_late_is_no_stop) {
    qnm_config.devinfo_expire_time = 3000;
    qnm_config.devinfo_flag_check_interval = qnm_config.devinfo_check_interval;
    add(k_id, {{1, 0}, {0, 0}}, k_now - 3000);
    fail::on_sleep([](std::chrono::nanoseconds) {
        pass(qnm_config.devinfo_check_interval + 1500);
        qnm::store(qnm_root.er_fini_flag, 0U);
    });
    EXPECT_EQ(_qnm_interval_check(), 0);
    set_running();
    EXPECT_EQ(paths(k_id), "DDDD");
}

// The process is stopped while the check lets receivers take the table.
TEST_F(keepalive, a_stop_in_the_middle_of_a_check_ends_it) {
    qnm_config.devinfo_expire_time = 3000;
    for (uint64_t id = 1; id <= 100; id++)
        add(id, {{1, 0}, {0, 0}}, k_now - 3000);
    add(200, {{1, 0}, {0, 0}}, k_now);
    qnm_config.devinfo_flag_check_interval = qnm_config.devinfo_check_interval;
    size_t sleeps = 0;
    fail::on_sleep([&](std::chrono::nanoseconds) {
        if (++sleeps == 2) pass(10000);
        if (sleeps == 3) qnm::store(qnm_root.er_fini_flag, 0U);
    });
    EXPECT_EQ(_qnm_interval_check(), 0);
    set_running();
    EXPECT_EQ(paths(200), "CDDD");
    EXPECT_EQ(updates(), 64U);
    EXPECT_EQ(logs.count_part(k_info, "_qnm_interval_check: Has not run for "), 1U);
}

// ---- Very many at once --------------------------------------------------------------------------

constexpr uint64_t k_many = 100;  // of each kind
constexpr std::chrono::milliseconds k_pause{1};

struct mass_loss : keepalive {
    // How many losses had been reported each time that a receiver got the table.
    std::vector<uint64_t> seen;

    mass_loss() {
        qnm_config.devinfo_flag_check_interval = qnm_config.devinfo_check_interval;
        for (uint64_t id = 1; id <= k_many; id++) {
            add(id, {{1, 0}, {0, 0}}, 1);
            add(id, {{1, 0}, {0, 0}}, 1, QNM_WATCH, false);
        }
        // In each pause another thread has to get the table; it waits without a limit.
        fail::on_sleep([this](std::chrono::nanoseconds duration) {
            if (duration != k_pause) {
                if (checked++ != 0) end();
                return;
            }
            std::thread receiver([this] {
                const qnm::table_guard lock;
                seen.push_back(updates());
            });
            receiver.join();
            if (seen.size() == stop_after) end();
        });
    }

    static void end() { qnm::store(qnm_root.er_fini_flag, 0U); }

    int checked = 0;  // how often the loop has slept until a check; two are enough
    size_t stop_after = SIZE_MAX;
};

TEST_F(mass_loss, of_paths_that_expire_lets_receivers_in_after_every_64_reports) {
    EXPECT_EQ(_qnm_interval_check(), 0);
    EXPECT_THAT(seen, ElementsAre(64U, 128U, 192U));
    EXPECT_EQ(updates(), 2 * k_many);
    EXPECT_EQ(channels(), 2 * k_many);
    EXPECT_EQ(logs.count_part(k_info, "_devinfo_keepalive_check: QNSV id=0x"), k_many);
    EXPECT_EQ(logs.count_part(k_info, "_devinfo_keepalive_check: QNIO id=0x"), k_many);
    // The second check finds nothing.
    EXPECT_EQ(logs.count(k_trace, "_qnm_interval_check: DEVINFO interval check start"), 2U);
    EXPECT_EQ(logs.count(k_trace, "_qnm_interval_check: DEVINFO interval check end"), 2U);
}

TEST_F(mass_loss, of_paths_that_expire_ends_with_a_stop) {
    stop_after = 2;
    EXPECT_EQ(_qnm_interval_check(), 0);
    EXPECT_THAT(seen, ElementsAre(64U, 128U));
    EXPECT_EQ(updates(), 128U);
}

TEST_F(mass_loss, of_a_port_lets_receivers_in_after_every_64_reports) {
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_THAT(seen, ElementsAre(64U, 128U, 192U));
    EXPECT_EQ(updates(), 2 * k_many);
    EXPECT_EQ(logs.count_part(k_info, "_qnm_all_disconnect: QNSV id=0x"), k_many);
    EXPECT_EQ(logs.count_part(k_info, "_qnm_all_disconnect: QNIO id=0x"), k_many);
}

TEST_F(mass_loss, of_a_port_ends_with_a_stop) {
    stop_after = 1;
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_THAT(seen, ElementsAre(64U));
    EXPECT_EQ(updates(), 64U);
}

// The link comes back while the table is still being walked.
TEST_F(mass_loss, of_a_port_leaves_a_path_that_was_heard_meanwhile) {
    fail::on_sleep([this](std::chrono::nanoseconds) {
        if (!seen.empty()) return;
        seen.push_back(updates());
        pass(1);
        add(k_many, {{1, 1}, {0, 0}}, k_now + 1);
    });
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_EQ(paths(k_many), "CCDD");
    EXPECT_EQ(updates(), 2 * k_many - 1);
}

}  // namespace
