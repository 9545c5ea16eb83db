// Standard output, whole texts at a time, by one thread.
//
// A reader that is gone ends the output for good, and so does a signal while a reader takes
// nothing, so that the command can always end. Afterwards every text is dropped, and problem() says
// so: the exit status is another one then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/descriptor_writer.h"

namespace qnmctl {

class output {
  public:
    // `signals` becomes readable when the command is to end.
    output(int fd, int signals) : fd_(fd), to_(fd, signals) {}

    // Returns when the text has been handed over, or will never be.
    void write(std::string_view text) { to_.write(text); }

    // That its reader has gone, which was seen without writing.
    void end_without_reader() { to_.end(tools::output_end::reader_gone); }

    bool closed() const { return to_.ended() != tools::output_end::none; }
    bool signalled() const { return to_.ended() == tools::output_end::signalled; }
    int fd() const { return fd_; }

    // Why not everything was written; empty when it was.
    std::string problem() const { return tools::output_problem(to_, "standard output"); }

  private:
    int fd_;
    tools::descriptor_writer to_;
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
inline constexpr char red[] = "\033[31m";
inline constexpr char yellow[] = "\033[33m";
std::string in_colour(const std::string& text, const char* colour, bool coloured);

}  // namespace qnmctl
