// Line commands against cards on ports without a network.
#include <gtest/gtest.h>

#include "cardsim.h"
#include "fake_port.h"

namespace {

using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::make_card;

class Command : public testing::Test {
  protected:
    void SetUp() override {
        cardsim::card fast = make_card("sv", card_kind::qnsv, card_speed::g40, 0x020000000020);
        fast.heard = {{{true, true}, {true, false}}};
        sim.add(fast);
        sim.add(make_card("io", card_kind::qnio, card_speed::g1_10, 0x020000000010));
    }

    std::string run(std::string_view line) { return execute(sim, line).text; }

    cable first, second;
    cardsim::simulator sim{{first.port("p0"), second.port("p1")}};
};

TEST_F(Command, SilenceAndWake) {
    EXPECT_EQ(run("silence sv 0 1"), "ok P0M0,P1M0");
    EXPECT_FALSE(sim.get("sv").heard[0][1]);
    EXPECT_EQ(run("silence io 0 0"), "ok silent");
    EXPECT_EQ(run("wake 0x020000000020 1 1"), "ok P0M0,P1M0,P1M1");
    EXPECT_EQ(run("wake io 0 1"), "error: card \"io\" has no path 1");
    EXPECT_EQ(run("silence io 2 0"), "error: \"PORT\" takes a number from 0 to 1, not \"2\"");
    EXPECT_EQ(run("silence io 0 x"), "error: \"PATH\" takes a number from 0 to 1, not \"x\"");
}

TEST_F(Command, Set) {
    EXPECT_EQ(run("set io vlan_id 77"), "ok vlan_id=77");
    EXPECT_EQ(sim.get("io").vlan_id, 77);
    EXPECT_EQ(run("set sv down_port.2.connected true"), "ok down_port.2.connected=true");
    EXPECT_EQ(run("set io vlan 77"), "error: no field \"vlan\"; the nearest is \"vlan_id\"");
    EXPECT_EQ(run("set io vlan_id"), "error: usage: set CARD FIELD VALUE");
    EXPECT_EQ(run("set nobody vlan_id 1"), "error: no card \"nobody\"");
    EXPECT_EQ(run("set 0x02 vlan_id 1"), "error: no card \"0x02\"");
}

TEST_F(Command, DevinfoAndNotifyLeaveOnEveryPathHeard) {
    EXPECT_EQ(run("notify sv"), "ok 3 frames sent");
    ASSERT_EQ(first.frames.size(), 2U);
    ASSERT_EQ(second.frames.size(), 1U);
    EXPECT_EQ(first.frames[0], encode(sim.get("sv"), cardsim::message::notify, 0));
    EXPECT_EQ(first.frames[1], encode(sim.get("sv"), cardsim::message::notify, 1));
    EXPECT_EQ(run("devinfo io"), "ok 1 frame sent");
    EXPECT_EQ(first.frames[2], encode(sim.get("io"), cardsim::message::devinfo, 0));
    EXPECT_EQ(run("burst"), "ok 4 frames sent");
}

TEST_F(Command, SendPutsBytesOnTheWireUnchanged) {
    EXPECT_EQ(run("send 1 00ff 7E"), "ok 3 bytes sent");
    EXPECT_EQ(second.frames.back(), (cardsim::frame_bytes{0x00, 0xFF, 0x7E}));
    EXPECT_EQ(run("send 0 0"), "error: HEXBYTES are pairs of hexadecimal digits");
    EXPECT_EQ(run("send 0 xy"), "error: HEXBYTES are pairs of hexadecimal digits");
    EXPECT_EQ(run("send 0"), "error: usage: send PORT HEXBYTES");
}

TEST_F(Command, SendSaysWhyNothingLeft) {
    first.fail_with({.status = cardsim::send_status::link_down, .code = ENETDOWN});
    EXPECT_EQ(run("send 0 00"), "error: not sent on p0: Network is down");
    EXPECT_EQ(run("devinfo io"), "ok 0 frames sent");
    EXPECT_EQ(run("counters"),
              "ok devinfo=0 notify=0 raw=0 retries=0 link_down=2 lost=0 failed=0 received=0 "
              "faulty=0 unheard=0 reads=0 writes=0 vlan_sets=0 resets=0 mms_writes=0 answers=0 "
              "lost_requests=0 lost_answers=0 silent=0 duplicated=0 reordered=0 delayed=0 "
              "wrong_port=0 wrong_mac=0 wrong_tag=0");
}

TEST_F(Command, ListAndRemove) {
    EXPECT_EQ(run("list"),
              "ok 2 cards; io 0x020000000010 qnio 1g10g P0M0; sv 0x020000000020 qnsv 40g "
              "P0M0,P0M1,P1M0");
    EXPECT_EQ(run("remove io"), "ok removed");
    EXPECT_EQ(run("list"), "ok 1 card; sv 0x020000000020 qnsv 40g P0M0,P0M1,P1M0");
}

TEST_F(Command, OthersAndNone) {
    EXPECT_EQ(run(""), "");
    EXPECT_EQ(run("  \t"), "");
    EXPECT_EQ(run("slience sv 0 0"), "error: no command \"slience\"; the nearest is \"silence\"");
    EXPECT_EQ(run("help").substr(0, 36), "ok silence CARD PORT PATH; wake CARD");
    EXPECT_FALSE(execute(sim, "list").quit);
    EXPECT_FALSE(execute(sim, "quit now").quit);
    EXPECT_TRUE(execute(sim, "quit").quit);
}

}  // namespace
