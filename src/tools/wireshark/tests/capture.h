// capture.h - a capture that a test builds: frames as on the cable, at times that the test can rely
// on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

class capture {
  public:
    // The start of each frame: an Ethernet header, or what the "any" interface has instead.
    enum class link : std::uint32_t { ethernet = 1, cooked = 113 };

    explicit capture(link type = link::ethernet) : link_(type) {}

    // Returns the frame's number, the first being 1. Only the given bytes of it are captured when
    // it was longer on the wire.
    std::size_t add(std::span<const std::uint8_t> frame,
                    std::optional<std::size_t> wire_length = std::nullopt);

    std::size_t count() const { return frames_.size(); }
    const std::vector<std::uint8_t>& frame(std::size_t number) const;

    // Nanoseconds between two frames; no two neighbours have the same distance.
    std::uint64_t between(std::size_t from, std::size_t to) const;

    void write(const std::filesystem::path& file) const;

  private:
    struct captured {
        std::uint64_t time;  // in nanoseconds
        std::size_t wire_length;
        std::vector<std::uint8_t> bytes;
    };
    link link_;
    std::vector<captured> frames_;
};
