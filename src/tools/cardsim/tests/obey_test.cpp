// Tests of how cards obey a manager's frames, and of the Completions that they send.
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "cardsim.h"
#include "fake_port.h"
#include "manager_frame.h"

namespace {

using namespace cardsim;

using frames = std::vector<frame_bytes>;

constexpr std::uint64_t slow_id = 0x020000000010;
constexpr std::uint64_t fast_id = 0x020000000020;
constexpr std::uint16_t vlan = 0x234;

frame_bytes read_of(std::uint8_t tag, std::uint32_t address = 0x100) {
    return {0x91,
            0xFF,
            0xFF,
            0,
            0,
            tag,
            0,
            0,
            static_cast<std::uint8_t>(address >> 8),
            static_cast<std::uint8_t>(address)};
}

// To address 0x100.
frame_bytes write_of(std::uint8_t value) {
    return {0x90, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0x01, 0x00, value, 0, 0, 0};
}

const frame_bytes reset_message = {0x30, 0xFF, 0xFF, 0, 0, 0x5A};

struct Obey : testing::Test {
    cable first, second;
    simulator sim{{first.port("p0"), second.port("p1")}};

    void SetUp() override {
        add("slow", card_speed::g1_10, slow_id);
        add("fast", card_speed::g40, fast_id);
    }

    // Heard on all paths, and never announces itself.
    void add(const std::string& name, card_speed speed, std::uint64_t id) {
        card added = make_card(name, card_kind::qnio, speed, id);
        added.vlan_id = vlan;
        added.interval_ms = 0;
        added.heard = {{{true, speed == card_speed::g40}, {true, speed == card_speed::g40}}};
        sim.add(added);
    }

    void ask(std::uint64_t mac, const frame_bytes& message, std::size_t port = 0) {
        sim.deliver(port, manager_frame(mac, vlan, false, message));
    }

    // Of the answers on the cable.
    static frame_bytes tags(const cable& out) {
        frame_bytes all;
        for (const frame_bytes& frame : out.frames)
            all.push_back(frame.at(23));
        return all;
    }
};

// --------------------------------------------------------------------------------------------
// Completions
// --------------------------------------------------------------------------------------------

TEST_F(Obey, CompletionByteByByte) {
    sim.update("slow", [](card& c) { c.flow_id = 0x5A, c.flow_id_da = 0xA5, c.ver = 3; });
    sim.write_register("slow", 0x2BCDEC, 0x01020304);
    ask(slow_id, {0x91, 0xFF, 0xFF, 0, 0, 0xC7, 0x02, 0xBC, 0x0D, 0xEC});
    frame_bytes expected = {
        0x0A, 0x00, 0x00, 0x00, 0x00, 0x01,  // the manager
        0x02, 0x00, 0x00, 0x00, 0x00, 0x10,  // the card
        0x81, 0x00, 0x82, 0x34, 0x88, 0xB6,  // tag with priority 4, type
        0x20, 0xA5, 0x5A, 0x03, 0x00,        // subtype, flow IDs, version, info
        0xC7, 0x04, 0x03, 0x02, 0x01,        // tag, value
    };
    expected.resize(60);
    ASSERT_EQ(first.frames.size(), 1U);
    EXPECT_EQ(first.frames[0], expected);
    EXPECT_TRUE(second.frames.empty());
    EXPECT_EQ(sim.count().reads, 1U);
    EXPECT_EQ(sim.count().answers, 1U);
}

TEST_F(Obey, CompletionInTagChangeMode) {
    sim.update("slow", [](card& c) { c.vlan_change_mode = true; });
    sim.deliver(0, manager_frame(slow_id, vlan, true, read_of(9)));
    ASSERT_EQ(first.frames.size(), 1U);
    const frame_bytes& frame = first.frames[0];
    EXPECT_EQ(frame.size(), 60U);
    EXPECT_EQ(frame_bytes(frame.begin() + 12, frame.begin() + 19),
              (frame_bytes{0x88, 0xB6, 0x81, 0x00, 0x82, 0x34, 0x20}));
    EXPECT_EQ(frame[23], 9);
}

TEST_F(Obey, CompletionHasPriorityFourWhateverTheAnnouncementsHave) {
    sim.update("slow", [](card& c) { c.priority = 1; });
    ask(slow_id, read_of(1));
    EXPECT_EQ(first.frames.at(0)[14], 0x82);
}

TEST_F(Obey, AnswerLeavesFromTheAddressAndPortAsked) {
    ask(fast_id, read_of(1), 0);
    ask(fast_id | 1, read_of(2), 0);
    ask(fast_id | 1, read_of(3), 1);
    ask(slow_id, read_of(4), 1);
    ASSERT_EQ(tags(first), (frame_bytes{1, 2}));
    ASSERT_EQ(tags(second), (frame_bytes{3, 4}));
    EXPECT_EQ(first.frames[0][11], 0x20);
    EXPECT_EQ(first.frames[1][11], 0x21);
    EXPECT_EQ(second.frames[0][11], 0x21);
    EXPECT_EQ(second.frames[1][11], 0x10);
}

// --------------------------------------------------------------------------------------------
// Who obeys
// --------------------------------------------------------------------------------------------

TEST_F(Obey, OthersThanTheCardAskedStaySilent) {
    ask(slow_id | 1, read_of(1));  // a 1G/10G card has no second address
    ask(0x020000000030, read_of(2));
    ask(broadcast_mac, read_of(3));
    sim.deliver(0, manager_frame(slow_id, vlan, true, read_of(4)));  // not its arrangement
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.count().received, 4U);
    EXPECT_EQ(sim.count().unheard, 4U);
    EXPECT_EQ(sim.count().reads, 0U);
}

TEST_F(Obey, SilencedPathNeitherHearsNorAnswers) {
    sim.silence("fast", 0, 1);
    ask(fast_id | 1, write_of(7));
    ask(fast_id | 1, read_of(1));
    EXPECT_EQ(sim.read_register("fast", 0x100), 0U);
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.count().unheard, 2U);
    ask(fast_id, read_of(2), 0);
    ask(fast_id | 1, read_of(3), 1);
    EXPECT_EQ(tags(first), frame_bytes{2});
    EXPECT_EQ(tags(second), frame_bytes{3});
    sim.wake("fast", 0, 1);
    sim.silence("fast", 0, 0);
    ask(fast_id, read_of(4));
    ask(fast_id | 1, read_of(5));
    EXPECT_EQ(tags(first), (frame_bytes{2, 5}));
}

TEST_F(Obey, RemovedCardIsSilentAndItsSuccessorNew) {
    ask(slow_id, write_of(7));
    sim.remove("slow");
    ask(slow_id, read_of(1));
    EXPECT_TRUE(first.frames.empty());
    add("again", card_speed::g1_10, slow_id);
    ask(slow_id, read_of(2));
    ASSERT_EQ(tags(first), frame_bytes{2});
    EXPECT_EQ(first.frames[0][24], 0);
}

TEST_F(Obey, FrameThatBreaksARuleIsCountedAndNotObeyed) {
    frame_bytes wrong = manager_frame(slow_id, vlan, false, write_of(7));
    wrong[19] = 0;  // flow ID
    sim.deliver(0, wrong);
    EXPECT_EQ(sim.read_register("slow", 0x100), 0U);
    EXPECT_EQ(sim.count().faulty, 1U);
    EXPECT_EQ(sim.count().writes, 0U);
}

TEST_F(Obey, PortThatIsNotThereIsAnError) {
    EXPECT_THROW(sim.deliver(2, manager_frame(slow_id, vlan, false, read_of(1))), error);
}

// --------------------------------------------------------------------------------------------
// What they do
// --------------------------------------------------------------------------------------------

TEST_F(Obey, WrittenRegisterIsReadBack) {
    ask(slow_id, {0x90, 0xFF, 0xFF, 0, 0, 0, 0x02, 0xBC, 0x0D, 0xEC, 4, 3, 2, 1});
    EXPECT_EQ(sim.read_register("slow", 0x2BCDEC), 0x01020304U);
    EXPECT_EQ(sim.read_register("fast", 0x2BCDEC), 0U);
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.count().writes, 1U);
}

TEST_F(Obey, VlanSetShowsInTheNextAnnouncement) {
    ask(slow_id, {0x80, 0xFF, 0xFF, 0, 0, 0, 0xF7, 0x89});
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.get("slow").vlan_id, 0x789);
    EXPECT_EQ(sim.get("fast").vlan_id, vlan);
    sim.devinfo("slow");
    EXPECT_EQ(first.frames.at(0)[14], 0x87);
    EXPECT_EQ(first.frames.at(0)[15], 0x89);
    EXPECT_EQ(sim.count().vlan_sets, 1U);
}

TEST_F(Obey, FrozenVlanIdStays) {
    sim.set("slow", "vlan_frozen", "true");
    ask(slow_id, {0x80, 0xFF, 0xFF, 0, 0, 0, 0x07, 0x89});
    EXPECT_EQ(sim.get("slow").vlan_id, vlan);
    EXPECT_EQ(sim.count().vlan_sets, 1U);
}

TEST_F(Obey, ResetReachesTheGroupOnThatPort) {
    add("elsewhere", card_speed::g1_10, 0x30);
    sim.set("elsewhere", "vlan_id", "5");
    add("changed", card_speed::g1_10, 0x32);
    sim.set("changed", "vlan_change_mode", "true");
    add("unheard", card_speed::g1_10, 0x34);
    sim.silence("unheard", 0, 0);
    sim.silence("fast", 0, 0);  // still heard over path 1
    ask(slow_id, write_of(7));
    ask(broadcast_mac, reset_message);
    std::map<std::string, std::uint64_t> taken;
    for (const card& c : sim.cards())
        taken[c.name] = sim.resets(c.id).count;
    EXPECT_EQ(taken,
              (std::map<std::string, std::uint64_t>{
                  {"slow", 1}, {"fast", 1}, {"elsewhere", 0}, {"changed", 0}, {"unheard", 0}}));
    EXPECT_EQ(sim.resets("slow").last_status, 0x5A);
    EXPECT_EQ(sim.read_register("slow", 0x100), 0U);
    EXPECT_EQ(sim.count().resets, 2U);
    EXPECT_EQ(sim.count().unheard, 0U);
}

TEST_F(Obey, ResetOfAGroupWithoutCardsIsUnheard) {
    sim.deliver(0, manager_frame(broadcast_mac, 5, false, reset_message));
    EXPECT_EQ(sim.count().resets, 0U);
    EXPECT_EQ(sim.count().unheard, 1U);
}

TEST_F(Obey, MmsPageIsKept) {
    frame_bytes message = {0x92, 0xFF, 0xFF, 0, 0, 0, 0x80, 0, 0x03, 0xFF};
    mms_page page{};
    for (std::uint8_t word = 0; word < page.size(); ++word) {
        page[word] = 0xAB000000U | word;
        message.insert(message.end(), {word, 0, 0, 0xAB});
    }
    ask(slow_id, message);
    EXPECT_EQ(sim.mms_page("slow", 0x800003FF), page);
    EXPECT_EQ(sim.mms_page("slow", 0x3FF), std::nullopt);
    EXPECT_EQ(sim.mms_page("fast", 0x800003FF), std::nullopt);
    EXPECT_EQ(sim.count().mms_writes, 1U);
}

TEST_F(Obey, ObserverHearsOfItWhenTheCardHasObeyed) {
    cable out;
    std::uint32_t seen = 0;
    simulator* target = nullptr;
    simulator observed({out.port("p0")}, default_ether_type, [&](std::size_t, const request&) {
        seen = target->read_register("a", 0x100);
    });
    target = &observed;
    observed.add(make_card("a", card_kind::qnio, card_speed::g1_10, slow_id));
    observed.deliver(0, manager_frame(slow_id, 1, false, write_of(7)));
    EXPECT_EQ(seen, 7U);
}

// --------------------------------------------------------------------------------------------
// Faults on the way
// --------------------------------------------------------------------------------------------

TEST_F(Obey, LostRequestHasNoEffect) {
    sim.set("slow", "lose_requests", "1000");
    ask(slow_id, write_of(7));
    ask(slow_id, read_of(1));
    EXPECT_EQ(sim.read_register("slow", 0x100), 0U);
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.count().lost_requests, 2U);
    EXPECT_EQ(sim.count().reads + sim.count().writes, 0U);
}

TEST_F(Obey, LostAnswerComesAfterTheRead) {
    sim.set("slow", "lose_answers", "1000");
    ask(slow_id, read_of(1));
    EXPECT_TRUE(first.frames.empty());
    EXPECT_EQ(sim.count().reads, 1U);
    EXPECT_EQ(sim.count().answers, 0U);
}

TEST_F(Obey, DuplicatedAnswerLeavesTwice) {
    sim.set("slow", "duplicate_answers", "1000");
    ask(slow_id, read_of(1));
    ASSERT_EQ(tags(first), (frame_bytes{1, 1}));
    EXPECT_EQ(first.frames[0], first.frames[1]);
    EXPECT_EQ(sim.count().answers, 2U);
}

TEST_F(Obey, ReorderedAnswerLeavesBehindTheNextOne) {
    sim.set("slow", "reorder_answers", "1000");
    ask(slow_id, read_of(1));
    EXPECT_TRUE(first.frames.empty());
    ask(fast_id, read_of(9));  // another card's: of no concern
    ask(slow_id, read_of(2));
    EXPECT_EQ(tags(first), (frame_bytes{9, 2, 1}));
    ask(slow_id, read_of(3));
    EXPECT_EQ(tags(first), (frame_bytes{9, 2, 1}));
    EXPECT_EQ(sim.count().reordered, 2U);
}

TEST_F(Obey, WrongPortIsTheOtherOneIfTheCardIsHeardThere) {
    sim.set("slow", "wrong_port", "1000");
    ask(slow_id, read_of(1), 0);
    ask(slow_id, read_of(2), 1);
    EXPECT_EQ(tags(second), frame_bytes{1});
    EXPECT_EQ(tags(first), frame_bytes{2});
    sim.silence("slow", 1, 0);
    ask(slow_id, read_of(3), 0);
    EXPECT_EQ(first.size() + second.size(), 2U);
    EXPECT_EQ(sim.count().answers, 2U);
}

TEST_F(Obey, WrongMacAndWrongTagShowOnTheWire) {
    sim.set("fast", "wrong_mac", "1000");
    ask(fast_id, read_of(1));
    ask(fast_id | 1, read_of(1));
    EXPECT_EQ(first.frames.at(0)[11], 0x21);
    EXPECT_EQ(first.frames.at(1)[11], 0x20);
    sim.set("slow", "wrong_tag", "1000");
    ask(slow_id, read_of(1));
    EXPECT_EQ(first.frames.at(2)[23], 0x81);
}

TEST_F(Obey, SilentRegisterIsWrittenButNotAnswered) {
    sim.set("slow", "silent_registers", "0x100,0x200");
    ask(slow_id, write_of(7));
    ask(slow_id, read_of(1, 0x100));
    ask(slow_id, read_of(2, 0x200));
    ask(slow_id, read_of(3, 0x104));
    EXPECT_EQ(tags(first), frame_bytes{3});
    EXPECT_EQ(sim.count().silent, 2U);
    EXPECT_EQ(sim.read_register("slow", 0x100), 7U);
}

// Delayed answers are sent by the thread, so nothing is sent before start().
TEST_F(Obey, DelayedAnswerComesLaterWithTheValueOfThen) {
    sim.set("slow", "delay_min_ms", "20");
    const auto started = std::chrono::steady_clock::now();
    ask(slow_id, write_of(7));
    ask(slow_id, read_of(1));
    ask(slow_id, write_of(8));
    ask(fast_id, read_of(2));
    sim.start();
    EXPECT_TRUE(first.wait([](const frames& f) { return f.size() == 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(20));
    sim.stop();
    sim.wait();
    ASSERT_EQ(tags(first), (frame_bytes{2, 1}));
    EXPECT_EQ(first.frames[1][24], 7);
    EXPECT_EQ(sim.count().delayed, 1U);
}

TEST_F(Obey, EqualDelaysKeepTheOrder) {
    sim.set("slow", "delay_min_ms", "1");
    sim.start();
    frame_bytes expected;
    for (std::uint8_t tag = 0; tag < 50; ++tag) {
        ask(slow_id, read_of(tag));
        expected.push_back(tag);
    }
    EXPECT_TRUE(first.wait([](const frames& f) { return f.size() == 50; }));
    sim.stop();
    sim.wait();
    EXPECT_EQ(tags(first), expected);
}

TEST_F(Obey, DelayedAnswerOfACardThatIsGoneNeverLeaves) {
    sim.set("fast", "delay_min_ms", "1");
    sim.set("slow", "delay_min_ms", "5");
    ask(fast_id, read_of(1));
    ask(slow_id, read_of(2));
    sim.remove("fast");
    sim.start();
    EXPECT_TRUE(first.wait([](const frames& f) { return !f.empty(); }));
    sim.stop();
    sim.wait();
    EXPECT_EQ(tags(first), frame_bytes{2});
}

TEST_F(Obey, NewSeedBeginsTheSequenceAnew) {
    sim.set("slow", "lose_answers", "500");
    const auto answered_of_64 = [&] {
        first.frames.clear();
        sim.set("slow", "fault_seed", "0");
        sim.set("slow", "fault_seed", "5");
        for (std::uint8_t tag = 0; tag < 64; ++tag)
            ask(slow_id, read_of(tag));
        return tags(first);
    };
    const frame_bytes once = answered_of_64();
    EXPECT_EQ(answered_of_64(), once);
}

// Runs the same requests with the same seed.
std::vector<std::uint64_t> run_with(std::uint64_t seed, bool busy_neighbour) {
    cable out;
    simulator sim({out.port("p0")});
    for (const auto& [name, id] : {std::pair{"a", slow_id}, std::pair{"b", fast_id}}) {
        card added = make_card(name, card_kind::qnio, card_speed::g1_10, id);
        added.faults.seed = seed;
        added.faults.lose_requests = added.faults.lose_answers = 200;
        added.faults.duplicate_answers = added.faults.reorder_answers = 300;
        added.faults.wrong_tag = 100;
        sim.add(added);
    }
    for (int n = 0; n < 200; ++n) {
        sim.deliver(0, manager_frame(slow_id, 1, false, read_of(static_cast<std::uint8_t>(n))));
        if (busy_neighbour) sim.deliver(0, manager_frame(fast_id, 1, false, read_of(0)));
    }
    std::vector<std::uint64_t> sent;
    for (const frame_bytes& frame : out.frames) {
        if (frame[11] == 0x10) sent.push_back(frame[23]);
    }
    return sent;
}

TEST(ObeyAgain, SameSeedGivesTheSameAnswersWhateverOthersDo) {
    const auto once = run_with(7, false);
    EXPECT_GT(once.size(), 50U);
    EXPECT_EQ(run_with(7, false), once);
    EXPECT_EQ(run_with(7, true), once);
    EXPECT_NE(run_with(8, false), once);
}

TEST_F(Obey, LostAnnouncementDoesNotLeave) {
    sim.set("fast", "lose_announcements", "1000");
    EXPECT_EQ(sim.devinfo("fast"), 0U);
    EXPECT_EQ(sim.notify("fast"), 0U);
    EXPECT_TRUE(first.frames.empty() && second.frames.empty());
    EXPECT_EQ(sim.count().lost_announcements, 8U);
    EXPECT_EQ(sim.count().devinfo + sim.count().notify, 0U);
}

TEST_F(Obey, DuplicatedAnnouncementLeavesTwice) {
    sim.set("slow", "duplicate_announcements", "1000");
    EXPECT_EQ(sim.devinfo("slow"), 4U);
    ASSERT_EQ(first.frames.size(), 2U);
    EXPECT_EQ(first.frames[0], first.frames[1]);
    EXPECT_EQ(second.frames, first.frames);
    EXPECT_EQ(sim.count().duplicated_announcements, 2U);
    EXPECT_EQ(sim.count().devinfo, 4U);
}

// Requests meet the same faults, however often the card has announced itself before.
TEST(ObeyAgain, AnnouncementsDrawFromASequenceOfTheirOwn) {
    const auto answered = [](int announcements) {
        cable out;
        simulator sim({out.port("p0")});
        card added = make_card("a", card_kind::qnio, card_speed::g1_10, slow_id);
        added.faults.lose_requests = added.faults.lose_announcements = 500;
        added.faults.duplicate_announcements = 500;
        sim.add(added);
        for (; announcements > 0; --announcements)
            sim.devinfo("a");
        out.frames.clear();
        for (int n = 0; n < 200; ++n)
            sim.deliver(0, manager_frame(slow_id, 1, false, read_of(static_cast<std::uint8_t>(n))));
        return out.frames;
    };
    EXPECT_EQ(answered(0), answered(50));
}

}  // namespace
