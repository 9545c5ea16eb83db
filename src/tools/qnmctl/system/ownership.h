// Who has a hand in a file or a folder.
#pragma once

#include <sys/stat.h>

namespace qnmctl {

// This user and root.
bool is_own_user(uid_t owner);

// Whether nobody else can change what a file says, or what the names in a folder stand for.
bool is_own(const struct stat& about);

}  // namespace qnmctl
