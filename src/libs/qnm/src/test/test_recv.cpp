// test_recv.cpp - the receive loop, the checks that every frame has to pass, and dispatch.

#include "qnm_recv.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <random>
#include <thread>

#include "ports.h"
#include "qnm_completion.h"
#include "qnm_keepalive.h"
#include "wait.h"

namespace {

using frames::announcement;
using frames::frame_t;
using testing::ElementsAre;
using testing::HasSubstr;

// The receive path on fake ports.
struct recv : ports {
    static uint64_t received(int port = 0) { return counted(port, QNM_STATS_R_TOTAL); }

    // Expects that a check drops the frame with this line.
    void expect_dropped(const frame_t& frame, const std::string& line) {
        logs.clear();
        EXPECT_EQ(receive(frame), 0);
        EXPECT_EQ(received(), 0U);
        EXPECT_TRUE(logs.has(k_trace, line)) << line;
    }
};

announcement small() {
    announcement it;
    it.host = 1;
    return it;
}

TEST_F(recv, frames_are_dropped_until_the_start) {
    set_flags(0, 1, 1);
    expect_dropped(frames::build(small()),
                   "_qnm_recv_frame: Drop packet because start flag is not set. port_num=0");
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_frame: start. port_num=0, ret=0"));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_frame: end. port_num=0, ret=0"));
}

TEST_F(recv, a_frame_below_28_bytes_is_too_short) {
    announcement it = small();
    it.length = 27;
    expect_dropped(frames::build(it), "_check_frame: Recv size is too short. len=27");
}

// The length of a frame: captured, and on the wire.
struct length_row {
    size_t captured;
    uint32_t on_wire;
    size_t expected;
};

TEST_F(recv, a_frame_is_as_long_as_what_was_captured_of_it) {
    for (const length_row& row : {length_row{60, 60, 60},
                                  {200, 496, 200},
                                  {1024, 1500, 1024},
                                  {0, 60, 60}}) {  // how much is not told
        fake_pcap::push_frame("port0", frame_t(row.captured), row.on_wire);
        const unsigned char* data = nullptr;
        size_t length = 0;
        EXPECT_EQ(_qnm_recv_pcap(qnm_root.er_port_info[0].epi_pcap, &data, &length), 0);
        EXPECT_EQ(length, row.expected) << row.captured << " of " << row.on_wire;
    }
}

TEST_F(recv, an_announcement_captured_in_part_is_dropped) {
    const frame_t whole = frames::build(announcement());
    frame_t part = whole;
    part.resize(whole.size() - 1);
    fake_pcap::push_frame("port0", part, static_cast<uint32_t>(whole.size()));
    EXPECT_EQ(_qnm_recv_frame(0), 0);
    EXPECT_EQ(received(), 0U);
    EXPECT_TRUE(logs.has(k_trace,
                         "_check_frame: Recv size is not enough. subtype=0x10, recv_size=271, "
                         "msg_size=272"));
}

TEST_F(recv, priority_is_its_top_three_bits) {
    announcement it = small();
    it.tci = 0xA00A;
    expect_dropped(frames::build(it), "_check_frame: priority is not 100(bit). pri=0xA0");
    it.tci = 0x9F0A;
    EXPECT_EQ(receive(frames::build(it)), 0);
    EXPECT_EQ(received(), 1U);
}

TEST_F(recv, the_ether_type_has_to_be_the_configured_one) {
    qnm_config.ether_type = 0x1234;
    expect_dropped(frames::build(small()), "_check_frame: Ether type is mismatch. type=0x88B6");
    announcement it = small();
    it.vlan_change_mode = true;
    expect_dropped(frames::build(it),
                   "_check_frame: Ether type is mismatch.(VlanTag change mode) type=0x88B6");
}

TEST_F(recv, vlan_tag_change_mode_has_checks_of_its_own) {
    announcement it = small();
    it.vlan_change_mode = true;
    frame_t frame = frames::build(it);
    frame[15] = 1;
    expect_dropped(frame, "_check_frame: TPID type is mismatch.(VlanTag change mode) tpid=0x8101");
    it.tci = 0xC00A;
    expect_dropped(frames::build(it),
                   "_check_frame: priority is not 100(bit).(VlanTag change mode) pri=0xC0");
    it.tci = 0x8005;
    EXPECT_EQ(receive(frames::build(it)), 0);
    EXPECT_EQ(received(), 1U);
    qnm_qnio_t card = {};
    EXPECT_EQ(qnm_get_qnio(it.mac, &card), QNM_API_SUCCESS);
    EXPECT_EQ(card.eio_com_dev.ecd_vlan_mode, 1);
    EXPECT_EQ(card.eio_com_dev.ecd_vlan_id, 5);
}

TEST_F(recv, other_subtypes_are_refused) {
    for (int subtype = 0; subtype < 256; subtype++) {
        if (subtype == 0x10 || subtype == 0x11 || subtype == 0x18 || subtype == 0x19 ||
            subtype == 0x20) {
            continue;
        }
        announcement it = small();
        it.subtype = static_cast<uint8_t>(subtype);
        char line[64];
        snprintf(line, sizeof line, "_check_frame: Subtype is mismatch. subtype=0x%.2X", subtype);
        expect_dropped(frames::build(it), line);
    }
}

// The minimum length of an announcement, by subtype, host and version.
struct size_row {
    uint8_t subtype, host, version;
    size_t least;
};

announcement announce(const size_row& row) {
    announcement it;
    it.subtype = row.subtype;
    it.host = row.host;
    it.sw_status[1] = row.version;
    return it;
}

constexpr size_row k_sizes[] = {
    {0x10, 0, 0, 272}, {0x11, 0, 1, 272},   {0x18, 0, 0, 496}, {0x19, 0, 1, 496},
    {0x10, 1, 1, 46},  {0x18, 1, 0x11, 46}, {0x11, 1, 0, 44},  {0x19, 1, 0x12, 44},
    {0x10, 2, 1, 28},  {0x19, 255, 0, 28},
};

TEST_F(recv, announcements_have_a_least_length_by_kind) {
    for (const size_row& row : k_sizes) {
        announcement it = announce(row);
        const uint64_t before = received();
        if (row.least > 28) {
            it.length = row.least - 1;
            char line[128];
            snprintf(line, sizeof line,
                     "_check_frame: Recv size is not enough. subtype=0x%.2X, recv_size=%zu, "
                     "msg_size=%zu",
                     row.subtype, it.length, row.least);
            EXPECT_EQ(receive(frames::build(it)), 0);
            EXPECT_TRUE(logs.has(k_trace, line)) << line;
            EXPECT_EQ(received(), before);
        }
        it.length = row.least;
        EXPECT_EQ(receive(frames::build(it)), 0);
        EXPECT_EQ(received(), before + 1) << int{row.subtype} << ' ' << int{row.host};
    }
}

TEST_F(recv, only_40g_announcements_may_have_a_version) {
    announcement it = small();
    it.ver = 1;
    expect_dropped(frames::build(it),
                   "_check_frame: Drop 1G/10G DEVINFO to send from (ver=1) QN card.");
    it.subtype = 0x11;
    expect_dropped(frames::build(it),
                   "_check_frame: Drop 1G/10G NOTIFY to send from (ver=1) QN card.");
    it.subtype = 0x18;
    EXPECT_EQ(receive(frames::build(it)), 0);
    EXPECT_EQ(received(), 1U);
}

TEST_F(recv, every_kind_is_dispatched_and_counted_on_its_port) {
    const struct {
        uint8_t subtype;
        const char* label;
        qnm_stats_type_t counter;
    } rows[] = {{0x10, "1G/10G DEVINFO", QNM_STATS_R_DEV},
                {0x11, "1G/10G NOTIFY", QNM_STATS_R_NOTI},
                {0x18, "40G DEVINFO", QNM_STATS_R_DEV40},
                {0x19, "40G NOTIFY", QNM_STATS_R_NOTI40},
                {0x20, "Completion", QNM_STATS_R_COMP}};
    for (int port = 0; port < 2; port++) {
        const uint64_t* counters = port == 0 ? qnm_stats.est_stats_p0 : qnm_stats.est_stats_p1;
        uint64_t total = 0;
        for (const auto& row : rows) {
            announcement it = small();
            it.subtype = row.subtype;
            if (row.subtype == 0x20) it.length = 28;
            logs.clear();
            EXPECT_EQ(receive(frames::build(it), port), 0);
            EXPECT_TRUE(
                logs.has(k_trace, std::string("_dispatch_frame: ") + row.label + " is received."));
            EXPECT_EQ(counters[row.counter], 1U);
            EXPECT_EQ(counters[QNM_STATS_R_TOTAL], ++total);
        }
    }
}

// ---- Ports that are down ------------------------------------------------------------------------

// Port 0 with the state that the watcher has set and the present state of its link.
struct recv_on_a_port_down : recv {
    recv_on_a_port_down() {
        strcpy(qnm_config.ether_port_name[0], name(0).c_str());
        qnm::store(qnm_root.er_port_info[0].epi_link_state, 0U);
        fake_netif::set_link(name(0), false);
    }

    static bool is_known(uint64_t id = small().mac) {
        qnm_qnio_t card = {};
        return qnm_get_qnio(id, &card) == QNM_API_SUCCESS;
    }
};

TEST_F(recv_on_a_port_down, an_announcement_connects_no_card) {
    for (const uint8_t host : {0, 1}) {
        announcement it = small();
        it.host = host;
        logs.clear();
        EXPECT_EQ(receive(frames::build(it)), 0);
        const std::string func = host == 0 ? "_set_qnsv_devinfo" : "_set_qnio_devinfo";
        EXPECT_TRUE(logs.has(k_trace, func + ": Drop packet because the link is down. port_num=0, "
                                             "id=0x020000001000"));
        EXPECT_EQ(logs.count_level(k_warn) + logs.count_level(k_error), 0U);
    }
    EXPECT_FALSE(is_known());
    EXPECT_EQ(qnm_stats.est_sv_node_al, 0U);
}

// The frame came before the link was lost; the two are handled in that order.
TEST_F(recv_on_a_port_down, a_card_that_was_disconnected_stays_so) {
    qnm::store(qnm_root.er_port_info[0].epi_link_state, 1U);
    EXPECT_EQ(receive(frames::build(small())), 0);
    EXPECT_TRUE(is_known());
    qnm::store(qnm_root.er_port_info[0].epi_link_state, 0U);
    {
        const qnm::table_guard lock;
        _qnm_all_disconnect(0);
    }
    EXPECT_EQ(receive(frames::build(small())), 0);
    qnm_qnio_t card = {};
    EXPECT_EQ(qnm_get_qnio(small().mac, &card), QNM_API_SUCCESS);
    EXPECT_EQ(card.eio_com_dev.ecd_state[0][0], 0U);
    EXPECT_EQ(receive(frames::build(small()), 1), 0);
    EXPECT_EQ(qnm_get_qnio(small().mac, &card), QNM_API_SUCCESS);
    EXPECT_EQ(card.eio_com_dev.ecd_state[1][0], 1U) << "the other port is up";
}

TEST_F(recv_on_a_port_down, a_link_that_is_back_counts_before_the_watcher_has_stored_it) {
    fake_netif::set_link(name(0), true);
    EXPECT_EQ(receive(frames::build(small())), 0);
    EXPECT_TRUE(is_known());
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[0].epi_link_state), 0U) << "the watcher stores it";
}

// A read that waits for its Completion on port 1, with tag 7.
struct recv_completion : recv {
    static constexpr uint64_t k_mac = 0x020000001001;
    static constexpr frames::completion k_answer = {
        .tag = 7, .mac = k_mac, .data = {0x01, 0x02, 0x03, 0x04}};

    recv_completion() {
        EXPECT_EQ(_qnm_cmp_init(), 0);
        _qnm_set_comp_recv_wait(7, k_mac, 1);
        logs.clear();
    }

    ~recv_completion() override { _qnm_cmp_fini(); }

    static int value_of(int tag, uint32_t* value) { return _qnm_get_readreg(tag, value); }
};

TEST_F(recv_completion, brings_its_value_in_host_order_in_either_arrangement) {
    for (const bool change_mode : {false, true}) {
        frames::completion answer = k_answer;
        answer.vlan_change_mode = change_mode;
        EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
        uint32_t value = 0;
        EXPECT_EQ(value_of(7, &value), 0);
        EXPECT_EQ(value, 0x04030201U);
        _qnm_release_tag(7);
        _qnm_set_comp_recv_wait(7, k_mac, 1);
    }
    EXPECT_EQ(counted(1, QNM_STATS_R_COMP), 2U);
    EXPECT_EQ(counted(1, QNM_STATS_R_TOTAL), 2U);
}

TEST_F(recv_completion, is_taken_whatever_its_flow_ids_version_and_info) {
    frame_t frame = frames::build_completion(k_answer);
    for (const size_t byte : {19, 20, 21, 22})
        frame[byte] = 0xEE;
    EXPECT_EQ(receive(frame, 1), 0);
    uint32_t value = 0;
    EXPECT_EQ(value_of(7, &value), 0);
    EXPECT_EQ(value, 0x04030201U);
}

TEST_F(recv_completion, is_matched_by_the_port_that_it_came_in_by) {
    uint32_t value = 0;
    EXPECT_EQ(receive(frames::build_completion(k_answer), 0), 0);
    EXPECT_EQ(value_of(7, &value), ENOENT);
    EXPECT_EQ(counted(0, QNM_STATS_R_COMP), 1U) << "ignored, but a good frame";
    EXPECT_EQ(receive(frames::build_completion(k_answer), 1), 0);
    EXPECT_EQ(value_of(7, &value), 0);
}

TEST_F(recv_completion, is_matched_by_its_source_to_the_last_bit) {
    frames::completion answer = k_answer;
    uint32_t value = 0;
    for (const uint64_t wrong : {k_mac - 1, k_mac ^ 0x800000000000}) {
        answer.mac = wrong;
        EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
        EXPECT_EQ(value_of(7, &value), ENOENT);
    }
}

TEST_F(recv_completion, is_matched_by_its_tag) {
    frames::completion answer = k_answer;
    answer.tag = 8;
    EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
    uint32_t value = 0;
    EXPECT_EQ(value_of(7, &value), ENOENT);
    qnm_config.tag_max = 200;
    answer.tag = 201;
    EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
    EXPECT_TRUE(logs.has(k_warn, "_qnm_recv_comp: Invalid tag. tag=201"));
}

TEST_F(recv_completion, for_another_manager_is_dropped) {
    frames::completion answer = k_answer;
    uint32_t value = 0;
    for (const uint64_t other : {k_port_mac[0], k_port_mac[1] ^ 1, uint64_t{0x0A0000FF0001}}) {
        answer.destination = other;
        EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
        EXPECT_EQ(value_of(7, &value), ENOENT);
    }
    EXPECT_TRUE(logs.has(k_trace,
                         "_check_destination: Completion frame is received which is addressed to "
                         "another port. dst=0x0a0000ff0001, port_num=1"));
    EXPECT_EQ(counted(1, QNM_STATS_R_COMP), 3U) << "not for us, but good frames";
    answer.tag = 200;
    qnm_config.tag_max = 100;
    EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
    EXPECT_TRUE(logs.texts("logfile", k_warn).empty()) << "its tag is nothing to warn about here";
}

TEST_F(recv_completion, for_this_port_for_a_group_or_for_nobody_is_taken) {
    for (const uint64_t mine :
         {k_port_mac[1], uint64_t{0xFFFFFFFFFFFF}, uint64_t{0x010000000000}, uint64_t{0}}) {
        frames::completion answer = k_answer;
        answer.destination = mine;
        for (const bool change_mode : {false, true}) {
            answer.vlan_change_mode = change_mode;
            EXPECT_EQ(receive(frames::build_completion(answer), 1), 0);
            uint32_t value = 0;
            EXPECT_EQ(value_of(7, &value), 0) << mine;
            _qnm_release_tag(7);
            _qnm_set_comp_recv_wait(7, k_mac, 1);
        }
    }
}

TEST_F(recv, results_of_the_capture_are_told_apart) {
    fake_pcap::push_result("port1", 0);
    EXPECT_EQ(_qnm_recv_frame(1), 0);
    EXPECT_TRUE(
        logs.has(k_debug, "_qnm_recv_frame: _qnm_recv_pcap() returned ETIMEDOUT. port_num=1"));
    fake_pcap::push_result("port1", -1);
    EXPECT_EQ(_qnm_recv_frame(1), -1);
    EXPECT_TRUE(logs.has(k_fatal, "_qnm_recv_pcap: Failed to pcap_next_ex()."));
    EXPECT_TRUE(logs.has(k_error, "_qnm_recv_frame: Failed to _qnm_recv_pcap(). port_num=1"));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_frame: end. port_num=1, ret=-1"));
    fake_pcap::push_result("port1", -2);
    EXPECT_EQ(_qnm_recv_frame(1), -1);
    EXPECT_TRUE(logs.has(k_error, "_qnm_recv_pcap: Failed to pcap_next_ex(). err = -2"));
}

TEST_F(recv, frames_of_any_length_and_subtype_do_no_harm) {
    qnm::store(g_log_level, QNM_LOGLVL_FATAL);
    uint64_t expected = 0;
    for (const uint8_t host : {0, 1, 2}) {
        for (size_t length = 1; length <= 1600; length += length < 520 ? 1 : 97) {
            for (const int subtype : {0x10, 0x11, 0x18, 0x19, 0x20, 0x21}) {
                announcement it;
                it.host = host;
                it.subtype = static_cast<uint8_t>(subtype);
                const size_t least = subtype == 0x20 ? 28 : frames::least_length(it);
                it.length = length;
                if (length >= least && subtype != 0x21) expected++;
                ASSERT_EQ(receive(frames::build(it)), 0);
                ASSERT_EQ(received(), expected) << length << ' ' << subtype;
            }
        }
    }
}

TEST_F(recv, random_bytes_do_no_harm) {
    qnm::store(g_log_level, QNM_LOGLVL_FATAL);
    std::mt19937 random(20240229);
    for (int i = 0; i < 20000; i++) {
        frame_t frame(1 + random() % 600);
        for (unsigned char& byte : frame)
            byte = static_cast<unsigned char>(random());
        if (i % 2 == 0 && frame.size() > 28) {
            announcement it;
            it.subtype = frame[18];
            frames::put_header(frame, it);
        }
        ASSERT_EQ(receive(frame), 0);
    }
    for (int i = 0; i < 20000; i++) {
        announcement it;
        frame_t frame(28 + random() % 500);
        for (unsigned char& byte : frame)
            byte = static_cast<unsigned char>(random());
        it.mac = 0x020000000000 + random() % 64;
        frames::put_header(frame, it);
        const uint8_t subtypes[] = {0x10, 0x11, 0x18, 0x19, 0x20};
        frame[18] = subtypes[random() % 5];
        frame[23] = static_cast<unsigned char>(random() % 3);
        ASSERT_EQ(receive(frame, i % 2), 0);
    }
    EXPECT_GT(received(), 0U);
}

// ---- The loop -----------------------------------------------------------------------------------

// A poll with these events on the capture and on the terminate pipe.
fail::poll_result events(short capture, short terminate) {
    return fail::poll_events({capture, terminate});
}

TEST_F(recv, the_task_takes_frames_until_it_is_terminated) {
    std::thread task(_qnm_recv_task, reinterpret_cast<void*>(1L));
    fake_pcap::push_frame("port1", frames::build(small()));
    EXPECT_TRUE(logs.wait_for(k_trace, "_dispatch_frame: 1G/10G DEVINFO is received."));
    EXPECT_EQ(write(qnm_terminate_fd_recv[1][1], "a", 1), 1);
    task.join();
    EXPECT_TRUE(logs.has(k_info, "_qnm_recv_task: start. if_index=6, mac=0a0000000001"));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_lin: poll() catch POLLIN. port_num=1"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_recv_lin: poll() catch terminate-event. port_num=1"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_recv_task: end. if_index=6, mac=0a0000000001"));
    EXPECT_EQ(qnm::load(internal_err), 0);
}

TEST_F(recv, the_loop_ends_with_the_stop_flag) {
    fail::on_poll([](auto, int timeout_ms) {
        EXPECT_EQ(timeout_ms, 1000);
        qnm::store(qnm_root.er_fini_flag, 0U);
        return std::optional(events(0, 0));
    });
    _qnm_recv_lin(0);
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_lin: poll() returned 0(Timeout). port_num=0"));
    EXPECT_EQ(fail::count(fail::call::poll), 1U);
}

struct fatal_row {
    fail::poll_result found;
    const char* line;
};

TEST_F(recv, failures_of_the_poll_set_stop_the_manager) {
    const fatal_row rows[] = {
        {{-1, EINTR, {}}, "_qnm_recv_lin: poll() returned -1. errno=4, port_num=0"},
        {events(0, POLLHUP),
         "_qnm_recv_lin: poll error event has occurred (in terminate event wait). port_num=0, "
         "revents=0x10"},
        {events(0, POLLNVAL),
         "_qnm_recv_lin: poll error event has occurred (in terminate event wait). port_num=0, "
         "revents=0x20"},
        {events(POLLHUP, 0),
         "_qnm_recv_lin: poll error event has occurred (in receive wait). port_num=0, "
         "revents=0x10"},
        {events(POLLNVAL, 0),
         "_qnm_recv_lin: poll error event has occurred (in receive wait). port_num=0, "
         "revents=0x20"},
    };
    for (const fatal_row& row : rows) {
        logs.clear();
        set_running();
        fail::poll_nth(1, row.found);
        _qnm_recv_lin(0);
        EXPECT_THAT(logs.texts("logfile", k_fatal),
                    ElementsAre(row.line,
                                "_qnm_fini_manager: LFI will terminate by reason of internal "
                                "error."));
        EXPECT_EQ(qnm::load(qnm_root.er_fini_flag), 0U);
        EXPECT_EQ(qnm::load(internal_err), EPROTO);
    }
}

TEST_F(recv, an_error_on_the_terminate_pipe_is_fatal_whether_it_can_be_read_or_not) {
    fail::poll_nth(1, events(0, POLLERR));
    fail::nth(fail::call::read, 1, EIO);
    _qnm_recv_lin(0);
    EXPECT_TRUE(logs.has(k_error, "_qnm_recv_lin: Failed to read(). err=-1, errno=5, port_num=0"));
    EXPECT_TRUE(logs.has(k_fatal,
                         "_qnm_recv_lin: POLLERR event has occurred (in terminate event wait). "
                         "port_num=0, revents=0x8"));
}

TEST_F(recv, an_interface_that_is_down_is_survived) {
    fail::poll_nth(1, events(POLLERR, 0));
    fail::nth(fail::call::recv, 1, ENETDOWN);
    fail::poll_nth(2, events(0, POLLIN));
    EXPECT_EQ(write(qnm_terminate_fd_recv[0][1], "a", 1), 1);
    _qnm_recv_lin(0);
    EXPECT_TRUE(
        logs.has(k_error, "_qnm_recv_lin: Failed to recv(). err=-1, errno=100, port_num=0"));
    EXPECT_TRUE(logs.has(k_info,
                         "_qnm_recv_lin: POLLERR event has occurred (in receive wait). Because "
                         "interface is not up. port_num=0, revents=0x8"));
    EXPECT_EQ(qnm::load(internal_err), 0);
}

// Another thread has taken the socket's error since the poll, so a real socket has none pending.
TEST_F(recv, an_error_that_a_sender_has_taken_is_not_waited_for) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    fake_pcap::set_selectable_fd("port0", ends[0]);
    fail::poll_nth(1, events(POLLERR, 0));
    fail::poll_nth(2, events(0, POLLIN));
    EXPECT_EQ(write(qnm_terminate_fd_recv[0][1], "a", 1), 1);
    std::atomic<bool> ended = false;
    std::thread task([&] {
        _qnm_recv_lin(0);
        ended = true;
    });
    EXPECT_TRUE(wait_until([&] { return ended.load(); })) << "it waits for an error";
    if (!ended) {
        EXPECT_EQ(send(ends[1], "a", 1, 0), 1);
    }
    task.join();
    EXPECT_TRUE(logs.has(k_debug,
                         "_qnm_recv_lin: POLLERR event has occurred (in receive wait), but its "
                         "error is gone. port_num=0, revents=0x8"));
    EXPECT_EQ(logs.count_level(k_error), 0U);
    EXPECT_EQ(qnm::load(internal_err), 0);
    fake_pcap::set_selectable_fd("port0", std::nullopt);
    for (const int fd : ends)
        close(fd);
}

TEST_F(recv, another_socket_error_is_fatal) {
    fail::poll_nth(1, events(POLLERR, 0));
    fail::nth(fail::call::recv, 1, EIO);
    _qnm_recv_lin(0);
    EXPECT_TRUE(logs.has(k_fatal,
                         "_qnm_recv_lin: POLLERR event has occurred (in receive wait). "
                         "port_num=0, revents=0x8"));
    EXPECT_EQ(qnm::load(internal_err), EPROTO);
}

TEST_F(recv, a_port_that_fails_is_fatal) {
    fake_pcap::push_result("port0", -1);
    _qnm_recv_lin(0);
    EXPECT_TRUE(logs.has(k_fatal, "_qnm_recv_lin: Failed to _qnm_recv_frame(). port_num=0"));
    EXPECT_EQ(qnm::load(internal_err), EPROTO);
}

// Handles what is queued on port 0 and ends the loop when it would sleep.
void take_all_in() {
    fail::on_poll([](auto, int timeout_ms) -> std::optional<fail::poll_result> {
        if (fake_pcap::queued("port0") != 0) return std::nullopt;
        if (timeout_ms != 0) qnm::store(qnm_root.er_fini_flag, 0U);
        return events(0, 0);
    });
    _qnm_recv_lin(0);
}

TEST_F(recv, the_event_thread_is_woken_when_no_further_frame_waits) {
    fake_pcap::push_frame("port0", frames::build(small()));
    take_all_in();
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_NEWDEVINFO], 1U);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 1U);
    EXPECT_EQ(logs.count(k_trace, "_qnm_recv_lin: poll() returned 0(Timeout). port_num=0"), 1U)
        << "the look before is no time-out";
}

TEST_F(recv, a_burst_wakes_the_event_thread_once_in_64_events) {
    constexpr uint64_t k_burst = 2 * 64 + 10;
    for (uint64_t n = 0; n < k_burst; n++) {
        frames::announcement card = small();
        card.mac += 2 * n;
        fake_pcap::push_frame("port0", frames::build(card));
    }
    take_all_in();
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_NEWDEVINFO], k_burst);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 3U);
}

TEST_F(recv, news_are_told_while_frames_without_any_go_on_waiting) {
    constexpr size_t k_frames = 100;  // the first one makes the only event
    for (size_t n = 0; n < k_frames; n++)
        fake_pcap::push_frame("port0", frames::build(small()));
    size_t waiting_when_told = 0;
    fail::on_poll([&](auto, int timeout_ms) -> std::optional<fail::poll_result> {
        const size_t waiting = fake_pcap::queued("port0");
        if (fail::count(fail::call::pthread_cond_signal) == 0) waiting_when_told = waiting;
        if (waiting != 0) return std::nullopt;
        if (timeout_ms != 0) qnm::store(qnm_root.er_fini_flag, 0U);
        return events(0, 0);
    });
    _qnm_recv_lin(0);
    EXPECT_EQ(received(), k_frames);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), 1U);
    EXPECT_EQ(waiting_when_told, k_frames - 63) << "the last look before it was told";
}

TEST_F(recv, frames_without_news_wake_nobody) {
    fake_pcap::push_frame("port0", frames::build(small()));
    take_all_in();
    set_running();
    const uint64_t before = fail::count(fail::call::pthread_cond_signal);
    fake_pcap::push_frame("port0", frames::build(small()));
    take_all_in();
    EXPECT_EQ(received(), 2U);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_signal), before);
}

}  // namespace
