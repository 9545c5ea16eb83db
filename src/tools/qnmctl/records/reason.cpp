// Finds the cause of a change from the times in a card's record.
#include "records/reason.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace qnmctl {

namespace {

// Indexed by cause, as JSON has them.
constexpr const char* cause_words[] = {"announced", "expired", "link_down", "stopped", "restarted"};

std::uint64_t last_heard(const card& record) {
    const auto& times = common(record).ecd_recvtime;
    return *std::max_element(&times[0][0], &times[0][0] + 4);
}

}  // namespace

std::string reason_text(const reason& found) {
    switch (found.why) {
        case cause::expired:
            return "expired after " + std::to_string(found.silent_ms) + " ms";
        case cause::link_down:
            return "link down on port " + std::to_string(found.port);
        default:
            return cause_words[static_cast<std::size_t>(found.why)];
    }
}

json reason_json(const reason& found) {
    json object = {{"reason", cause_words[static_cast<std::size_t>(found.why)]}};
    if (found.why == cause::expired) object["silent_ms"] = found.silent_ms;
    if (found.why == cause::link_down) object["port"] = found.port;
    return object;
}

bool is_restarted(watch_facts& facts, const card& now) {
    const auto found = facts.restarted.find(common(now).ecd_id);
    if (found == facts.restarted.end()) return false;
    watch_facts::restart& known = found->second;
    const std::uint64_t heard = last_heard(now);
    if (heard < known.when) return false;
    if (known.first_heard == 0) known.first_heard = heard;
    if (known.first_heard == heard) return true;
    facts.restarted.erase(found);
    return false;
}

reason find_reason(watch_facts& facts, const card& now, const field& before, const field& after) {
    if (is_restarted(facts, now)) return {.why = cause::restarted};
    const bool lost = after.about == aspect::path && before.value != 0 && after.value == 0;
    if (!lost) return {};
    const int port = after.key[1] - '0';  // "P0M1"
    const int path = after.key[3] - '0';
    const qnm_com_dev_t& dev = common(now);
    const std::uint64_t heard = dev.ecd_recvtime[port][path];
    const std::uint64_t silent = dev.ecd_updatetime < heard ? 0 : dev.ecd_updatetime - heard;
    if (silent < facts.expire_ms) return {.why = cause::link_down, .port = port};
    return {.why = cause::expired, .silent_ms = silent};
}

}  // namespace qnmctl
