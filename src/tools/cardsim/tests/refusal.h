// Helper for tests: the error text when a card, a field or a file is refused.
#pragma once

#include <string>

#include "cardsim.h"

// The text of the error that `work` throws; "accepted" when it throws none.
inline std::string refusal_of(auto work) {
    try {
        work();
    } catch (const cardsim::error& e) {
        return e.what();
    }
    return "accepted";
}
