// Tests of the check of how deeply texts nest.
#include "nesting.h"

#include <gtest/gtest.h>

#include <string>

namespace cardsim {
namespace {

std::string repeated(const std::string& part, std::size_t count) {
    std::string text;
    for (; count > 0; --count)
        text += part;
    return text;
}

// A key with this many parts, "a.a.a".
std::string key_of(std::size_t parts, const std::string& dot = ".") {
    return repeated("a" + dot, parts - 1) + "a";
}

std::size_t line_of(const std::string& text) {
    return line_nested_too_deep(text).value_or(0);
}

TEST(Nesting, OfKeysIsThatOfTheirParts) {
    EXPECT_EQ(0U, line_of(key_of(nesting_limit) + " = 1\n"));
    EXPECT_EQ(1U, line_of(key_of(nesting_limit + 1) + " = 1\n"));
    EXPECT_EQ(1U, line_of(key_of(nesting_limit + 1, " .\t") + " = 1\n"));
    EXPECT_EQ(1U, line_of(repeated("\"a.b\".'c'.", nesting_limit) + "d = 1"));
    EXPECT_EQ(2U, line_of("b = 1\n[" + key_of(nesting_limit + 1) + "]\n"));
    EXPECT_EQ(3U, line_of("b = 1\n\n[[" + key_of(nesting_limit + 1) + "]]\n"));
    EXPECT_EQ(1U, line_of("b = {c = 1, " + key_of(nesting_limit + 1) + " = 1}\n"));
}

TEST(Nesting, OfValuesIsThatOfTheirBrackets) {
    EXPECT_EQ(0U, line_of("b = " + repeated("[", nesting_limit) + repeated("]", nesting_limit)));
    EXPECT_EQ(1U, line_of("b = " + repeated("[", nesting_limit + 1)));
    EXPECT_EQ(2U, line_of("\nb = " + repeated("{c=", nesting_limit + 1)));
    EXPECT_EQ(2U, line_of("b = [\n" + repeated("[{c=", nesting_limit / 2)));
}

TEST(Nesting, IsThatOfOneKeyOrValue) {
    EXPECT_EQ(0U, line_of(repeated("a.b = 1.5\n", 1000)));
    EXPECT_EQ(0U, line_of("b = [" + repeated("1.5, ", 1000) + "]\n"));
    EXPECT_EQ(0U, line_of(repeated("[[card]]\n[card.registers]\nb = [[1], {c = 2}]\n", 1000)));
}

TEST(Nesting, IsNotInStringsAndComments) {
    const std::string deep = key_of(nesting_limit + 1) + repeated("[", nesting_limit + 1);
    EXPECT_EQ(0U, line_of("b = 1 # " + deep + "\n"));
    EXPECT_EQ(0U, line_of("b = \"" + deep + "\"\n"));
    EXPECT_EQ(0U, line_of(R"(b = "\")" + deep + "\"\n"));
    EXPECT_EQ(0U, line_of("b = '" + deep + "\\'\n"));
    EXPECT_EQ(0U, line_of(R"(b = """ "")" + deep + R"(\"""" )" + '\n'));
    EXPECT_EQ(0U, line_of("b = '''\n'" + deep + "\n'''\n"));
}

// After the end of a string, wherever it is, dots and brackets count again.
TEST(Nesting, IsSeenBehindStrings) {
    const std::string deep = "\n" + key_of(nesting_limit + 1) + " = 1";
    for (const char* const text :
         {R"("")", R"('')", R"("a")", R"("\\")", R"('\')", R"("""a""")", R"("""a""""")",
          R"("""""")", R"('''a''''')", R"('''''')", R"("""\"""")", R"(1 # ")", R"(["a", '#'])"}) {
        EXPECT_EQ(2U, line_of("b = " + std::string(text) + deep)) << text;
    }
}

}  // namespace
}  // namespace cardsim
