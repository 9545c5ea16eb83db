// exit_test.cpp - host programs that end without a stop, while their threads are inside the
// library.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "program.h"
#include "rig.h"

namespace e2e {
namespace {

// How often each way is gone; QNM_EXITS=200 goes it as often as that.
int exits() {
    const char* const wanted = getenv("QNM_EXITS");
    return wanted != nullptr ? atoi(wanted) : 50;
}

size_t count(const std::string& text, std::string_view wanted) {
    size_t found = 0;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
        found++;
    return found;
}

struct ends_without_a_stop : testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(host, ends_without_a_stop,
                         testing::Values("exit", "return", "callback", "starting"),
                         [](const auto& way) { return std::string(way.param); });

TEST_P(ends_without_a_stop, and_nothing_goes_wrong) {
    const cables wires;
    const installation install(k_two_ports);
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    cards->start();
    int failures = 0;
    std::string told;
    for (int n = 0; n < exits(); n++) {
        program host({EXITING_HOST, install.path(), GetParam()}, install.path());
        const int status = host.wait();
        const std::string output = host.output();
        if (status == 0 && output.empty()) continue;
        failures++;
        told += "status " + std::to_string(status) + ", output: " + output + '\n';
    }
    EXPECT_EQ(failures, 0) << "of " << exits() << '\n' << told;
    if (GetParam() == std::string("starting")) return;
    // By the handler that was registered while the manager ran, and not by the one before it.
    EXPECT_EQ(count(install.log(), "log_at_exit: "), static_cast<size_t>(exits()));
}

// The library is unloaded and loaded again as a plugin may be, and writes each time.
TEST(unloading, leaves_nothing_behind) {
    const installation install("");
    program host({PLUGIN_HOST, QNM_LIBRARY, install.path()}, install.path());
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(host.output(), "");
    EXPECT_EQ(count(install.log(), "main: a line of the plugin."), 3u) << install.log();
}

}  // namespace
}  // namespace e2e
