// Tells who can change a file or a folder.
#pragma once

#include <sys/stat.h>

namespace qnmctl {

// Whether it is this user or root.
bool is_own_user(uid_t owner);

// Whether nobody else can change the file, or replace entries of the folder.
bool is_own(const struct stat& about);

}  // namespace qnmctl
