// Words of unknown origin in lines of our own.
#include "output/foreign_words.h"

#include <gtest/gtest.h>

#include <string>

namespace qnmctl {
namespace {

TEST(Printable, HasNothingThatATerminalObeys) {
    EXPECT_EQ("\\x1b[31mred\\x0a\\x9b\xC3\xA4", printable("\033[31mred\n\x9b\xC3\xA4"));
    EXPECT_EQ("\"a b\"", in_quotes("a b"));
    EXPECT_EQ(63U, printable(std::string(1000, 'x')).size());
    EXPECT_EQ(std::string(59, 'x') + "...", printable(std::string(59, 'x') + "\xC3\xA4 and more"));
}

}  // namespace
}  // namespace qnmctl
