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
        qnm_qnio_t record = cut_off(id);
        record.eio_com_dev.ecd_state[1][1] = 1;
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

TEST(Grouped, HasThreeDigitsInAGroup) {
    EXPECT_EQ("0", grouped(0));
    EXPECT_EQ("999", grouped(999));
    EXPECT_EQ("2,000", grouped(2000));
    EXPECT_EQ("18,446,744,073,709,551,615", grouped(UINT64_MAX));
}

}  // namespace
}  // namespace qnmctl
