// Tables that fit the width of the terminal.
#include "output/table.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

const table sample = {.columns = {{.heading = "NAME"},
                                  {.heading = "SIZE", .right = true, .spare = 2},
                                  {.heading = "KIND", .width = 6, .spare = 1},
                                  {.heading = "TEXT"}},
                      .rows = {{"a", "12345", "x", "one two"}, {"bbbbb", "1", "y", "äöü"}}};

TEST(TableText, HasColumnsAsWideAsTheyNeed) {
    EXPECT_EQ(
        "NAME   SIZE KIND   TEXT\n"
        "a     12345 x      one two\n"
        "bbbbb     1 y      äöü\n",
        table_text(sample, {}));
}

TEST(TableText, FitsWithoutTheColumnsThatAreWantedLeast) {
    EXPECT_EQ(table_text(sample, {}), table_text(sample, {.width = 26}));
    EXPECT_EQ(
        "NAME  KIND   TEXT\n"
        "a     x      one two\n"
        "bbbbb y      äöü\n",
        table_text(sample, {.width = 25}));
    EXPECT_EQ(
        "NAME  TEXT\n"
        "a     one two\n"
        "bbbbb äöü\n",
        table_text(sample, {.width = 19}));
}

TEST(TableText, IsCutWhereNothingCanBeLeftOut) {
    EXPECT_EQ(
        "NAME  TE\n"
        "a     on\n"
        "bbbbb äö\n",
        table_text(sample, {.width = 8}));
}

TEST(TableText, HasItsHeadingInBoldWhereThereIsColour) {
    EXPECT_EQ("\033[1mNAME\033[0m\nx\n",
              table_text({.columns = {{.heading = "NAME"}}, .rows = {{"x"}}}, {.coloured = true}));
}

TEST(WidthOf, CountsCharacters) {
    EXPECT_EQ(5U, width_of("├─ aä"));
}

}  // namespace
}  // namespace qnmctl
