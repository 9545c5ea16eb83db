// Standard output, whole texts at a time, by one thread.
//
// A reader that is gone ends the output for good, and so does a signal while a reader takes
// nothing, so that the command can always end. Afterwards every text is dropped.
#pragma once

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

// Whether texts may be coloured: a terminal, and NO_COLOR is not set.
bool wants_colour(int fd);

}  // namespace qnmctl
