// lifecycle_test.cpp - starts, stops, and host programs with unusual habits.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "program.h"
#include "qnm_counters.h"
#include "rig.h"

namespace e2e {
namespace {

size_t entries(const char* directory) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

void expect_balanced() {
    const qnm_sd_stats_t& stats = qnm_stats;
    EXPECT_EQ(stats.est_sv_node_al, stats.est_sv_node_fr);
    EXPECT_EQ(stats.est_io_node_al, stats.est_io_node_fr);
    EXPECT_EQ(stats.est_bl_node_al, stats.est_bl_node_fr);
    EXPECT_EQ(stats.est_evt_node_al, stats.est_evt_node_fr);
    EXPECT_EQ(stats.est_wreg_node_al, stats.est_wreg_node_fr);
    EXPECT_EQ(stats.est_idlist_al, stats.est_idlist_fr);
    EXPECT_EQ(stats.est_cbinfo_al, stats.est_cbinfo_fr);
    EXPECT_EQ(stats.est_cb_call, stats.est_cb_return);
    EXPECT_EQ(stats.est_alloc_err, 0U);
}

TEST(lifecycle, fifty_starts_and_stops_leave_nothing_behind) {
    const cables wires;
    const installation install("ether_port = qnm0,qnm1\ndevinfo_flag_check_interval = 10\n");
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards->add(lively(card_kind::qnio, card_speed::g1_10, k_id + 2));
    cards->start();
    const size_t threads = entries("/proc/self/task");
    size_t descriptors = 0;
    for (int round = 0; round < 50; round++) {
        {
            manager host(install.path());
            ASSERT_TRUE(host.is_running()) << install.log();
            ASSERT_TRUE(wait_for([] { return !paths(k_id).empty() && !paths(k_id + 2).empty(); }));
            ASSERT_EQ(qnm_stop_monitor(k_id + 4), QNM_API_SUCCESS);
            ASSERT_EQ(host.stop(), QNM_API_SUCCESS);
        }
        expect_balanced();
        // The first round opens what stays open, such as the log.
        if (round == 0) descriptors = entries("/proc/self/fd");
    }
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    // A thread that has been joined is listed until the system has removed it.
    EXPECT_TRUE(wait_for([&] { return entries("/proc/self/task") == threads; }));
}

using clock = std::chrono::steady_clock;
using milliseconds = std::chrono::duration<double, std::milli>;

// How long the kernel takes to close a packet socket now: it waits for all cores.
milliseconds time_of_one_close() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    EXPECT_NE(fd, -1);
    const auto began = clock::now();
    close(fd);
    return clock::now() - began;
}

// Compares the best of many stops with the best of many closes, because the machine may be busy.
// One after the other, the sockets of two ports would take eight closes.
TEST(lifecycle, an_idle_stop_takes_little_more_than_its_interval) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's work would be measured";
#endif
    const cables wires;
    const installation install("ether_port = qnm0,qnm1\ndevinfo_flag_check_interval = 100\n");
    constexpr milliseconds k_due(100 + 50);
    milliseconds best(1e9);
    milliseconds best_close(1e9);
    for (int round = 0; round < 20; round++) {
        manager host(install.path());
        ASSERT_TRUE(host.is_running()) << install.log();
        const auto began = clock::now();
        ASSERT_EQ(host.stop(), QNM_API_SUCCESS);
        best = std::min<milliseconds>(best, clock::now() - began);
        best_close = std::min(best_close, time_of_one_close());
    }
    EXPECT_LE(best, k_due + 3 * best_close) << "one close takes " << best_close.count() << " ms";
}

void ignore_signal(int) {}

// Sends SIGALRM to every thread of this process in turn, so that every thread that the kernel could
// choose for a signal is hit.
void storm(const std::atomic<bool>& calm) {
    while (!calm) {
        for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
            syscall(SYS_tgkill, getpid(), std::stoi(thread.path().filename()), SIGALRM);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST(lifecycle, a_storm_of_signals_in_the_host_does_not_end_the_manager) {
    const cables wires;
    const installation install(k_two_ports);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    struct sigaction action = {};
    action.sa_handler = ignore_signal;  // and no SA_RESTART: every wait it hits fails with EINTR
    sigaction(SIGALRM, &action, nullptr);
    std::atomic<bool> calm = false;
    std::thread sender(storm, std::cref(calm));
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards->start();
    EXPECT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    cards->silence(k_id, 1, 1);
    EXPECT_TRUE(wait_for([] { return paths(k_id) == "CCCD"; }));
    calm = true;
    sender.join();
    EXPECT_FALSE(host.has_ended()) << install.log();
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

// Runs a host program that ends at Enter until it has printed the line, and nothing before it.
void expect_first_line(const std::string& program, const std::string& expected) {
    const cables wires;
    const installation install(k_two_ports);
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    cards->start();
    const std::string output = install.path() + "/output";
    const std::string command = "'" + program + "' " + install.path() + " >" + output + " 2>&1";
    FILE* const host = popen(command.c_str(), "w");
    ASSERT_NE(host, nullptr);
    const auto reported = [&] {
        std::ifstream file(output);
        std::string line;
        return std::getline(file, line) && line == expected;
    };
    EXPECT_TRUE(wait_for(reported)) << install.log();
    fputs("\n", host);
    EXPECT_EQ(pclose(host), 0);
}

TEST(lifecycle, the_first_example_names_a_card) {
    expect_first_line(FIRST_EXAMPLE, "card 0x020000001000");
}

TEST(lifecycle, the_examples_fail_with_a_word_when_the_manager_cannot_start) {
    const installation install("ether_port = absent0\n");
    for (const char* const path : {FIRST_EXAMPLE, HOST_EXAMPLE}) {
        program host({path, install.path()}, install.path());
        EXPECT_EQ(host.wait(), 1) << path;
        EXPECT_TRUE(host.output().starts_with("the manager ended")) << host.output();
    }
}

TEST(lifecycle, the_examples_show_in_one_line_what_is_wrong_with_the_properties) {
    const installation install(k_two_ports);
    const std::string properties = install.path() + "/conf/qnm_log4c.properties";
    std::filesystem::remove(properties);
    for (const char* const path : {FIRST_EXAMPLE, HOST_EXAMPLE, WATCH_LOOP_EXAMPLE}) {
        program host({path, install.path()}, install.path());
        EXPECT_EQ(host.wait(), 1) << path;
        const std::string output = host.output();
        EXPECT_TRUE(
            output.starts_with("qnm_log_init: " + properties + ": No such file or directory\n"))
            << output;
        EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2) << output;
    }
}

TEST(lifecycle, the_host_example_reports_a_card) {
    expect_first_line(HOST_EXAMPLE, "NEWDEVINFO 0x020000001000");
}

}  // namespace
}  // namespace e2e
