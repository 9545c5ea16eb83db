// A progress bar on a terminal, for work that takes long.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qnmctl {

// "eeprom dump [#####...............]  25%, 3 s left"; with the time once it can be estimated.
std::string progress_text(const std::string& label, std::uint64_t done, std::uint64_t total,
                          std::chrono::milliseconds elapsed);

// Draws on standard error, if that is a terminal. The bar is cleared at the end of the scope.
class progress_line {
  public:
    progress_line(std::string label, std::uint64_t total);
    ~progress_line();
    progress_line(const progress_line&) = delete;
    progress_line& operator=(const progress_line&) = delete;

    void show(std::uint64_t done) const;
    void clear() const;

  private:
    std::string label_;
    std::uint64_t total_;
    std::chrono::steady_clock::time_point start_;
    bool visible_;
};

}  // namespace qnmctl
