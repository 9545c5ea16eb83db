// Reads what was added to a log since a mark. A full log is renamed to .1, and that one to .2.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace qnmctl {

class log_mark {
  public:
    log_mark() = default;
    explicit log_mark(const std::filesystem::path& log);  // marks its present end

    // Throws error when the mark was rotated away.
    std::string text_since() const;

  private:
    std::filesystem::path log_ = {};
    bool is_there_ = false;
    dev_t device_ = 0;
    ino_t file_ = 0;
    std::uint64_t end_ = 0;
};

}  // namespace qnmctl
