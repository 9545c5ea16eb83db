// memory_file.h - an input as a file that has a name, for code that opens files itself.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz.h"

namespace fuzz {

// Exists in memory only; the name is valid as long as the object.
class memory_file {
  public:
    explicit memory_file(bytes contents) : fd_(memfd_create("input", MFD_CLOEXEC)) {
        require(fd_ >= 0, "a file can be made in memory");
        const ssize_t written = write(fd_, contents.data(), contents.size());
        require(written == static_cast<ssize_t>(contents.size()), "the input fits into its file");
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~memory_file() { close(fd_); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    const std::string& path() const { return path_; }

  private:
    int fd_;
    std::string path_;
};

}  // namespace fuzz
