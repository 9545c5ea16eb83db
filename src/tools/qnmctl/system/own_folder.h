// Opens folders and files by paths that other users may be able to change.
//
// A path is walked step by step, each folder opened from the one before, so that replacing a name
// meanwhile leads nowhere else. Only links of this user and of root are followed: another user's
// link could lead to what only this user can read or write.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "common/regular_file.h"

namespace qnmctl {

inline constexpr mode_t own_folder_mode = 0700;

// An open folder, and its path without links.
struct own_folder {
    tools::descriptor at = {};
    std::filesystem::path path = "/";
};

// Opens a folder that nobody else can have put there, by its absolute path; nothing when others can
// change it or the path. Missing folders are created if `makes` says so.
std::optional<own_folder> open_own_folder(const std::filesystem::path& name, bool makes);

// Opens a regular file in a folder that may be anybody's. Another user's link on the path is not
// followed and makes the result a link. If links are refused, so does any link that is the file
// itself.
tools::opened_file open_by_own_links(const std::string& name, tools::links how);

}  // namespace qnmctl
