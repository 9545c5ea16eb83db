// What is said about a word that cannot stand for an operand.
#include "cli/operands.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

constexpr operand even = {.name = "EVEN", .help = "", .least = 2, .most = 8, .step = 2};

TEST(WrongOperand, KeepsToTheLimits) {
    for (const char* const word : {"2", "0x4", "0b110", "8"}) {
        EXPECT_EQ(std::nullopt, wrong_operand(even, word)) << word;
    }
    EXPECT_EQ("EVEN: 0 is below 2", wrong_operand(even, "0"));
    EXPECT_EQ("EVEN: 0xA is above 8", wrong_operand(even, "0xA"));
    EXPECT_EQ("EVEN: 5 is no multiple of 2", wrong_operand(even, "5"));
    EXPECT_EQ("EVEN: \"two\" is no number; write decimal, 0x1F or 0b11",
              wrong_operand(even, "two"));
}

TEST(WrongOperand, TakesWordsOfThirtyTwoBitsWithoutLimits) {
    constexpr operand word = {.name = "VALUE", .help = ""};
    EXPECT_EQ(std::nullopt, wrong_operand(word, "0xFFFFFFFF"));
    EXPECT_EQ("VALUE: 0x100000000 is above 4294967295", wrong_operand(word, "0x100000000"));
}

TEST(WrongOperand, TakesAnyFileWithAName) {
    constexpr operand file = {.name = "FILE", .help = "", .form = operand_form::file};
    EXPECT_EQ(std::nullopt, wrong_operand(file, "image.bin"));
    EXPECT_EQ("FILE: the name of the file is empty", wrong_operand(file, ""));
}

TEST(OperandText, BracketsWhatMayBeLeftOut) {
    EXPECT_EQ("EVEN", operand_text(even));
    EXPECT_EQ("[END]", operand_text({.name = "END", .help = "", .optional = true}));
}

}  // namespace
}  // namespace qnmctl
