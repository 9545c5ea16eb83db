// Which Completion answers which Register Read, in frames that come one after the other.
//
// Each manager has its own tags, so several managers may use the same ones. A manager accepts an
// answer only from the MAC address that it has asked, and only if it is addressed to its port; here
// the Register Read shows that address. A Completion without a Register Read may answer one from
// before the capture, so it is not reported as wrong.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "frames/frame_reading.h"

namespace qnmctl {

// The Register Read that a Completion answers.
struct answered_read {
    std::uint64_t frame;
    std::int64_t nanoseconds;  // since then
    std::uint32_t address;
};

class answers {
  public:
    explicit answers(const frame_rules& rules) : rules_(rules) {}

    // Takes the next frame. A Completion that no manager takes gets its reason.
    std::optional<answered_read> take(frame_reading& reading, std::uint64_t frame,
                                      std::int64_t nanoseconds);

  private:
    struct waiting_read {
        std::uint64_t frame;
        std::int64_t nanoseconds;
        std::uint64_t card;  // the MAC address that was asked
        std::uint32_t address;
        std::uint64_t answer = 0;  // the frame that it came in
    };

    waiting_read* find_read(const frame_reading& reading);

    frame_rules rules_;
    // By tag, those of each manager by its MAC address: the one sent last.
    std::map<std::uint8_t, std::map<std::uint64_t, waiting_read>> waiting_ = {};
};

}  // namespace qnmctl
