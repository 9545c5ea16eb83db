// Which name was meant by a misspelt one.
#include "common/nearest.h"

#include <gtest/gtest.h>

namespace tools {
namespace {

TEST(SpellingDistance, CountsEachMistakeOnce) {
    EXPECT_EQ(0U, spelling_distance("tag_max", "TAG_MAX"));
    EXPECT_EQ(1U, spelling_distance("tag_mx", "tag_max"));    // left out
    EXPECT_EQ(1U, spelling_distance("tag_maax", "tag_max"));  // put in
    EXPECT_EQ(1U, spelling_distance("tag_mox", "tag_max"));   // exchanged
    EXPECT_EQ(1U, spelling_distance("tga_max", "tag_max"));   // swapped
    EXPECT_EQ(7U, spelling_distance("", "tag_max"));
    EXPECT_EQ(3U, spelling_distance("abc", ""));
}

TEST(NearestName, IsTheOneThatWasMeant) {
    const std::vector<std::string> names = {"tag_min", "tag_max", "log_level"};
    EXPECT_EQ("tag_max", nearest_name("tag_mxa", names));
    EXPECT_EQ("log_level", nearest_name("loglevel", names));
    EXPECT_EQ("tag_min", nearest_name("TAG_MIN", names));
    EXPECT_FALSE(nearest_name("frobnicate", names));
    EXPECT_FALSE(nearest_name("", names));
    EXPECT_FALSE(nearest_name("x", {"y"}));  // has nothing in common
}

}  // namespace
}  // namespace tools
