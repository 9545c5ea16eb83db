// The installation directory that the library is started with: the operator's, or a temporary one.
//
// A temporary one is made below $TMPDIR or /tmp and removed with its record, so on every way out
// that unwinds, signals included, since those arrive as input.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "command_line.h"

namespace qnmctl {

inline constexpr char default_dir[] = "/opt/tarvo/qnm";
inline constexpr char config_name[] = "conf/qnm.conf";
inline constexpr char properties_name[] = "conf/qnm_log4c.properties";

class temporary_dir {
  public:
    temporary_dir();
    ~temporary_dir();
    temporary_dir(const temporary_dir&) = delete;
    temporary_dir& operator=(const temporary_dir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

struct installation {
    std::optional<temporary_dir> temporary;  // not there: the directory is the operator's
    std::filesystem::path dir;
    std::filesystem::path log;    // of a temporary one: the library's log
    std::filesystem::path stats;  // of a temporary one: the status dumps

    std::filesystem::path config() const { return dir / config_name; }
    std::filesystem::path properties() const { return dir / properties_name; }
};

// What is wrong with ports and keys by themselves, before anything is tried.
std::optional<std::string> wrong_settings(const settings& given);

// The contents of the two files of a temporary directory.
std::string config_text(const settings& given);
std::string properties_text(const installation& of, bool whole_log);

// Into `made`, because a temporary directory stays where it is. Throws error.
void install(const settings& given, installation& made);

// A temporary copy of an installation: the same configuration, but a log that can be read.
void install_copy(const installation& original, installation& made);

}  // namespace qnmctl
