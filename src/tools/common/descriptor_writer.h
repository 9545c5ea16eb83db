// Writes bytes to a descriptor; a signal ends every wait.
//
// A pipe or a terminal that nobody reads fills up, and a write to it would then block, with the
// signals blocked. So these get a non-blocking descriptor of their own. The given one is left as it
// is, because it may be shared with programs that do not expect it to change.
#pragma once

#include <string>
#include <string_view>

#include "common/descriptor.h"

namespace tools {

enum class output_end { none, reader_gone, signalled, failed };

// For one thread at a time. Once writing has ended, further bytes are dropped.
class descriptor_writer {
  public:
    // `signals` is the descriptor of end_signals.h.
    descriptor_writer(int fd, int signals);

    // Returns how many bytes were written: all of them, unless writing has ended.
    std::size_t write(std::string_view bytes);

    // To be called when a wait elsewhere has found that the reader has gone.
    void end(output_end why) { end_ = why; }

    output_end ended() const { return end_; }
    int code() const { return code_; }  // errno of one that failed

  private:
    long write_some(std::string_view bytes) const;
    void take_error(int code);

    int fd_;
    int signals_;
    descriptor own_ = {};  // non-blocking
    bool socket_ = false;
    bool regular_ = false;
    output_end end_ = output_end::none;
    int code_ = 0;
};

// Why not everything was written to `name`: "cannot write to NAME: no space left on device". Empty
// when everything was.
std::string output_problem(const descriptor_writer& to, std::string_view name);

}  // namespace tools
