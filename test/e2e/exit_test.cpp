// exit_test.cpp - host programs that load the library, and end without a stop, while their threads
// are inside it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "program.h"
#include "rig.h"

namespace e2e {
namespace {

// How often each way is tried; QNM_EXITS=200 tries it 200 times.
int exits() {
#if defined(__SANITIZE_THREAD__)
    constexpr int k_exits = 10;  // the sanitizer waits for a second at each
#else
    constexpr int k_exits = 50;
#endif
    const char* const wanted = getenv("QNM_EXITS");
    return wanted != nullptr ? atoi(wanted) : k_exits;
}

size_t count(const std::string& text, std::string_view wanted) {
    size_t found = 0;
    for (size_t at = text.find(wanted); at != std::string::npos; at = text.find(wanted, at + 1))
        found++;
    return found;
}

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct ends_without_a_stop : testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(host, ends_without_a_stop,
                         testing::Values("exit", "return", "callback", "selector", "starting"),
                         [](const auto& way) { return std::string(way.param); });

TEST_P(ends_without_a_stop, and_nothing_goes_wrong) {
    const cables wires;
    const installation install(k_two_ports);
    const auto cards = make_cards();
    cardsim::card card = lively(card_kind::qnsv, card_speed::g1_10, k_id);
    card.interval_ms = 10;  // every host waits for it, with threads that do not rest
    cards->add(card);
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
    // By the handler that was registered while the manager ran, not by the one before it.
    EXPECT_EQ(count(install.log(), "log_at_exit: "), static_cast<size_t>(exits()));
}

// The program that could read the log has it open, and does not read.
TEST(stuck_line, of_the_log_holds_no_exit) {
    const installation install("");
    const std::string log = install.path() + "/log";
    ASSERT_EQ(mkfifo(log.c_str(), 0600), 0);
    const int reader = open(log.c_str(), O_RDWR | O_CLOEXEC);
    program host({EXITING_HOST, install.path(), "stuck"}, install.path());
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(host.output(), "");
    close(reader);
}

// The files in the directory in which a program is started may belong to anybody.
TEST(current_directory, configures_no_log) {
    const installation install("");
    const std::string victim = install.path() + "/victim";
    std::ofstream(victim) << "precious\n";
    std::ofstream(install.path() + "/log4cxx.properties")
        << "log4j.rootLogger=ALL, HOSTILE\n"
           "log4j.appender.HOSTILE=org.apache.log4j.FileAppender\n"
           "log4j.appender.HOSTILE.Append=false\n"
           "log4j.appender.HOSTILE.File="
        << victim << "\nlog4j.appender.HOSTILE.layout=org.apache.log4j.SimpleLayout\n";
    const std::string command = "cd \"$0\" && exec \"$1\" \"$2\" .";
    program host({"/bin/sh", "-c", command, install.path(), PLUGIN_HOST, QNM_LIBRARY},
                 install.path());
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(text_of(victim), "precious\n");
}

// The library is unloaded and loaded again, as a plugin may be, and logs each time.
TEST(unloading, leaves_nothing_behind) {
    const installation install("");
    program host({PLUGIN_HOST, QNM_LIBRARY, install.path()}, install.path());
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(host.output(), "");
    EXPECT_EQ(count(install.log(), "main: a line of the plugin."), 3u) << install.log();
}

}  // namespace
}  // namespace e2e
