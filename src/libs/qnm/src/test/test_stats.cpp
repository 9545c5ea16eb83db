// test_stats.cpp - the status dump and the thread that writes it.

#include <cerrno>
#include <thread>

#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

int g_mutex_result = 0;
extern "C" int __real__qnm_mutex_init_st(qnm_mutex_t* mutex);
extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t* mutex) {
    return g_mutex_result != 0 ? g_mutex_result : __real__qnm_mutex_init_st(mutex);
}

// The tables print their own section. Here it is one line, at which a test may also act.
std::function<void()> g_in_dump = [] {};
extern "C" void __wrap__qnm_qn_stats_print(uint32_t verbose) {
    qnm_statslog("(tables v%u)", verbose);
    g_in_dump();
}
extern "C" void __wrap__qnm_bl_stats_print(void) {
    qnm_statslog("(blacklist)");
}
extern "C" void __wrap__qnm_config_stats_print(void) {
    qnm_statslog("(configuration)");
}

constexpr char k_first[] = "*** ";
constexpr char k_last[] = "(configuration)";

struct stats : units {
    ~stats() override {
        g_in_dump = [] {};
    }

    std::vector<std::string> dump() const { return logs.texts("statslogfile"); }
    size_t dumps() const { return logs.count(k_info, k_last, "statslogfile"); }
};

TEST_F(stats, a_dump_shows_every_section_in_order) {
    set_flags(0, 1, 1);
    qnm::store(g_log_level, QNM_LOGLVL_WARN);
    qnm_port_info_t& port = qnm_root.er_port_info[1];
    qnm_root.er_port_info[0].epi_mac = 0x001122334455;
    qnm_root.er_port_info[0].epi_link_state = 1;
    port.epi_mac = 0xAABBCCDDEEFF;
    port.epi_link_state = 2;
    qnm_stats.est_port0_down_total = 3;
    qnm_stats.est_sv_node_al = 5;
    qnm_stats.est_sv_node_fr = 2;
    qnm_stats.est_idlist_fr = 1;
    qnm_stats.est_cb_call = 8;
    qnm_stats.est_cb_return = 7;
    qnm_stats.est_evt[QNM_EVT_PATHSTATECHANGE] = 6;
    _qnm_stats_count_frame(0, QNM_STATS_R_DEV40);
    _qnm_stats_count_frame(1, QNM_STATS_T_MMS);
    EXPECT_EQ(qnm_stdump(0), QNM_API_SUCCESS);
    std::vector<std::string> lines = dump();
    ASSERT_FALSE(lines.empty());
    EXPECT_THAT(lines[0],
                testing::MatchesRegex("\\*\\*\\* ....-..-.. ..:..:.. qnm status dump \\(v0\\)"));
    lines.erase(lines.begin());
    EXPECT_THAT(lines, testing::ElementsAreArray({"  - State",
                                                  "    Init flag : ON",
                                                  "    Start flag: OFF",
                                                  "    Fini flag : OFF",
                                                  "    Log level : WARN",
                                                  " ",
                                                  "  - Port information",
                                                  "    + Port0",
                                                  "      MAC addr  : 001122334455",
                                                  "      Link state: UP",
                                                  "      Total down: 3",
                                                  "    + Port1",
                                                  "      MAC addr  : aabbccddeeff",
                                                  "      Link state: DOWN",
                                                  "      Total down: 0",
                                                  " ",
                                                  "(tables v0)",
                                                  "  - Memory",
                                                  "          Name     In Use      Alloc       Free",
                                                  "    ---------- ---------- ---------- ----------",
                                                  "          qnsv          3          5          2",
                                                  "          qnio          0          0          0",
                                                  "       bl_node          0          0          0",
                                                  "      evt_node          0          0          0",
                                                  "     wreg_node          0          0          0",
                                                  "        idlist 4294967295          0          1",
                                                  "        cbinfo          0          0          0",
                                                  "         addrs          0          0          0",
                                                  " ",
                                                  "  - Callback statistics",
                                                  "    Total called  : 8",
                                                  "    Total returned: 7",
                                                  " ",
                                                  "  - Event statistics",
                                                  "    QNM_EVT_NEWDEVINFO        : 0",
                                                  "    QNM_EVT_UPDATEDEVINFO     : 0",
                                                  "    QNM_EVT_CONNECTIONCHANGE  : 0",
                                                  "    QNM_EVT_MAJORMINORERROR   : 0",
                                                  "    QNM_EVT_PATHSTATECHANGE   : 6",
                                                  "    QNM_EVT_CHANNELSTATECHANGE: 0",
                                                  " ",
                                                  "  - Quillnet message send/receive statistics",
                                                  "    + Port0",
                                                  "      QNM_STATS_R_TOTAL    : 0",
                                                  "      QNM_STATS_R_DEV      : 0",
                                                  "      QNM_STATS_R_DEV40    : 1",
                                                  "      QNM_STATS_R_NOTI     : 0",
                                                  "      QNM_STATS_R_NOTI40   : 0",
                                                  "      QNM_STATS_R_COMP     : 0",
                                                  "      QNM_STATS_T_TOTAL    : 0",
                                                  "      QNM_STATS_T_VLANSET  : 0",
                                                  "      QNM_STATS_T_REGR     : 0",
                                                  "      QNM_STATS_T_REGW     : 0",
                                                  "      QNM_STATS_T_RESET    : 0",
                                                  "      QNM_STATS_T_MMS      : 0",
                                                  "    + Port1",
                                                  "      QNM_STATS_R_TOTAL    : 0",
                                                  "      QNM_STATS_R_DEV      : 0",
                                                  "      QNM_STATS_R_DEV40    : 0",
                                                  "      QNM_STATS_R_NOTI     : 0",
                                                  "      QNM_STATS_R_NOTI40   : 0",
                                                  "      QNM_STATS_R_COMP     : 0",
                                                  "      QNM_STATS_T_TOTAL    : 0",
                                                  "      QNM_STATS_T_VLANSET  : 0",
                                                  "      QNM_STATS_T_REGR     : 0",
                                                  "      QNM_STATS_T_REGW     : 0",
                                                  "      QNM_STATS_T_RESET    : 0",
                                                  "      QNM_STATS_T_MMS      : 1",
                                                  " ",
                                                  "  - API error code",
                                                  "    QNM_API_SUCCESS      : 0",
                                                  "    QNM_API_EINVAL       : 0",
                                                  "    QNM_API_ERANGE       : 0",
                                                  "    QNM_API_ENOENT       : 0",
                                                  "    QNM_API_ENOLINK      : 0",
                                                  "    QNM_API_ENOMEM       : 0",
                                                  "    QNM_API_EPROTO       : 0",
                                                  "    QNM_API_ETIMEDOUT    : 0",
                                                  "    QNM_API_EBUSY        : 0",
                                                  "    QNM_API_ENOSYS       : 0",
                                                  " ",
                                                  "(blacklist)",
                                                  "(configuration)"}));
    qnm_stats.est_sv_node_al = qnm_stats.est_sv_node_fr = 0;
}

TEST_F(stats, a_verbose_dump_adds_the_results_of_every_call) {
    _qnm_stats_count_call(QNM_STATS_FREE_IDLIST, QNM_API_EBUSY);
    EXPECT_EQ(qnm_stdump(2), QNM_API_SUCCESS);
    const std::vector<std::string> lines = dump();
    const auto detail = std::find(lines.begin(), lines.end(), "  - API error code detail");
    ASSERT_NE(detail, lines.end());
    EXPECT_THAT(lines, testing::Contains("(tables v2)"));
    const char* const labels[] = {"qnm_get_qnsvids()",
                                  "qnm_get_update_qnsvids()",
                                  "qnm_get_group_qnsvids()",
                                  "qnm_get_qnioids()",
                                  "qnm_get_update_qnioids()",
                                  "qnm_get_group_qnioids()",
                                  "qnm_get_qnsv()",
                                  "qnm_get_qnio()",
                                  "qnm_delete_qnsv()",
                                  "qnm_delete_qnio()",
                                  "qnm_set_vlanid()",
                                  "qnm_send_resetframe()",
                                  "qnm_write_mmspage()",
                                  "qnm_read_register()",
                                  "qnm_write_register()",
                                  "qnm_modify_register()",
                                  "qnm_dump_register()",
                                  "qnm_read_eeprom()",
                                  "qnm_write_eeprom()",
                                  "qnm_dump_eeprom()",
                                  "qnm_unlock_eeprom()",
                                  "qnm_stop_monitor()",
                                  "qnm_restart_monitor()",
                                  "qnm_register_callback()",
                                  "qnm_unregister_callback()",
                                  "qnm_free_idlist()",
                                  "qnm_set_loglevel()",
                                  "qnm_init_manager()",
                                  "qnm_start_manager()",
                                  "qnm_fini_manager()",
                                  "qnm_stdump()"};
    ASSERT_GE(lines.end() - detail, 1 + 31 * 11 + 1);
    for (size_t func = 0; func < std::size(labels); func++) {
        EXPECT_EQ(*(detail + 1 + static_cast<long>(func) * 11), std::string("    ") + labels[func]);
    }
    EXPECT_EQ(*(detail + 1 + 25 * 11 + 1 + 8), "      QNM_API_EBUSY        : 1");
    EXPECT_EQ(*(detail + 1 + 31 * 11), " ");
}

TEST_F(stats, the_log_level_is_shown_only_when_there_is_one) {
    qnm::store(g_log_level, QNM_LOGLVL_NONE);
    EXPECT_EQ(qnm_stdump(0), QNM_API_SUCCESS);
    for (const std::string& line : dump())
        EXPECT_EQ(line.find("Log level"), std::string::npos);
}

TEST_F(stats, a_dump_needs_a_usable_manager_and_is_counted_all_the_same) {
    set_flags(1, 1, 1);
    EXPECT_EQ(qnm_stdump(0), QNM_API_ENOSYS);
    EXPECT_THAT(dump(), IsEmpty());
    expect_counted(QNM_STATS_STDUMP, QNM_API_ENOSYS);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_stdump: (IN) verbose=0", "qnm_stdump: (OUT) ret=9"));
}

TEST_F(stats, init_zeroes_the_counters_and_reports_failures) {
    qnm_stats.est_cb_call = 4;
    logs.clear();
    EXPECT_EQ(_qnm_stats_fini(), 0);
    EXPECT_EQ(_qnm_stats_init(), 0);
    EXPECT_EQ(qnm_stats.est_cb_call, 0U);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("_qnm_stats_fini: start.", "_qnm_stats_fini: end.",
                            "_qnm_stats_init: start.", "_qnm_stats_init: end. ret=0"));
    _qnm_stats_fini();
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_stats_init(), EPROTO);
    g_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_error, "_qnm_stats_init: Failed to _qnm_mutex_init_st(). err=11"));
    fail::nth(fail::call::pthread_condattr_setclock, 1, EINVAL);
    EXPECT_EQ(_qnm_stats_init(), EPROTO);
    EXPECT_TRUE(logs.has(k_error, "_qnm_stats_init: Failed to _qnm_event_init(). err=22"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_stats_init: end. ret=71"));
    EXPECT_EQ(_qnm_stats_init(), 0);
}

TEST_F(stats, the_thread_dumps_at_its_start_at_every_interval_and_at_the_stop) {
    qnm_config.stats_interval = 1;
    std::thread task(_qnm_stats_task, nullptr);
    EXPECT_TRUE(wait_until([&] { return dumps() >= 3; }));
    qnm_config.stats_interval = 3600;
    qnm::store(qnm_root.er_fini_flag, 0U);
    _qnm_stats_write();
    task.join();
    EXPECT_TRUE(logs.has(k_info, "_qnm_stats_task_com: start."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_stats_task_com: end."));
}

TEST_F(stats, a_failed_wait_ends_the_thread_with_a_warning) {
    fail::always(fail::call::pthread_cond_timedwait, EINVAL);
    _qnm_stats_task(nullptr);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_qnm_stats_task_com: Failed to _qnm_event_timedwait() err=71"));
    EXPECT_EQ(dumps(), 1U);
}

// The stop signals nobody while the thread writes, at whatever line that is. With an interval of an
// hour, only checking the flag before the sleep lets the thread end.
TEST_F(stats, a_stop_at_any_point_of_a_dump_ends_the_thread_with_a_last_dump) {
    qnm_config.stats_interval = 3600;
    fail::on(fail::call::pthread_cond_timedwait, [](std::uint64_t) {
        ADD_FAILURE() << "asleep although the stop has been requested";
        return fail::outcome(ETIMEDOUT);
    });
    const auto stop = [] { qnm::store(qnm_root.er_fini_flag, 0U); };
    const auto locks = [] { return fail::count(fail::call::pthread_mutex_lock); };
    // With the stop requested before its start, the thread writes two dumps. Besides their locks,
    // only the wait between them takes one.
    stop();
    const std::uint64_t before = locks();
    _qnm_stats_task(nullptr);
    const std::uint64_t per_dump = (locks() - before - 1) / 2;
    ASSERT_GE(per_dump, 6U);
    for (std::uint64_t point = 1; point <= per_dump; point++) {
        set_running();
        logs.clear();
        const std::uint64_t due = locks() + point;
        fail::on(fail::call::pthread_mutex_lock, [&](std::uint64_t number) {
            if (number == due) stop();
            return fail::pass;
        });
        _qnm_stats_task(nullptr);
        EXPECT_EQ(dumps(), 2U);
    }
    fail::clear(fail::call::pthread_mutex_lock);
    set_running();
    logs.clear();
    g_in_dump = stop;  // between the sections
    _qnm_stats_task(nullptr);
    EXPECT_EQ(dumps(), 2U);
}

TEST_F(stats, a_stop_during_a_periodic_dump_gets_a_dump_of_its_own_too) {
    qnm_config.stats_interval = 3600;
    std::size_t waits = 0;
    fail::on(fail::call::pthread_cond_timedwait, [&](std::uint64_t) {
        EXPECT_EQ(++waits, 1U) << "asleep although the stop has been requested";
        return fail::outcome(ETIMEDOUT);
    });
    g_in_dump = [this] {
        if (dumps() == 1) qnm::store(qnm_root.er_fini_flag, 0U);
    };
    _qnm_stats_task(nullptr);
    EXPECT_EQ(dumps(), 3U);
}

}  // namespace
