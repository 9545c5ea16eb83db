// What an event has changed.
#include "records/changes.h"

#include <gtest/gtest.h>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

// Reports a card as new, so that what follows is compared with it.
known_cards knowing(const card& of) {
    known_cards known;
    EXPECT_TRUE(tell(known, QNM_EVT_NEWDEVINFO, of).first);
    return known;
}

std::vector<std::string> texts(const reported_change& told) {
    std::vector<std::string> all;
    for (const change& one : told.changes)
        all.push_back(change_text(one));
    return all;
}

using lines = std::vector<std::string>;

TEST(Tell, AnUpdateIsComparedInEveryField) {
    qnm_qnio_t record = sample_device();
    record.eio_com_dev.ecd_recvtime[1][1] = 1;
    known_cards known = knowing(record);
    record.eio_com_dev.ecd_vlan_id = 31;
    record.eio_com_dev.ecd_state[1][1] = 0;
    record.eio_com_dev.ecd_state[0][1] = 1;
    record.eio_com_dev.ecd_int_vector = 3;
    record.eio_link0fault = 1;
    const reported_change told = tell(known, QNM_EVT_UPDATEDEVINFO, record);
    EXPECT_FALSE(told.first);
    EXPECT_EQ((lines{"VLAN ID 30 -> 31", "path P0M1 never heard -> connected",
                     "path P1M1 connected -> disconnected", "interrupt vector 0x00 -> 0x03",
                     "link 0 fault cleared -> raised"}),
              texts(told));
    EXPECT_EQ("state.P0M1", told.changes[1].name);
}

TEST(Tell, EveryEventIsComparedInWhatItIsAboutOnly) {
    qnm_qnio_t record = sample_device();
    record.eio_com_dev.ecd_recvtime[1][1] = 1;
    known_cards known = knowing(record);
    record.eio_com_dev.ecd_state[1][1] = 0;
    record.eio_com_dev.ecd_int_vector = 3;
    record.eio_link1fault = 1;
    record.eio_substate[1] = 0x02;
    EXPECT_EQ((lines{"binding to a QNSV card disconnected -> connected"}),
              texts(tell(known, QNM_EVT_CONNECTIONCHANGE, record)));
    EXPECT_EQ((lines{"interrupt vector 0x00 -> 0x03"}),
              texts(tell(known, QNM_EVT_MAJORMINORERROR, record)));
    EXPECT_EQ((lines{"link 1 fault cleared -> raised"}),
              texts(tell(known, QNM_EVT_PATHSTATECHANGE, record)));
    EXPECT_EQ((lines{"path P1M1 connected -> disconnected"}),
              texts(tell(known, QNM_EVT_CHANNELSTATECHANGE, record)));
}

TEST(Tell, ADownPortIsNamedWithItsNumber) {
    qnm_qnsv_t record = sample_server();
    known_cards known = knowing(record);
    record.esv_down_port[3].edp_port_status[1] = 0x02;
    record.esv_down_port[3].edp_io_mac[5] = 0x30;
    const reported_change connection = tell(known, QNM_EVT_CONNECTIONCHANGE, record);
    EXPECT_EQ((lines{"down port 3 QNIO card disconnected -> connected"}), texts(connection));
    const reported_change update = tell(known, QNM_EVT_UPDATEDEVINFO, record);
    EXPECT_EQ((lines{"down port 3 QNIO card disconnected -> connected",
                     "down port 3 QNIO card MAC address 00:00:00:00:00:00 -> 00:00:00:00:00:30"}),
              texts(update));
    EXPECT_EQ("down_port[3].io_mac", update.changes[1].name);
}

TEST(Tell, WhatWasToldIsNotToldAgain) {
    qnm_qnio_t record = sample_device();
    known_cards known = knowing(record);
    record.eio_com_dev.ecd_vlan_id = 31;
    EXPECT_EQ(1U, tell(known, QNM_EVT_UPDATEDEVINFO, record).changes.size());
    EXPECT_TRUE(tell(known, QNM_EVT_UPDATEDEVINFO, record).changes.empty());
}

TEST(Tell, TimesAreNoChange) {
    qnm_qnio_t record = sample_device();
    known_cards known = knowing(record);
    record.eio_com_dev.ecd_recvtime[0][0] = 5;
    record.eio_com_dev.ecd_updatetime = 5;
    EXPECT_TRUE(tell(known, QNM_EVT_UPDATEDEVINFO, record).changes.empty());
}

// The version, the link bits and the vector are in the switch status, too.
TEST(Tell, TheSwitchStatusIsToldForItsOwnBitsOnly) {
    qnm_qnio_t record = sample_device();
    known_cards known = knowing(record);
    record.eio_com_dev.ecd_swstatus[1] = 0x60;
    record.eio_com_dev.ecd_swstatus[2] = 0x01;
    record.eio_com_dev.ecd_port0_link = 1;
    EXPECT_EQ((lines{"card port 0 link down -> up"}),
              texts(tell(known, QNM_EVT_UPDATEDEVINFO, record)));
    record.eio_com_dev.ecd_swstatus[0] = 0x80;
    EXPECT_EQ((lines{"switch status 00 60 01 -> 80 60 01"}),
              texts(tell(known, QNM_EVT_UPDATEDEVINFO, record)));
}

TEST(Tell, ACardNotToldBeforeIsFirst) {
    known_cards known;
    EXPECT_TRUE(tell(known, QNM_EVT_UPDATEDEVINFO, sample_server()).first);
    EXPECT_FALSE(tell(known, QNM_EVT_UPDATEDEVINFO, sample_server()).first);
}

TEST(Tell, ACardThatChangedItsKindIsFirst) {
    qnm_qnio_t device = sample_device();
    known_cards known = knowing(device);
    qnm_qnsv_t server = sample_server();
    server.esv_com_dev.ecd_id = device.eio_com_dev.ecd_id;
    EXPECT_TRUE(tell(known, QNM_EVT_UPDATEDEVINFO, server).first);
    EXPECT_FALSE(tell(known, QNM_EVT_CHANNELSTATECHANGE, server).first);
}

TEST(Tell, ARecordThatWasAheadHasSaidWhy) {
    qnm_qnsv_t record = sample_server();
    known_cards known = knowing(record);
    EXPECT_EQ(reason{}, tell(known, QNM_EVT_UPDATEDEVINFO, record).why);
    record.esv_com_dev.ecd_state[0][0] = 0;
    record.esv_com_dev.ecd_updatetime = record.esv_com_dev.ecd_recvtime[0][0] + 1;
    const reason lost = {.why = cause::link_down, .port = 0};
    EXPECT_EQ(lost, tell(known, QNM_EVT_UPDATEDEVINFO, record).why);
    EXPECT_EQ(lost, tell(known, QNM_EVT_UPDATEDEVINFO, record).why);
    ++record.esv_com_dev.ecd_updatetime;
    EXPECT_EQ(reason{}, tell(known, QNM_EVT_UPDATEDEVINFO, record).why);
}

// By an update, because no other event reports a group.
TEST(ToldBefore, IsWhatTheLastUpdateTold) {
    qnm_qnio_t record = sample_device();
    known_cards known = knowing(record);
    const std::uint64_t id = record.eio_com_dev.ecd_id;
    record.eio_com_dev.ecd_vlan_id = 31;
    tell(known, QNM_EVT_CHANNELSTATECHANGE, record);
    EXPECT_EQ(30, common(*reported_before(known, id)).ecd_vlan_id);
    tell(known, QNM_EVT_UPDATEDEVINFO, record);
    EXPECT_EQ(31, common(*reported_before(known, id)).ecd_vlan_id);
    EXPECT_FALSE(reported_before(known, id + 1));
}

TEST(ChangesText, SaysWhyOnceForNeighbours) {
    qnm_qnio_t record = sample_device();
    known_cards known = knowing(record);
    known.facts.expire_ms = 2000;
    record.eio_com_dev.ecd_vlan_id = 31;
    record.eio_com_dev.ecd_state[0][0] = 1;
    record.eio_com_dev.ecd_state[1][1] = 0;
    record.eio_com_dev.ecd_recvtime[1][1] = 1'000;
    record.eio_com_dev.ecd_updatetime = 3'003;
    record.eio_link0fault = 1;
    EXPECT_EQ(
        "VLAN ID 30 -> 31, path P0M0 never heard -> connected (announced), "
        "path P1M1 connected -> disconnected (expired after 2003 ms), "
        "link 0 fault cleared -> raised (announced)",
        changes_text(tell(known, QNM_EVT_UPDATEDEVINFO, record).changes));
}

TEST(PresentText, SaysHowThingsAre) {
    EXPECT_EQ("now: path P1M1 connected",
              present_text(QNM_EVT_CHANNELSTATECHANGE, sample_device()));
    EXPECT_EQ("now: none", present_text(QNM_EVT_PATHSTATECHANGE, sample_device()));
    EXPECT_EQ("nothing further changed", present_text(QNM_EVT_UPDATEDEVINFO, sample_device()));
}

}  // namespace
}  // namespace qnmctl
