// Places in the two configuration files.
#include "installation/config_file.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

using names = std::vector<std::string>;

TEST(FindKey, TakesTheFirstLineOfTheKey) {
    const auto line = find_key("# tag_max = 1\n\n tag_max = 2\ntag_max = 3\n", "tag_max");
    ASSERT_TRUE(line);
    EXPECT_EQ(3, line->number);
    EXPECT_EQ(" 2", line->value);
}

TEST(FindKey, FindsAnIndentedHashAndAKeyWithoutAValue) {
    EXPECT_EQ(1, find_key("  # note\n", "#")->number);
    EXPECT_EQ("", find_key("tag_max\n", "tag_max")->value);
    EXPECT_FALSE(find_key("tag_maximum = 1\n", "tag_max"));
}

TEST(ConfiguredNumber, IsReadAsByTheLibrary) {
    const auto number = [](const std::string& value) {
        return configured_number("stats_interval" + value, "stats_interval");
    };
    EXPECT_EQ(10000U, number(" = 10000 ms\n"));
    EXPECT_EQ(4096U, number(" = 010000\n"));
    EXPECT_EQ(4096U, number("=0x1000\r\n"));
    for (const char* const none : {"s = 1\n", "\n", " = \n", " = 0b1\n", " = 08\n",
                                   " = 4294967296\n", " = 99999999999999999999\n"})
        EXPECT_EQ(3600U, number(none)) << none;
}

TEST(ConfiguredPorts, AreTheOnesNamedOrTheDefaults) {
    EXPECT_EQ((names{"eth0", "eth1"}), configured_ports(""));
    EXPECT_EQ((names{"qnm0"}), configured_ports("ether_port = qnm0\r\n"));
    EXPECT_EQ((names{"a", "b"}), configured_ports("ether_port=a,\tb c\n"));
}

}  // namespace
}  // namespace qnmctl
