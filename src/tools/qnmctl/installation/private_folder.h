// A folder for the files of one run, which nobody but this user can look into and which is removed
// at the end.
//
// It lies below $XDG_STATE_HOME/qnmctl or ~/.local/state/qnmctl, and where neither can be used
// below $TMPDIR or /tmp. What an ordinary user could have prepared for root is never taken: each
// folder on the way, and each link, has to be this user's own or root's and closed to others.
//
// A run keeps its folder locked. The lock goes with the process, so a later run finds by it what
// one that was killed has left below the first two, and removes that; below $TMPDIR and /tmp it
// stays, as for whoever cleans them up. Between making a folder and locking it another
// run may have taken it for such a rest; then it is gone, and the next name is tried.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "system/own_folder.h"

namespace qnmctl {

inline constexpr std::size_t longest_dir = 485;  // the longest name that the library takes

// Whether a properties file of log4cxx can have the name: it takes "${" for the beginning of a
// variable, and a control character may end the line.
bool is_plain_name(const std::filesystem::path& name);

enum class at_the_end { removed, kept };

class private_folder {
  public:
    // Throws error when there is no place for it.
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

// Those of runs that have ended without removing them.
void remove_leftovers(const own_folder& from);

}  // namespace qnmctl
