// test_main.cpp - the whole manager on fake ports: starts, failures, stops.

#include <cerrno>
#include <thread>

#include "config_file.h"
#include "fake_netif.h"
#include "fake_pcap.h"
#include "qnm_util.h"
#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

constexpr char k_conf[] = "ether_port = port0,port1\ndevinfo_flag_check_interval = 1\n";

struct main_unit : testing::Test {
    fail::guard guard;
    log_capture logs;
    install_dir dir{k_conf};
    std::thread manager;
    qnm_api_code_t result = QNM_API_CODE_MAX;

    main_unit() {
        fake_pcap::reset();
        fake_netif::reset();
        fake_netif::set("port0", {.index = 3, .mac = 1});
        fake_netif::set("port1", {.index = 4, .mac = 2});
    }

    ~main_unit() override {
        stop();
        EXPECT_EQ(fake_pcap::open_handles(), 0U);
        EXPECT_EQ(fake_netif::listeners(), 0U);
        EXPECT_EQ(qnm::load(internal_err), 0);
        EXPECT_EQ(qnm::load(qnm_root.er_init_flag), 1U);
        for (const int fd : {qnm_terminate_fd_recv[0][0], qnm_terminate_fd_recv[1][1],
                             qnm_terminate_fd_link[0], qnm_terminate_fd_link[1]}) {
            EXPECT_EQ(fd, -1);
        }
        qnm::store(g_log_level, QNM_LOGLVL_INFO);
    }

    static bool is_up() { return qnm::is_usable(); }

    void start(qnm_log_level_t level = QNM_LOGLVL_NONE) {
        manager = std::thread([this, level] { result = init(level); });
        ASSERT_TRUE(wait_until(is_up));
    }

    qnm_api_code_t stop() {
        if (manager.joinable()) {
            EXPECT_EQ(qnm_fini_manager(), QNM_API_SUCCESS);
            manager.join();
        }
        return result;
    }

    // For a start that is going to fail.
    qnm_api_code_t init(qnm_log_level_t level = QNM_LOGLVL_NONE) {
        return qnm_init_manager(dir.path().c_str(), level);
    }

    // After any failure the manager starts again as if nothing had been.
    void expect_restart() {
        start();
        EXPECT_EQ(stop(), QNM_API_SUCCESS);
    }

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
                            "_qnm_event_cb_init", "_qnm_reg_init"));
    EXPECT_THAT(infos_with("_fini: end."),
                ElementsAre("_qnm_reg_fini", "_qnm_event_cb_fini", "_qnm_blacklist_fini",
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
    EXPECT_EQ(fail::count(fail::call::pthread_create), 5U);
    EXPECT_EQ(fail::count(fail::call::pthread_join), 5U);
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

TEST_F(main_unit, a_missing_configuration_means_defaults) {
    const install_dir bare;
    fake_netif::set("eth0", {.index = 1, .mac = 1});
    manager = std::thread([&] { result = qnm_init_manager(bare.path().c_str(), QNM_LOGLVL_NONE); });
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
    EXPECT_EQ(fail::count(fail::call::pthread_create), 4U);
    EXPECT_THAT(fake_pcap::close_calls(), ElementsAre("port1"));
}

TEST_F(main_unit, with_one_port_configured_the_second_is_never_opened) {
    dir.write_conf("ether_port = port0\ndevinfo_flag_check_interval = 1\n");
    expect_restart();
    EXPECT_EQ(fake_pcap::open_calls().size(), 1U);
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

TEST_F(main_unit, a_pipe_that_cannot_be_made_leaves_no_descriptor) {
    const size_t before = fail::open_descriptors();
    for (unsigned n = 1; n <= 3; n++) {
        fail::nth(fail::call::pipe, n, EMFILE);
        EXPECT_EQ(init(), QNM_API_EPROTO);
        EXPECT_EQ(fail::open_descriptors(), before);
    }
    EXPECT_EQ(
        logs.count(k_error, "qnm_init_manager: Failed to _qnm_terminate_event_create(). err=71"),
        3U);
    expect_restart();
}

// Which thread does not start, and what the log calls it.
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
    // The first event is the statistics', the second the event thread's.
    fail::nth(fail::call::pthread_condattr_setclock, 2, EINVAL);
    EXPECT_EQ(init(), QNM_API_EPROTO);
    EXPECT_THAT(infos_with("_fini: end."), ElementsAre("_qnm_blacklist_fini", "_qnm_qn_fini",
                                                       "_qnm_stats_fini", "_qnm_config_fini"));
    expect_restart();
}

TEST_F(main_unit, an_internal_error_ends_the_manager_with_its_code) {
    start();
    fake_pcap::push_result("port1", -1);
    manager.join();
    EXPECT_EQ(result, QNM_API_EPROTO);
    EXPECT_TRUE(logs.has(k_info, "qnm_init_manager: Internal err is detected. internal_err=71"));
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
