// Lines of input that arrives in pieces.
#include "common/input_lines.h"

#include <gtest/gtest.h>

namespace tools {
namespace {

TEST(InputLines, AreCompleteWithTheirNewline) {
    input_lines input;
    input.add("sh");
    EXPECT_FALSE(input.next());
    input.add("ow\n\nlist\nqu");
    EXPECT_EQ("show", input.next()->text);
    EXPECT_EQ("", input.next()->text);
    EXPECT_EQ("list", input.next()->text);
    EXPECT_FALSE(input.next());
    input.end();
    EXPECT_EQ("qu", input.next()->text);
    input.end();
    EXPECT_FALSE(input.next());
}

TEST(InputLines, AreCutAtALimit) {
    input_lines input;
    const std::string piece(input_lines::limit, 'x');
    input.add(piece);
    input.add("\n");
    EXPECT_FALSE(input.next()->is_cut);
    for (int count = 0; count < 3; ++count)
        input.add(piece);
    input.add("\nlist\n");
    const input_line cut = *input.next();
    EXPECT_TRUE(cut.is_cut);
    EXPECT_EQ(piece, cut.text);
    const input_line after = *input.next();
    EXPECT_FALSE(after.is_cut);
    EXPECT_EQ("list", after.text);
}

}  // namespace
}  // namespace tools
