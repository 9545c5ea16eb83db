// test_recv_devinfo.cpp - announcements become card records and events.

#include <cerrno>

#include "frames.h"
#include "qnm_limits.h"
#include "qnm_recv_devinfo.h"
#include "units.h"

namespace {

using frames::announcement;
using frames::frame_t;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t k_id = 0x020000001000;

// Errors that the internal calls return in place of their own results.
int g_set_result = 0;
int g_get_result = 0;
int g_create_result = 0;

#define REPLACE(kind)                                                                              \
    extern "C" int __real__qnm_set_heard_##kind(uint64_t, qnm_##kind##_t*, uint32_t, uint32_t,     \
                                                uint32_t, const qnm_heard_t*);                     \
    extern "C" int __real__qnm_get_##kind(uint64_t, qnm_##kind##_t*, uint32_t*, uint32_t*,         \
                                          uint32_t);                                               \
    extern "C" int __wrap__qnm_set_heard_##kind(uint64_t id, qnm_##kind##_t* card, uint32_t state, \
                                                uint32_t count, uint32_t valid,                    \
                                                const qnm_heard_t* heard) {                        \
        return g_set_result != 0                                                                   \
                   ? g_set_result                                                                  \
                   : __real__qnm_set_heard_##kind(id, card, state, count, valid, heard);           \
    }                                                                                              \
    extern "C" int __wrap__qnm_get_##kind(uint64_t id, qnm_##kind##_t* card, uint32_t* state,      \
                                          uint32_t* count, uint32_t valid) {                       \
        return g_get_result != 0 ? g_get_result                                                    \
                                 : __real__qnm_get_##kind(id, card, state, count, valid);          \
    }

REPLACE(qnsv)
REPLACE(qnio)

extern "C" int __real__qnm_create_reg_lock_node(uint64_t id);
extern "C" int __wrap__qnm_create_reg_lock_node(uint64_t id) {
    return g_create_result != 0 ? g_create_result : __real__qnm_create_reg_lock_node(id);
}

struct devinfo : units {
    ~devinfo() override { g_set_result = g_get_result = g_create_result = 0; }

    // Hands over a frame and returns the types of the events that it queued.
    std::vector<int> receive(const frame_t& frame, int port = 0, uint8_t vlan_mode = 0) {
        uint64_t before[QNM_EVT_MAX];
        std::copy(std::begin(qnm_stats.est_evt), std::end(qnm_stats.est_evt), before);
        EXPECT_EQ(_qnm_recv_devinfo(port, frame.data(), vlan_mode), 0);
        std::vector<int> events;
        for (int type = 0; type < QNM_EVT_MAX; type++) {
            for (uint64_t n = before[type]; n < qnm_stats.est_evt[type]; n++) {
                events.push_back(type);
            }
        }
        return events;
    }

    static qnm_qnsv_t qnsv(uint64_t id = k_id) {
        qnm_qnsv_t card = {};
        EXPECT_EQ(qnm_get_qnsv(id, &card), QNM_API_SUCCESS);
        return card;
    }

    static qnm_qnio_t qnio(uint64_t id = k_id) {
        qnm_qnio_t card = {};
        EXPECT_EQ(qnm_get_qnio(id, &card), QNM_API_SUCCESS);
        return card;
    }

    template <typename Kind>
    static uint32_t ignore_state(uint64_t id = k_id) {
        const qnm::table_guard lock;
        uint32_t state = 99;
        Kind::get(id, nullptr, &state, nullptr, QNM_VALID_IGNORE_STATE);
        return state;
    }
};

announcement qnio_frame() {
    announcement it;
    it.host = 1;
    return it;
}

// How the kinds differ in log lines and frames.
struct kind_words {
    uint8_t host;
    const char* name;
    const char* suffix;  // of function names
    uint32_t (*ignore_state)(uint64_t id);
};

class each_kind : public devinfo, public testing::WithParamInterface<kind_words> {
  public:
    announcement make() const {
        announcement it;
        it.host = GetParam().host;
        return it;
    }

    // "{k}" is the suffix, "{K}" the name.
    std::string line(std::string text) const {
        for (const auto& [mark, word] : {std::pair{std::string("{k}"), GetParam().suffix},
                                         std::pair{std::string("{K}"), GetParam().name}}) {
            for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
                text.replace(at, mark.size(), word);
            }
        }
        return text;
    }
};

INSTANTIATE_TEST_SUITE_P(
    devinfo, each_kind,
    testing::Values(kind_words{0, "QNSV", "qnsv", devinfo::ignore_state<qnm::qnsv_kind>},
                    kind_words{1, "QNIO", "qnio", devinfo::ignore_state<qnm::qnio_kind>}),
    [](const testing::TestParamInfo<kind_words>& it) { return it.param.name; });

TEST_P(each_kind, a_new_card_is_added_and_reported) {
    EXPECT_THAT(receive(frames::build(make())), ElementsAre(QNM_EVT_NEWDEVINFO));
    EXPECT_TRUE(logs.has(k_info, line("_add_{k}_devinfo: {K} information is added. "
                                      "id=0x020000001000, P0M0: CONNECT, P0M1: DISCONNECT, "
                                      "P1M0: DISCONNECT, P1M1: DISCONNECT")));
    EXPECT_EQ(GetParam().ignore_state(k_id), uint32_t{QNM_WATCH});
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_P(each_kind, a_new_card_with_an_error_reports_that_too) {
    announcement it = make();
    it.sw_status[2] = 1;
    EXPECT_THAT(receive(frames::build(it)),
                ElementsAre(QNM_EVT_NEWDEVINFO, QNM_EVT_MAJORMINORERROR));
}

TEST_P(each_kind, the_same_announcement_again_only_refreshes_the_receive_time) {
    receive(frames::build(make()));
    set_now(k_now + 500);
    EXPECT_THAT(receive(frames::build(make())), IsEmpty());
    const qnm_com_dev_t dev = GetParam().host == 0 ? qnsv().esv_com_dev : qnio().eio_com_dev;
    EXPECT_EQ(dev.ecd_recvtime[0][0], k_now + 500);
    EXPECT_EQ(dev.ecd_updatetime, k_now);
    EXPECT_TRUE(logs.has(k_trace, line("_update_{k}_devinfo: {K} information is updated. "
                                       "id=0x020000001000, ignore_state=WATCH")));
}

TEST_P(each_kind, a_known_unchanged_card_costs_no_allocation) {
    const frame_t frame = frames::build(make());
    receive(frame);
    qnm::store(g_log_level, QNM_LOGLVL_INFO);
    EXPECT_EQ(alloc::count_in([&] { _qnm_recv_devinfo(0, frame.data(), 0); }), 0U);
}

TEST_P(each_kind, the_second_port_connects_and_updates) {
    receive(frames::build(make()));
    set_now(k_now + 7);
    EXPECT_THAT(receive(frames::build(make()), 1),
                ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE));
    EXPECT_TRUE(logs.has(k_info, line("_update_{k}_devinfo: {K} id=0x020000001000 state change to "
                                      "connect. P0M0: CONNECT, P0M1: DISCONNECT, P1M0: CONNECT, "
                                      "P1M1: DISCONNECT")));
    const qnm_com_dev_t dev = GetParam().host == 0 ? qnsv().esv_com_dev : qnio().eio_com_dev;
    EXPECT_EQ(dev.ecd_updatetime, k_now + 7);
    EXPECT_EQ(dev.ecd_recvtime[0][0], k_now);
    EXPECT_EQ(dev.ecd_recvtime[1][0], k_now + 7);
}

TEST_P(each_kind, only_new_error_bits_are_an_error) {
    announcement it = make();
    it.sw_status[2] = 0x03;
    receive(frames::build(it));
    it.sw_status[2] = 0x01;
    EXPECT_THAT(receive(frames::build(it)), ElementsAre(QNM_EVT_UPDATEDEVINFO));
    it.sw_status[2] = 0x04;
    EXPECT_THAT(receive(frames::build(it)),
                ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_MAJORMINORERROR));
}

TEST_P(each_kind, a_stopped_unknown_card_is_never_added) {
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_THAT(receive(frames::build(make())), IsEmpty());
    EXPECT_EQ(GetParam().ignore_state(k_id), 99U);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0) << "its write lock exists all the same";
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_P(each_kind, an_ignored_card_keeps_its_record) {
    receive(frames::build(make()));
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    set_now(k_now + 5);
    announcement changed = make();
    changed.tci = 0x8063;
    EXPECT_THAT(receive(frames::build(changed)), IsEmpty());
    const qnm_com_dev_t dev = GetParam().host == 0 ? qnsv().esv_com_dev : qnio().eio_com_dev;
    EXPECT_EQ(dev.ecd_vlan_id, 10);
    EXPECT_EQ(dev.ecd_recvtime[0][0], k_now);
}

TEST_P(each_kind, the_first_frame_after_a_restart_starts_afresh) {
    receive(frames::build(make()));
    receive(frames::build(make()), 1);
    EXPECT_EQ(qnm_restart_monitor(k_id), QNM_API_SUCCESS);
    set_now(k_now + 9);
    EXPECT_THAT(receive(frames::build(make()), 1),
                ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE));
    EXPECT_EQ(GetParam().ignore_state(k_id), uint32_t{QNM_WATCH});
    EXPECT_TRUE(logs.has(k_trace, line("_update_{k}_devinfo: {K} information is updated. "
                                       "id=0x020000001000, ignore_state=WATCH_RESTART")));
    EXPECT_TRUE(logs.has(k_info, line("_update_{k}_devinfo: {K} id=0x020000001000 state change to "
                                      "connect. ignore_state=WATCH_RESTART, P0M0: DISCONNECT, "
                                      "P0M1: DISCONNECT, P1M0: CONNECT, P1M1: DISCONNECT")));
    const qnm_com_dev_t dev = GetParam().host == 0 ? qnsv().esv_com_dev : qnio().eio_com_dev;
    EXPECT_EQ(dev.ecd_recvtime[0][0], 0U);
    EXPECT_EQ(dev.ecd_recvtime[1][0], k_now + 9);
}

TEST_P(each_kind, failures_are_logged_and_drop_the_frame) {
    const frame_t frame = frames::build(make());
    g_create_result = ENOMEM;
    EXPECT_THAT(receive(frame), IsEmpty());
    g_create_result = 0;
    EXPECT_TRUE(
        logs.has(k_warn, line("_add_{k}_devinfo: Failed to _qnm_create_reg_lock_node(). Drop "
                              "DEVINFO Frame. err=12, id=0x020000001000")));
    g_set_result = ENOMEM;
    EXPECT_THAT(receive(frame), IsEmpty());
    EXPECT_TRUE(logs.has(k_error, line("_add_{k}_devinfo: Failed to _qnm_set_{k}(). err=12, "
                                       "id=0x020000001000")));
    g_set_result = 0;
    g_get_result = EINVAL;
    EXPECT_THAT(receive(frame), IsEmpty());
    g_get_result = 0;
    EXPECT_TRUE(logs.has(k_warn, line("_set_{k}_devinfo: Failed to _qnm_get_{k}(). err=22")));
    g_create_result = EEXIST;
    EXPECT_THAT(receive(frame), ElementsAre(QNM_EVT_NEWDEVINFO));
    g_create_result = 0;
    g_set_result = EPROTO;
    EXPECT_THAT(receive(frame, 1), IsEmpty());
    EXPECT_TRUE(logs.has(k_error, line("_update_{k}_devinfo: Failed to _qnm_set_{k}(). err=71, "
                                       "id=0x020000001000, ignore_state=WATCH")));
    g_set_result = 0;
    EXPECT_EQ(qnm_restart_monitor(k_id), QNM_API_SUCCESS);
    _qnm_paced_init();  // the line comes once a second, whatever the state
    g_set_result = EPROTO;
    EXPECT_THAT(receive(frame), IsEmpty());
    EXPECT_TRUE(logs.has(k_error, line("_update_{k}_devinfo: Failed to _qnm_set_{k}(). err=71, "
                                       "id=0x020000001000, ignore_state=IGNORE")));
}

TEST_P(each_kind, an_unknown_ignore_state_is_named) {
    receive(frames::build(make()));
    {
        const qnm::table_guard lock;
        if (GetParam().host == 0) {
            _qnm_set_qnsv(k_id, nullptr, 3, 0, QNM_VALID_IGNORE_STATE);
        } else {
            _qnm_set_qnio(k_id, nullptr, 3, 0, QNM_VALID_IGNORE_STATE);
        }
    }
    EXPECT_THAT(receive(frames::build(make())), IsEmpty());
    EXPECT_TRUE(logs.has(k_warn, line("_update_{k}_devinfo: Unknown ignore_state. state=3")));
}

TEST_P(each_kind, an_invalid_event_mask_compares_everything_and_says_so) {
    receive(frames::build(make()));
    qnm_config.update_evt_mask = 3;
    announcement it = make();
    it.link_status = 1;
    EXPECT_THAT(receive(frames::build(it)), ElementsAre(QNM_EVT_UPDATEDEVINFO));
    EXPECT_TRUE(logs.has(k_warn, line("_update_{k}_state: Invalid config parameter. "
                                      "update_evt_mask=3")));
}

TEST_F(devinfo, the_common_part_is_taken_over_field_by_field) {
    announcement it = qnio_frame();
    it.info = 0x0C;
    it.tci = 0x9ABC;
    it.sw_status[0] = 0x44;
    it.sw_status[1] = 0x62;
    it.sw_status[2] = 0x55;
    receive(frames::build(it), 1, 0);
    const qnm_com_dev_t dev = qnio().eio_com_dev;
    EXPECT_EQ(dev.ecd_id, k_id);
    EXPECT_THAT(dev.ecd_macaddr, ElementsAre(0x02, 0, 0, 0, 0x10, 0x00));
    EXPECT_EQ(dev.ecd_recvtime[1][0], k_now);
    EXPECT_EQ(dev.ecd_updatetime, k_now);
    EXPECT_EQ(dev.ecd_state[1][0], 1U);
    EXPECT_EQ(dev.ecd_state[0][0], 0U);
    EXPECT_EQ(dev.ecd_uidsw, 1U);
    EXPECT_EQ(dev.ecd_power, 1U);
    EXPECT_EQ(dev.ecd_port0_link, 1U);
    EXPECT_EQ(dev.ecd_port1_link, 1U);
    EXPECT_EQ(dev.ecd_vlan_id, 0x0ABC);
    EXPECT_THAT(dev.ecd_swstatus, ElementsAre(0x44, 0x62, 0x55));
    EXPECT_EQ(dev.ecd_int_vector, 0x55);
    EXPECT_EQ(dev.ecd_ver, 2);
    EXPECT_EQ(dev.ecd_vlan_mode, 0);
    EXPECT_EQ(dev.ecd_flowid, 0x21);
    EXPECT_EQ(dev.ecd_type, 0);
    EXPECT_EQ(dev.ecd_linkstatus, 0x33);
}

TEST_F(devinfo, the_vlan_id_lies_behind_the_type_in_vlan_tag_change_mode) {
    announcement it = qnio_frame();
    it.vlan_change_mode = true;
    it.tci = 0x8123;
    receive(frames::build(it), 0, 1);
    EXPECT_EQ(qnio().eio_com_dev.ecd_vlan_id, 0x0123);
    EXPECT_EQ(qnio().eio_com_dev.ecd_vlan_mode, 1);
}

TEST_F(devinfo, both_paths_of_a_40g_card_are_one_card) {
    announcement it;
    it.subtype = 0x18;
    it.ver = 2;
    receive(frames::build(it));
    it.mac = k_id | 1;
    EXPECT_THAT(receive(frames::build(it)),
                ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE));
    EXPECT_EQ(qnm_qn.eei_total_qnsv, 1U);
    const qnm_com_dev_t dev = qnsv().esv_com_dev;
    EXPECT_EQ(dev.ecd_state[0][0], 1U);
    EXPECT_EQ(dev.ecd_state[0][1], 1U);
    EXPECT_EQ(dev.ecd_macaddr[5], 0x00);
    EXPECT_EQ(dev.ecd_type, 2);
}

TEST_F(devinfo, a_1g10g_card_with_an_odd_mac_keeps_it_and_uses_path_0) {
    announcement it;
    it.mac = k_id | 1;
    receive(frames::build(it));
    EXPECT_EQ(qnsv(k_id | 1).esv_com_dev.ecd_state[0][0], 1U);
}

TEST_F(devinfo, bridge_settings_are_copied_as_they_lie) {
    frame_t frame = frames::build({});
    for (size_t i = 0; i < 20; i++)
        frame[28 + i] = static_cast<unsigned char>(i + 1);
    const size_t connected = frames::down_port(7);
    for (size_t i = 0; i < 28; i++)
        frame[connected + i] = static_cast<unsigned char>(0x40 + i);
    frame[connected + 1] = 0x02;
    const size_t open = frames::down_port(6);
    for (size_t i = 0; i < 28; i++)
        frame[open + i] = 0x55;
    frame[open + 1] = 0xFD;
    receive(frame);
    const qnm_qnsv_t card = qnsv();
    const qnm_up_port_t& up = card.esv_up_port;
    EXPECT_EQ(up.ecp_pri_bus_num, 1);
    EXPECT_EQ(up.ecp_sec_bus_num, 2);
    EXPECT_EQ(up.ecp_sub_bus_num, 3);
    EXPECT_EQ(up.ecp_command, 4);
    EXPECT_EQ(up.ecp_memory_base, 0x0605);
    EXPECT_EQ(up.ecp_memory_limit, 0x0807);
    EXPECT_EQ(up.ecp_pre_memory_base, 0x0A09);
    EXPECT_EQ(up.ecp_pre_memory_limit, 0x0C0B);
    EXPECT_EQ(up.ecp_pre_base_upper, 0x100F0E0DU);
    EXPECT_EQ(up.ecp_pre_limit_upper, 0x14131211U);
    const qnm_down_port_t& port = card.esv_down_port[7];
    EXPECT_THAT(port.edp_port_status, ElementsAre(0x40, 0x02));
    EXPECT_THAT(port.edp_io_mac, ElementsAre(0x42, 0x43, 0x44, 0x45, 0x46, 0x47));
    EXPECT_EQ(port.edp_com_port.ecp_pri_bus_num, 0x48);
    EXPECT_EQ(port.edp_com_port.ecp_pre_limit_upper, 0x5B5A5958U);
    const qnm_down_port_t& unconnected = card.esv_down_port[6];
    EXPECT_THAT(unconnected.edp_port_status, ElementsAre(0x55, 0xFD));
    EXPECT_EQ(unconnected.edp_io_mac[0], 0x55);
    EXPECT_EQ(unconnected.edp_com_port.ecp_command, 0);
}

TEST_F(devinfo, a_40g_server_fills_all_sixteen_ports) {
    announcement it;
    it.subtype = 0x19;
    it.ver = 1;
    frame_t frame = frames::build(it);
    frame[frames::down_port(15)] = 0xA0;
    receive(frame);
    EXPECT_EQ(qnsv().esv_down_port[15].edp_port_status[0], 0xA0);
}

TEST_F(devinfo, an_io_card_is_taken_over_field_by_field) {
    announcement it = qnio_frame();
    it.info = 0x01;
    it.sw_status[1] = 0x80;
    frame_t frame = frames::build(it);
    for (size_t i = 28; i < 44; i++)
        frame[i] = static_cast<unsigned char>(i);
    receive(frame);
    const qnm_qnio_t card = qnio();
    EXPECT_THAT(card.eio_substate, ElementsAre(28, 29));
    EXPECT_THAT(card.eio_sermacaddr, ElementsAre(30, 31, 32, 33, 34, 35));
    EXPECT_EQ(card.eio_device_id, 37 << 8 | 36);
    EXPECT_EQ(card.eio_vendor_id, 39 << 8 | 38);
    EXPECT_EQ(card.eio_class_code, uint32_t{43 << 16 | 42 << 8 | 41});
    EXPECT_EQ(card.eio_pcie_presence, 1);
    EXPECT_EQ(card.eio_link0fault, 1);
    EXPECT_EQ(card.eio_link1fault, 0);
    EXPECT_EQ(card.eio_mr_resource_num, 0);
}

TEST_F(devinfo, a_multi_root_card_swaps_its_faults_and_has_a_resource) {
    announcement it = qnio_frame();
    it.info = 0x01;
    it.sw_status[1] = 0x01;
    frame_t frame = frames::build(it);
    frame[44] = 0x02;
    frame[45] = 0x01;
    receive(frame);
    EXPECT_EQ(qnio().eio_link0fault, 0);
    EXPECT_EQ(qnio().eio_link1fault, 1);
    EXPECT_EQ(qnio().eio_mr_resource_num, 0x0201);
}

TEST_F(devinfo, masked_status_bits_are_no_change_with_mask_2_and_one_with_mask_1) {
    frame_t server = frames::build({});
    receive(server);
    announcement io = qnio_frame();
    io.mac = k_id + 2;
    frame_t card = frames::build(io);
    receive(card);
    server[frames::down_port(3)] ^= 0x07;
    server[frames::down_port(3) + 1] ^= 0x01;
    card[28] ^= 0x07;
    card[29] ^= 0x01;
    EXPECT_THAT(receive(server), IsEmpty());
    EXPECT_THAT(receive(card), IsEmpty());
    qnm_config.update_evt_mask = 1;
    server[frames::down_port(3)] ^= 0x01;
    card[28] ^= 0x01;
    EXPECT_THAT(receive(server), ElementsAre(QNM_EVT_UPDATEDEVINFO));
    EXPECT_THAT(receive(card), ElementsAre(QNM_EVT_UPDATEDEVINFO));
    qnm_config.update_evt_mask = 2;
    server[frames::down_port(3)] ^= 0x08;
    card[28] ^= 0x08;
    EXPECT_THAT(receive(server), ElementsAre(QNM_EVT_UPDATEDEVINFO));
    EXPECT_THAT(receive(card), ElementsAre(QNM_EVT_UPDATEDEVINFO));
}

TEST_F(devinfo, a_connection_behind_a_port_raises_one_event) {
    frame_t frame = frames::build({});
    receive(frame);
    frame[frames::down_port(0) + 1] |= 0x02;
    frame[frames::down_port(7) + 1] |= 0x02;
    EXPECT_THAT(receive(frame), ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CONNECTIONCHANGE));
    frame_t card = frames::build(qnio_frame());
    card[11] = 2;
    receive(card);
    card[29] |= 0x02;
    EXPECT_THAT(receive(card), ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CONNECTIONCHANGE));
}

TEST_F(devinfo, all_events_of_one_frame_come_in_their_order) {
    announcement it = qnio_frame();
    receive(frames::build(it));
    it.info = 0x02;
    it.sw_status[2] = 0x80;
    frame_t frame = frames::build(it);
    frame[29] = 0x02;
    EXPECT_THAT(receive(frame, 1), ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CONNECTIONCHANGE,
                                               QNM_EVT_MAJORMINORERROR, QNM_EVT_PATHSTATECHANGE,
                                               QNM_EVT_CHANNELSTATECHANGE));
}

TEST_F(devinfo, a_host_of_unknown_kind_is_dropped) {
    announcement it;
    it.host = 2;
    EXPECT_THAT(receive(frames::build(it)), IsEmpty());
    EXPECT_TRUE(logs.has(k_trace, "_qnm_recv_devinfo: Unknwon PEB. host=0x02"));
}

TEST_F(devinfo, a_lost_event_does_not_stop_the_frame) {
    alloc::fail_nth(3);  // after the write lock and the record
    EXPECT_THAT(receive(frames::build({})), IsEmpty());
    EXPECT_TRUE(logs.has(k_warn,
                         "_add_qnsv_devinfo: Failed to _qnm_add_event(QNM_EVT_NEWDEVINFO) "
                         "id=0x020000001000"));
    EXPECT_EQ(qnm_qn.eei_total_qnsv, 1U);
}

// ---- Full tables --------------------------------------------------------------------------------

// The maximum number of cards, of both kinds, with even IDs from 2 on.
struct full_tables : devinfo {
    full_tables() {
        const qnm::table_guard lock;
        for (uint64_t n = 1; n <= qnm::k_cards_max; n++) {
            qnm_qnsv_t server = {};
            qnm_qnio_t io = {};
            server.esv_com_dev.ecd_id = io.eio_com_dev.ecd_id = 2 * n;
            // QNSV records are large, so there are only a few.
            const int err = n % 64 == 0 ? _qnm_set_qnsv(2 * n, &server, QNM_WATCH, 0, QNM_VALID_ALL)
                                        : _qnm_set_qnio(2 * n, &io, QNM_WATCH, 0, QNM_VALID_ALL);
            EXPECT_EQ(err, 0);
        }
        logs.clear();
    }

    static announcement of(uint64_t mac, uint8_t host) {
        announcement it;
        it.mac = mac;
        it.host = host;
        return it;
    }

    static uint32_t total() {
        const qnm::table_guard lock;
        return qnm_qn.eei_total_qnsv + qnm_qn.eei_total_qnio;
    }
};

TEST_F(full_tables, refuse_new_cards_of_both_kinds_at_no_cost) {
    const frame_t frames[] = {frames::build(of(k_id, 0)), frames::build(of(k_id, 1))};
    const uint64_t allocated = alloc::counts().nothrow;
    for (int n = 0; n < 100; n++) {
        for (const frame_t& frame : frames)
            EXPECT_EQ(_qnm_recv_devinfo(0, frame.data(), 0), 0);
    }
    EXPECT_EQ(alloc::counts().nothrow, allocated);
    EXPECT_EQ(total(), qnm::k_cards_max);
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_NEWDEVINFO], 0U);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_add_qnsv_devinfo: Too many cards. Drop DEVINFO Frame. max=262144, "
                            "id=0x020000001000"));
    logs.clear();
    _qnm_paced_fini();
    ASSERT_EQ(logs.count_level(k_warn), 1U);
    EXPECT_TRUE(logs.texts("logfile", k_warn)[0].starts_with("_add_qnio_devinfo: 199 more in "));
}

TEST_F(full_tables, go_on_with_known_cards) {
    EXPECT_THAT(receive(frames::build(of(2, 1))),
                ElementsAre(QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE));
    EXPECT_EQ(qnio(2).eio_com_dev.ecd_recvtime[0][0], k_now);
    EXPECT_EQ(logs.count_level(k_warn), 0U);
}

TEST_F(full_tables, take_a_new_card_when_one_has_been_deleted) {
    EXPECT_EQ(qnm_delete_qnsv(128), QNM_API_SUCCESS);
    EXPECT_THAT(receive(frames::build(of(k_id, 1))), ElementsAre(QNM_EVT_NEWDEVINFO));
    EXPECT_THAT(receive(frames::build(of(k_id + 2, 1))), IsEmpty());
    EXPECT_EQ(total(), qnm::k_cards_max);
}

// Forged IDs of cards that the host deletes again and again.
TEST_F(full_tables, hold_no_more_write_locks_than_cards_and_spare_ones) {
    const auto locks = [] {
        const qnm::mutex_guard lock(qnm_stats_mutex);
        return qnm_stats.est_wreg_node_al - qnm_stats.est_wreg_node_fr;
    };
    for (uint64_t n = 1; n <= qnm::k_spare_locks_max; n++)
        ASSERT_EQ(_qnm_create_reg_lock_node(2 * n), 0);
    EXPECT_EQ(qnm_delete_qnsv(128), QNM_API_SUCCESS);
    EXPECT_EQ(locks(), qnm::k_spare_locks_max) << "it outlives its card as long as there is room";
    for (uint64_t n = 0; n < 1000; n++) {
        ASSERT_THAT(receive(frames::build(of(k_id + 2 * n, 1))), ElementsAre(QNM_EVT_NEWDEVINFO));
        ASSERT_EQ(qnm_delete_qnio(k_id + 2 * n), QNM_API_SUCCESS);
    }
    EXPECT_EQ(locks(), qnm::k_spare_locks_max);
}

}  // namespace
