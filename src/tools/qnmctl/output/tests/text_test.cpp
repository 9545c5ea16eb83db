// IDs, times, result codes and lists as words.
#include "output/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace qnmctl {
namespace {

TEST(IdText, HasTwelveDigits) {
    EXPECT_EQ("0x000000001000", id_text(0x1000));
}

TEST(SecondsText, HasTenthsWhereTheyMatter) {
    EXPECT_EQ("3 s", seconds_text(3));
    EXPECT_EQ("0.5 s", seconds_text(0.46));
    EXPECT_EQ("0 s", seconds_text(0.0001));
    EXPECT_EQ("100 s", seconds_text(99.99));
}

TEST(MacText, StartsWithTheMostSignificantByte) {
    EXPECT_EQ("02:00:00:00:10:0f", mac_text(0x02000000100F));
}

TEST(ParseId, TakesHexAndMacAddress) {
    EXPECT_EQ(0x020000001000U, parse_id("0x020000001000"));
    EXPECT_EQ(0xABU, parse_id("0Xab"));
    EXPECT_EQ(0x02000000100FU, parse_id("02:00:00:00:10:0f"));
}

TEST(ParseId, RefusesEverythingElse) {
    for (const char* const text :
         {"", "0x", "0x1234567890123", "12", "0xg", "0x-1", "0x1 ", "02:00:00:00:10",
          "02-00-00-00-10-00", "02:00:00:00:10:0g", "02:00:00:00:10:00:", "020000001000"}) {
        EXPECT_EQ(std::nullopt, parse_id(text)) << text;
    }
}

class LocalTime : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "XXX-01:30", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(LocalTime, IsLocalWithMilliseconds) {
    EXPECT_EQ("2023-11-14 23:43:20.007", time_text(from_milliseconds(1'700'000'000'007)));
    EXPECT_EQ("2023-11-14T23:43:20.007+01:30", iso_time_text(from_milliseconds(1'700'000'000'007)));
}

TEST(CodeName, NamesEveryCode) {
    EXPECT_STREQ("QNM_API_SUCCESS", code_name(QNM_API_SUCCESS));
    EXPECT_STREQ("QNM_API_EPROTO", code_name(QNM_API_EPROTO));
    EXPECT_STREQ("QNM_API_ENOSYS", code_name(QNM_API_ENOSYS));
}

TEST(MessageText, IndentsFurtherLines) {
    EXPECT_EQ("qnmctl: wrong\n  remedy\n", message_text("wrong\nremedy"));
}

TEST(Split, LeavesOutEmptyParts) {
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), split(" a,, b ", " ,"));
    EXPECT_TRUE(split(" , ", " ,").empty());
}

TEST(Join, PutsTheSeparatorBetween) {
    EXPECT_EQ("a, b", join({"a", "b"}, ", "));
    EXPECT_EQ("", join({}, ", "));
}

TEST(ParseNumber, TakesDecimalHexAndBinary) {
    EXPECT_EQ(0U, parse_number("0"));
    EXPECT_EQ(42U, parse_number("42"));
    EXPECT_EQ(10U, parse_number("010"));
    EXPECT_EQ(0x1FU, parse_number("0x1f"));
    EXPECT_EQ(0xABCDU, parse_number("0XaBcD"));
    EXPECT_EQ(5U, parse_number("0b101"));
    EXPECT_EQ(5U, parse_number("0B101"));
    EXPECT_EQ(UINT64_MAX, parse_number("0xFFFFFFFFFFFFFFFF"));
}

TEST(ParseNumber, RefusesEverythingElse) {
    for (const char* const text : {"", "0x", "0b", "-1", "+1", " 1", "1 ", "1.5", "0b2", "0xg",
                                   "ff", "1e3", "0x-1", "0x10000000000000000"}) {
        EXPECT_EQ(std::nullopt, parse_number(text)) << text;
    }
}

}  // namespace
}  // namespace qnmctl
