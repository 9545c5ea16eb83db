// compare.cpp - looks at every record, one after the other.

#include "checks/compare.h"

#include <algorithm>
#include <optional>

#include "rig.h"

namespace soak {

namespace {

using e2e::qnio;
using e2e::qnsv;

bool is_same(const qnm_com_dev_t& dev, const announced& expected) {
    return dev.ecd_uidsw == (expected.uid_switch ? 1U : 0U) &&
           dev.ecd_power == (expected.power ? 1U : 0U) &&
           dev.ecd_int_vector == expected.int_vector && dev.ecd_vlan_id == expected.vlan_id;
}

bool is_same(const qnm_qnsv_t& card, const announced& expected) {
    for (size_t port = 0; port < expected.port_status1.size(); port++) {
        if (card.esv_down_port[port].edp_port_status[1] != expected.port_status1[port])
            return false;
    }
    return is_same(card.esv_com_dev, expected);
}

bool is_same(const qnm_qnio_t& card, const announced& expected) {
    return card.eio_link0fault == (expected.link0_fault ? 1 : 0) &&
           card.eio_substate[1] == expected.io_substate1 && is_same(card.eio_com_dev, expected);
}

std::optional<qnm_com_dev_t> common(uint64_t id, bool server) {
    if (server) {
        const auto card = qnsv(id);
        return card ? std::optional(card->esv_com_dev) : std::nullopt;
    }
    const auto card = qnio(id);
    return card ? std::optional(card->eio_com_dev) : std::nullopt;
}

bool is_connected(uint64_t id, bool server) {
    const auto dev = common(id, server);
    if (!dev) return false;
    return std::any_of(&dev->ecd_state[0][0], &dev->ecd_state[0][0] + 4,
                       [](uint32_t state) { return state != 0; });
}

std::string compare_card(size_t number, const announced& expected) {
    const std::string name = "card " + std::to_string(number);
    const uint64_t id = card_id(number);
    const bool server = number % 2 == 0;
    if (is_connected(id, !server)) return name + " is of the other kind, too";
    const bool silent = expected.paths == decltype(expected.paths){};
    const auto dev = common(id, server);
    if (!dev) return expected.present && !silent ? name + " is not known" : "";
    for (size_t path = 0; path < 4; path++) {
        if ((dev->ecd_state[path / 2][path % 2] == 1) != expected.paths[path]) {
            return name + " has a wrong path " + std::to_string(path);
        }
    }
    if (silent) return "";  // it keeps its last record
    const bool right = server ? is_same(*qnsv(id), expected) : is_same(*qnio(id), expected);
    return right ? "" : name + " has a wrong record";
}

std::string find_forged() {
    for (size_t number = 0; number < k_strangers; number++) {
        if (is_connected(stranger_id(number), number % 2 == 0)) {
            return "stranger " + std::to_string(number) + " has not expired";
        }
    }
    for (size_t number = 0; number < k_nobodies; number++) {
        const uint64_t id = nobody_id(number);
        if (qnsv(id) || qnio(id)) return "nobody " + std::to_string(number) + " is known";
    }
    return "";
}

}  // namespace

std::string find_difference(const stage& shared) {
    for (size_t number = 0; number < k_cards; number++) {
        std::string difference = compare_card(number, shared.cards[number]);
        if (!difference.empty()) return difference;
    }
    return find_forged();
}

}  // namespace soak
