// nowhere.h - a port of a simulator that discards frames and never receives one.
#pragma once

#include "cardsim.h"

namespace fuzz {

inline cardsim::port nowhere(const char* name) {
    return {.name = name,
            .send = [](cardsim::frame_view) { return cardsim::send_report{}; },
            .receive = [] { return std::nullopt; }};
}

}  // namespace fuzz
