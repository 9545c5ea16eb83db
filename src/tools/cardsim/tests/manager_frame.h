// Makes frames as a manager sends them, from the bytes after the header.
#pragma once

#include <algorithm>

#include "cardsim.h"

inline constexpr std::uint64_t manager_mac = 0x0A0000000001;

// Zeros follow the message up to `size`.
inline cardsim::frame_bytes manager_frame(std::uint64_t destination, std::uint16_t vlan_id,
                                          bool change_mode, const cardsim::frame_bytes& message,
                                          std::size_t size = 60) {
    cardsim::frame_bytes frame;
    for (const std::uint64_t mac : {destination, manager_mac}) {
        for (int shift = 40; shift >= 0; shift -= 8)
            frame.push_back(static_cast<std::uint8_t>(mac >> shift));
    }
    const auto high = static_cast<std::uint8_t>(0x80 | vlan_id >> 8);
    const auto low = static_cast<std::uint8_t>(vlan_id);
    const cardsim::frame_bytes normal = {0x81, 0x00, high, low, 0x88, 0xB6};
    const cardsim::frame_bytes change = {0x88, 0xB6, 0x81, 0x00, high, low};
    const cardsim::frame_bytes& tag = change_mode ? change : normal;
    frame.insert(frame.end(), tag.begin(), tag.end());
    frame.insert(frame.end(), message.begin(), message.end());
    frame.resize(std::max(size, frame.size()));
    return frame;
}
