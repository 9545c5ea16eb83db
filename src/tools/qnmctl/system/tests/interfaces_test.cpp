// What the kernel says of interfaces: of the loopback, which every machine has, and invented tables
// of counters.
#include "system/interfaces.h"

#include <gtest/gtest.h>
#include <net/if_arp.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace qnmctl {
namespace {

TEST(Interfaces, HaveTheLoopback) {
    const interface_state found = read_interface("lo");
    EXPECT_EQ(0, found.error);
    EXPECT_EQ(ARPHRD_LOOPBACK, found.hardware);
    EXPECT_EQ(0U, found.mac);
    EXPECT_GT(found.mtu.value_or(0), 0);
    EXPECT_TRUE(found.up || !found.running);
    const std::vector<std::string> names = interface_names();
    EXPECT_NE(names.end(), std::ranges::find(names, "lo"));
    EXPECT_TRUE(read_counters().contains("lo"));
}

TEST(Interfaces, MayBeMissing) {
    for (const char* const name : {"qnmctl-none", "", "a234567890123456", "lo\n"}) {
        EXPECT_EQ(ENODEV, read_interface(name).error) << name;
        EXPECT_NE(0, read_driver_link(name).error) << name;
        EXPECT_FALSE(read_driver(name)) << name;
        EXPECT_FALSE(read_feature(name, "rx-vlan-filter")) << name;
    }
}

TEST(Interfaces, HaveFeaturesByName) {
    EXPECT_TRUE(read_feature("lo", "rx-gro"));
    EXPECT_FALSE(read_feature("lo", "no-such-feature"));
}

TEST(Counters, AreReadByTheirColumns) {
    const all_interface_counters found = parse_counters(
        "Inter-|   Receive                                                |  Transmit\n"
        " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs\n"
        "    lo:     100       2    3    4    5     6          7         8      9   10   11 12 13 "
        "14 "
        "15 16\n"
        "eth0:1: 18446744073709551615 18446744073709551614 0 0 0 0 0 0 7 8 0 0 0 0 0 0\n");
    ASSERT_EQ(2U, found.size());
    const interface_counters& loopback = found.at("lo");
    EXPECT_EQ(100U, loopback[0]);
    EXPECT_EQ(2U, loopback[rx_packets_at]);
    EXPECT_EQ(10U, loopback[tx_packets_at]);
    EXPECT_EQ(16U, loopback.back());
    EXPECT_EQ(18446744073709551614U, found.at("eth0:1")[rx_packets_at]);
    EXPECT_STREQ("rx_packets", counter_names[rx_packets_at]);
    EXPECT_STREQ("tx_packets", counter_names[tx_packets_at]);
}

TEST(Counters, LeaveOutLinesThatAreNoRow) {
    EXPECT_TRUE(parse_counters("").empty());
    EXPECT_TRUE(parse_counters("short: 1 2 3\n:\n: 1\nlo\n").empty());
    EXPECT_TRUE(parse_counters("lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 x\n").empty());
    EXPECT_TRUE(parse_counters("two words: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n").empty());
    EXPECT_TRUE(
        parse_counters("lo: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 18446744073709551616\n").empty());
}

}  // namespace
}  // namespace qnmctl
