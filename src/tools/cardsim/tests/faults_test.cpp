// Tests of the faults: what each does to requests and answers, how often, and that a seed repeats
// them.
#include "faults.h"

#include <gtest/gtest.h>

#include <ostream>
#include <set>

namespace {

using namespace cardsim;
using std::chrono::milliseconds;

constexpr int many = 10000;

struct Faults : testing::Test {
    card owner = make_card("a", card_kind::qnio, card_speed::g40, 0x10);
    fault_settings& faults = owner.faults;
    fault_state state;
    counters counted;

    void SetUp() override { seed_faults(state, owner); }

    static reply fresh() {
        return {.port = 0,
                .path = 1,
                .body = {.source = 0x11, .destination = 0x99, .tag = 7, .value = 0x1234}};
    }
    fate decide_on(reply& outgoing) { return decide(state, faults, outgoing, counted); }
};

TEST_F(Faults, NoneChangeNothing) {
    for (int n = 0; n < 100; ++n) {
        reply outgoing = fresh();
        const fate decided = decide_on(outgoing);
        EXPECT_EQ(decided.what, verdict::leave);
        EXPECT_EQ(decided.delay, milliseconds(0));
        EXPECT_EQ(outgoing.port, 0U);
        EXPECT_EQ(outgoing.copies, 1U);
        EXPECT_EQ(outgoing.body.source, 0x11U);
        EXPECT_EQ(outgoing.body.tag, 7);
        EXPECT_FALSE(request_lost(state, faults, counted));
    }
    EXPECT_EQ(describe(counted), describe(counters{}));
}

struct fault_row {
    const char* what;
    std::uint16_t fault_settings::*rate;
    std::uint64_t counters::*counter;
    verdict what_follows;
    std::size_t port;
    unsigned copies;
    std::uint64_t source;
    std::uint8_t tag;
};

void PrintTo(const fault_row& row, std::ostream* out) {
    *out << row.what;
}

struct AnswerFault : Faults, testing::WithParamInterface<fault_row> {};

INSTANTIATE_TEST_SUITE_P(
    Every, AnswerFault,
    testing::Values(fault_row{"Lost", &fault_settings::lose_answers, &counters::lost_answers,
                              verdict::lost, 0, 1, 0x11, 7},
                    fault_row{"Duplicated", &fault_settings::duplicate_answers,
                              &counters::duplicated, verdict::leave, 0, 2, 0x11, 7},
                    fault_row{"Reordered", &fault_settings::reorder_answers, &counters::reordered,
                              verdict::held, 0, 1, 0x11, 7},
                    fault_row{"WrongPort", &fault_settings::wrong_port, &counters::wrong_port,
                              verdict::leave, 1, 1, 0x11, 7},
                    fault_row{"WrongMac", &fault_settings::wrong_mac, &counters::wrong_mac,
                              verdict::leave, 0, 1, 0x10, 7},
                    fault_row{"WrongTag", &fault_settings::wrong_tag, &counters::wrong_tag,
                              verdict::leave, 0, 1, 0x11, 0x87}),
    testing::PrintToStringParamName());

TEST_P(AnswerFault, DoesThisAndNothingElse) {
    const fault_row& row = GetParam();
    faults.*row.rate = 1000;
    reply outgoing = fresh();
    EXPECT_EQ(decide_on(outgoing).what, row.what_follows);
    EXPECT_EQ(outgoing.port, row.port);
    EXPECT_EQ(outgoing.path, 1U);
    EXPECT_EQ(outgoing.copies, row.copies);
    EXPECT_EQ(outgoing.body.source, row.source);
    EXPECT_EQ(outgoing.body.destination, 0x99U);
    EXPECT_EQ(outgoing.body.tag, row.tag);
    EXPECT_EQ(outgoing.body.value, 0x1234U);
    counters expected;
    expected.*row.counter = 1;
    EXPECT_EQ(describe(counted), describe(expected));
}

// The sequence is fixed by the seed, so the number is the same in every run.
TEST_P(AnswerFault, HappensAsOftenAsItsRateSays) {
    const fault_row& row = GetParam();
    faults.*row.rate = 200;
    for (int n = 0; n < many; ++n) {
        reply outgoing = fresh();
        decide_on(outgoing);
        state.held.reset();
    }
    EXPECT_NEAR(static_cast<double>(counted.*row.counter), many * 0.2, many * 0.02);
}

TEST_F(Faults, RequestsAreLostAsOftenAsTheRateSays) {
    faults.lose_requests = 200;
    std::uint64_t lost = 0;
    for (int n = 0; n < many; ++n)
        lost += request_lost(state, faults, counted) ? 1 : 0;
    EXPECT_NEAR(static_cast<double>(lost), many * 0.2, many * 0.02);
    EXPECT_EQ(counted.lost_requests, lost);
}

// Which of a hundred answers are lost.
std::vector<bool> losses(std::uint64_t seed, std::uint64_t id) {
    card owner = make_card("a", card_kind::qnio, card_speed::g40, id);
    owner.faults.seed = seed;
    owner.faults.lose_answers = 500;
    fault_state state;
    seed_faults(state, owner);
    counters counted;
    std::vector<bool> lost;
    for (int n = 0; n < 100; ++n) {
        reply outgoing;
        lost.push_back(decide(state, owner.faults, outgoing, counted).what == verdict::lost);
    }
    return lost;
}

TEST(FaultSeed, SameSeedGivesTheSameFaultsAndAnotherSeedOrCardOthers) {
    EXPECT_EQ(losses(1, 0x10), losses(1, 0x10));
    EXPECT_NE(losses(1, 0x10), losses(2, 0x10));
    EXPECT_NE(losses(1, 0x10), losses(1, 0x12));
}

TEST_F(Faults, DelaysLieBetweenTheirBoundsAndReachBoth) {
    faults.delay_min_ms = 5;
    faults.delay_max_ms = 9;
    std::set<milliseconds> seen;
    for (int n = 0; n < 200; ++n) {
        reply outgoing = fresh();
        const fate decided = decide_on(outgoing);
        EXPECT_EQ(decided.what, verdict::wait);
        seen.insert(decided.delay);
    }
    EXPECT_EQ(seen, (std::set{milliseconds(5), milliseconds(6), milliseconds(7), milliseconds(8),
                              milliseconds(9)}));
    EXPECT_EQ(counted.delayed, 200U);
}

TEST_F(Faults, WithoutAnUpperBoundTheLowerOneIsExact) {
    faults.delay_min_ms = 5;
    reply outgoing = fresh();
    EXPECT_EQ(decide_on(outgoing).delay, milliseconds(5));
}

TEST_F(Faults, OneAnswerAtATimeIsHeldBack) {
    faults.reorder_answers = 1000;
    reply first = fresh();
    EXPECT_EQ(decide_on(first).what, verdict::held);
    ASSERT_NE(state.held, nullptr);
    EXPECT_EQ(state.held->body.tag, 7);
    reply second = fresh();
    EXPECT_EQ(decide_on(second).what, verdict::leave);
    state.held.reset();
    EXPECT_EQ(decide_on(second).what, verdict::held);
}

TEST_F(Faults, SilentRegistersAreThoseListed) {
    faults.silent_registers = {0x1000, 0x2000};
    EXPECT_TRUE(read_silenced(faults, 0x1000, counted));
    EXPECT_TRUE(read_silenced(faults, 0x2000, counted));
    EXPECT_FALSE(read_silenced(faults, 0x1004, counted));
    EXPECT_EQ(counted.silent, 2U);
}

}  // namespace
