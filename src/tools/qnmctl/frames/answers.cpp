// Remembers Register Reads until their Completions come.
#include "frames/answers.h"

#include "qnm_frame.h"

namespace qnmctl {

namespace {

// Managers drop frames that are addressed to another manager.
bool is_for_anybody(std::uint64_t destination) {
    constexpr std::uint64_t group_bit = 0x010000000000;
    return destination == 0 || (destination & group_bit) != 0;
}

}  // namespace

answers::waiting_read* answers::find_read(const frame_reading& reading) {
    auto& by_manager = waiting_[*reading.tag];
    const auto own = by_manager.find(*reading.destination);
    if (own != by_manager.end()) return &own->second;
    if (!is_for_anybody(*reading.destination)) return nullptr;
    waiting_read* latest = nullptr;
    for (auto& [manager, read] : by_manager) {
        const bool fits = read.card == reading.source && read.answer == 0;
        if (fits && (latest == nullptr || read.frame > latest->frame)) latest = &read;
    }
    return latest;
}

std::optional<answered_read> answers::take(frame_reading& reading, std::uint64_t frame,
                                           std::int64_t nanoseconds) {
    if (reading.kind == nullptr || reading.dropped || !reading.tag) return std::nullopt;
    if (reading.kind->subtype == qnm::k_register_read) {
        const std::uint32_t address = reading.address.value_or(0);
        waiting_[*reading.tag].insert_or_assign(
            *reading.source, waiting_read{frame, nanoseconds, *reading.destination, address});
        return std::nullopt;
    }
    if (reading.kind->subtype != qnm::k_completion) return std::nullopt;
    if (*reading.tag < rules_.tag_min || *reading.tag > rules_.tag_max) {
        reading.dropped = {"tag", "Invalid tag. tag=" + std::to_string(*reading.tag)};
        return std::nullopt;
    }
    waiting_read* const read = find_read(reading);
    if (read == nullptr) return std::nullopt;
    if (read->answer != 0) {
        reading.dropped = {"repeated", "The Register Read in frame " + std::to_string(read->frame) +
                                           " was answered in frame " +
                                           std::to_string(read->answer) + '.'};
        return std::nullopt;
    }
    if (read->card != reading.source) {
        reading.dropped = {
            "mac",
            "The MAC address which isn't used by sending Register Read frame received "
            "set Completion frame."};
        return std::nullopt;
    }
    read->answer = frame;
    return answered_read{read->frame, nanoseconds - read->nanoseconds, read->address};
}

}  // namespace qnmctl
