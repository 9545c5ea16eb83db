// Matches the two sides of each link.
#include "cards/topology.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "output/table.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr std::uint8_t connected_bit = 0x02;  // of the second status byte, on both sides
constexpr int ports_1_10g = 8;
constexpr int ports_40g = 16;

template <std::size_t Size>
std::uint64_t mac_of(const std::uint8_t (&bytes)[Size]) {
    std::uint64_t mac = 0;
    for (const std::uint8_t byte : bytes)
        mac = mac << 8 | byte;
    return mac;
}

// A 40G card has a second MAC address, which differs from its ID in the lowest bit.
bool is_mac_of(const card& record, std::uint64_t mac) {
    const qnm_com_dev_t& dev = common(record);
    return dev.ecd_id == mac || (dev.ecd_type != 0 && dev.ecd_id == (mac & ~std::uint64_t{1}));
}

template <class Record>
const card* find_card(const std::vector<card>& cards, std::uint64_t mac) {
    const auto found = std::find_if(cards.begin(), cards.end(), [&](const card& record) {
        return std::holds_alternative<Record>(record) && is_mac_of(record, mac);
    });
    return found == cards.end() ? nullptr : &*found;
}

topology_card card_or_mac(const card* known, std::uint64_t mac) {
    if (known == nullptr) return {.id = mac};
    return {.id = common(*known).ecd_id, .record = *known};
}

// The QNSV card that a QNIO card says it is bound to.
std::optional<std::uint64_t> bound_to(const qnm_qnio_t& device) {
    if ((device.eio_substate[1] & connected_bit) == 0) return std::nullopt;
    return mac_of(device.eio_sermacaddr);
}

// ---- What the QNSV cards report -----------------------------------------------------------------

std::string disagreement_of(const card& server, const card* device) {
    if (device == nullptr) return "this QNIO card is not heard";
    const auto& record = std::get<qnm_qnio_t>(*device);
    const auto bound = bound_to(record);
    if (!bound) return "the QNIO card reports no QNSV card";
    if (!is_mac_of(server, *bound)) return "the QNIO card reports QNSV card " + id_text(*bound);
    return {};
}

std::vector<topology_link> reported_links(const card& server, const std::vector<card>& cards) {
    const auto& record = std::get<qnm_qnsv_t>(server);
    const int ports = common(server).ecd_type == 0 ? ports_1_10g : ports_40g;
    std::vector<topology_link> links;
    for (int port = 0; port < ports; ++port) {
        const qnm_down_port_t& down = record.esv_down_port[port];
        if ((down.edp_port_status[1] & connected_bit) == 0) continue;
        const std::uint64_t mac = mac_of(down.edp_io_mac);
        const card* const device = find_card<qnm_qnio_t>(cards, mac);
        links.push_back({.device = card_or_mac(device, mac),
                         .port = port,
                         .disagreement = disagreement_of(server, device)});
    }
    return links;
}

// ---- What only the QNIO cards report ------------------------------------------------------------

topology_server& server_of(topology& in, std::uint64_t mac) {
    const auto found =
        std::find_if(in.servers.begin(), in.servers.end(), [&](const topology_server& server) {
            return server.server.record ? is_mac_of(*server.server.record, mac)
                                        : server.server.id == mac;
        });
    if (found != in.servers.end()) return *found;
    return in.servers.emplace_back(topology_server{.server = {.id = mac}});
}

bool has_link_to(const topology_server& from, std::uint64_t id) {
    return std::any_of(from.links.begin(), from.links.end(),
                       [&](const topology_link& link) { return link.device.id == id; });
}

bool is_behind_a_port(const topology& in, std::uint64_t id) {
    return std::any_of(in.servers.begin(), in.servers.end(),
                       [&](const topology_server& server) { return has_link_to(server, id); });
}

void add_device(topology& to, const card& device) {
    const std::uint64_t id = common(device).ecd_id;
    const auto bound = bound_to(std::get<qnm_qnio_t>(device));
    if (!bound) {
        if (!is_behind_a_port(to, id)) to.unbound.push_back(device);
        return;
    }
    topology_server& server = server_of(to, *bound);
    if (has_link_to(server, id)) return;
    server.links.push_back({.device = {.id = id, .record = device},
                            .disagreement = server.server.record
                                                ? "the QNSV card reports it behind no port"
                                                : "this QNSV card is not heard"});
}

// ---- Words --------------------------------------------------------------------------------------

std::string group_of(const topology_card& node) {
    return node.record ? std::to_string(common(*node.record).ecd_vlan_id) : "";
}

std::string card_words(const topology_card& node) {
    if (!node.record) return id_text(node.id) + "  not heard";
    const bool fast = common(*node.record).ecd_type != 0;
    return id_text(node.id) + "  " + (fast ? "40G" : "1/10G") + ", VLAN ID " + group_of(node);
}

std::string port_words(const topology_link& link) {
    return link.port ? "port " + std::to_string(*link.port) : "no port";
}

struct tree_signs {
    const char* more;
    const char* last;
};

constexpr tree_signs unicode_signs = {"├─ ", "└─ "};
constexpr tree_signs plain_signs = {"|- ", "`- "};
constexpr char red[] = "\033[31m";
constexpr std::size_t sign_width = 3;
constexpr std::size_t port_width = sizeof "port 15";

// If a disagreement does not fit, it has a line of its own.
std::string link_line(const topology_link& link, const char* sign, const look& how) {
    std::string line = port_words(link);
    line.resize(port_width, ' ');
    line = sign + line + "QNIO " + card_words(link.device);
    if (link.disagreement.empty()) return line + '\n';
    const std::string wrong = "! " + link.disagreement;
    const bool fits = width_of(line) + 2 + wrong.size() <= how.width;
    line += fits ? "  " : '\n' + std::string(sign_width, ' ');
    return line + in_colour(wrong, red, how.coloured) + '\n';
}

json card_head_json(const topology_card& node) {
    json object = {{"id", id_text(node.id)}, {"heard", node.record.has_value()}};
    object["vlan_id"] = node.record ? json(common(*node.record).ecd_vlan_id) : json();
    return object;
}

}  // namespace

topology make_topology(const std::vector<card>& cards) {
    topology result;
    for (const card& known : cards) {
        if (!std::holds_alternative<qnm_qnsv_t>(known)) continue;
        result.servers.push_back({.server = {.id = common(known).ecd_id, .record = known},
                                  .links = reported_links(known, cards)});
    }
    for (const card& known : cards) {
        if (std::holds_alternative<qnm_qnio_t>(known)) add_device(result, known);
    }
    return result;
}

std::string topology_text(const topology& picture, const look& how) {
    const tree_signs& signs = how.unicode ? unicode_signs : plain_signs;
    std::string text;
    for (const topology_server& server : picture.servers) {
        text += "QNSV " + card_words(server.server) + '\n';
        for (const topology_link& link : server.links)
            text += link_line(link, &link == &server.links.back() ? signs.last : signs.more, how);
    }
    if (!picture.unbound.empty()) text += "QNIO cards without a QNSV card\n";
    for (const card& unbound : picture.unbound) {
        text += &unbound == &picture.unbound.back() ? signs.last : signs.more;
        text += "QNIO " + card_words({common(unbound).ecd_id, unbound}) + '\n';
    }
    return text.empty() ? "no cards heard\n" : text;
}

json server_json(const topology_server& server) {
    json object = card_head_json(server.server);
    object["links"] = json::array();
    for (const topology_link& link : server.links) {
        json value = {{"port", link.port ? json(*link.port) : json()}};
        value["qnio"] = card_head_json(link.device);
        value["agreed"] = link.disagreement.empty();
        value["disagreement"] = link.disagreement.empty() ? json() : json(link.disagreement);
        object["links"].push_back(value);
    }
    return object;
}

json unbound_json(const card& record) {
    return card_head_json({common(record).ecd_id, record});
}

}  // namespace qnmctl
