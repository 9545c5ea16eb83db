// Remembers Register Reads until their Completions come.
#include "frames/answers.h"

#include "qnm_frame.h"

namespace qnmctl {

namespace {

// Managers drop what is addressed to another one.
bool is_for_anybody(std::uint64_t destination) {
    constexpr std::uint64_t group_bit = 0x010000000000;
    return destination == 0 || (destination & group_bit) != 0;
}

}  // namespace

answers::waiting_read* answers::find_read(const frame_reading& of) {
    auto& by_manager = waiting_[*of.tag];
    const auto own = by_manager.find(*of.destination);
    if (own != by_manager.end()) return &own->second;
    if (!is_for_anybody(*of.destination)) return nullptr;
    waiting_read* latest = nullptr;
    for (auto& [manager, read] : by_manager) {
        const bool fits = read.card == of.source && read.answer == 0;
        if (fits && (latest == nullptr || read.frame > latest->frame)) latest = &read;
    }
    return latest;
}

std::optional<answered_read> answers::take(frame_reading& of, std::uint64_t frame,
                                           std::int64_t nanoseconds) {
    if (of.kind == nullptr || of.dropped || !of.tag) return std::nullopt;
    if (of.kind->subtype == qnm::k_register_read) {
        const std::uint32_t address = of.address.value_or(0);
        waiting_[*of.tag].insert_or_assign(
            *of.source, waiting_read{frame, nanoseconds, *of.destination, address});
        return std::nullopt;
    }
    if (of.kind->subtype != qnm::k_completion) return std::nullopt;
    if (*of.tag < rules_.tag_min || *of.tag > rules_.tag_max) {
        of.dropped = {"tag", "Invalid tag. tag=" + std::to_string(*of.tag)};
        return std::nullopt;
    }
    waiting_read* const read = find_read(of);
    if (read == nullptr) return std::nullopt;
    if (read->answer != 0) {
        of.dropped = {"repeated", "The Register Read in frame " + std::to_string(read->frame) +
                                      " was answered in frame " + std::to_string(read->answer) +
                                      '.'};
        return std::nullopt;
    }
    if (read->card != of.source) {
        of.dropped = {"mac",
                      "The MAC address which isn't used by sending Register Read frame received "
                      "set Completion frame."};
        return std::nullopt;
    }
    read->answer = frame;
    return answered_read{read->frame, nanoseconds - read->nanoseconds, read->address};
}

}  // namespace qnmctl
