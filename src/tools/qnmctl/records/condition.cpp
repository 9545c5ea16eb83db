// Finds out from a card's record whether the card is lost or faulty.
#include "records/condition.h"

#include <algorithm>
#include <vector>

namespace qnmctl {

namespace {

bool has_link_fault(const card& record) {
    const auto* device = std::get_if<qnm_qnio_t>(&record);
    return device != nullptr && (device->eio_link0fault != 0 || device->eio_link1fault != 0);
}

bool has_lost_path(const card& record) {
    for (const int port : {0, 1}) {
        for (const int path : {0, 1}) {
            if (path_of(record, port, path) == path_sight::lost) return true;
        }
    }
    return false;
}

}  // namespace

bool is_connected(const card& record) {
    const auto& state = common(record).ecd_state;
    return (state[0][0] | state[0][1] | state[1][0] | state[1][1]) != 0;
}

std::optional<std::uint64_t> silence(const card& record, wall_time now) {
    const auto& heard = common(record).ecd_recvtime;
    const std::uint64_t last = std::max({heard[0][0], heard[0][1], heard[1][0], heard[1][1]});
    if (last == 0) return std::nullopt;
    const std::uint64_t present = to_milliseconds(now);
    return present > last ? present - last : 0;
}

condition condition_of(const card& record) {
    if (!is_connected(record)) return condition::lost;
    const bool error = common(record).ecd_int_vector != 0 || has_link_fault(record);
    return error || has_lost_path(record) ? condition::faulty : condition::well;
}

std::string trouble_text(const card& record) {
    std::vector<std::string> words;
    if (const auto* device = std::get_if<qnm_qnio_t>(&record)) {
        if (device->eio_link0fault != 0) words.emplace_back("link 0 fault");
        if (device->eio_link1fault != 0) words.emplace_back("link 1 fault");
    }
    if (common(record).ecd_power == 0) words.emplace_back("power off");
    const std::uint8_t vector = common(record).ecd_int_vector;
    if (vector != 0) words.push_back("vector " + hex_text(vector, 2));
    return join(words, ", ");
}

}  // namespace qnmctl
