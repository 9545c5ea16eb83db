// The progress line of a long task.
#include "output/progress.h"

#include <gtest/gtest.h>

namespace qnmctl {
namespace {

using std::chrono::milliseconds;

TEST(ProgressText, HasABarAndAPercentage) {
    EXPECT_EQ("dump [..............................]   0%",
              progress_text("dump", 0, 2048, milliseconds(0)));
    EXPECT_EQ("dump [###############...............]  50%",
              progress_text("dump", 1024, 2048, milliseconds(500)));
    EXPECT_EQ("dump [##############################] 100%",
              progress_text("dump", 2048, 2048, milliseconds(999)));
}

TEST(ProgressText, TellsTheTimeLeftOnceItCanBeEstimated) {
    EXPECT_EQ("dump [#######.......................]  25%, 6 s left",
              progress_text("dump", 512, 2048, milliseconds(2000)));
    EXPECT_EQ("dump [..............................]   0%",
              progress_text("dump", 0, 2048, milliseconds(60'000)));
}

TEST(ProgressText, RoundsTheTimeUp) {
    EXPECT_EQ("dump [#############################.]  99%, 1 s left",
              progress_text("dump", 2040, 2048, milliseconds(2000)));
}

}  // namespace
}  // namespace qnmctl
