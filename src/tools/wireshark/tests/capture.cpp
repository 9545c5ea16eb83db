// Captures in the form of libpcap with times in nanoseconds, in the byte order of the host. (Of
// libpcap itself these tests have only the library's stand-in.)
#include "capture.h"

#include <fstream>
#include <stdexcept>

namespace {

constexpr std::uint64_t start = 1'700'000'000'000'000'000;
constexpr std::uint64_t second = 1'000'000'000;

struct file_header {
    std::uint32_t magic = 0xA1B23C4D;
    std::uint16_t major = 2;
    std::uint16_t minor = 4;
    std::uint32_t zone = 0;
    std::uint32_t accuracy = 0;
    std::uint32_t snapshot_length = 65535;
    std::uint32_t link_type;
};
static_assert(sizeof(file_header) == 24);

struct frame_header {
    std::uint32_t seconds;
    std::uint32_t nanoseconds;
    std::uint32_t captured_length;
    std::uint32_t wire_length;
};
static_assert(sizeof(frame_header) == 16);

template <typename Record>
void put(std::ofstream& out, const Record& record) {
    out.write(reinterpret_cast<const char*>(&record), sizeof record);
}

}  // namespace

std::size_t capture::add(std::span<const std::uint8_t> frame,
                         std::optional<std::size_t> wire_length) {
    const std::uint64_t number = frames_.size() + 1;
    const std::uint64_t last = frames_.empty() ? start : frames_.back().time;
    frames_.push_back({.time = last + number * 1'000'017,
                       .wire_length = wire_length.value_or(frame.size()),
                       .bytes = {frame.begin(), frame.end()}});
    return frames_.size();
}

const std::vector<std::uint8_t>& capture::frame(std::size_t number) const {
    return frames_.at(number - 1).bytes;
}

std::uint64_t capture::between(std::size_t from, std::size_t to) const {
    return frames_.at(to - 1).time - frames_.at(from - 1).time;
}

void capture::write(const std::filesystem::path& file) const {
    std::ofstream out(file, std::ios::binary);
    put(out, file_header{.link_type = static_cast<std::uint32_t>(link_)});
    for (const captured& one : frames_) {
        put(out, frame_header{.seconds = static_cast<std::uint32_t>(one.time / second),
                              .nanoseconds = static_cast<std::uint32_t>(one.time % second),
                              .captured_length = static_cast<std::uint32_t>(one.bytes.size()),
                              .wire_length = static_cast<std::uint32_t>(one.wire_length)});
        out.write(reinterpret_cast<const char*>(one.bytes.data()),
                  static_cast<std::streamsize>(one.bytes.size()));
    }
    if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}
