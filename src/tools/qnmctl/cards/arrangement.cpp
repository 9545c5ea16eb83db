// Compares cards with a filter, and with each other.
#include "cards/arrangement.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "cli/options.h"
#include "records/condition.h"

namespace qnmctl {

namespace {

constexpr const char* state_words[] = {"disconnected", "connected"};

// In milliseconds; longer than for any card that was ever heard.
constexpr double never_heard = 1e15;

std::string in_lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string searched_text(const card& record) {
    const qnm_com_dev_t& dev = common(record);
    return in_lower_case(id_text(dev.ecd_id) + ' ' + mac_text(dev.ecd_id) + ' ' +
                         kind_text(record) + (dev.ecd_type == 0 ? " 1/10g" : " 40g") + " vlan" +
                         std::to_string(dev.ecd_vlan_id));
}

double heard_key(const card& record, wall_time now) {
    const auto silent = silence(record, now);
    return silent ? static_cast<double>(*silent) : never_heard;
}

}  // namespace

bool passes(const card& record, const card_filter& filter) {
    if (filter.connected && *filter.connected != is_connected(record)) return false;
    if (!fits(record, filter.cards)) return false;
    if (filter.text.empty()) return true;
    const std::string text = searched_text(record);
    const std::vector<std::string> words = split(in_lower_case(filter.text), " ");
    return std::all_of(words.begin(), words.end(), [&](const std::string& word) {
        return text.find(word) != std::string::npos;
    });
}

double order_key(const card& record, card_order order, wall_time now) {
    const qnm_com_dev_t& dev = common(record);
    switch (order) {
        case card_order::id:
            return static_cast<double>(dev.ecd_id);  // 48 bits, which a double holds exactly
        case card_order::kind:
            return static_cast<double>(record.index());
        case card_order::type:
            return dev.ecd_type != 0 ? 1 : 0;
        case card_order::vlan:
            return dev.ecd_vlan_id;
        case card_order::paths:
            return dev.ecd_state[0][0] + dev.ecd_state[0][1] + dev.ecd_state[1][0] +
                   dev.ecd_state[1][1];
        case card_order::heard:
            return heard_key(record, now);
    }
    return 0;
}

std::vector<card> arranged(const std::vector<card>& cards, const card_filter& filter,
                           card_order order, bool reversed, wall_time now) {
    struct keyed_card {
        double key;
        std::uint64_t id;
        const card* record;
    };
    const bool most_first = (order == card_order::heard) != reversed;
    std::vector<keyed_card> keyed;
    for (const card& record : cards) {
        if (!passes(record, filter)) continue;
        const double key = order_key(record, order, now);
        keyed.push_back({most_first ? -key : key, common(record).ecd_id, &record});
    }
    std::sort(keyed.begin(), keyed.end(), [](const keyed_card& a, const keyed_card& b) {
        return std::pair(a.key, a.id) < std::pair(b.key, b.id);
    });
    std::vector<card> result;
    for (const keyed_card& shown : keyed)
        result.push_back(*shown.record);
    return result;
}

void add_filter(command& to, card_filter& filter) {
    add_card_filter(to, filter.cards);
    add_option(to,
               {"--state", "STATE",
                "Only cards with a connected path (connected), or without any (disconnected)"},
               choice(filter.connected, state_words));
}

}  // namespace qnmctl
