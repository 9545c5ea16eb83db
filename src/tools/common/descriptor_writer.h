// Bytes to a descriptor, of which a signal can end every wait.
//
// A pipe or a terminal that nobody reads takes no more at some time, and a write to it would then
// block, with the signals blocked. So these get a descriptor of their own that does not block: the
// given one may be shared with other programs, which would not expect that of it.
#pragma once

#include <string>
#include <string_view>

namespace tools {

enum class output_end { none, reader_gone, signalled, failed };

// Used by one thread at a time. What follows an end is dropped.
class descriptor_writer {
  public:
    // `signals` is that of end_signals.h.
    descriptor_writer(int fd, int signals);
    ~descriptor_writer();
    descriptor_writer(const descriptor_writer&) = delete;
    descriptor_writer& operator=(const descriptor_writer&) = delete;

    // How many bytes have been handed over: all of them, unless it has ended.
    std::size_t write(std::string_view bytes);

    // Tells it that the reader has gone, which a wait elsewhere has found.
    void end(output_end why) { end_ = why; }

    output_end ended() const { return end_; }
    int code() const { return code_; }  // errno of one that failed

  private:
    long write_some(std::string_view bytes) const;
    void take_error(int code);

    int fd_;
    int signals_;
    int own_ = -1;  // does not block
    bool socket_ = false;
    bool regular_ = false;
    output_end end_ = output_end::none;
    int code_ = 0;
};

// Why `name` has not got everything: "cannot write to NAME: no space left on device". Empty where
// it has.
std::string output_problem(const descriptor_writer& to, std::string_view name);

}  // namespace tools
