// Captures in files: pcap and pcapng, whatever program and host has written them.
#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "frame_reading.h"

struct pcap;

namespace qnmctl {

// The interface of each frame of a pcapng file, one after the other. libpcap, which reads the
// frames, does not tell it. A file of another kind, or one that makes no sense, has none.
class frame_interfaces {
  public:
    explicit frame_interfaces(const std::string& file) : file_(file, std::ios::binary) {}

    // Empty where it has no name.
    std::string next();

  private:
    std::uint32_t number(const char* bytes, std::size_t size) const;
    bool read(char* bytes, std::size_t size);
    bool start_section(std::uint32_t& length);
    void add_interface(const std::string& body);
    std::string name_of(std::uint32_t index) const;

    std::ifstream file_;
    bool swapped_ = false;
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
    // "-" is standard input. Throws error when it is no capture of Ethernet frames.
    explicit capture_file(const std::string& name);

    // Nothing at the end. Throws error where the file ends within a frame, or makes no sense.
    std::optional<captured_frame> next();

  private:
    struct closing {
        void operator()(pcap* handle) const;
    };

    std::string name_;
    frame_interfaces interfaces_;
    std::unique_ptr<pcap, closing> handle_;
    std::uint64_t number_ = 0;
};

}  // namespace qnmctl
