// Judges owners, modes and the sticky bit.
#include "system/ownership.h"

#include <unistd.h>

namespace qnmctl {

bool is_own_user(uid_t owner) {
    if (owner == 0 || owner == geteuid()) return true;
    // In a user namespace root may have no number. The owner of the root folder can change
    // anything, so
    // counts as root.
    struct stat root {};
    return stat("/", &root) == 0 && owner == root.st_uid;
}

// An ordinary user often has a private group, so write permission for that is harmless. In a folder
// with the sticky bit only the owners of the folder and of the file can replace the file.
bool is_own(const struct stat& about) {
    if (!is_own_user(about.st_uid)) return false;
    if (S_ISDIR(about.st_mode) && (about.st_mode & S_ISVTX) != 0) return true;
    if ((about.st_mode & S_IWOTH) != 0) return false;
    return (about.st_mode & S_IWGRP) == 0 || (geteuid() != 0 && about.st_gid == getegid());
}

}  // namespace qnmctl
