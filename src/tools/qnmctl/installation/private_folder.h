// A folder for the files of one run. Only this user can look into it, and it is removed at the end.
//
// It lies below $XDG_STATE_HOME/qnmctl or ~/.local/state/qnmctl, or, where neither can be used or
// has room, below $TMPDIR or /tmp. So that nobody can set a trap for root, each folder and each
// link on the way must belong to this user or root and must not be writable by others.
//
// A run keeps its folder locked. The lock ends with the process, so a later run recognises by it
// what a killed run has left below the first two places, and removes it. Below $TMPDIR and /tmp
// that is left to whatever cleans these up. A folder that was created but not yet locked may be
// taken for such a leftover by another run; then the next name is tried.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "system/own_folder.h"

namespace qnmctl {

inline constexpr std::size_t longest_dir =
    485;  // the longest directory name that the library accepts

// Whether a log4cxx properties file can contain the name: "${" would begin a variable, a control
// character may end the line, and characters outside ASCII are encoded by the locale.
bool is_plain_name(const std::filesystem::path& name);

enum class at_the_end { removed, kept };

class private_folder {
  public:
    // Throws error when no place can be used.
    explicit private_folder(at_the_end what = at_the_end::removed);
    ~private_folder();
    private_folder(const private_folder&) = delete;
    private_folder& operator=(const private_folder&) = delete;

    const std::filesystem::path& path() const { return path_; }

  private:
    bool make_in(const std::optional<own_folder>& parent, const std::string& start);
    bool make(const own_folder& parent, const std::string& name);

    at_the_end what_;
    tools::descriptor lock_;
    std::filesystem::path path_;
};

// Removes the folders of runs that ended without doing so.
void remove_leftovers(const own_folder& from);

}  // namespace qnmctl
