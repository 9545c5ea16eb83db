// Standard output, whole texts at a time, by one thread.
//
// A reader that is gone ends the output for good, and so does a signal while a reader takes
// nothing, so that the command can always end. Afterwards every text is dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qnmctl {

class output {
  public:
    // `signals` becomes readable when the command is to end.
    output(int fd, int signals) : fd_(fd), signals_(signals) {}

    // Returns when the text has been handed over. Throws error when it cannot be written.
    void write(std::string_view text);

    bool closed() const { return closed_; }
    int fd() const { return fd_; }

  private:
    bool wait_writable();

    int fd_;
    int signals_;
    bool closed_ = false;
};

// How texts are to look where they are written to.
struct look {
    bool coloured = false;         // a terminal, and NO_COLOR is not set
    bool unicode = false;          // lines of trees, as the locale says
    std::size_t width = SIZE_MAX;  // of a terminal, or as COLUMNS says; elsewhere without limit
};

look look_of(int fd);

// What a terminal is told before a text that it shall show so, and behind it.
inline constexpr char bold[] = "\033[1m";
std::string in_colour(const std::string& text, const char* colour, bool coloured);

}  // namespace qnmctl
