// Why something about a card has changed.
//
// The library's events only name a card, so the cause is found from its record: a path is lost for
// one of two causes, and the time since it was last heard distinguishes them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "records/fields.h"

namespace qnmctl {

enum class cause { announced, expired, link_down, stopped, restarted };

struct reason {
    cause why = cause::announced;
    std::uint64_t silent_ms = 0;  // expired: nothing had been heard for so long
    int port = 0;                 // link_down

    bool operator==(const reason&) const = default;
};

std::string reason_text(const reason& found);  // "expired after 5003 ms"
json reason_json(const reason& found);

// Facts needed beside the records.
struct watch_facts {
    std::uint64_t expire_ms = 5000;  // as configured

    struct restart {
        std::uint64_t when;             // milliseconds since the epoch
        std::uint64_t first_heard = 0;  // the announcement that followed
    };
    std::map<std::uint64_t, restart> restarted = {};  // cards, as long as it is news
};

// Whether what happened came with the first announcement after the restart of the monitoring, which
// sets every path of the card anew.
bool is_restarted(watch_facts& facts, const card& now);

// Why this field of the card has changed.
reason find_reason(watch_facts& facts, const card& now, const field& before, const field& after);

}  // namespace qnmctl
