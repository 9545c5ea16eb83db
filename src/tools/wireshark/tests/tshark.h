// tshark.h - the fields that tshark reads from a capture with the dissector.
//
// Only the dissector of the source tree is loaded, whatever is installed or configured.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "capture.h"

// Makes it readable for every user, because tshark may run as another user than the test.
void share(const std::filesystem::path& made);

// An empty directory that everybody can read; removed with its contents.
class scratch_directory {
  public:
    scratch_directory();
    ~scratch_directory();
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

namespace tshark {

using words = std::vector<std::string>;

// The values of a frame's fields, by name without "quillnet.": several, in their order, where a
// field occurs more than once, and none where it does not occur. Numbers are decimal. k_note has
// the texts of all notes.
using row = std::map<std::string, words>;
constexpr char k_note[] = "note";

// A value as tshark prints it in a row.
std::string number(std::uint64_t value);
std::string mac(std::uint64_t value);
std::string bytes(std::span<const std::uint8_t> value);
std::string duration(std::uint64_t nanoseconds);

// What tshark prints. Throws with its message when the command fails.
std::string run(const words& arguments);

// A row per frame of all fields that the dissector has. A failure of the dissector throws.
std::vector<row> read(const capture& taken, const words& options = {});

// The dissector's fields and notes, without "quillnet.".
const words& names();

}  // namespace tshark
