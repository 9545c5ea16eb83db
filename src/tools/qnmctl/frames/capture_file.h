// Reads capture files: pcap and pcapng, of any program and byte order.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/descriptor.h"
#include "frames/frame_reading.h"
#include "frames/pcapng.h"

struct pcap;

namespace qnmctl {

// The interfaces of the frames of a pcapng file, one after the other. libpcap reads the frames but
// does not provide them. Files of another kind and broken files have none.
class frame_interfaces {
  public:
    // Of a file that can be read at any place; of another descriptor, or -1, there are no names.
    // The descriptor's own place stays where it is.
    explicit frame_interfaces(int fd) : fd_(fd) {}

    // Empty where it has no name.
    std::string next();

  private:
    bool read(char* bytes, std::size_t size);
    bool fill();
    bool add_interface(const char* head, std::size_t length);
    std::string name_of(std::uint32_t index) const;

    int fd_;
    std::uint64_t at_ = 0;     // in the file
    std::string buffer_ = {};  // what has been read of it
    std::uint64_t begin_ = 0;  // of the buffer, in the file
    pcapng::byte_order order_ = {};
    std::vector<std::string> names_ = {};  // those of the section
};

struct captured_frame {
    std::uint64_t number;      // from 1
    std::int64_t nanoseconds;  // since the epoch
    std::string interface;     // empty: unknown
    frame_bytes bytes;         // good until the next one
};

class capture_file {
  public:
    // "-" is standard input. Throws error when it is no capture of Ethernet frames. `signals` is
    // that of end_signals.h: it ends every wait, and the capture with it.
    explicit capture_file(const std::string& name, int signals = -1);
    capture_file(const capture_file&) = delete;  // libpcap knows where the source is
    capture_file& operator=(const capture_file&) = delete;

    // Nothing at the end, or when a signal came. Throws error where the file ends within a frame,
    // or makes no sense.
    std::optional<captured_frame> next();

  private:
    struct closing {
        void operator()(pcap* handle) const;
    };
    struct source {
        int fd;
        int signals;
    };
    static long read_some(void* from, char* bytes, std::size_t size);
    void open();
    bool is_signalled() const;

    std::string name_;
    tools::descriptor file_;  // none is open where it is standard input
    source source_;
    frame_interfaces interfaces_;
    std::unique_ptr<pcap, closing> handle_;  // reads from the source
    std::uint64_t number_ = 0;
};

}  // namespace qnmctl
