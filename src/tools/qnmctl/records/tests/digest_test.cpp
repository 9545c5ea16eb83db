// What watch prints at the start and when a port goes down, with a clock that the tests set.
#include "records/digest.h"

#include <gtest/gtest.h>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

using clock = digest::clock;
using namespace std::chrono_literals;

const clock::time_point start = clock::time_point(1h);

class Digest : public testing::Test {
  protected:
    std::string tell_at(clock::duration after, qnm_evt_type_t type, const card& record) {
        const observed seen = {from_milliseconds(1'700'000'000'007), type, common(record).ecd_id,
                               record};
        return digested.add(seen, tell(known, type, record), start + after);
    }

    std::string go_down(std::uint64_t last_id) {
        digested.due(start + 3s);
        for (std::uint64_t id = 2; id <= last_id; id += 2) {
            make_known(id);
            tell_at(4s, QNM_EVT_CHANNELSTATECHANGE, cut_off(id));
        }
        return digested.due(start + 5s);
    }

    // A card that is connected by port 1.
    static qnm_qnio_t back(std::uint64_t id) {
        qnm_qnio_t record = cut_off(id);
        record.eio_com_dev.ecd_state[1][1] = 1;
        return record;
    }

    // A card that was connected by port 1 alone, and was lost because that link went down.
    static qnm_qnio_t cut_off(std::uint64_t id) {
        qnm_qnio_t record = sample_device();
        record.eio_com_dev.ecd_id = id;
        record.eio_com_dev.ecd_state[1][1] = 0;
        record.eio_com_dev.ecd_recvtime[1][1] = 1'000;
        record.eio_com_dev.ecd_updatetime = 1'500;
        return record;
    }

    void make_known(std::uint64_t id) {
        const qnm_qnio_t record = back(id);
        for (int type = 0; type < QNM_EVT_MAX; ++type)
            tell(known, static_cast<qnm_evt_type_t>(type), record);
    }

    known_cards known;
    digest digested{{.ports = {"eth1", "eth2"}}, start};
};

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Digest, BeginsWithASummary) {
    EXPECT_EQ(start + 3s, digested.next());
    EXPECT_EQ("", tell_at(0s, QNM_EVT_NEWDEVINFO, sample_server()));
    EXPECT_EQ("", tell_at(1s, QNM_EVT_CHANNELSTATECHANGE, sample_server()));
    EXPECT_EQ("", tell_at(2s, QNM_EVT_NEWDEVINFO, sample_device()));
    EXPECT_EQ("", digested.due(start + 2999ms));
    const std::string text = digested.due(start + 3s);
    EXPECT_TRUE(text.starts_with("heard in 3 s: 1 QNSV and 1 QNIO card; ")) << text;
    EXPECT_EQ("", digested.due(start + 4s));
    EXPECT_FALSE(digested.next());
}

TEST_F(Digest, SaysHowLongAShortWatchListened) {
    tell_at(0s, QNM_EVT_NEWDEVINFO, sample_server());
    EXPECT_EQ("heard in 0.5 s: 1 QNSV and 0 QNIO cards\n", digested.end(start + 500ms));
    EXPECT_EQ("", digested.end(start + 600ms));
}

TEST_F(Digest, TellsWhatIsWrongEvenAtTheStart) {
    tell_at(0s, QNM_EVT_NEWDEVINFO, sample_device());
    qnm_qnio_t record = sample_device();
    record.eio_com_dev.ecd_int_vector = 3;
    EXPECT_TRUE(holds(tell_at(1s, QNM_EVT_MAJORMINORERROR, record), "interrupt vector"));
}

TEST_F(Digest, TellsNewCardsAfterTheSummary) {
    const std::string text = tell_at(5s, QNM_EVT_NEWDEVINFO, sample_server());
    EXPECT_TRUE(text.starts_with("heard in 3 s: 0 QNSV and 0 QNIO cards; ")) << text;
    EXPECT_TRUE(holds(text, " NEWDEVINFO         QNSV 0x020000001000  ")) << text;
}

TEST_F(Digest, TellsAPortThatWentDownInOneLine) {
    digested.due(start + 3s);
    for (std::uint64_t id = 2; id <= 4002; id += 2)
        make_known(id);
    for (std::uint64_t id = 2; id <= 4002; id += 2) {
        for (const qnm_evt_type_t type : {QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE})
            EXPECT_EQ("", tell_at(4s, type, cut_off(id)));
    }
    EXPECT_EQ(start + 4300ms, digested.next());
    EXPECT_EQ("", digested.due(start + 4299ms));
    const std::string text = digested.due(start + 4300ms);
    EXPECT_TRUE(text.ends_with(" port 1 (eth2): link down, 2,001 cards disconnected\n")) << text;
    EXPECT_FALSE(digested.next());
}

TEST_F(Digest, HasTheCardsOfAPortBelowItsLineWhenAskedFor) {
    digest verbose({.each_card = true, .coloured = true}, start);
    make_known(2);
    const card record = cut_off(2);
    const observed seen = {from_milliseconds(7), QNM_EVT_CHANNELSTATECHANGE, 2, record};
    verbose.add(seen, tell(known, QNM_EVT_CHANNELSTATECHANGE, record), start + 4s);
    const std::string text = verbose.end(start + 5s);
    EXPECT_TRUE(holds(text, " \033[31mport 1: link down\033[0m, 1 card disconnected\n")) << text;
    EXPECT_TRUE(holds(text, "path P1M1 connected -> disconnected (link down on port 1)\n")) << text;
}

TEST_F(Digest, HoldsALineOfAPortForALimitedTimeOnly) {
    digested.due(start + 3s);
    std::string text;
    clock::duration at = 4s;
    for (std::uint64_t id = 2; text.empty() && id < 100; id += 2, at += 200ms) {
        make_known(id);
        text = tell_at(at, QNM_EVT_CHANNELSTATECHANGE, cut_off(id));
    }
    EXPECT_TRUE(holds(text, "link down, 10 cards disconnected\n")) << text;
}

TEST_F(Digest, TellsAPortThatIsBackInOneLine) {
    go_down(4002);
    for (std::uint64_t id = 2; id <= 4002; id += 2) {
        for (const qnm_evt_type_t type : {QNM_EVT_UPDATEDEVINFO, QNM_EVT_CHANNELSTATECHANGE})
            EXPECT_EQ("", tell_at(8s, type, back(id)));
    }
    EXPECT_EQ("", digested.due(start + 8299ms));
    const std::string text = digested.due(start + 8300ms);
    EXPECT_TRUE(text.ends_with(" port 1 (eth2): link up, 2,001 cards connected\n")) << text;
    EXPECT_FALSE(digested.next());
}

TEST_F(Digest, WaitsForCardsThatAreBackForALimitedTimeOnly) {
    go_down(6);
    EXPECT_EQ("", tell_at(8s, QNM_EVT_CHANNELSTATECHANGE, back(2)));
    EXPECT_EQ("", tell_at(10s, QNM_EVT_CHANNELSTATECHANGE, back(4)));
    EXPECT_EQ("", digested.due(start + 10'999ms));
    EXPECT_TRUE(digested.due(start + 11s).ends_with(": link up, 2 of 3 cards connected\n"));
    const std::string late = tell_at(12s, QNM_EVT_CHANNELSTATECHANGE, back(6));
    EXPECT_TRUE(holds(late, " CHANNELSTATECHANGE QNIO 0x000000000006  path P1M1 ")) << late;
}

TEST_F(Digest, TellsAPortThatGoesUpAndDownInOrder) {
    go_down(4);
    tell_at(8s, QNM_EVT_CHANNELSTATECHANGE, back(2));
    std::string text = tell_at(9s, QNM_EVT_CHANNELSTATECHANGE, cut_off(2));
    text += tell_at(9s, QNM_EVT_CHANNELSTATECHANGE, cut_off(4));
    text += digested.due(start + 10s);
    const std::size_t up = text.find("link up, 1 of 2 cards connected\n");
    const std::size_t down = text.find("link down, ");
    EXPECT_LT(up, down) << text;
    EXPECT_NE(std::string::npos, down) << text;
}

TEST_F(Digest, TellsAChangeOnceThatSeveralEventsReport) {
    digested.due(start + 3s);
    make_known(2);
    qnm_qnio_t record = back(2);
    record.eio_com_dev.ecd_state[0][0] ^= 1;
    record.eio_com_dev.ecd_power ^= 1;
    EXPECT_TRUE(holds(tell_at(4s, QNM_EVT_UPDATEDEVINFO, record), " path P0M0 "));
    EXPECT_EQ("", tell_at(4s, QNM_EVT_CHANNELSTATECHANGE, record));
    EXPECT_EQ("", tell_at(4s, QNM_EVT_UPDATEDEVINFO, record)) << "nothing has changed";
    record.eio_com_dev.ecd_power ^= 1;
    EXPECT_TRUE(holds(tell_at(5s, QNM_EVT_UPDATEDEVINFO, record), "power "));
}

TEST_F(Digest, TellsWhatElseChangedOnACardThatIsBack) {
    go_down(2);
    qnm_qnio_t record = back(2);
    record.eio_com_dev.ecd_power ^= 1;
    const std::string text = tell_at(8s, QNM_EVT_UPDATEDEVINFO, record);
    EXPECT_TRUE(holds(text, "power ")) << text;
}

TEST(Grouped, HasThreeDigitsInAGroup) {
    EXPECT_EQ("0", grouped(0));
    EXPECT_EQ("999", grouped(999));
    EXPECT_EQ("2,000", grouped(2000));
    EXPECT_EQ("18,446,744,073,709,551,615", grouped(UINT64_MAX));
}

}  // namespace
}  // namespace qnmctl
