// What is found in a configuration file: line by line, and in general the same as by the library,
// which reads the same lines here.
#include "doctor/config_checks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <fstream>

#include "common/tests/temporary_dir.h"
#include "doctor/findings_text.h"
#include "installation/config_keys.h"
#include "qnm_config.h"
#include "tests/sample_system.h"

namespace qnmctl {
namespace {

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

findings lines_of(const std::string& text) {
    inspected system;
    system.config = sample_file("qnm.conf", text);
    findings found;
    check_config_lines(system, found);
    return found;
}

// One finding, of this rank, about this line.
testing::AssertionResult tells(const std::string& text, severity rank, int line,
                               const std::string& told, const std::string& remedy = "") {
    const findings found = lines_of(text);
    const bool right = found.size() == 1 && found[0].rank == rank && found[0].line == line &&
                       holds(found[0].text, told) && holds(found[0].remedy, remedy);
    if (right) return testing::AssertionSuccess();
    return testing::AssertionFailure() << findings_text(found, {});
}

TEST(ConfigLines, OfRightKeysAreToldWithValueAndRange) {
    EXPECT_TRUE(tells("tag_max = 7\n", severity::ok, 1, "tag_max = 7 (0 to 255; default 255)"));
    EXPECT_TRUE(tells("# x\n\nether_port=a, b", severity::ok, 3, "ether_port = a,b (1 or 2"));
    EXPECT_TRUE(tells("log_level 5 = 4 # info\r\n", severity::ok, 1, "log_level = 4"));
    EXPECT_TRUE(tells("broadcast_mac=03:00:FF:ff:00:01", severity::ok, 1, "03:00:FF:ff:00:01"));
    EXPECT_TRUE(tells("ether_port_ifindex=3 4", severity::ok, 1, "3 4"));
    EXPECT_TRUE(lines_of("").empty());
}

TEST(ConfigLines, WithAMisspeltKeyNameTheNearest) {
    EXPECT_TRUE(tells("#\ntag_mxa = 7", severity::error, 2, "\"tag_mxa\" is no key", "Is tag_max"));
    EXPECT_TRUE(tells("Log_Level=3", severity::error, 1, "no key", "Is log_level meant"));
    EXPECT_TRUE(tells("frobnicate=3", severity::error, 1, "no key", "Remove the line"));
}

TEST(ConfigLines, WithAWrongValueNameTheRange) {
    EXPECT_TRUE(tells("tag_max=256", severity::error, 1, "256 is out of range", "0 to 255"));
    EXPECT_TRUE(tells("tag_max=x", severity::error, 1, "\"x\" is not understood", "0 to 255"));
    EXPECT_TRUE(tells("tag_max=-1", severity::error, 1, "\"-1\" is not understood"));
    EXPECT_TRUE(tells("tag_max 7", severity::error, 1, "has no value", "Write tag_max = VALUE"));
    EXPECT_TRUE(tells("ether_port=,", severity::error, 1, "has no value"));
    EXPECT_TRUE(tells("broadcast_mac=03:00", severity::error, 1, "not understood", "colons"));
}

TEST(ConfigLines, ThatMeanSomethingElseAreTold) {
    EXPECT_TRUE(tells("tag_max=010", severity::warning, 1, "means 8"));
    EXPECT_TRUE(tells("stats_interval=3 600", severity::warning, 1, "ignored: \"600\""));
    EXPECT_TRUE(tells("ether_port=a b c", severity::warning, 1, "\"c\" is ignored"));
    EXPECT_TRUE(tells("= 3", severity::warning, 1, "no key"));
}

TEST(ConfigLines, WithAnIndentedCommentAreTold) {
    EXPECT_TRUE(tells(" # note", severity::error, 1, "first column", "Take away the blanks"));
    EXPECT_TRUE(tells("\t#note", severity::error, 1, "first column"));
}

TEST(ConfigLines, WithAByteOrderMarkAreTold) {
    EXPECT_TRUE(tells("\xEF\xBB\xBFtag_max=7", severity::error, 1, "byte order mark"));
}

TEST(ConfigLines, GivenTwiceAreTold) {
    const findings found = lines_of("tag_max=7\n\ntag_max=frob\n");
    ASSERT_EQ(2U, found.size());
    EXPECT_EQ(severity::warning, found[1].rank);
    EXPECT_EQ(3, found[1].line);
    EXPECT_TRUE(holds(found[1].text, "line 1 counts"));
}

TEST(ConfigLines, ThatAreTooLongAreTold) {
    EXPECT_TRUE(lines_of('#' + std::string(126, 'x') + '\n').empty());
    const std::string longer = '#' + std::string(127, 'x') + '\n';
    EXPECT_TRUE(tells(longer, severity::error, 1, "has 128 characters", "Break the line"));
    const std::string blank = '#' + std::string(200, ' ') + '\n';
    EXPECT_TRUE(tells(blank, severity::warning, 1, "has 201 characters"));
}

TEST(ConfigLines, ThatContradictEachOtherAreTold) {
    const findings found = lines_of("tag_min=9\ntag_max=8\n");
    ASSERT_EQ(3U, found.size());
    EXPECT_EQ(severity::error, found[2].rank);
    EXPECT_EQ(2, found[2].line);
    EXPECT_EQ(0U, count(lines_of("tag_min=255\n"), severity::error));
    EXPECT_EQ(1U, count(lines_of("ether_type=0x500\n"), severity::warning));
}

TEST(ConfigLines, OfAFileThatIsNoneAreNotAllTold) {
    std::string text;
    for (int line = 0; line < 100'000; ++line)
        text += "frob\xFFnicate \033[2J\n";
    const findings found = lines_of(text);
    EXPECT_EQ(51U, found.size());
    EXPECT_EQ(severity::error, found.back().rank);
    EXPECT_EQ("there are 4950 more findings in this file", found.back().text);
    for (const finding& one : found)
        EXPECT_EQ(std::string::npos, one.text.find('\033'));
}

// The shortest of several, in processor time of this thread, so that a busy machine does not count.
std::int64_t work_for(const std::string& text) {
    constexpr int rounds = 5;
    const auto now = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
    };
    std::int64_t least = INT64_MAX;
    for (int round = 0; round < rounds; ++round) {
        const std::int64_t start = now();
        lines_of(text);
        least = std::min(least, now() - start);
    }
    return least;
}

// The keys that are meant are looked for where that is told: in 50 of these 5000 lines, or pieces
// of a line. Looking for all of them would be 100 times the work.
TEST(ConfigLines, ThatAreNotToldTakeLittleWork) {
    constexpr std::int64_t at_most = 20;
    const auto lines = [](int number) {
        std::string text;
        for (int line = 0; line < number; ++line)
            text += "a_key_that_is_none = 1\n";
        return text;
    };
    const std::int64_t told = work_for(lines(50));
    EXPECT_LT(work_for(lines(5000)), at_most * told);
    std::string in_one = lines(5000 * 6);
    std::replace(in_one.begin(), in_one.end(), '\n', ' ');
    EXPECT_LT(work_for(in_one), at_most * told);
}

TEST(ConfigLines, OfOptionsHaveNoNumber) {
    inspected system;
    system.temporary = true;
    system.config = sample_file("/tmp/x/conf/qnm.conf", "tag_mx=1\n");
    findings found;
    check_config_lines(system, found);
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("--set", found[0].about);
    EXPECT_EQ(0, found[0].line);
}

// ---- The file -----------------------------------------------------------------------------------

class ConfigFile : public testing::Test {
  protected:
    severity worst(const std::string& text) {
        findings found;
        check_config_file(system, found);
        for (const finding& one : found) {
            if (holds(one.text, text)) return one.rank;
        }
        ADD_FAILURE() << findings_text(found, {});
        return severity::ok;
    }

    inspected system = sample_system();
};

TEST_F(ConfigFile, NeedNotBeThere) {
    system.config = {.name = "qnm.conf"};
    EXPECT_EQ(severity::note, worst("no such file"));
}

TEST_F(ConfigFile, HasToBeReadableWhereItIs) {
    EXPECT_EQ(severity::ok, worst("can be read, 1 lines"));
    system.config.state = file_state::no_file;
    EXPECT_EQ(severity::error, worst("no regular file"));
    system.config.state = file_state::link;
    EXPECT_EQ(severity::warning, worst("symbolic link"));
    system.config.state = file_state::unreadable;
    EXPECT_EQ(severity::error, worst("cannot be read"));
}

TEST_F(ConfigFile, ThatIsHugeOrNoTextIsTold) {
    system.config.size = std::uintmax_t{1} << 30;
    system.config.text += '\0';
    EXPECT_EQ(severity::warning, worst("1073741824 bytes"));
    EXPECT_EQ(severity::warning, worst("NUL"));
}

// ---- Beside the library -------------------------------------------------------------------------

class BesideTheLibrary : public testing::Test {
  protected:
    // Whether the library takes the file.
    bool is_taken(const std::string& text) const {
        std::string name = (dir.path() / "qnm.conf").string();
        std::ofstream(name, std::ios::binary) << text;
        return _qnm_config_read(name.data()) == 0;
    }
    // The doctor finds an error where, and only where, the library does.
    void expect_same(const std::string& text) const {
        const findings found = lines_of(text);
        EXPECT_EQ(is_taken(text), count(found, severity::error) == 0) << text << '\n'
                                                                      << findings_text(found, {});
    }

    tools::temporary_dir dir;
};

TEST_F(BesideTheLibrary, EveryKeyTakesTheSameValues) {
    const char* const values[] = {"",
                                  "0",
                                  "1",
                                  "2",
                                  "5",
                                  "6",
                                  "60",
                                  "61",
                                  "99",
                                  "100",
                                  "101",
                                  "255",
                                  "256",
                                  "999",
                                  "1000",
                                  "1001",
                                  "32768",
                                  "32769",
                                  "65535",
                                  "65536",
                                  "100000",
                                  "100001",
                                  "2592000",
                                  "2592001",
                                  "4294967295",
                                  "4294967296",
                                  "-1",
                                  "-0",
                                  "+1",
                                  "010",
                                  "08",
                                  "0x10",
                                  "0X1f",
                                  "0xg",
                                  "1x",
                                  "x",
                                  "1 x",
                                  "1 # x",
                                  "# 1",
                                  "a,b",
                                  "a b c",
                                  ",",
                                  "1,2",
                                  "1,x",
                                  "x,1",
                                  "1,-2",
                                  "12345678901",
                                  "4294967296,1",
                                  "99999999999999999999",
                                  "03:00:ff:ff:ff:ff",
                                  "03:00:ff:ff:ff:fg",
                                  "03-00-ff-ff-ff-ff",
                                  "03:00:-1:ff:ff:ff",
                                  "3:0:f:f:f:f",
                                  "03:00:ff:ff:ff:fff"};
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        for (const char* const value : values) {
            expect_same(std::string(key.name) + " = " + value + '\n');
            expect_same(std::string(key.name) + '=' + value);
        }
        expect_same(std::string(key.name) + '\n');
        expect_same(std::string(key.name) + " = " + key.initial);
    }
    const std::string name(255, 'a');
    expect_same("ether_port=" + name);
    for (const std::size_t length : {110U, 116U, 117U, 130U, 255U, 400U})
        expect_same("ether_port=" + std::string(length, 'a') + "\ntag_max=1\n");
}

TEST_F(BesideTheLibrary, LinesAreReadTheSame) {
    const std::string texts[] = {"tag_min=9\ntag_max=8\n",
                                 "tag_min=255\n",
                                 "tag_max=8\ntag_min=9\n",
                                 "tag_max=1\ntag_max=x",
                                 "tag_max=x\ntag_max=1",
                                 " # x",
                                 "#",
                                 "##\n#x=y",
                                 "=",
                                 "=x",
                                 " = = ",
                                 "\r\n\r\n",
                                 "\t",
                                 " tag_max\t=\t7\r\n",
                                 "tag_max = 7 = 8",
                                 "tag max = 7",
                                 "tag_max,=7",
                                 "frob",
                                 "frob=1",
                                 "TAG_MAX=1",
                                 "\xEF\xBB\xBFtag_max=1",
                                 std::string("tag_max=7\0x", 11),
                                 std::string("\0tag_mx=7", 9),
                                 std::string("a\0\n", 3)};
    for (const std::string& text : texts)
        expect_same(text);
    for (std::size_t length = 120; length < 140; ++length) {
        expect_same('#' + std::string(length, 'x') + '\n');
        expect_same('#' + std::string(length, ' ') + "tag_max=1");
        expect_same(std::string(length, ' ') + "tag_max=1\n");
        expect_same("tag_max=1" + std::string(length, ' ') + "x\n");
        expect_same("tag_max=1" + std::string(length, ' ') + "#x\ntag_min=1");
    }
}

}  // namespace
}  // namespace qnmctl
