// Files that others name, or may have put there: only regular ones are opened.
//
// So nothing is waited for and no device is touched. A FIFO has no end, a device may never give
// one. Where the name itself is a symbolic link, it can be left alone; links in the folders above
// are followed.
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
    std::string problem = {};  // what the system says of a missing or unreadable one, or what is
                               // wrong with a link beyond being one
    struct stat about = {};    // of one that could be looked at
    descriptor file = {};

    std::uint64_t size() const { return static_cast<std::uint64_t>(about.st_size); }
};

opened_file open_regular(const std::string& name, links how);

// By its name in an open folder, and not what a link there stands for; told by another name.
opened_file open_regular_at(int folder, const std::string& there, const std::string& name);

// Why it is not readable, in one sentence.
std::string refusal_text(const opened_file& of);

// Up to `limit` bytes from `start` on, and all there is from there on, though it grows meanwhile.
std::string read_part(const opened_file& of, std::uint64_t start, std::size_t limit);
std::string read_from(const opened_file& of, std::uint64_t start);

// ---- Whole files: configurations, scenarios, images ---------------------------------------------

struct file_problem {
    bool wrong_file = false;  // it can be looked at, and is none of that kind or too long
    std::string text;         // "it is a FIFO, not a regular file", or what the system says
};

// The contents, or why there are none.
using file_contents = std::variant<std::string, file_problem>;

// Also one that symbolic links lead to. What is far too long is the wrong file.
file_contents read_regular_file(const std::string& name, std::size_t limit);

file_contents contents_of(const opened_file& file, std::size_t limit);

// What a file is that is none: "a FIFO"; empty for a regular one.
std::string strange_kind(unsigned mode);

}  // namespace tools
