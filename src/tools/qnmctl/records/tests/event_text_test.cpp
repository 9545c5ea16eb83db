// An event as a line and as an object.
#include "records/event_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

observed seen(qnm_evt_type_t type, const card& record) {
    return {from_milliseconds(1'700'000'000'007), type, common(record).ecd_id, record};
}

// The text after the time, which depends on where the test runs.
std::string without_time(const std::string& line) {
    return line.substr(time_text(from_milliseconds(0)).size() + 1);
}

std::string line_of(const observed& event, known_cards& known, bool coloured) {
    const reported_change told =
        event.record ? tell(known, event.type, *event.record) : reported_change{};
    return event_line(event, told, coloured);
}

json object_of(const observed& event, known_cards& known) {
    const reported_change told =
        event.record ? tell(known, event.type, *event.record) : reported_change{};
    return event_json(event, told);
}

TEST(EventLine, TellsANewCard) {
    known_cards known;
    EXPECT_EQ(time_text(from_milliseconds(1'700'000'000'007)) +
                  " NEWDEVINFO         QNIO 0x020000003000  40G, VLAN ID 30, version 1, "
                  "resource ID 7, connected P1M1 (announced)",
              line_of(seen(QNM_EVT_NEWDEVINFO, sample_device()), known, false));
}

TEST(EventLine, TellsWhatChanged) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    line_of(seen(QNM_EVT_NEWDEVINFO, record), known, false);
    record.esv_com_dev.ecd_state[0][0] = 0;
    record.esv_com_dev.ecd_updatetime = record.esv_com_dev.ecd_recvtime[0][0] + 4999;
    EXPECT_EQ(
        "CHANNELSTATECHANGE QNSV 0x020000001000  path P0M0 connected -> disconnected (link "
        "down on port 0)",
        without_time(line_of(seen(QNM_EVT_CHANNELSTATECHANGE, record), known, false)));
}

TEST(EventLine, SaysWhyWhereNothingChanged) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    line_of(seen(QNM_EVT_NEWDEVINFO, record), known, false);
    EXPECT_EQ("CHANNELSTATECHANGE QNSV 0x020000001000  now: path P0M0 connected (announced)",
              without_time(line_of(seen(QNM_EVT_CHANNELSTATECHANGE, record), known, false)));
    EXPECT_EQ("UPDATEDEVINFO      QNSV 0x020000001000  nothing further changed (announced)",
              without_time(line_of(seen(QNM_EVT_UPDATEDEVINFO, record), known, false)));
    known.facts.restarted[record.esv_com_dev.ecd_id] = {.when = 1};
    EXPECT_EQ("CHANNELSTATECHANGE QNSV 0x020000001000  now: path P0M0 connected (restarted)",
              without_time(line_of(seen(QNM_EVT_CHANNELSTATECHANGE, record), known, false)));
}

TEST(EventLine, SaysWhenTheCardIsGone) {
    known_cards known;
    const observed gone{from_milliseconds(0), QNM_EVT_UPDATEDEVINFO, 0x1000, std::nullopt};
    EXPECT_EQ("UPDATEDEVINFO      ???? 0x000000001000  the card is no longer known",
              without_time(line_of(gone, known, false)));
}

TEST(EventLine, HasColourOnlyWhenAsked) {
    known_cards known;
    const observed event = seen(QNM_EVT_NEWDEVINFO, sample_server());
    EXPECT_EQ(std::string::npos, line_of(event, known, false).find('\033'));
    EXPECT_NE(std::string::npos, line_of(event, known, true).find("\033[32mNEWDEVINFO"));
}

TEST(EventJson, HoldsTheWholeCardWhenItIsNew) {
    known_cards known;
    const json object = object_of(seen(QNM_EVT_NEWDEVINFO, sample_device()), known);
    EXPECT_EQ("NEWDEVINFO", object["event"]);
    EXPECT_EQ("QNIO", object["kind"]);
    EXPECT_EQ("0x020000003000", object["id"]);
    EXPECT_EQ(card_json(sample_device()), object["card"]);
}

TEST(EventJson, HoldsOldAndNewValues) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    object_of(seen(QNM_EVT_NEWDEVINFO, record), known);
    record.esv_com_dev.ecd_vlan_id = 11;
    const json object = object_of(seen(QNM_EVT_UPDATEDEVINFO, record), known);
    const json wanted = {
        {{"field", "vlan_id"}, {"old", 10}, {"new", 11}, {"why", {{"reason", "announced"}}}}};
    EXPECT_EQ(wanted, object["changes"]);
    EXPECT_FALSE(object.contains("card"));
}

TEST(EventJson, HoldsTheCardAndWhyWhereNothingChanged) {
    known_cards known;
    object_of(seen(QNM_EVT_NEWDEVINFO, sample_server()), known);
    const json object = object_of(seen(QNM_EVT_CHANNELSTATECHANGE, sample_server()), known);
    EXPECT_EQ(json::array(), object["changes"]);
    EXPECT_EQ(json({{"reason", "announced"}}), object["why"]);
    EXPECT_EQ(card_json(sample_server()), object["card"]);
}

TEST(EventJson, SaysWhenTheCardIsGone) {
    known_cards known;
    const json object =
        object_of({from_milliseconds(0), QNM_EVT_UPDATEDEVINFO, 1, std::nullopt}, known);
    EXPECT_TRUE(object["kind"].is_null());
    EXPECT_FALSE(object.contains("changes"));
}

TEST(MonitorLine, TellsFromWhatToWhatAndWhy) {
    const monitor_change stop = {from_milliseconds(0), 0x020000001000, sample_server(), true,
                                 false};
    EXPECT_EQ("MONITOR            QNSV 0x020000001000  monitoring on -> off (stopped)",
              without_time(monitor_line(stop, false)));
    const monitor_change restart = {from_milliseconds(0), 0x1, std::nullopt, false, true};
    EXPECT_EQ("MONITOR            ???? 0x000000000001  monitoring off -> on (restarted)",
              without_time(monitor_line(restart, false)));
}

}  // namespace
}  // namespace qnmctl
