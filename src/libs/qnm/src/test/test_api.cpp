// test_api.cpp - the device commands and the log level.

#include "qnm_api.h"

#include <cerrno>
#include <functional>
#include <thread>

#include "ports.h"
#include "qnm_call.h"
#include "qnm_completion.h"
#include "qnm_counters.h"
#include "qnm_reg_send.h"
#include "qnm_write_lock.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using frames::announcement;
using frames::frame_t;
using std::chrono::steady_clock;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

int g_lookup_result = 0;

bool table_is_locked() {
    if (pthread_mutex_trylock(&qnm_qn.eei_mutex.em_mutex) != 0) return true;
    pthread_mutex_unlock(&qnm_qn.eei_mutex.em_mutex);
    return false;
}

extern "C" int __real__qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state);
extern "C" int __wrap__qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state) {
    EXPECT_TRUE(table_is_locked());
    return g_lookup_result != 0 ? g_lookup_result
                                : __real__qnm_get_qndev_ign(id, dev, ignore_state);
}

extern "C" int __real__qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t* ignore_state,
                                    uint32_t* check_count, uint32_t valid_param);
extern "C" int __wrap__qnm_get_qnio(uint64_t id, qnm_qnio_t* qnio, uint32_t* ignore_state,
                                    uint32_t* check_count, uint32_t valid_param) {
    EXPECT_TRUE(table_is_locked());
    return g_lookup_result != 0
               ? g_lookup_result
               : __real__qnm_get_qnio(id, qnio, ignore_state, check_count, valid_param);
}

extern "C" int __real__qnm_send(int port, const unsigned char* buffer, size_t length);
extern "C" int __wrap__qnm_send(int port, const unsigned char* buffer, size_t length) {
    EXPECT_FALSE(table_is_locked());
    return __real__qnm_send(port, buffer, length);
}

int g_write_locks = 0;

extern "C" int __real__qnm_write_reg_lock(uint64_t id);
extern "C" int __wrap__qnm_write_reg_lock(uint64_t id) {
    g_write_locks++;
    return __real__qnm_write_reg_lock(id);
}

using api = units;

TEST_F(api, start_up_sets_the_level_silently) {
    _qnm_set_loglevel(QNM_LOGLVL_WARN);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_WARN);
    qnm_config.log_level = 4;
    _qnm_set_loglevel(QNM_LOGLVL_NONE);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_DEBUG);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(api, a_level_is_set_and_logged) {
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_DEBUG), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_set_loglevel: (IN) log_level=4",
                            "qnm_set_loglevel: Set loglevel. old=5, new=4",
                            "qnm_set_loglevel: (OUT) ret=0, g_log_level=4"));
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_SUCCESS);
}

TEST_F(api, every_level_can_be_set) {
    for (int level = QNM_LOGLVL_FATAL; level <= QNM_LOGLVL_TRACE; level++) {
        EXPECT_EQ(qnm_set_loglevel(static_cast<qnm_log_level_t>(level)), QNM_API_SUCCESS);
        EXPECT_EQ(qnm::load(g_log_level), level);
    }
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_SUCCESS, 6);
}

TEST_F(api, minus_one_restores_the_configured_level) {
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_NONE), QNM_API_SUCCESS);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_INFO) << "unless configured";
    qnm_config.log_level = 4;
    logs.clear();
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_NONE), QNM_API_SUCCESS);
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_DEBUG);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_set_loglevel: (IN) log_level=-1",
                            "qnm_set_loglevel: Set loglevel. old=3, new=4",
                            "qnm_set_loglevel: (OUT) ret=0, g_log_level=4"));
}

TEST_F(api, the_new_level_applies_from_the_exit_line_on) {
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_WARN), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts(), ElementsAre("qnm_set_loglevel: (IN) log_level=2",
                                          "qnm_set_loglevel: Set loglevel. old=5, new=2"));
    logs.clear();
    EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_INFO), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts(), ElementsAre("qnm_set_loglevel: (OUT) ret=0, g_log_level=3"));
}

TEST_F(api, levels_outside_the_range_are_refused) {
    for (const int level : {-2, 6}) {
        EXPECT_EQ(qnm_set_loglevel(static_cast<qnm_log_level_t>(level)), QNM_API_EINVAL);
        EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_TRACE);
    }
    EXPECT_THAT(logs.texts(), ElementsAre("qnm_set_loglevel: (IN) log_level=-2",
                                          "qnm_set_loglevel: (OUT) ret=1, g_log_level=5",
                                          "qnm_set_loglevel: (IN) log_level=6",
                                          "qnm_set_loglevel: (OUT) ret=1, g_log_level=5"));
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_EINVAL, 2);
}

TEST_F(api, a_manager_that_starts_or_stops_refuses) {
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        logs.clear();
        EXPECT_EQ(qnm_set_loglevel(QNM_LOGLVL_ERROR), QNM_API_ENOSYS);
        EXPECT_THAT(logs.texts("logfile", k_info),
                    ElementsAre("qnm_set_loglevel: (IN) log_level=1",
                                "qnm_set_loglevel: (OUT) ret=9, g_log_level=5"));
        EXPECT_EQ(qnm_set_loglevel(static_cast<qnm_log_level_t>(6)), QNM_API_ENOSYS);
    }
    EXPECT_EQ(qnm::load(g_log_level), QNM_LOGLVL_TRACE);
    expect_counted(QNM_STATS_SET_LOGLEVEL, QNM_API_ENOSYS, 6);
}

// ---- Device commands ----------------------------------------------------------------------------

constexpr uint64_t k_io = 0x020000001000;
constexpr uint64_t k_server = 0x020000002000;
constexpr uint64_t k_mr_io = 0x020000003000;
constexpr uint64_t k_unknown = 0x020000004000;

constexpr announcement k_io_card = {.mac = k_io, .host = 1};
constexpr announcement k_server_card = {.mac = k_server, .host = 0};
constexpr announcement k_mr_io_card = {.mac = k_mr_io, .host = 1, .sw_status = {0, 1, 0}};

constexpr uint32_t k_long = 120000;  // ms

uint32_t g_page_data[32] = {0x04030201};

// The device commands with a card of each kind known by port 0.
struct commands : ports {
    commands() {
        EXPECT_EQ(_qnm_cmp_init(), 0);
        for (const announcement& card : {k_io_card, k_server_card, k_mr_io_card})
            EXPECT_EQ(receive(frames::build(card)), 0);
        logs.clear();
        g_write_locks = 0;
    }

    ~commands() override {
        EXPECT_EQ(g_write_locks, 0);
        fail::on_sleep([](auto) {
            ADD_FAILURE() << "a call has never been left";
            _qnm_leave_call();
        });
        _qnm_wait_calls();
        _qnm_cmp_fini();
    }

    // Changes the card's record in the tables.
    template <typename Kind>
    static void change(uint64_t id, uint32_t ignore_state, std::pair<int, int> connected) {
        const qnm::table_guard lock;
        typename Kind::record card;
        EXPECT_EQ(Kind::get(id, &card, nullptr, nullptr, QNM_VALID_RECORD), 0);
        auto& state = (card.*Kind::com_dev).ecd_state;
        memset(state, 0, sizeof state);
        if (connected.first >= 0) state[connected.first][connected.second] = 1;
        EXPECT_EQ(Kind::set(id, &card, ignore_state, 0, QNM_VALID_RECORD | QNM_VALID_IGNORE_STATE),
                  0);
    }

    // The calls behind one signature.
    struct command {
        const char* name;
        qnm_stats_func_t counter;
        uint8_t subtype;
        qnm_api_code_t (*call)(uint64_t id, uint32_t flags);
        bool has_livecheck;
    };

    static const command k_all[];

    void expect_exit(const command& it, uint64_t id, qnm_api_code_t ret) {
        char line[128];
        snprintf(line, sizeof line, "%s: (OUT) ret=%d, id=0x%.12lx%s", it.name, ret, id,
                 it.counter == QNM_STATS_SET_VLANID ? ", vlanid=16" : "");
        EXPECT_TRUE(logs.has(k_info, line)) << line;
        expect_counted(it.counter, ret);
        EXPECT_EQ(qnm_stats.est_api_code[ret], 1U) << it.name;
        qnm_stats.est_api_code[ret] = 0;
    }

    // Expects that the call fails without sending.
    void expect_refused(const command& it, uint64_t id, uint32_t flags, qnm_api_code_t ret) {
        logs.clear();
        const size_t before = sent_count();
        EXPECT_EQ(it.call(id, flags), ret) << it.name;
        expect_exit(it, id, ret);
        EXPECT_EQ(sent_count(), before) << it.name;
    }

    static std::vector<uint8_t> sent_kinds(int port) {
        std::vector<uint8_t> kinds;
        for (const frame_t& frame : fake_pcap::sent(name(port)))
            kinds.push_back(frame.at(18));
        return kinds;
    }

    // Plays the card during a live check: answers the n-th frame, a read of register 0.
    static void answer(int port, size_t number, uint64_t mac) {
        ASSERT_TRUE(fake_pcap::wait_sent(name(port), number));
        const frame_t read = fake_pcap::sent(name(port)).at(number - 1);
        EXPECT_EQ(read.at(18), 0x91);
        EXPECT_EQ(frame_t(read.begin() + 24, read.begin() + 28), frame_t(4));
        EXPECT_EQ(receive(frames::build_completion({.tag = read.at(23), .mac = mac}), port), 0);
    }
};

const commands::command commands::k_all[] = {
    {"qnm_set_vlanid", QNM_STATS_SET_VLANID, 0x80,
     [](uint64_t id, uint32_t flags) { return qnm_set_vlanid(id, 16, nullptr, flags); }, true},
    {"qnm_send_resetframe", QNM_STATS_SEND_RESETFRAME, 0x30,
     [](uint64_t id, uint32_t flags) { return qnm_send_resetframe(id, 0xA5, nullptr, flags); },
     false},
    {"qnm_write_mmspage", QNM_STATS_WRITE_MMSPAGE, 0x92,
     [](uint64_t id, uint32_t flags) { return qnm_write_mmspage(id, 1, g_page_data, flags); },
     true},
};

TEST_F(commands, entry_lines_name_the_arguments) {
    const qnm_retry_t retry = {.er_retry_count = 3, .er_retry_interval = 25};
    qnm_set_vlanid(k_io, 77, &retry, 0x80000001);
    qnm_set_vlanid(k_io, 78, nullptr, 0);
    qnm_send_resetframe(k_io, 0xFF, &retry, 0xF0);
    qnm_send_resetframe(k_io, 0x0A, nullptr, 1);
    qnm_write_mmspage(k_mr_io, 1023, g_page_data, 1);
    EXPECT_THAT(
        logs.texts("logfile", k_info),
        ElementsAre("qnm_set_vlanid: (IN). id=0x020000001000, vlanid=77, retry_cnt=3, "
                    "retry_int=25, flags=0x80000001",
                    "qnm_set_vlanid: (OUT) ret=0, id=0x020000001000, vlanid=77",
                    "qnm_set_vlanid: (IN). id=0x020000001000, vlanid=78, retry_param=NULL, "
                    "flags=0x00000000",
                    "qnm_set_vlanid: (OUT) ret=0, id=0x020000001000, vlanid=78",
                    "qnm_send_resetframe: (IN). id=0x020000001000, status=0xFF, retry_cnt=3, "
                    "retry_int=25, flags=0x000000F0",
                    "qnm_send_resetframe: (OUT) ret=0, id=0x020000001000",
                    "qnm_send_resetframe: (IN). id=0x020000001000, status=0xA, retry_param=NULL, "
                    "flags=0x00000001",
                    "qnm_send_resetframe: (OUT) ret=0, id=0x020000001000",
                    "qnm_write_mmspage: (IN). id=0x020000003000, page=1023, flags=0x00000001",
                    "qnm_write_mmspage: (OUT) ret=0, id=0x020000003000"));
}

TEST_F(commands, each_sends_one_frame_and_counts_its_success) {
    for (const command& it : k_all) {
        const size_t before = sent_count();
        logs.clear();
        EXPECT_EQ(it.call(k_mr_io, 0), QNM_API_SUCCESS) << it.name;
        expect_exit(it, k_mr_io, QNM_API_SUCCESS);
        EXPECT_EQ(sent_count(), before + 1);
        EXPECT_EQ(sent_kinds(0).back(), it.subtype);
    }
}

TEST_F(commands, the_manager_has_to_be_usable) {
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        for (const command& it : k_all) {
            qnm_stats.est_func_code[it.counter][QNM_API_ENOSYS] = 0;
            expect_refused(it, k_mr_io, 0, QNM_API_ENOSYS);
        }
        EXPECT_EQ(qnm_set_vlanid(k_io, 15, nullptr, 0), QNM_API_ENOSYS) << "before the arguments";
        EXPECT_EQ(qnm_write_mmspage(k_mr_io, 1024, nullptr, 0), QNM_API_ENOSYS);
        qnm_stats.est_api_code[QNM_API_ENOSYS] = 0;
    }
}

TEST_F(commands, the_card_has_to_be_known) {
    for (const command& it : k_all)
        expect_refused(it, k_unknown, QNM_FLAG_LIVECHECK, QNM_API_ENOENT);
}

TEST_F(commands, servers_and_io_cards_take_vlan_ids_and_resets) {
    for (const uint64_t id : {k_io, k_server}) {
        EXPECT_EQ(qnm_set_vlanid(id, 16, nullptr, 0), QNM_API_SUCCESS);
        EXPECT_EQ(qnm_send_resetframe(id, 0, nullptr, 0), QNM_API_SUCCESS);
    }
    EXPECT_EQ(fake_pcap::sent("port0")[2][4], 0x20) << "to the server";
}

TEST_F(commands, a_failed_look_up_is_an_internal_error) {
    g_lookup_result = EINVAL;
    EXPECT_EQ(qnm_set_vlanid(k_io, 16, nullptr, 0), QNM_API_EINVAL) << "is mapped";
    EXPECT_EQ(qnm_send_resetframe(k_io, 0, nullptr, 0), QNM_API_EINVAL);
    EXPECT_EQ(qnm_write_mmspage(k_mr_io, 1, g_page_data, 0), QNM_API_EPROTO);
    g_lookup_result = 0;
    EXPECT_TRUE(logs.has(k_warn, "qnm_write_mmspage: Failed to _qnm_get_qnio(). err=22"));
    EXPECT_EQ(logs.count_level(k_warn), 1U);
    EXPECT_EQ(sent_count(), 0U);
}

TEST_F(commands, a_card_that_is_connected_nowhere_has_no_link) {
    change<qnm::qnio_kind>(k_mr_io, QNM_WATCH, {-1, -1});
    for (const command& it : k_all)
        expect_refused(it, k_mr_io, 0, QNM_API_ENOLINK);
}

TEST_F(commands, a_refused_frame_is_an_internal_error) {
    fake_pcap::set_send_failure("port0", 1, true);
    for (const command& it : k_all)
        expect_refused(it, k_mr_io, 0, QNM_API_EPROTO);
}

TEST_F(commands, a_card_whose_monitoring_is_stopped_has_no_link) {
    change<qnm::qnio_kind>(k_mr_io, QNM_IGNORE, {0, 0});
    for (const command& it : k_all) {
        expect_refused(it, k_mr_io, QNM_FLAG_VERIFY, QNM_API_ENOLINK);
        EXPECT_THAT(logs.texts("logfile", k_error), IsEmpty());
    }
    logs.clear();
    EXPECT_EQ(qnm_send_resetframe(k_mr_io, 0, nullptr, QNM_FLAG_LIVECHECK), QNM_API_ENOLINK);
    EXPECT_THAT(logs.texts("logfile", k_error), IsEmpty()) << "a reset knows no live check";
    EXPECT_EQ(sent_count(), 0U);
}

TEST_F(commands, a_card_whose_monitoring_restarts_is_reached) {
    change<qnm::qnio_kind>(k_mr_io, QNM_WATCH_RESTART, {1, 0});
    for (const command& it : k_all)
        EXPECT_EQ(it.call(k_mr_io, 0), QNM_API_SUCCESS) << it.name;
    EXPECT_EQ(fake_pcap::sent("port1").size(), 3U);
}

// The table says that the card was connected by port 1, but its monitoring is stopped, so the path
// is looked for again and found on port 0.
TEST_F(commands, a_live_check_finds_the_path_of_a_card_whose_monitoring_is_stopped) {
    qnm_config.frame_retry_interval_lc = k_long;
    change<qnm::qnio_kind>(k_mr_io, QNM_IGNORE, {1, 0});
    std::vector<uint8_t> expected;
    for (const command& it : k_all) {
        if (!it.has_livecheck) continue;
        std::thread card([&] { answer(0, expected.size() + 1, k_mr_io); });
        EXPECT_EQ(it.call(k_mr_io, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS) << it.name;
        card.join();
        expected.insert(expected.end(), {0x91, it.subtype});
        EXPECT_EQ(sent_kinds(0), expected);
    }
    EXPECT_TRUE(fake_pcap::sent("port1").empty());
    qnm_qnio_t record;
    EXPECT_EQ(qnm_get_qnio(k_mr_io, &record), QNM_API_SUCCESS);
    EXPECT_EQ(record.eio_com_dev.ecd_state[0][0], 0U) << "only the call's own copy changes";
    EXPECT_EQ(record.eio_com_dev.ecd_state[1][0], 1U);
}

TEST_F(commands, a_live_check_sends_nothing_to_a_connected_card) {
    for (const command& it : k_all)
        EXPECT_EQ(it.call(k_mr_io, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS) << it.name;
    EXPECT_THAT(sent_kinds(0), ElementsAre(0x80, 0x30, 0x92));
}

TEST_F(commands, a_card_that_does_not_answer_the_live_check_has_no_link) {
    qnm_config.frame_retry_interval_lc = 1;
    qnm_config.frame_retry_count_lc = 0;
    for (const uint32_t state : {QNM_IGNORE, QNM_WATCH}) {
        change<qnm::qnio_kind>(k_mr_io, state, {-1, -1});
        for (const command& it : k_all) {
            if (!it.has_livecheck) continue;
            logs.clear();
            EXPECT_EQ(it.call(k_mr_io, QNM_FLAG_LIVECHECK), QNM_API_ENOLINK);
            EXPECT_THAT(logs.texts("logfile", k_error),
                        ElementsAre(std::string(it.name) + ": Failed to _qnm_livecheck(). err=67"));
        }
    }
    EXPECT_THAT(sent_kinds(0), Each(0x91));
    EXPECT_THAT(sent_kinds(1), Each(0x91));
    EXPECT_EQ(sent_count(), 8U) << "each tried by both ports";
}

TEST_F(commands, an_error_of_the_live_check_is_mapped) {
    change<qnm::qnio_kind>(k_mr_io, QNM_WATCH, {-1, -1});
    fake_pcap::set_send_failure("port0", 1, true);
    for (const command& it : k_all) {
        if (!it.has_livecheck) continue;
        expect_refused(it, k_mr_io, QNM_FLAG_LIVECHECK, QNM_API_EPROTO);
        EXPECT_TRUE(
            logs.has(k_error, std::string(it.name) + ": Failed to _qnm_livecheck(). err=71"));
    }
}

// ---- Reset --------------------------------------------------------------------------------------

TEST_F(commands, a_reset_carries_the_status_and_accepts_any_retry_parameters) {
    const qnm_retry_t never = {.er_retry_count = 9, .er_retry_interval = 0};
    EXPECT_EQ(qnm_send_resetframe(k_io, 0xA5, &never, 0xFFFFFFFF), QNM_API_SUCCESS);
    const frame_t frame = only_sent();
    EXPECT_EQ(frame.at(18), 0x30);
    EXPECT_EQ(frame.at(23), 0xA5);
}

TEST_F(commands, a_reset_takes_the_path_in_the_table) {
    change<qnm::qnsv_kind>(k_server, QNM_WATCH, {1, 1});
    EXPECT_EQ(qnm_send_resetframe(k_server, 0, nullptr, 0), QNM_API_SUCCESS);
    EXPECT_EQ(only_sent(1).at(18), 0x30);
}

// ---- MMS pages ----------------------------------------------------------------------------------

TEST_F(commands, pages_reach_from_0_to_1023_and_need_data) {
    for (const uint32_t page : {0U, 1023U})
        EXPECT_EQ(qnm_write_mmspage(k_mr_io, page, g_page_data, 0), QNM_API_SUCCESS);
    const auto sent = fake_pcap::sent("port0");
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(frame_t(sent[1].begin() + 24, sent[1].begin() + 32),
              (frame_t{0x00, 0x00, 0x03, 0xFF, 0x01, 0x02, 0x03, 0x04}));
    for (const uint32_t page : {1024U, 0xFFFFFFFFU})
        EXPECT_EQ(qnm_write_mmspage(k_mr_io, page, g_page_data, 0), QNM_API_EINVAL);
    EXPECT_EQ(qnm_write_mmspage(k_mr_io, 1, nullptr, 0), QNM_API_EINVAL);
    EXPECT_EQ(qnm_write_mmspage(k_unknown, 1024, g_page_data, 0), QNM_API_EINVAL);
    expect_counted(QNM_STATS_WRITE_MMSPAGE, QNM_API_EINVAL, 4);
    EXPECT_EQ(sent_count(), 2U);
}

TEST_F(commands, pages_are_for_multi_root_io_cards_only) {
    EXPECT_EQ(qnm_write_mmspage(k_server, 1, g_page_data, 0), QNM_API_ENOENT);
    EXPECT_THAT(logs.texts("logfile", k_error), IsEmpty());
    EXPECT_EQ(qnm_write_mmspage(k_io, 1, g_page_data, 0), QNM_API_ENOENT);
    EXPECT_THAT(logs.texts("logfile", k_error),
                ElementsAre("qnm_write_mmspage: The ID is not MR-QN. id=0x020000001000"));
    announcement card = k_io_card;
    card.sw_status[1] = 2;
    EXPECT_EQ(receive(frames::build(card)), 0);
    EXPECT_EQ(qnm_write_mmspage(k_io, 1, g_page_data, 0), QNM_API_ENOENT);
    EXPECT_EQ(logs.count_level(k_error), 2U);
    EXPECT_EQ(sent_count(), 0U);
}

TEST_F(commands, the_kind_of_card_is_tested_before_its_life_and_after_its_monitoring) {
    change<qnm::qnio_kind>(k_io, QNM_IGNORE, {0, 0});
    EXPECT_EQ(qnm_write_mmspage(k_io, 1, g_page_data, 0), QNM_API_ENOLINK);
    EXPECT_EQ(qnm_write_mmspage(k_io, 1, g_page_data, QNM_FLAG_LIVECHECK), QNM_API_ENOENT);
    EXPECT_EQ(sent_count(), 0U);
}

// ---- VLAN ID ------------------------------------------------------------------------------------

TEST_F(commands, vlan_ids_reach_from_16_to_4094) {
    for (const uint16_t vlanid : {16, 4094})
        EXPECT_EQ(qnm_set_vlanid(k_io, vlanid, nullptr, 0), QNM_API_SUCCESS);
    const auto sent = fake_pcap::sent("port0");
    ASSERT_EQ(sent.size(), 2U);
    EXPECT_EQ(frame_t(sent[1].begin() + 24, sent[1].begin() + 26), (frame_t{0x0F, 0xFE}));
    for (const uint16_t vlanid : {0, 15, 4095, 65535})
        EXPECT_EQ(qnm_set_vlanid(k_unknown, vlanid, nullptr, 0), QNM_API_EINVAL);
    EXPECT_TRUE(logs.has(k_info, "qnm_set_vlanid: (OUT) ret=1, id=0x020000004000, vlanid=4095"));
    EXPECT_EQ(sent_count(), 2U);
}

TEST_F(commands, a_retry_interval_of_0_is_refused_and_a_count_of_0_is_not) {
    qnm_retry_t retry = {.er_retry_count = 1, .er_retry_interval = 0};
    EXPECT_EQ(qnm_set_vlanid(k_io, 16, &retry, 0), QNM_API_EINVAL);
    retry = {.er_retry_count = 0, .er_retry_interval = 1};
    EXPECT_EQ(qnm_set_vlanid(k_io, 16, &retry, 0), QNM_API_SUCCESS);
}

TEST_F(commands, an_unverified_vlan_id_is_not_waited_for) {
    EXPECT_EQ(qnm_set_vlanid(k_io, 16, nullptr, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 0U);
}

// Waits until the VLAN ID is seen, with an interval that never passes: only looking at the card, or
// the stop, ends the call.
struct vlan_verify : commands {
    std::vector<std::chrono::nanoseconds> sleeps;

    // Runs act when the call has slept this often. The call looks at the card after each sleep.
    void after_sleeps(size_t number, const std::function<void()>& act) {
        fail::on_sleep([this, number, act](std::chrono::nanoseconds duration) {
            EXPECT_FALSE(table_is_locked());
            sleeps.push_back(duration);
            if (sleeps.size() == number) act();
        });
    }

    static qnm_api_code_t set(uint16_t vlanid, uint32_t count = 0, uint32_t interval = k_long,
                              uint64_t id = k_io) {
        const qnm_retry_t retry = {.er_retry_count = count, .er_retry_interval = interval};
        return qnm_set_vlanid(id, vlanid, &retry, QNM_FLAG_VERIFY);
    }

    static void announce(announcement card, uint16_t vlanid) {
        card.tci = static_cast<uint16_t>(0x8000 | vlanid);
        EXPECT_EQ(receive(frames::build(card)), 0);
    }
};

TEST_F(vlan_verify, succeeds_when_the_card_announces_the_new_id) {
    for (const announcement& card : {k_io_card, k_server_card}) {
        sleeps.clear();
        after_sleeps(3, [&] { announce(card, 100); });
        const size_t before = sent_count();
        EXPECT_EQ(set(100, 5, k_long, card.mac), QNM_API_SUCCESS);
        EXPECT_EQ(sleeps.size(), 3U);
        EXPECT_EQ(sent_count(), before + 1);
    }
    expect_counted(QNM_STATS_SET_VLANID, QNM_API_SUCCESS, 2);
}

TEST_F(vlan_verify, waits_on_while_another_id_is_announced) {
    after_sleeps(2, [&] {
        announce(k_io_card, 101);
        announce(k_server_card, 100);
        after_sleeps(4, [&] { announce(k_io_card, 100); });
    });
    EXPECT_EQ(set(100), QNM_API_SUCCESS);
    EXPECT_EQ(sleeps.size(), 4U);
}

TEST_F(vlan_verify, looks_once_per_check_interval) {
    qnm_config.vlan_check_interval = 25;
    after_sleeps(4, [&] { announce(k_io_card, 100); });
    EXPECT_EQ(set(100), QNM_API_SUCCESS);
    EXPECT_THAT(sleeps, ElementsAre(25ms, 25ms, 25ms, 25ms));
}

TEST_F(vlan_verify, looks_once_per_retry_interval_when_that_is_shorter) {
    qnm_config.vlan_check_interval = 80;
    after_sleeps(1, [&] { announce(k_io_card, 100); });
    EXPECT_EQ(set(100, 10, 40), QNM_API_SUCCESS);
    EXPECT_THAT(sleeps, ElementsAre(40ms));
}

TEST_F(vlan_verify, an_id_that_the_card_has_already_holds_at_the_first_look) {
    announce(k_io_card, 100);
    after_sleeps(99, [] {});
    EXPECT_EQ(set(100), QNM_API_SUCCESS);
    EXPECT_EQ(sleeps.size(), 1U);
    EXPECT_EQ(sent_count(), 1U);
}

TEST_F(vlan_verify, sends_again_after_every_interval_until_the_count_is_used_up) {
    for (const uint32_t count : {0U, 1U, 4U}) {
        const size_t before = sent_count();
        const auto start = steady_clock::now();
        EXPECT_EQ(set(100, count, 20), QNM_API_ETIMEDOUT);
        EXPECT_GT(steady_clock::now() - start, (count + 1) * 19ms);
        EXPECT_EQ(sent_count(), before + count + 1);
    }
    const auto sent = fake_pcap::sent("port0");
    EXPECT_THAT(sent, Each(sent.front()));
    EXPECT_TRUE(logs.has(k_info, "qnm_set_vlanid: (OUT) ret=7, id=0x020000001000, vlanid=100"));
    expect_counted(QNM_STATS_SET_VLANID, QNM_API_ETIMEDOUT, 3);
}

TEST_F(vlan_verify, takes_interval_and_count_from_the_configuration) {
    qnm_config.frame_retry_interval = 2;
    qnm_config.frame_retry_count = 6;
    EXPECT_EQ(qnm_set_vlanid(k_io, 100, nullptr, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
    EXPECT_EQ(sent_count(), 7U);
}

TEST_F(vlan_verify, succeeds_with_the_answer_to_a_later_frame) {
    size_t answered = 0;
    fail::on_sleep([&](auto) {
        if (sent_count() < 3 || answered != 0) return;
        answered = sent_count();
        announce(k_io_card, 100);
    });
    EXPECT_EQ(set(100, 1000000, 5), QNM_API_SUCCESS);
    EXPECT_GE(answered, 3U);
    EXPECT_EQ(sent_count(), answered) << "none after the answer";
}

// The call works on its own copy of the card, which the live check has given a path.
TEST_F(vlan_verify, sends_again_by_the_path_that_the_live_check_found) {
    qnm_config.frame_retry_interval_lc = k_long;
    change<qnm::qnio_kind>(k_io, QNM_WATCH, {-1, -1});
    std::thread card([] { answer(0, 1, k_io); });
    const qnm_retry_t retry = {.er_retry_count = 2, .er_retry_interval = 5};
    EXPECT_EQ(qnm_set_vlanid(k_io, 100, &retry, QNM_FLAG_LIVECHECK | QNM_FLAG_VERIFY),
              QNM_API_ETIMEDOUT);
    card.join();
    EXPECT_THAT(sent_kinds(0), ElementsAre(0x91, 0x80, 0x80, 0x80));
}

TEST_F(vlan_verify, a_refused_first_frame_is_not_waited_for) {
    fake_pcap::set_send_failure("port0", 1);
    EXPECT_EQ(set(100), QNM_API_EPROTO);
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 0U);
}

TEST_F(vlan_verify, a_refused_later_frame_ends_the_call) {
    fake_pcap::set_send_failure("port0", 2);
    EXPECT_EQ(set(100, 9, 1), QNM_API_EPROTO);
    EXPECT_EQ(sent_count(), 1U);
}

TEST_F(vlan_verify, a_card_that_is_forgotten_meanwhile_is_an_internal_error) {
    after_sleeps(2, [] { EXPECT_EQ(qnm_delete_qnio(k_io), QNM_API_SUCCESS); });
    EXPECT_EQ(set(100), QNM_API_EPROTO);
    EXPECT_EQ(sleeps.size(), 2U);
}

TEST_F(vlan_verify, a_stop_ends_the_wait) {
    after_sleeps(2, [] { set_flags(0, 0, 0); });
    EXPECT_EQ(set(100), QNM_API_ENOSYS);
    EXPECT_EQ(sleeps.size(), 2U);
    EXPECT_TRUE(logs.has(k_info, "qnm_set_vlanid: (OUT) ret=9, id=0x020000001000, vlanid=100"));
    expect_counted(QNM_STATS_SET_VLANID, QNM_API_ENOSYS);
}

TEST_F(vlan_verify, a_stop_comes_before_the_new_id) {
    after_sleeps(1, [] {
        announce(k_io_card, 100);
        set_flags(0, 0, 0);
    });
    EXPECT_EQ(set(100), QNM_API_ENOSYS);
}

TEST_F(vlan_verify, a_call_under_way_is_waited_for_to_its_last_line) {
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<int> looks = 0;
    std::atomic<bool> left = false;
    std::thread stop;
    fail::on_sleep([&](auto) {
        if (std::this_thread::get_id() != caller) {
            looks++;
            return;
        }
        set_flags(0, 0, 0);
        stop = std::thread([&] {
            _qnm_wait_calls();
            EXPECT_EQ(logs.count_part(k_info, "qnm_set_vlanid: (OUT) ret=9"), 1U);
            expect_counted(QNM_STATS_SET_VLANID, QNM_API_ENOSYS);
            left = true;
        });
        EXPECT_TRUE(wait_until([&] { return looks >= 3 || left; }));
    });
    EXPECT_EQ(set(100), QNM_API_ENOSYS);
    ASSERT_TRUE(stop.joinable());
    stop.join();
}

}  // namespace
