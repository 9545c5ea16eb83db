// test_main.cpp - the whole manager on fake ports: starts, failures, stops.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <numeric>
#include <thread>

#include "frames.h"
#include "qnm_util.h"
#include "whole_manager.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

extern "C" int __real__qnm_make_filename(const char* path, const char* file, char* name,
                                         size_t size);

extern "C" int __real__qnm_event_timedwait_for(qnm_event_t* evt, uint32_t timeout_ms,
                                               qnm_event_cond_t holds, void* arg);

// Waits of the threads with this time-out last an hour; 0 = none.
std::atomic<uint32_t> g_endless_wait = 0;

extern "C" int __wrap__qnm_event_timedwait_for(qnm_event_t* evt, uint32_t timeout_ms,
                                               qnm_event_cond_t holds, void* arg) {
    constexpr uint32_t k_hour = 3'600'000;
    return __real__qnm_event_timedwait_for(evt, timeout_ms == g_endless_wait ? k_hour : timeout_ms,
                                           holds, arg);
}

// The end of the name that cannot be created; null = none.
const char* g_refused_name = nullptr;

extern "C" int __wrap__qnm_make_filename(const char* path, const char* file, char* name,
                                         size_t size) {
    if (g_refused_name != nullptr && strcmp(file, g_refused_name) == 0) return EPROTO;
    return __real__qnm_make_filename(path, file, name, size);
}

struct main_unit : whole_manager {
    std::vector<std::string> infos_with(const std::string& end) const {
        std::vector<std::string> found;
        for (const std::string& text : logs.texts("logfile", k_info)) {
            if (text.ends_with(end)) found.push_back(text.substr(0, text.find(':')));
        }
        return found;
    }
};

TEST_F(main_unit, units_are_brought_up_in_order_and_taken_down_in_reverse) {
    start();
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_THAT(infos_with(": end. ret=0"),
                ElementsAre("_qnm_stats_init", "_qnm_qn_init", "_qnm_blacklist_init",
                            "_qnm_event_cb_init", "_qnm_cmp_init", "_qnm_reg_init"));
    EXPECT_THAT(
        infos_with("_fini: end."),
        ElementsAre("_qnm_reg_fini", "_qnm_cmp_fini", "_qnm_event_cb_fini", "_qnm_blacklist_fini",
                    "_qnm_qn_fini", "_qnm_stats_fini", "_qnm_config_fini"));
    EXPECT_TRUE(logs.has(k_info, "qnm_init_manager: Initialization was completed."));
    EXPECT_THAT(logs.texts("syslogfile", k_info),
                ElementsAre("Starting QNM LFI", "QNM LFI stopped"));
    EXPECT_EQ(logs.lines().back().text, "qnm_init_manager: (OUT) ret=0");
    EXPECT_THAT(fake_pcap::close_calls(), ElementsAre("port0", "port1"));
    EXPECT_THAT(logs.texts("logfile", k_info),
                IsSupersetOf({"_qnm_recv_task: end. if_index=3, mac=000000000001",
                              "_qnm_recv_task: end. if_index=4, mac=000000000002",
                              "_qnm_watch_linkstate: end.", "_qnm_event_task_com: end.",
                              "_qnm_stats_task_com: end."}));
    EXPECT_EQ(fail::count(fail::call::pthread_create), 6U);
    EXPECT_EQ(fail::count(fail::call::pthread_join), 6U);
}

TEST_F(main_unit, the_flags_tell_the_state) {
    start();
    EXPECT_EQ(qnm::load(qnm_root.er_start_flag), 1U);
    EXPECT_EQ(qnm_start_manager(), QNM_API_SUCCESS);
    EXPECT_EQ(qnm::load(qnm_root.er_start_flag), 0U);
    EXPECT_EQ(qnm_start_manager(), QNM_API_SUCCESS) << "again";
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_EQ(qnm::load(qnm_root.er_init_flag), 1U);
    EXPECT_EQ(qnm::load(qnm_root.er_start_flag), 1U);
    EXPECT_EQ(qnm::load(qnm_root.er_fini_flag), 0U);
    EXPECT_EQ(qnm_start_manager(), QNM_API_ENOSYS);
    EXPECT_TRUE(logs.has(k_info, "qnm_start_manager: (IN)"));
    EXPECT_TRUE(logs.has(k_info, "qnm_start_manager: (OUT) ret=9"));
    EXPECT_TRUE(logs.has(k_info, "qnm_fini_manager: (OUT) ret=0"));
}

TEST_F(main_unit, a_stop_while_idle_is_forgotten_by_the_next_start) {
    EXPECT_EQ(qnm_fini_manager(), QNM_API_SUCCESS);
    expect_restart();
}

TEST_F(main_unit, a_stop_during_start_up_is_obeyed) {
    for (uint64_t thread = 1; thread <= 5; thread++) {
        const uint64_t due = fail::count(fail::call::pthread_create) + thread;
        fail::on(fail::call::pthread_create, [due](uint64_t number) {
            if (number == due) qnm_fini_manager();
            return fail::pass;
        });
        EXPECT_EQ(init(), QNM_API_SUCCESS) << thread;
    }
    fail::clear(fail::call::pthread_create);
    expect_restart();
}

TEST_F(main_unit, a_second_start_is_busy_and_silent) {
    start();
    // Logged after the flag that start() waits for is set.
    EXPECT_TRUE(logs.wait_for(k_info, "qnm_init_manager: Initialization was completed."));
    const size_t lines = logs.count_part(k_info, "qnm_init_manager");
    EXPECT_EQ(init(), QNM_API_EBUSY);
    EXPECT_EQ(logs.count_part(k_info, "qnm_init_manager"), lines);
    {
        const qnm::mutex_guard lock(qnm_stats_mutex);
        EXPECT_EQ(qnm_stats.est_func_code[QNM_STATS_INIT_MANAGER][QNM_API_EBUSY], 1U);
    }
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_stats.est_func_code[QNM_STATS_INIT_MANAGER][QNM_API_SUCCESS], 0U);
}

TEST_F(main_unit, a_start_while_the_init_flag_says_running_is_busy_and_changes_nothing) {
    set_flags(0, 0, 0);
    std::atomic<bool> ended = false;
    manager = std::thread([&] {
        result = init();
        ended = true;
    });
    EXPECT_TRUE(wait_until([&] { return ended || fake_pcap::open_handles() != 0; }));
    EXPECT_TRUE(ended) << "it has started";
    if (!ended) qnm_fini_manager();
    manager.join();
    EXPECT_EQ(result, QNM_API_EBUSY);
    EXPECT_EQ(qnm::load(qnm_root.er_init_flag), 0U);
    EXPECT_EQ(qnm::load(qnm_root.er_start_flag), 0U);
    EXPECT_EQ(qnm::load(qnm_root.er_fini_flag), 0U);
    EXPECT_TRUE(logs.lines().empty());
    set_flags(1, 1, 1);
    expect_restart();
}

TEST_F(main_unit, wrong_arguments_are_refused_silently) {
    for (const int level : {-2, 6}) {
        EXPECT_EQ(init(static_cast<qnm_log_level_t>(level)), QNM_API_EINVAL);
    }
    EXPECT_EQ(qnm_init_manager((dir.path() + "/nowhere").c_str(), QNM_LOGLVL_NONE), QNM_API_EINVAL);
    EXPECT_EQ(qnm_init_manager(dir.conf().c_str(), QNM_LOGLVL_NONE), QNM_API_EINVAL);
    EXPECT_TRUE(logs.lines().empty());
    expect_restart();
}

TEST_F(main_unit, the_level_comes_from_the_caller_or_the_file) {
    dir.write_conf(std::string(k_conf) + "log_level = 4\n");
    start();
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_DEBUG);
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    start(QNM_LOGLVL_WARN);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_WARN);
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
}

TEST_F(main_unit, a_missing_properties_file_ends_the_start) {
    dir.remove_properties();
    EXPECT_EQ(init(), QNM_API_EPROTO);
}

TEST_F(main_unit, a_bad_configuration_ends_the_start) {
    dir.write_conf("frob = 1\n");
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_THAT(logs.texts("logfile", k_error),
                ElementsAre("_qnm_config_read: Unknown config parameter: frob",
                            "qnm_init_manager: Failed to _qnm_config_read() err=71"));
    dir.write_conf(k_conf);
    expect_restart();
}

// The name of the properties file is the longer one, so a long directory name fails there first.
TEST_F(main_unit, a_configuration_whose_name_cannot_be_made_ends_the_start) {
    g_refused_name = "conf/qnm.conf";
    EXPECT_EQ(init(), QNM_API_EPROTO);
    g_refused_name = nullptr;
    EXPECT_THAT(logs.texts("logfile", k_error),
                ElementsAre("qnm_init_manager: Failed to make_conf_filename()"));
    expect_restart();
}

TEST_F(main_unit, a_missing_configuration_means_defaults) {
    const install_dir bare;
    fake_netif::set("eth0", {.index = 1, .mac = 1});
    manager = std::thread(
        [this, path = bare.path()] { result = qnm_init_manager(path.c_str(), QNM_LOGLVL_NONE); });
    ASSERT_TRUE(wait_until(is_up));
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_EQ(fake_pcap::open_calls().front().name, "eth0");
}

TEST_F(main_unit, one_port_that_opens_is_enough) {
    fake_pcap::set_next_open_failure("port0", "gone");
    start();
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_TRUE(
        logs.has(k_error, "qnm_init_manager: Failed to _qnm_socket_open(). port=0, err=71"));
    EXPECT_EQ(fail::count(fail::call::pthread_create), 5U);
    EXPECT_THAT(fake_pcap::close_calls(), ElementsAre("port1"));
}

TEST_F(main_unit, with_one_port_configured_the_second_is_never_opened) {
    dir.write_conf("ether_port = port0\ndevinfo_flag_check_interval = 1\n");
    expect_restart();
    EXPECT_EQ(fake_pcap::open_calls().size(), 1U);
}

TEST_F(main_unit, a_port_of_an_earlier_run_does_not_seem_connected) {
    start();
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[1].epi_link_state), 1U);
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    dir.write_conf("ether_port = port0\ndevinfo_flag_check_interval = 1\n");
    start();
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[0].epi_link_state), 1U);
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[1].epi_link_state), 0U);
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    fake_pcap::set_next_open_failure("port0", "gone");
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[0].epi_link_state), 0U);
}

TEST_F(main_unit, without_any_port_the_start_fails) {
    fake_pcap::set_next_open_failure("port0", "gone");
    fake_pcap::set_next_open_failure("port1", "gone");
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_TRUE(
        logs.has(k_error, "qnm_init_manager: Failed to _qnm_socket_open(). port=1, err=71"));
    EXPECT_THAT(logs.texts("syslogfile", k_info), ElementsAre("QNM LFI stopped"));
    EXPECT_TRUE(logs.has(k_info, "qnm_init_manager: (OUT) ret=6"));
    expect_restart();
}

// The thread that does not start, and its name in the log.
struct thread_row {
    unsigned number;
    const char* label;
};

TEST_F(main_unit, a_task_that_cannot_be_started_ends_the_start) {
    for (const thread_row& row :
         {thread_row{3, "event_task"}, {4, "watch_link"}, {5, "stats_task"}}) {
        logs.clear();
        fail::nth(fail::call::pthread_create, row.number, EAGAIN);
        EXPECT_EQ(init(), QNM_API_EPROTO);
        EXPECT_TRUE(logs.has(k_error, std::string("qnm_init_manager: Failed to "
                                                  "_qnm_thread_create(") +
                                          row.label + "). err=11"));
        EXPECT_THAT(logs.texts("logfile", k_fatal),
                    ElementsAre("_qnm_fini_manager: LFI will terminate by reason of internal "
                                "error."));
        EXPECT_TRUE(
            logs.has(k_info, "qnm_init_manager: Internal err is detected. internal_err=71"));
        EXPECT_EQ(fail::count(fail::call::pthread_join),
                  fail::count(fail::call::pthread_create) - (row.number - 2));
    }
    expect_restart();
}

TEST_F(main_unit, one_receive_thread_is_enough_and_none_is_not) {
    fail::nth(fail::call::pthread_create, 1, EAGAIN);
    expect_restart();
    EXPECT_TRUE(
        logs.has(k_error, "qnm_init_manager: Failed to _qnm_thread_create(recv port0). err=11"));
    fail::nth(fail::call::pthread_create, 1, EAGAIN);
    fail::nth(fail::call::pthread_create, 2, EAGAIN);
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_TRUE(
        logs.has(k_error, "qnm_init_manager: Failed to _qnm_thread_create(recv port1). err=11"));
    EXPECT_TRUE(logs.has(k_info, "qnm_init_manager: Internal err is detected. internal_err=71"));
    expect_restart();
}

TEST_F(main_unit, a_unit_that_fails_undoes_those_before_it) {
    // The first event belongs to the statistics, the second to the event thread.
    fail::nth(fail::call::pthread_condattr_setclock, 2, EINVAL);
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_THAT(infos_with("_fini: end."), ElementsAre("_qnm_blacklist_fini", "_qnm_qn_fini",
                                                       "_qnm_stats_fini", "_qnm_config_fini"));
    expect_restart();
}

// The event thread wakes once a second. That must not delay the end of the manager.
struct event_thread_that_sleeps : main_unit {
    static constexpr uint32_t k_event_wait = 1000;

    event_thread_that_sleeps() { g_endless_wait = k_event_wait; }
    ~event_thread_that_sleeps() override { g_endless_wait = 0; }

    // The manager has to end by itself. If it does not, the thread is woken in another way.
    void expect_end(std::atomic<bool>& ended) {
        EXPECT_TRUE(wait_until([&] { return ended.load(); })) << "the event thread is not woken";
        while (!ended) {
            _qnm_add_event(QNM_EVT_NEWDEVINFO, 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
};

TEST_F(event_thread_that_sleeps, is_woken_by_a_stop) {
    for (const bool by_an_error : {false, true}) {
        std::atomic<bool> ended = false;
        manager = std::thread([&] {
            result = init();
            ended = true;
        });
        ASSERT_TRUE(wait_until(is_up));
        EXPECT_TRUE(
            wait_until([] { return fail::count(fail::call::pthread_cond_timedwait) != 0; }));
        if (by_an_error) {
            fake_pcap::push_result("port1", -1);
        } else {
            EXPECT_EQ(qnm_fini_manager(), QNM_API_SUCCESS);
        }
        expect_end(ended);
        manager.join();
        EXPECT_EQ(result, by_an_error ? QNM_API_EPROTO : QNM_API_SUCCESS);
    }
}

TEST_F(event_thread_that_sleeps, is_woken_by_a_start_that_fails_behind_it) {
    for (const unsigned thread : {4U, 5U}) {
        std::atomic<bool> ended = false;
        fail::on(fail::call::pthread_create,
                 [thread, before = fail::count(fail::call::pthread_create)](uint64_t number) {
                     if (number != before + thread) return fail::pass;
                     // The event thread is asleep already.
                     EXPECT_TRUE(wait_until(
                         [] { return fail::count(fail::call::pthread_cond_timedwait) != 0; }));
                     return fail::outcome(EAGAIN);
                 });
        manager = std::thread([&] {
            result = init();
            ended = true;
        });
        expect_end(ended);
        manager.join();
        EXPECT_EQ(result, QNM_API_EPROTO);
        fail::reset();
    }
}

TEST_F(main_unit, an_internal_error_ends_the_manager_with_its_code) {
    start();
    fake_pcap::push_result("port1", -1);
    manager.join();
    EXPECT_EQ(result, QNM_API_EPROTO);
    EXPECT_TRUE(logs.has(k_info, "qnm_init_manager: Internal err is detected. internal_err=71"));
    expect_restart();
}

// A card that is announced but does not answer, and threads inside calls for it.
struct calls_at_a_stop : main_unit {
    static constexpr uint64_t k_mac = 0x020000001000;
    static constexpr qnm_retry_t k_long = {.er_retry_count = 5, .er_retry_interval = 3'600'000};

    uint64_t learn_card() {
        frames::announcement it;
        it.mac = k_mac;
        EXPECT_EQ(qnm_start_manager(), QNM_API_SUCCESS);
        fake_pcap::push_frame("port0", frames::build(it));
        uint64_t id = 0;
        EXPECT_TRUE(wait_until([&] {
            uint64_t* ids = nullptr;
            uint32_t num = 0;
            if (qnm_get_qnsvids(&ids, &num) != QNM_API_SUCCESS || num == 0) return false;
            id = ids[0];
            qnm_free_idlist(ids);
            return true;
        }));
        return id;
    }
};

TEST_F(calls_at_a_stop, waiting_and_queued_calls_leave_and_the_manager_starts_again) {
    start();
    const uint64_t id = learn_card();
    std::vector<std::thread> callers;
    callers.emplace_back([id] {
        uint32_t data = 0;
        EXPECT_EQ(qnm_read_register(id, 0x10, &data, &k_long, 0), QNM_API_ENOSYS);
    });
    // The first thread holds the card's write lock while it waits, the others queue for the lock.
    for (int n = 0; n < 3; n++) {
        callers.emplace_back(
            [id] { EXPECT_EQ(qnm_modify_register(id, 0x10, 1, 1, &k_long, 0), QNM_API_ENOSYS); });
    }
    EXPECT_TRUE(fake_pcap::wait_sent("port0", 2));
    EXPECT_TRUE(
        wait_until([&] { return logs.count_part(k_info, "qnm_modify_register: (IN)") == 3; }));
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(fake_pcap::sent("port0").size(), 2U) << "nothing is sent after the stop";
    EXPECT_EQ(logs.count_part(k_info, "register: (OUT) ret=9, id="), 4U);
    const std::vector<log_line> lines = logs.lines();
    const auto is_exit = [](const log_line& line) {
        return line.text.find("register: (OUT)") != std::string::npos;
    };
    const auto last_exit = std::find_if(lines.rbegin(), lines.rend(), is_exit);
    EXPECT_TRUE(std::none_of(last_exit, lines.rend(), [](const log_line& line) {
        return line.text.ends_with("_fini: start.");
    })) << "no unit is finished under a call";
    expect_restart();
}

TEST_F(calls_at_a_stop, a_call_from_inside_a_callback_leaves_as_well) {
    start();
    std::atomic<int> ret = -1;
    qnm_cbid_t registration = nullptr;
    const auto read = [](uint64_t id, qnm_evt_type_t, void* out) {
        uint32_t data = 0;
        *static_cast<std::atomic<int>*>(out) = qnm_read_register(id, 0x10, &data, &k_long, 0);
    };
    EXPECT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, read, &ret, &registration),
              QNM_API_SUCCESS);
    learn_card();
    EXPECT_TRUE(fake_pcap::wait_sent("port0", 1));
    EXPECT_EQ(ret, -1) << "it waits for the card";
    EXPECT_EQ(stop(), QNM_API_SUCCESS);
    EXPECT_EQ(ret, QNM_API_ENOSYS);
    expect_restart();
}

TEST_F(main_unit, paths_that_are_too_long_are_refused) {
    char name[qnm::k_filename_size];
    const std::string longest(497, 'x');
    EXPECT_EQ(_qnm_make_filename(longest.c_str(), "conf/qnm.conf", name, sizeof name), 0);
    EXPECT_EQ(strlen(name), 511U);
    EXPECT_EQ(_qnm_make_filename((longest + "x").c_str(), "conf/qnm.conf", name, sizeof name),
              EPROTO);
    EXPECT_EQ(_qnm_make_filename(nullptr, "conf/qnm.conf", name, sizeof name), 0);
    EXPECT_STREQ(name, "/opt/tarvo/qnm/conf/qnm.conf");
    EXPECT_EQ(_qnm_make_filename("", "conf/qnm_log4c.properties", name, sizeof name), 0);
    EXPECT_STREQ(name, "/opt/tarvo/qnm/conf/qnm_log4c.properties");
    EXPECT_EQ(_qnm_make_filename("dir/", "conf/qnm.conf", name, sizeof name), 0);
    EXPECT_STREQ(name, "dir//conf/qnm.conf");
}

}  // namespace
