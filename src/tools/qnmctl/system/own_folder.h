// Ways through folders that others may have a hand in.
//
// A folder is reached step by step, each from the one before, so nothing that is put in the place
// of a name meanwhile leads elsewhere. Links are followed by their own names, and only those of
// this user and of root: what another user has linked, he could have linked to what only this one
// can read or write.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "common/regular_file.h"

namespace qnmctl {

inline constexpr mode_t own_folder_mode = 0700;

// A folder by its name without links.
struct own_folder {
    tools::descriptor at = {};
    std::filesystem::path path = "/";
};

// One that nobody else can have put there, by its absolute name; nothing where others have a hand
// in it. Missing ones are made when asked for.
std::optional<own_folder> open_own_folder(const std::filesystem::path& name, bool makes);

// A regular file in a folder that may be anybody's. A link of another user on the way is none, so
// it is told as a link; where links are refused, a link as the file itself is one, whose ever it
// is.
tools::opened_file open_by_own_links(const std::string& name, tools::links how);

}  // namespace qnmctl
