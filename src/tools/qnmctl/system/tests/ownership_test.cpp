// Which files and folders other users can change.
#include "system/ownership.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace qnmctl {
namespace {

struct stat about(uid_t owner, gid_t group, mode_t mode) {
    struct stat made {};
    made.st_uid = owner;
    made.st_gid = group;
    made.st_mode = mode;
    return made;
}

TEST(IsOwn, UnlessOthersHaveAHandInIt) {
    const uid_t self = geteuid();
    const gid_t group = getegid();
    EXPECT_TRUE(is_own(about(self, group, S_IFREG | 0644)));
    EXPECT_TRUE(is_own(about(0, 0, S_IFREG | 0644)));
    EXPECT_FALSE(is_own(about(self + 12345, group, S_IFREG | 0600)));
    EXPECT_FALSE(is_own(about(self, group, S_IFREG | 0646)));
    EXPECT_FALSE(is_own(about(self, group + 12345, S_IFREG | 0664)));
    EXPECT_EQ(self != 0, is_own(about(self, group, S_IFREG | 0664)));
}

TEST(IsOwn, OfFoldersThatAllWriteToOnlyStickyOnes) {
    EXPECT_TRUE(is_own(about(0, 0, S_IFDIR | 01777)));
    EXPECT_FALSE(is_own(about(0, 0, S_IFDIR | 0777)));
    EXPECT_FALSE(is_own(about(geteuid() + 12345, 0, S_IFDIR | 01777)));
}

}  // namespace
}  // namespace qnmctl
