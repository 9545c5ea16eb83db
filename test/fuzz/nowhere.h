// nowhere.h - a port of a simulator whose frames go nowhere, and on which none arrive.
#pragma once

#include "cardsim.h"

namespace fuzz {

inline cardsim::port nowhere(const char* name) {
    return {.name = name,
            .send = [](cardsim::frame_view) { return cardsim::send_report{}; },
            .receive = [] { return std::nullopt; }};
}

}  // namespace fuzz
