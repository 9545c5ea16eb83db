// What a terminal would obey is made visible.
#include "common/visible.h"

#include <gtest/gtest.h>

#include <string>

namespace tools {
namespace {

TEST(Visible, ShowsControlCharactersAsBytes) {
    EXPECT_EQ("\\x1b[31mred\\x07\\x0d", visible("\033[31mred\a\r"));
    EXPECT_EQ("\\x7f", visible("\x7F"));
    EXPECT_EQ("a\\x00b", visible(std::string_view("a\0b", 3)));
}

TEST(Visible, ShowsControlCharactersOfUtf8) {
    EXPECT_EQ("\\xc2\\x9b31m", visible("\xC2\x9B"
                                       "31m"));
    EXPECT_EQ("\\xc2\\x80\\xc2\\x9f\xC2\xA0", visible("\xC2\x80\xC2\x9F\xC2\xA0"));
}

TEST(Visible, ShowsBytesThatAreNoUtf8) {
    EXPECT_EQ("\\x9b", visible("\x9B"));                             // C1 of one byte
    EXPECT_EQ("\\xffx", visible("\xFFx"));                           // never in UTF-8
    EXPECT_EQ("\\xc3", visible("\xC3"));                             // cut
    EXPECT_EQ("\\xc3x", visible("\xC3x"));                           // likewise
    EXPECT_EQ("\\xc0\\x9b", visible("\xC0\x9B"));                    // longer than needed
    EXPECT_EQ("\\xe0\\x82\\x9b", visible("\xE0\x82\x9B"));           // likewise
    EXPECT_EQ("\\xed\\xa0\\x80", visible("\xED\xA0\x80"));           // half of a pair
    EXPECT_EQ("\\xf4\\x90\\x80\\x80", visible("\xF4\x90\x80\x80"));  // behind the last one
}

TEST(Visible, KeepsTextOfAnyLanguage) {
    for (const char* const text : {"plain ~", "\xC3\xA4", "\xE2\x94\x9C\xE2\x94\x80",
                                   "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80", "\\x1b"}) {
        EXPECT_EQ(text, visible(text));
        EXPECT_EQ(text, visible_line(text));
    }
}

TEST(Visible, KeepsLinesAndTabsButInOneLine) {
    EXPECT_EQ("a\n\tb\n", visible("a\n\tb\n"));
    EXPECT_EQ("a\\x0a\\x09b", visible_line("a\n\tb"));
}

TEST(Visible, ChangesNothingTheSecondTime) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    EXPECT_EQ(visible(all), visible(visible(all)));
    EXPECT_EQ(visible_line(all), visible_line(visible(all)));
    for (const char c : visible_line(all))
        EXPECT_GE(c, ' ');
}

// The last test, because marks stay.
TEST(VisibleOwn, SequencesPassAndOthersDoNot) {
    EXPECT_EQ("\033[1m", own("\033[1m"));
    EXPECT_EQ("\\x1b[1m", visible(own("\033[1m")));
    mark_own_sequences();
    EXPECT_EQ("\033[1mNAME\033[0m\n", visible(own("\033[1m") + "NAME" + own("\033[0m") + '\n'));
    EXPECT_EQ("\\x1b[1m\\x1b", visible("\033[1m\033"));
    EXPECT_EQ("", own(""));
    std::string cut = own("\033[1m");
    cut.pop_back();
    EXPECT_EQ(std::string::npos, visible(cut).find('\033'));
}

}  // namespace
}  // namespace tools
