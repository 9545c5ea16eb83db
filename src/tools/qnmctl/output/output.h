// Writes whole texts to standard output, from one thread.
//
// Output ends for good when its reader has gone, or when a signal arrives while the reader takes
// nothing, so that the command can always end. Later texts are dropped; problem() says so, and the
// exit status shows it.
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

    // Returns when the text was written or dropped.
    void write(std::string_view text) { to_.write(text); }

    // To be called when the reader was found to be gone without writing.
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

// How texts should look on the output.
struct look {
    bool coloured = false;         // a terminal, and NO_COLOR is not set
    bool unicode = false;          // the locale allows line drawing characters
    std::size_t width = SIZE_MAX;  // of the terminal, or COLUMNS; otherwise unlimited
};

look look_of(int fd);

// Control sequences before and after a text that is shown so.
inline constexpr char bold[] = "\033[1m";
inline constexpr char red[] = "\033[31m";
inline constexpr char green[] = "\033[32m";
inline constexpr char yellow[] = "\033[33m";
std::string in_colour(const std::string& text, const char* colour, bool coloured);

}  // namespace qnmctl
