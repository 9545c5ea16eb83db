// Images of registers and EEPROMs in files.
//
// A file holds the bytes in ascending order of address, so each word starts with its least
// significant byte.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/descriptor.h"

namespace qnmctl {

using word_list = std::vector<std::uint32_t>;

inline constexpr std::uint32_t word_bytes = 4;

std::string to_bytes(const word_list& words);
word_list from_bytes(const std::string& bytes);  // as many as are whole

// A whole regular file. Throws error when it cannot be read, is none, or is longer than `limit`.
std::string read_file(const std::string& name, std::size_t limit);

// An EEPROM image: 1 to `limit` bytes, in whole words. Throws error.
word_list read_image(const std::string& name, std::size_t limit);

// A file that appears complete or not at all; until then an older one stays as it was. It is opened
// before the work that produces its contents, so an unwritable place is reported at once.
class new_file {
  public:
    struct rules {
        std::optional<unsigned> mode = {};  // not given: of an older file, or as usual
        bool replaces = true;               // an older file, which otherwise is an error
    };
    explicit new_file(const std::string& name) : new_file(name, rules{}) {}  // throws error
    new_file(const std::string& name, const rules& by);                      // likewise
    ~new_file();
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    // Writes it and puts it in its place. Throws error.
    void commit(const std::string& contents);

  private:
    void put_in_place() const;
    [[noreturn]] void fail(int code) const;

    std::filesystem::path target_;
    std::string temporary_;
    bool replaces_;
    tools::descriptor file_;
};

struct difference {
    std::uint32_t addr;
    std::uint32_t before;
    std::uint32_t after;
};

// What has to be written so that `now` becomes `wanted`, which is not the longer one.
std::vector<difference> differences(const word_list& now, const word_list& wanted);

}  // namespace qnmctl
