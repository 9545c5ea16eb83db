// Tests of line commands with cards on ports without a network.
#include <gtest/gtest.h>

#include "cardsim.h"
#include "fake_port.h"
#include "manager_frame.h"
#include "temporary_file.h"

namespace {

using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::frame_bytes;
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
              "wrong_port=0 wrong_mac=0 wrong_tag=0 lost_announcements=0 "
              "duplicated_announcements=0");
}

TEST_F(Command, ListAndRemove) {
    EXPECT_EQ(run("list"),
              "ok 2 cards; io 0x020000000010 qnio 1g10g P0M0; sv 0x020000000020 qnsv 40g "
              "P0M0,P0M1,P1M0");
    EXPECT_EQ(run("remove io"), "ok removed");
    EXPECT_EQ(run("list"), "ok 1 card; sv 0x020000000020 qnsv 40g P0M0,P0M1,P1M0");
}

TEST_F(Command, Register) {
    EXPECT_EQ(run("reg io 0x1000"), "ok 0x001000=0x00000000");
    EXPECT_EQ(run("reg io 0x1000 4294967295"), "ok 0x001000=0xffffffff");
    EXPECT_EQ(sim.read_register("io", 0x1000), 0xFFFFFFFFU);
    EXPECT_EQ(run("reg io 0x3FFFFC 1"), "ok 0x3ffffc=0x00000001");
    EXPECT_EQ(run("reg io 0x1001"),
              "error: register address 0x001001: an address is a multiple of 4, at most 0x3ffffc");
    EXPECT_EQ(run("reg io 0x400000"),
              "error: \"ADDR\" takes a number from 0 to 4194300, not \"0x400000\"");
    EXPECT_EQ(run("reg io 0 0x100000000"),
              "error: \"VALUE\" takes a number from 0 to 4294967295, not \"0x100000000\"");
    EXPECT_EQ(run("reg io"), "error: usage: reg CARD ADDR [VALUE]");
}

TEST_F(Command, EepromWords) {
    EXPECT_EQ(run("eeprom io 2044"), "ok 0x0007fc=0xffffffff");
    EXPECT_EQ(run("eeprom io 2044 0x01020304"), "ok 0x0007fc=0x01020304");
    EXPECT_EQ(sim.eeprom("io")[2047], 1);
    EXPECT_EQ(run("eeprom io 2"), "error: an EEPROM address is a multiple of 4, at most 2044");
    EXPECT_EQ(run("eeprom io 2048"), "error: \"ADDR\" takes a number from 0 to 2044, not \"2048\"");
    const std::string usage = "error: usage: eeprom CARD load|save FILE, or CARD ADDR [VALUE]";
    EXPECT_EQ(run("eeprom io"), usage);
    EXPECT_EQ(run("eeprom io save"), usage);
    EXPECT_EQ(run("eeprom io load"), usage);
    EXPECT_EQ(run("eeprom io 0 1 2"), usage);
}

TEST_F(Command, EepromFiles) {
    const temporary_file own;
    const std::string file = own.path.string();
    run("eeprom io 0 7");
    EXPECT_EQ(run("eeprom io save " + file), "ok saved");
    run("eeprom io 0 8");
    EXPECT_EQ(run("eeprom io load " + file), "ok loaded");
    EXPECT_EQ(run("eeprom io 0"), "ok 0x000000=0x00000007");
    EXPECT_EQ(run("eeprom io load " + file + "2"),
              "error: cannot read the EEPROM file \"" + file + "2\": No such file or directory");
}

TEST_F(Command, BitLock) {
    EXPECT_EQ(run("lock io"), "ok bits=0x00000000");
    EXPECT_EQ(run("lock io take 0x18"), "ok bits=0x00000018");
    sim.write_register("io", 0x50F0, 0x1C);
    EXPECT_EQ(run("lock io drop"), "ok bits=0x00000004");
}

TEST_F(Command, IdLock) {
    run("set io id_lock true");
    EXPECT_EQ(run("lock io take 8"), "ok holder=0x00000008 requests=0x00000008");
    sim.write_register("io", 0x5200, 4);
    EXPECT_EQ(run("lock io"), "ok holder=0x00000008 requests=0x0000000c");
    EXPECT_EQ(run("lock io drop"), "ok holder=0x00000004 requests=0x00000004");
    EXPECT_EQ(run("lock io take 0x10000"), "error: the ID lock has the bits up to 0x8000 only");
    EXPECT_EQ(run("lock io take 0"), "error: a holder of the lock is a bit; 0 is none");
}

TEST_F(Command, LockUsage) {
    const std::string usage = "error: usage: lock CARD [take BITS|drop]";
    for (const char* line :
         {"lock", "lock io take", "lock io drop 8", "lock io steal", "lock io take 8 9"})
        EXPECT_EQ(run(line), usage) << line;
    EXPECT_EQ(run("lock nobody"), "error: no card \"nobody\"");
}

TEST_F(Command, MmsAndResets) {
    EXPECT_EQ(run("mms io 3"), "ok not written");
    EXPECT_EQ(run("resets io"), "ok count=0 last_status=0");
    frame_bytes page = {0x92, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 3, 0x78, 0x56, 0x34, 0x12};
    sim.deliver(0, manager_frame(0x020000000010, 1, false, page, 156));
    sim.deliver(0, manager_frame(cardsim::broadcast_mac, 1, false, {0x30, 0xFF, 0xFF, 0, 0, 9}));
    const std::string shown = run("mms io 3");
    EXPECT_EQ(shown.substr(0, 24), "ok 0x12345678 0x00000000");
    EXPECT_EQ(shown.size(), 2 + 32 * std::string(" 0x00000000").size());
    EXPECT_EQ(run("resets io"), "ok count=1 last_status=9");
    EXPECT_EQ(run("resets sv"), "ok count=1 last_status=9");
}

TEST_F(Command, AnsweringFieldsAreSet) {
    EXPECT_EQ(run("set io lose_answers 1000"), "ok lose_answers=1000");
    EXPECT_EQ(sim.get("io").faults.lose_answers, 1000);
    EXPECT_EQ(run("set io silent_registers 0x10,0x14"), "ok silent_registers=0x10,0x14");
    EXPECT_EQ(sim.get("io").faults.silent_registers, (std::vector<std::uint32_t>{0x10, 0x14}));
    EXPECT_EQ(run("set io silent_registers 0x11"),
              "error: card \"io\": register address 0x000011: an address is a multiple of 4, at "
              "most 0x3ffffc");
}

TEST_F(Command, HelpNamesEveryCommand) {
    const std::string text = run("help");
    for (const char* name :
         {"silence", "wake", "set", "notify", "devinfo", "burst", "send", "remove", "reg", "eeprom",
          "lock", "mms", "resets", "list", "counters", "help", "quit"})
        EXPECT_NE((" " + text + ";").find(std::string(" ") + name), std::string::npos) << name;
    EXPECT_NE(text.find("; reg CARD ADDR [VALUE]; "), std::string::npos);
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
