// test_failing_memory.cpp - every allocation fails in turn: in each public call and while each kind
// of frame is taken in.

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "frame_kinds.h"
#include "public_calls.h"

namespace {

struct failing_memory : public_calls {
    // Every failure of the library's own allocations is counted, once.
    static failure counted(const failure& how) {
        const auto came = [=] {
            const bool has_come = how.came();
            const qnm::mutex_guard lock(qnm_stats_mutex);
            EXPECT_EQ(qnm_stats.est_alloc_err, has_come ? 1U : 0U);
            return has_come;
        };
        return {how.arm, came, how.disarm};
    }
};

// ---- Public calls -------------------------------------------------------------------------------

// The calls that allocate; all others do not.
const std::map<std::string, consequence> k_allocating = {
    {"qnm_get_qnsvids", {1, QNM_API_ENOMEM, {{k_info, "qnm_get_qnsvids: (OUT) ret=5"}}}},
    {"qnm_get_qnioids", {1, QNM_API_ENOMEM, {{k_info, "qnm_get_qnioids: (OUT) ret=5"}}}},
    {"qnm_get_update_qnsvids",
     {1, QNM_API_ENOMEM, {{k_info, "qnm_get_update_qnsvids: (OUT) ret=5"}}}},
    {"qnm_get_update_qnioids",
     {1, QNM_API_ENOMEM, {{k_info, "qnm_get_update_qnioids: (OUT) ret=5"}}}},
    {"qnm_get_group_qnsvids",
     {1, QNM_API_ENOMEM, {{k_info, "qnm_get_group_qnsvids: (OUT) ret=5, groupid=10"}}}},
    {"qnm_get_group_qnioids",
     {1, QNM_API_ENOMEM, {{k_info, "qnm_get_group_qnioids: (OUT) ret=5, groupid=10"}}}},
    {"qnm_stop_monitor",
     {1, QNM_API_ENOMEM, {{k_error, "qnm_stop_monitor: can't alloc memory for qnm_bl_node_t."}}}},
    {"qnm_register_callback",
     {1,
      QNM_API_ENOMEM,
      {{k_error, "_cbinfo_create: can't alloc memory for qnm_cbinfo_t"},
       {k_error, "qnm_register_callback: Failed to _cbinfo_create()."}}}},
};

TEST_F(failing_memory, every_public_call_survives_each_failed_allocation) {
    for (const public_call& row : k_public_calls) {
        const auto found = k_allocating.find(row.name);
        consequences expected;
        if (found != k_allocating.end()) expected.push_back(found->second);
        sweep_call(*this, row, counted(allocation_here()), expected);
    }
}

TEST_F(failing_memory, a_whole_life_without_cards_allocates_nothing) {
    alloc::fail_nth_anywhere(1);
    expect_restart();
    EXPECT_FALSE(alloc::all_used());
}

// Data, and the calls that start and end each life of the manager.
const std::set<std::string> k_not_in_table = {
    "g_log_level",      "internal_err",     "qnm_config",           "qnm_flag",
    "qnm_root",         "qnm_stats",        "qnm_stats_mutex",      "qnm_terminate_fd_link",
    "qnm_fini_manager", "qnm_init_manager", "qnm_terminate_fd_recv"};

TEST_F(failing_memory, no_exported_function_is_left_out) {
    std::set<std::string> names = k_not_in_table;
    for (const public_call& row : k_public_calls)
        names.insert(row.name);
    std::set<std::string> exported;
    std::ifstream file(QNM_EXPORTS);
    for (std::string name; file >> name;)
        exported.insert(name);
    EXPECT_EQ(names, exported);
}

// ---- Frames -------------------------------------------------------------------------------------

consequence lost_event(const std::string& func, const std::string& event,
                       const std::string& id = k_new_text) {
    return {1,
            QNM_API_SUCCESS,
            {{k_error, "_evt_node_create: can't alloc memory for qnm_evt_node_t"},
             {k_warn, func + ": Failed to _qnm_add_event(" + event + ") " + id}}};
}

TEST_F(failing_memory, a_new_card_of_each_kind_survives_each_failed_allocation) {
    for (const frame_kind& it : all_kinds()) {
        SCOPED_TRACE(text_of(it));
        const std::string func = "_add_" + it.kind + "_devinfo";
        const consequences expected = {
            {1,
             QNM_API_ENOENT,
             {{k_warn, "_write_reg_create: Failed to _write_reg_node_alloc()"},
              {k_warn, func +
                           ": Failed to _qnm_create_reg_lock_node(). Drop DEVINFO Frame. err=12, " +
                           k_new_text}}},
            {1,
             QNM_API_ENOENT,
             {{k_error, func + ": Failed to _qnm_set_" + it.kind + "(). err=12, " + k_new_text}}},
            lost_event(func, "QNM_EVT_NEWDEVINFO"),
            lost_event(func, "QNM_EVT_MAJORMINORERROR"),
        };
        const auto announce = [&] {
            deliver(frames::build(it.announcement));
            return look_up(it);
        };
        sweep(
            counted(allocation_anywhere()), [] {}, announce, expected);
    }
}

// The events of changed(), in order; each of them may be lost.
consequences lost_changes(const frame_kind& it) {
    const std::string func = "_update_" + it.kind + "_devinfo";
    consequences expected = {lost_event(func, "QNM_EVT_UPDATEDEVINFO"),
                             lost_event(func, "QNM_EVT_CONNECTIONCHANGE"),
                             lost_event(func, "QNM_EVT_MAJORMINORERROR")};
    if (!it.is_server()) expected.push_back(lost_event(func, "QNM_EVT_PATHSTATECHANGE"));
    expected.push_back(lost_event(func, "QNM_EVT_CHANNELSTATECHANGE"));
    return expected;
}

TEST_F(failing_memory, a_changed_card_of_each_kind_survives_each_failed_allocation) {
    for (const frame_kind& it : all_kinds()) {
        SCOPED_TRACE(text_of(it));
        sweep(
            counted(allocation_anywhere()), [&] { learn_anew(*this, it); },
            [&] { return announce_change(*this, it); }, lost_changes(it));
    }
}

// The first frame ends the pause of the card's monitoring, even if everything else in it is lost.
TEST_F(failing_memory, a_restarted_card_of_each_kind_survives_each_failed_allocation) {
    for (const frame_kind& it : all_kinds()) {
        SCOPED_TRACE(text_of(it));
        const auto announce = [&] {
            const qnm_api_code_t code = announce_change(*this, it);
            EXPECT_EQ(ignore_state_of(it), QNM_WATCH);
            return code;
        };
        sweep(
            counted(allocation_anywhere()), [&] { learn_and_restart(*this, it); }, announce,
            lost_changes(it));
    }
}

// Logged when the events of a lost path have been raised.
std::string disconnect_line(const std::string& func, const frame_kind& it) {
    return func + ": " + (it.is_server() ? "QNSV " : "QNIO ") + k_new_text +
           " state change to disconnect. P0M0: DISCONNECT, P0M1: DISCONNECT, P1M0: DISCONNECT, "
           "P1M1: DISCONNECT";
}

TEST_F(failing_memory, a_port_that_goes_down_survives_each_failed_allocation) {
    const frame_kind it = {{.mac = k_new}, "qnsv"};
    const auto set_link = [](bool up) {
        fake_netif::set_link("port0", up);
        fake_netif::notify();
        EXPECT_TRUE(wait_until(
            [up] { return qnm::load(qnm_root.er_port_info[0].epi_link_state) == (up ? 1U : 0U); }));
    };
    const auto come_up = [&] {
        EXPECT_TRUE(fake_netif::wait_listener());
        set_link(true);
        deliver(frames::build(it.announcement));
    };
    const std::string line = disconnect_line("_qnm_all_disconnect", it);
    const auto go_down = [&] {
        const size_t before = logs.count(k_info, line);
        set_link(false);
        EXPECT_TRUE(logs.wait_for(k_info, line, before + 1));
        return look_up(it);
    };
    sweep(counted(allocation_anywhere()), come_up, go_down,
          {lost_event("_qnm_all_disconnect", "QNM_EVT_UPDATEDEVINFO"),
           lost_event("_qnm_all_disconnect", "QNM_EVT_CHANNELSTATECHANGE")});
}

// Turns the new card into one that was last heard longer ago than its expiry time.
template <typename Kind>
void make_silent() {
    constexpr uint64_t k_silence_ms = 101'000;
    typename Kind::record card;
    const qnm::table_guard lock;
    ASSERT_EQ(Kind::get(k_new, &card, nullptr, nullptr, QNM_VALID_RECORD), 0);
    for (auto& port : (card.*Kind::com_dev).ecd_recvtime) {
        for (uint64_t& time : port)
            time -= std::min(time, k_silence_ms);
    }
    ASSERT_EQ(Kind::set(k_new, &card, 0, 0, QNM_VALID_RECORD), 0);
}

// The keepalive check finds the card silent for too long.
TEST_F(failing_memory, a_card_that_falls_silent_survives_each_failed_allocation) {
    dir.write_conf(
        "ether_port = port0,port1\n"
        "devinfo_flag_check_interval = 1000\n"
        "devinfo_check_interval = 1000\n"
        "devinfo_expire_time = 100000\n");
    for (const frame_kind& it :
         {frame_kind{{.mac = k_new}, "qnsv"}, frame_kind{{.mac = k_new, .host = 1}, "qnio"}}) {
        SCOPED_TRACE(text_of(it));
        fail::on_sleep([](auto) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
        fail::set_wall_clock(std::chrono::hours(1));
        const std::string line = disconnect_line("_devinfo_keepalive_check", it);
        const auto fall_silent = [&] {
            const size_t before = logs.count(k_info, line);
            it.is_server() ? make_silent<qnm::qnsv_kind>() : make_silent<qnm::qnio_kind>();
            EXPECT_TRUE(logs.wait_for(k_info, line, before + 1));
            return look_up(it);
        };
        sweep(counted(allocation_anywhere()), [&] { learn_anew(*this, it); }, fall_silent,
              {lost_event("_devinfo_keepalive_check", "QNM_EVT_UPDATEDEVINFO"),
               lost_event("_devinfo_keepalive_check", "QNM_EVT_CHANNELSTATECHANGE")});
    }
}

// Dropped frames and Completions allocate nothing.
TEST_F(failing_memory, other_frames_allocate_nothing) {
    using frames::announcement;
    const frames::frame_t dropped[] = {
        frames::build({.mac = k_new, .length = 27}),
        frames::build({.mac = k_new, .length = 271}),
        frames::build({.subtype = 0x18, .mac = k_new, .length = 495}),
        frames::build({.mac = k_new, .host = 1, .length = 43}),
        frames::build({.subtype = 0x12, .mac = k_new}),
        frames::build({.mac = k_new, .host = 2}),
        frames::build({.mac = k_new, .ver = 1}),
        frames::build({.mac = k_new, .tci = 0x000A}),
        frames::build_completion({.mac = k_new}),
        frames::build_completion({.tag = 255, .mac = k_new}),
    };
    const frame_kind it = {{.mac = k_new}, "qnsv"};
    const auto take_all = [&] {
        for (const frames::frame_t& frame : dropped)
            deliver(frame);
        return look_up(it);
    };
    sweep(
        counted(allocation_anywhere()), [] {}, take_all, {}, QNM_API_ENOENT);
}

// ---- Log lines ----------------------------------------------------------------------------------

// log4cxx reports a lack of memory by an exception, which must reach no host program.
TEST_F(failing_memory, a_log_line_without_memory_is_lost_and_nothing_else) {
    const std::string text(300, 'x');
    bool written = false;
    unsigned n = 0;
    while (!written && ++n < 1000) {
        logs.clear();
        alloc::fail_nth_throwing(n);
        EXPECT_NO_THROW(qnm_log_error("%s", text.c_str()));
        written = !alloc::all_used();
    }
    EXPECT_GT(n, 1U);
    EXPECT_TRUE(logs.has(k_error, text));
}

// Calls the body with the first, second, ... throwing allocation failing, until none fails; returns
// how many failed.
template <typename Body>
unsigned fail_each_throwing(const Body& body) {
    for (unsigned n = 1;; n++) {
        alloc::fail_nth_throwing(n);
        EXPECT_NO_THROW(body());
        if (!alloc::all_used()) return n - 1;
    }
}

TEST_F(failing_memory, properties_that_cannot_be_read_for_lack_of_memory_are_no_failure) {
#ifdef __SANITIZE_ADDRESS__
    const __lsan::ScopedDisabler log4cxx_forgets_its_half_made_reader;
#endif
    const auto read = [&] { EXPECT_EQ(qnm_log_init(dir.path().c_str()), QNM_API_SUCCESS); };
    EXPECT_GT(fail_each_throwing(read), 0U);
    logs.clear();
    read();
    EXPECT_EQ(logs.count_level(k_info), 1U);
    begin();
    end(QNM_API_SUCCESS);
}

TEST_F(failing_memory, a_dump_without_memory_loses_lines_and_nothing_else) {
    begin();
    const auto dump = [] { EXPECT_EQ(qnm_stdump(0), QNM_API_SUCCESS); };
    EXPECT_GT(fail_each_throwing(dump), 0U);
    logs.clear();
    dump();
    EXPECT_TRUE(logs.has_part(k_info, "qnm status dump (v0)", "statslogfile"));
    end(QNM_API_SUCCESS);
}

}  // namespace
