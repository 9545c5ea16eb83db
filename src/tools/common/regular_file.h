// Opens files that a user names or that others may have put there, if they are regular files.
//
// A FIFO could block for ever, a device may have no end, and opening one may have an effect. A name
// that is itself a symbolic link is followed or refused, as the caller wants; links in the folders
// above it are followed.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "common/descriptor.h"

namespace tools {

enum class links { followed, refused };

enum class file_state { missing, link, no_file, unreadable, readable };

struct opened_file {
    std::string name = {};
    file_state state = file_state::missing;
    std::string problem = {};  // the system's text if it is missing or unreadable, or what else is
                               // wrong with a link
    struct stat about = {};    // when it could be examined
    descriptor file = {};

    std::uint64_t size() const { return static_cast<std::uint64_t>(about.st_size); }
};

opened_file open_regular(const std::string& name, links how);

// By its name in an open folder; a link there is not followed. `shown` is the name in messages.
opened_file open_regular_at(int folder, const std::string& there, const std::string& name);

// Why it cannot be read, in one sentence.
std::string refusal_text(const opened_file& opened);

// Up to `limit` bytes from `start` on; the file may grow meanwhile.
std::string read_part(const opened_file& opened, std::uint64_t start, std::size_t limit);
std::string read_from(const opened_file& opened, std::uint64_t start);

// ---- Whole files: configurations, scenarios, images ---------------------------------------------

struct file_problem {
    bool wrong_file = false;  // it exists, but is not a regular file, or is too long
    std::string text;         // "it is a FIFO, not a regular file", or the system's text
};

// The contents, or why they cannot be had.
using file_contents = std::variant<std::string, file_problem>;

// Symbolic links are followed. A file that is longer than the limit is the wrong file.
file_contents read_regular_file(const std::string& name, std::size_t limit);

file_contents contents_of(const opened_file& file, std::size_t limit);

// What kind of file it is, if not a regular one: "a FIFO"; else empty.
std::string strange_kind(unsigned mode);

}  // namespace tools
