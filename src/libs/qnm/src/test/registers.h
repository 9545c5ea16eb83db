// registers.h - what the tests of register access share: a card and views of what it has got.
#pragma once

#include <cstdio>
#include <string>

#include "answering_card.h"

// What the card has got, as in "R10 W10=5".
inline std::string sequence(answering_card& card) {
    std::string text;
    for (const answering_card::access& it : card.accesses()) {
        char item[32];
        snprintf(item, sizeof item, it.is_write ? "W%x=%x " : "R%x ", it.addr, it.data);
        text += item;
    }
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

// The paths by which it has got it, as in "00 10": port and path.
inline std::string paths(answering_card& card) {
    std::string text;
    for (const answering_card::access& it : card.accesses())
        text += std::to_string(it.port) + std::to_string(it.path) + " ";
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

// One card, as in card_units; all configured intervals are 1 ms.
struct registers : card_units {
    uint32_t value = 0xDEADBEEF;  // to be read into

    registers() {
        qnm_config.frame_retry_interval = 1;
        qnm_config.frame_retry_interval_lc = 1;
        qnm_config.frame_retry_count_lc = 1;
    }

    // A register that does not take what is written, but for the n-th time.
    void take_only(uint32_t addr, unsigned n) {
        card.on_write(addr, [this, addr, n](uint32_t written) {
            if (card.writes(addr) == n) card.set(addr, written);
        });
    }

    static void stop() { qnm::store(qnm_root.er_fini_flag, 0U); }
};
