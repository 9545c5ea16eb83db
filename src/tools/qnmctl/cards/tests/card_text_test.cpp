// The table of cards, and one card.
#include "cards/card_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

qnm_qnsv_t well_server() {
    qnm_qnsv_t record = sample_server();
    record.esv_com_dev.ecd_power = 1;
    return record;
}

TEST(CardsText, LeavesOutWhatDoesNotFit) {
    EXPECT_EQ(
        "KIND ID             TYPE  VLAN P0M0 P0M1 P1M0 P1M1\n"
        "QNIO 0x020000003000 40G     30    -    -    -    C\n",
        cards_text({sample_device()}, {.width = 50}));
    EXPECT_EQ(
        "KIND ID             P0M0 P0M1 P1M0 P1M1\n"
        "QNIO 0x020000003000    -    -    -    C\n",
        cards_text({sample_device()}, {.width = 40}));
}

TEST(CardText, LeavesOutTheNamesOnANarrowTerminal) {
    const std::string text = card_text(sample_server(), {.width = 77});
    EXPECT_NE(std::string::npos, text.find("\n  VLAN ID                          10\n")) << text;
}

TEST(CardsText, HasARowForEveryCard) {
    EXPECT_EQ(
        "KIND ID             TYPE  VLAN VER P0M0 P0M1 P1M0 P1M1 MODE   R-ID TROUBLE\n"
        "QNSV 0x020000001000 1/10G   10   0    C    -    -    - NORMAL    -\n"
        "QNIO 0x020000003000 40G     30   1    -    -    -    C NORMAL    7 power off\n",
        cards_text({well_server(), sample_device()}, {}));
}

TEST(CardsText, TellsAPathThatWasLostFromOneNeverHeard) {
    qnm_qnsv_t record = sample_server();
    record.esv_com_dev.ecd_state[0][0] = 0;
    EXPECT_EQ(
        "KIND ID             P0M0 P0M1 P1M0 P1M1\n"
        "QNSV 0x020000001000    D    -    -    -\n",
        cards_text({record}, {.width = 40}));
}

TEST(CardsText, IsColouredByWhatIsLostOrFaulty) {
    qnm_qnsv_t lost = well_server();
    lost.esv_com_dev.ecd_state[0][0] = 0;
    qnm_qnsv_t faulty = well_server();
    faulty.esv_com_dev.ecd_int_vector = 0x12;
    const std::string text =
        cards_text({well_server(), lost, faulty}, {.coloured = true, .width = 60});
    EXPECT_NE(std::string::npos, text.find("\nQNSV 0x020000001000 1/10G")) << text;
    EXPECT_NE(std::string::npos, text.find("\n\033[31mQNSV 0x020000001000 1/10G")) << text;
    EXPECT_NE(std::string::npos, text.find("\n\033[33mQNSV 0x020000001000 1/10G")) << text;
}

TEST(CountText, SaysHowManyAreShown) {
    EXPECT_EQ("1 QNSV, 1 QNIO", count_text({sample_server(), sample_device()}, 2));
    EXPECT_EQ("0 QNSV, 1 QNIO, of 7 cards", count_text({sample_device()}, 7));
}

TEST(CardText, HasALineForEveryField) {
    const std::string text = card_text(sample_server(), {});
    EXPECT_EQ(0U, text.find("QNSV card 0x020000001000\n"));
    EXPECT_NE(std::string::npos,
              text.find("\n  VLAN ID                          vlan_id            10\n"));
    EXPECT_NE(std::string::npos,
              text.find("\n  path P0M0                        state.P0M0         connected\n"));
    EXPECT_NE(std::string::npos, text.find("\n  down port 7\n"));
    EXPECT_EQ(std::string::npos, text.find("down port 8"));
}

TEST(CardText, CanLeaveOutPortsWithoutACard) {
    qnm_qnsv_t record = sample_server();
    for (const std::size_t port : {2, 5})
        record.esv_down_port[port].edp_port_status[1] = 0x02;
    const std::string text = card_text(record, {}, down_ports::connected);
    EXPECT_NE(std::string::npos, text.find("\n  down port 2\n"));
    EXPECT_NE(std::string::npos, text.find("\n  down port 5\n"));
    EXPECT_EQ(std::string::npos, text.find("\n  down port 3\n"));
    EXPECT_TRUE(text.ends_with("\n  down ports without a card: 0, 1, 3, 4, 6, 7 (-v shows them)\n"))
        << text;
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
