// What a log has got since a moment. A log that is full is renamed to .1, and that one to .2.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace qnmctl {

class log_mark {
  public:
    log_mark() = default;
    explicit log_mark(const std::filesystem::path& log);  // its end now

    // Throws error when the beginning of it has been rotated away.
    std::string text_since() const;

  private:
    std::filesystem::path log_ = {};
    bool is_there_ = false;
    dev_t device_ = 0;
    ino_t file_ = 0;
    std::uint64_t end_ = 0;
};

}  // namespace qnmctl
