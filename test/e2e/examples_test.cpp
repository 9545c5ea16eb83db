// examples_test.cpp - the example host programs around an event loop: what they report, and how
// they end.

#include <gmock/gmock.h>
#include <signal.h>

#include <ostream>

#include "program.h"
#include "rig.h"

namespace e2e {
namespace {

struct example_row {
    const char* name;
    const char* program;
    const char* learnt;  // lines about a QNSV card that is heard on both ports
    const char* lost;    // ... and then on port 1 only
};

// Names the row in the list of tests.
void PrintTo(const example_row& row, std::ostream* out) {
    *out << row.name;
}

struct examples : testing::TestWithParam<example_row> {};

INSTANTIATE_TEST_SUITE_P(host, examples,
                         testing::Values(example_row{"watch_loop_c", WATCH_LOOP_EXAMPLE,
                                                     "0x020000001000 CHANNELSTATECHANGE qnsv CDCD",
                                                     "0x020000001000 CHANNELSTATECHANGE qnsv DDCD"},
                                         example_row{"event_loop_cpp", EVENT_LOOP_EXAMPLE,
                                                     "0x020000001000 qnsv vlan 1 CDCD",
                                                     "0x020000001000 qnsv vlan 1 DDCD"}),
                         [](const auto& row) { return row.param.name; });

TEST_P(examples, reports_what_becomes_of_a_card_until_a_signal_comes) {
    const cables wires;
    const installation install(k_two_ports);
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    cards->start();
    program host({GetParam().program, install.path()}, install.path());
    EXPECT_TRUE(host.prints(GetParam().learnt)) << host.output() << install.log();
    cards->silence(k_id, 0, 0);
    EXPECT_TRUE(host.prints(GetParam().lost)) << host.output() << install.log();
    host.send(SIGTERM);
    EXPECT_EQ(host.wait(), 0) << host.output();
}

TEST_P(examples, ends_cleanly_while_it_starts) {
    const cables wires;
    const installation install(k_two_ports);
    program host({GetParam().program, install.path()}, install.path());
    host.wait_for_signals();
    host.send(SIGINT);
    EXPECT_EQ(host.wait(), 0) << host.output();
}

TEST_P(examples, ends_with_a_failure_when_the_manager_cannot_start) {
    const installation install("ether_port = absent0\n");
    program host({GetParam().program, install.path()}, install.path());
    EXPECT_EQ(host.wait(), 1);
    EXPECT_THAT(host.output(), testing::HasSubstr("the manager ended: protocol or internal error"));
}

}  // namespace
}  // namespace e2e
