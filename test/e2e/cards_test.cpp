// cards_test.cpp - cards are added, followed and lost with a real kernel.

#include <gmock/gmock.h>

#include <cstddef>
#include <iterator>

#include "qnm_counters.h"
#include "rig.h"

namespace e2e {
namespace {

// Frames received on a port, as its counters tell.
uint64_t received(const uint64_t* counters) {
    pthread_mutex_lock(&qnm_stats_mutex.em_mutex);
    const uint64_t total = counters[QNM_STATS_R_TOTAL];
    pthread_mutex_unlock(&qnm_stats_mutex.em_mutex);
    return total;
}

struct cards : running_manager {
    void add(card_kind kind, card_speed speed, const std::function<void(cardsim::card&)>& change) {
        cardsim::card card = lively(kind, speed, k_id);
        change(card);
        cards_->add(card);
    }
};

// ---- What a card was told to be is what the library learns --------------------------------------

// A card with a value of its own in every field.
cardsim::card told_everything(uint64_t id, card_kind kind, card_speed speed, uint8_t version) {
    cardsim::card card = lively(kind, speed, id);
    card.vlan_id = 0x0ABC;
    card.flow_id = 0x21;
    card.uid_switch = true;
    card.power = false;
    card.link_status = 0x43;
    card.sw_status0 = 0x65;
    card.version = version;
    card.port0_link = false;
    card.port1_link = true;
    card.pcie_presence = true;
    card.int_vector = 0x87;
    card.up_port = {0x11, 0x12, 0x13, 0x14, 0x2122, 0x2324, 0x2526, 0x2728, 0x31323334, 0x35363738};
    for (size_t k = 0; k < card.down_ports.size(); k++) {
        const auto n = static_cast<uint8_t>(k);
        card.down_ports[k].port_status = {n, 0x02};
        card.down_ports[k].io_mac = 0x020000005000 + k;
        card.down_ports[k].com_port = {n,      0x51,   0x52,   0x53,       0x5455,
                                       0x5657, 0x5859, 0x6061, 0x62636465, 0x66676869};
    }
    card.io_substate = {0x71, 0x72};
    card.ser_mac = 0x020000007374;
    card.device_id = 0x7576;
    card.vendor_id = 0x7778;
    card.class_code = 0x818283;
    card.link0_fault = true;
    card.link1_fault = false;
    card.resource_id = 0x8485;
    return card;
}

uint64_t number(const uint8_t (&mac)[6]) {
    uint64_t value = 0;
    for (const uint8_t byte : mac)
        value = value << 8 | byte;
    return value;
}

void expect_equal(const qnm_com_dev_t& dev, const cardsim::card& card) {
    EXPECT_EQ(dev.ecd_id, card.id);
    EXPECT_EQ(number(dev.ecd_macaddr), card.id);
    EXPECT_EQ(dev.ecd_vlan_id, card.vlan_id);
    EXPECT_EQ(dev.ecd_vlan_mode != 0, card.vlan_change_mode);
    EXPECT_EQ(dev.ecd_flowid, card.flow_id);
    EXPECT_EQ(dev.ecd_type, card.ver);
    EXPECT_EQ(dev.ecd_uidsw, card.uid_switch);
    EXPECT_EQ(dev.ecd_power, card.power);
    EXPECT_EQ(dev.ecd_linkstatus, card.link_status);
    EXPECT_EQ(dev.ecd_swstatus[0], card.sw_status0);
    EXPECT_EQ(dev.ecd_ver, card.version);
    EXPECT_EQ(dev.ecd_port0_link, card.port0_link);
    EXPECT_EQ(dev.ecd_port1_link, card.port1_link);
    EXPECT_EQ(dev.ecd_int_vector, card.int_vector);
    EXPECT_NE(dev.ecd_recvtime[0][0], 0U);
    EXPECT_NE(dev.ecd_updatetime, 0U);
}

void expect_equal(const qnm_com_port_t& port, const cardsim::bridge& bridge) {
    EXPECT_EQ(port.ecp_pri_bus_num, bridge.pri_bus_num);
    EXPECT_EQ(port.ecp_sec_bus_num, bridge.sec_bus_num);
    EXPECT_EQ(port.ecp_sub_bus_num, bridge.sub_bus_num);
    EXPECT_EQ(port.ecp_command, bridge.command);
    EXPECT_EQ(port.ecp_memory_base, bridge.memory_base);
    EXPECT_EQ(port.ecp_memory_limit, bridge.memory_limit);
    EXPECT_EQ(port.ecp_pre_memory_base, bridge.pre_memory_base);
    EXPECT_EQ(port.ecp_pre_memory_limit, bridge.pre_memory_limit);
    EXPECT_EQ(port.ecp_pre_base_upper, bridge.pre_base_upper);
    EXPECT_EQ(port.ecp_pre_limit_upper, bridge.pre_limit_upper);
}

void expect_equal(const qnm_qnsv_t& record, const cardsim::card& card) {
    const size_t ports = card.speed == card_speed::g40 ? 16 : 8;
    expect_equal(record.esv_com_dev, card);
    expect_equal(record.esv_up_port, card.up_port);
    for (size_t k = 0; k < std::size(record.esv_down_port); k++) {
        const cardsim::down_port told = k < ports ? card.down_ports[k] : cardsim::down_port{};
        const qnm_down_port_t& learnt = record.esv_down_port[k];
        EXPECT_THAT(learnt.edp_port_status, testing::ElementsAreArray(told.port_status)) << k;
        EXPECT_EQ(number(learnt.edp_io_mac), told.io_mac) << k;
        expect_equal(learnt.edp_com_port, told.com_port);
    }
}

void expect_equal(const qnm_qnio_t& record, const cardsim::card& card) {
    expect_equal(record.eio_com_dev, card);
    EXPECT_EQ(record.eio_class_code, card.class_code);
    EXPECT_EQ(record.eio_device_id, card.device_id);
    EXPECT_EQ(record.eio_vendor_id, card.vendor_id);
    EXPECT_EQ(record.eio_mr_resource_num, card.version == 1 ? card.resource_id : 0);
    EXPECT_EQ(number(record.eio_sermacaddr), card.ser_mac);
    EXPECT_THAT(record.eio_substate, testing::ElementsAreArray(card.io_substate));
    EXPECT_EQ(record.eio_link0fault, card.link0_fault);
    EXPECT_EQ(record.eio_link1fault, card.link1_fault);
    EXPECT_EQ(record.eio_pcie_presence, card.pcie_presence);
}

TEST_F(cards, every_field_of_every_kind_is_learnt_as_it_was_told) {
    uint64_t id = k_id;
    for (const card_kind kind : {card_kind::qnsv, card_kind::qnio}) {
        for (const card_speed speed : {card_speed::g1_10, card_speed::g40}) {
            for (const uint8_t version : {uint8_t{0}, uint8_t{1}, uint8_t{9}}) {
                const cardsim::card card = told_everything(id, kind, speed, version);
                SCOPED_TRACE(card.name);
                cards_->add(card);
                ASSERT_TRUE(wait_for([id] { return paths(id).starts_with('C'); }));
                if (kind == card_kind::qnsv) {
                    expect_equal(*qnsv(id), card);
                } else {
                    expect_equal(*qnio(id), card);
                }
                id += 2;
            }
        }
    }
}

// ---- How cards come, change and go --------------------------------------------------------------

TEST_F(cards, vlan_id_survives_the_tag_that_the_kernel_takes_off) {
    add(card_kind::qnsv, card_speed::g1_10, [](cardsim::card& card) { card.vlan_id = 1234; });
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD"; }));
    EXPECT_EQ(qnsv(k_id)->esv_com_dev.ecd_vlan_id, 1234);
    EXPECT_EQ(qnsv(k_id)->esv_com_dev.ecd_vlan_mode, 0);
}

TEST_F(cards, vlan_tag_change_mode_is_learnt) {
    add(card_kind::qnio, card_speed::g1_10, [](cardsim::card& card) {
        card.vlan_id = 77;
        card.vlan_change_mode = true;
    });
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD"; }));
    EXPECT_EQ(qnio(k_id)->eio_com_dev.ecd_vlan_id, 77);
    EXPECT_EQ(qnio(k_id)->eio_com_dev.ecd_vlan_mode, 1);
}

TEST_F(cards, a_40g_card_is_one_card_with_four_paths) {
    add(card_kind::qnsv, card_speed::g40, [](cardsim::card& card) {
        card.down_ports[15].port_status = {0x40, 0x02};
        card.down_ports[15].io_mac = 0x020000009999;
        card.down_ports[15].com_port.pre_limit_upper = 0x12345678;
    });
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    EXPECT_EQ(qnsv_total(), 1U);
    EXPECT_EQ(host.count(k_id, QNM_EVT_NEWDEVINFO), 1U);
    const qnm_qnsv_t record = *qnsv(k_id);
    EXPECT_NE(record.esv_com_dev.ecd_type, 0);
    EXPECT_EQ(record.esv_down_port[15].edp_io_mac[5], 0x99);
    EXPECT_EQ(record.esv_down_port[15].edp_com_port.ecp_pre_limit_upper, 0x12345678U);
}

TEST_F(cards, a_multi_root_card_tells_its_resource_and_its_faults) {
    add(card_kind::qnio, card_speed::g40, [](cardsim::card& card) {
        card.version = 1;
        card.resource_id = 513;
        card.link1_fault = true;
        card.device_id = 0xABCD;
        card.class_code = 0x030201;
        card.ser_mac = 0x0A0B0C0D0E0F;
    });
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    const qnm_qnio_t record = *qnio(k_id);
    EXPECT_EQ(record.eio_mr_resource_num, 513);
    EXPECT_EQ(record.eio_link0fault, 0);
    EXPECT_EQ(record.eio_link1fault, 1);
    EXPECT_EQ(record.eio_device_id, 0xABCD);
    EXPECT_EQ(record.eio_class_code, 0x030201U);
    EXPECT_THAT(record.eio_sermacaddr, testing::ElementsAre(0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F));
}

TEST_F(cards, a_changed_card_raises_an_update_with_the_new_record) {
    add(card_kind::qnsv, card_speed::g1_10, [](cardsim::card&) {});
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD"; }));
    ASSERT_TRUE(host.wait_event(k_id, QNM_EVT_CHANNELSTATECHANGE));
    host.forget_events();
    cards_->set(k_id, "int_vector", "5");
    cards_->notify(k_id);
    ASSERT_TRUE(host.wait_event(k_id, QNM_EVT_UPDATEDEVINFO));
    ASSERT_TRUE(host.wait_event(k_id, QNM_EVT_MAJORMINORERROR));
    EXPECT_EQ(qnsv(k_id)->esv_com_dev.ecd_int_vector, 5);
}

TEST_F(cards, a_silent_path_expires_and_comes_back) {
    add(card_kind::qnsv, card_speed::g40, [](cardsim::card&) {});
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    cards_->silence(k_id, 0, 1);
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCC"; }));
    cards_->wake(k_id, 0, 1);
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    EXPECT_THAT(install.log(), testing::HasSubstr("QNSV id=0x020000001000 state change to "
                                                  "disconnect. P0M0: CONNECT, P0M1: DISCONNECT"));
}

TEST_F(cards, a_stopped_card_keeps_its_record_until_it_is_restarted) {
    add(card_kind::qnio, card_speed::g1_10, [](cardsim::card&) {});
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD"; }));
    ASSERT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    const uint64_t recvtime = qnio(k_id)->eio_com_dev.ecd_recvtime[0][0];
    cards_->set(k_id, "vlan_id", "99");
    cards_->notify(k_id);
    // A card that is not stopped shows when the notice has passed the receive thread.
    cardsim::card marker = lively(card_kind::qnio, card_speed::g1_10, k_id + 2);
    cards_->add(marker);
    ASSERT_TRUE(wait_for([] { return paths(k_id + 2) == "CDCD"; }));
    EXPECT_EQ(qnio(k_id)->eio_com_dev.ecd_vlan_id, 1);
    EXPECT_EQ(qnio(k_id)->eio_com_dev.ecd_recvtime[0][0], recvtime);
    ASSERT_EQ(qnm_restart_monitor(k_id), QNM_API_SUCCESS);
    ASSERT_TRUE(wait_for([] { return qnio(k_id)->eio_com_dev.ecd_vlan_id == 99; }));
}

TEST_F(cards, two_thousand_are_learnt_in_one_burst_without_a_lost_frame) {
    constexpr uint64_t k_count = 2000;
    for (uint64_t i = 0; i < k_count; i++) {
        const card_kind kind = i % 2 == 0 ? card_kind::qnsv : card_kind::qnio;
        cardsim::card card = lively(kind, card_speed::g1_10, k_id + 2 * i);
        card.interval_ms = 0;
        cards_->add(card);
    }
    ASSERT_EQ(cards_->announce_all(), 2 * k_count);
    ASSERT_TRUE(wait_for([] {
        return received(qnm_stats.est_stats_p0) == k_count &&
               received(qnm_stats.est_stats_p1) == k_count;
    }));
    EXPECT_EQ(qnsv_total(), k_count / 2);
    EXPECT_EQ(qnio_total(), k_count / 2);
}

}  // namespace
}  // namespace e2e
