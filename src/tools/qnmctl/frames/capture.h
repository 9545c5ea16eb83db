// Captures what passes the ports of a manager into a pcapng file.
//
// It uses handles of its own, so a manager in another process is not disturbed and need not run.
// Like a manager it also sees what this host sends. The comment of a frame that a manager would
// drop has the reason.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "frames/frame_reading.h"

namespace qnmctl {

// The bytes of a frame that a manager captures.
inline constexpr int default_snaplen = 1024;

struct capture_options {
    std::vector<std::string> ports = {};  // interfaces; the first is port 0
    frame_rules rules = {};
    int snaplen = default_snaplen;
    double seconds = 0;       // 0: without limit
    std::uint64_t count = 0;  // frames; 0: without limit
    std::uint64_t bytes = 0;  // of the file, which may end one frame behind it; 0: without limit
    int signals = -1;         // readable when it is to end; -1: nothing else ends it
    std::function<void(const std::string&)> warn = nullptr;  // of a port's problem, as it comes
};

struct captured_port {
    std::string interface;
    std::uint64_t frames = 0;
    std::uint64_t dropped = 0;         // of them, by a manager
    std::uint64_t kernel_dropped = 0;  // besides them: lost before they were captured
    std::string problem = {};          // why it was not opened, or ended early
};

struct captured {
    std::vector<captured_port> ports = {};
    std::map<std::string, std::uint64_t> reasons = {};  // frames by the name of their drop_reason
    std::string lost = {};                              // why not all of it was written
    bool signalled = false;                             // a signal kept it from being written
};

// Captures into `fd`, the end of a file or a pipe, until a limit is reached or it is to end. A file
// that cannot be written any further ends with its last whole frame. Throws error, also when no
// port can be opened; one that can be is enough.
captured capture_ports(const capture_options& how, int fd, const std::string& name);

// The same into a file, which is made or emptied. "-" is standard output.
captured capture_to_file(const capture_options& how, const std::string& name);

}  // namespace qnmctl
