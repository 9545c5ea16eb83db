// The lines, tables and objects that are printed.
#include "report.h"

#include <gtest/gtest.h>

#include "sample_cards.h"

namespace qnmctl {
namespace {

observed seen(qnm_evt_type_t type, const card& record) {
    return {from_milliseconds(1'700'000'000'007), type, common(record).ecd_id, record};
}

// The part behind the time, which depends on where the test runs.
std::string without_time(const std::string& line) {
    return line.substr(time_text(from_milliseconds(0)).size() + 1);
}

TEST(EventLine, TellsANewCard) {
    known_cards known;
    EXPECT_EQ(time_text(from_milliseconds(1'700'000'000'007)) +
                  " NEWDEVINFO         QNIO 0x020000003000  40G, VLAN ID 30, version 1, "
                  "resource ID 7, connected P1M1",
              event_line(seen(QNM_EVT_NEWDEVINFO, sample_device()), known, false));
}

TEST(EventLine, TellsWhatChanged) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    event_line(seen(QNM_EVT_NEWDEVINFO, record), known, false);
    record.esv_com_dev.ecd_state[0][0] = 0;
    EXPECT_EQ("CHANNELSTATECHANGE QNSV 0x020000001000  path P0M0 disconnected",
              without_time(event_line(seen(QNM_EVT_CHANNELSTATECHANGE, record), known, false)));
}

TEST(EventLine, SaysWhenTheCardIsGone) {
    known_cards known;
    const observed gone{from_milliseconds(0), QNM_EVT_UPDATEDEVINFO, 0x1000, std::nullopt};
    EXPECT_EQ("UPDATEDEVINFO      ???? 0x000000001000  the card is no longer known",
              without_time(event_line(gone, known, false)));
}

TEST(EventLine, HasColourOnlyWhenAsked) {
    known_cards known;
    const observed event = seen(QNM_EVT_NEWDEVINFO, sample_server());
    EXPECT_EQ(std::string::npos, event_line(event, known, false).find('\033'));
    EXPECT_NE(std::string::npos, event_line(event, known, true).find("\033[32mNEWDEVINFO"));
}

TEST(EventJson, HoldsTheWholeCardWhenItIsNew) {
    known_cards known;
    const json object = event_json(seen(QNM_EVT_NEWDEVINFO, sample_device()), known);
    EXPECT_EQ("NEWDEVINFO", object["event"]);
    EXPECT_EQ("QNIO", object["kind"]);
    EXPECT_EQ("0x020000003000", object["id"]);
    EXPECT_EQ(card_json(sample_device()), object["card"]);
}

TEST(EventJson, HoldsOldAndNewValues) {
    known_cards known;
    qnm_qnsv_t record = sample_server();
    event_json(seen(QNM_EVT_NEWDEVINFO, record), known);
    record.esv_com_dev.ecd_vlan_id = 11;
    const json object = event_json(seen(QNM_EVT_UPDATEDEVINFO, record), known);
    const json wanted = {{{"field", "vlan_id"}, {"old", 10}, {"new", 11}}};
    EXPECT_EQ(wanted, object["changes"]);
    EXPECT_FALSE(object.contains("card"));
}

TEST(EventJson, SaysWhenTheCardIsGone) {
    known_cards known;
    const json object =
        event_json({from_milliseconds(0), QNM_EVT_UPDATEDEVINFO, 1, std::nullopt}, known);
    EXPECT_TRUE(object["kind"].is_null());
    EXPECT_FALSE(object.contains("changes"));
}

TEST(TableText, HasARowForEveryCard) {
    EXPECT_EQ(
        "KIND ID             TYPE  VLAN VER P0M0 P0M1 P1M0 P1M1 MODE   R-ID\n"
        "QNSV 0x020000001000 1/10G   10   0    C    D    D    D NORMAL    -\n"
        "QNIO 0x020000003000 40G     30   1    D    D    D    C NORMAL    7\n"
        "1 QNSV, 1 QNIO\n",
        table_text({sample_server(), sample_device()}, false));
}

TEST(TableText, OfNoCardsHasTheNumbersStill) {
    EXPECT_EQ(
        "KIND ID             TYPE  VLAN VER P0M0 P0M1 P1M0 P1M1 MODE   R-ID\n"
        "0 QNSV, 0 QNIO\n",
        table_text({}, false));
}

TEST(TableJson, IsAnArrayOfCards) {
    EXPECT_EQ(json::array(), table_json({}));
    EXPECT_EQ(json::array({card_json(sample_server())}), table_json({sample_server()}));
}

TEST(CardText, HasALineForEveryField) {
    const std::string text = card_text(sample_server(), false);
    EXPECT_EQ(0U, text.find("QNSV card 0x020000001000\n"));
    EXPECT_NE(std::string::npos,
              text.find("\n  VLAN ID                          vlan_id            10\n"));
    EXPECT_NE(std::string::npos,
              text.find("\n  path P0M0                        state.P0M0         connected\n"));
    EXPECT_NE(std::string::npos, text.find("\n  down port 7\n"));
    EXPECT_EQ(std::string::npos, text.find("down port 8"));
}

TEST(CardJson, NestsPathsAndPorts) {
    const json object = card_json(sample_server());
    EXPECT_EQ("QNSV", object["kind"]);
    EXPECT_EQ("0x020000001000", object["id"]);
    EXPECT_EQ("connected", object["state"]["P0M0"]);
    EXPECT_EQ(0, object["up_port"]["pri_bus_num"]);
    EXPECT_EQ(8U, object["down_port"].size());
    EXPECT_EQ("disconnected", object["down_port"][0]["connection"]);
}

}  // namespace
}  // namespace qnmctl
