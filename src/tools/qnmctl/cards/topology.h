// Which QNIO card stands behind which downstream port of which QNSV card.
//
// Both sides report it: a QNSV card the MAC address behind each of its ports, a QNIO card that of
// the QNSV card it is bound to. If they disagree, or one of them is not heard, the link is still
// listed and says what is wrong with it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "output/output.h"
#include "records/fields.h"

namespace qnmctl {

// A card of which only the MAC address is known has it as its ID, and no record.
struct topology_card {
    std::uint64_t id = 0;
    std::optional<card> record = {};
};

struct topology_link {
    topology_card device;
    std::optional<int> port = {};  // of the QNSV card; nothing: only the QNIO card reports the link
    std::string disagreement = {};  // empty: both sides report it
};

struct topology_server {
    topology_card server;
    std::vector<topology_link> links = {};  // by ascending port
};

struct topology {
    std::vector<topology_server> servers = {};
    std::vector<card> unbound = {};  // QNIO cards that no side reports a link of
};

topology make_topology(const std::vector<card>& cards);

std::string topology_text(const topology& picture, const look& how);

// For Graphviz, with the names of the manager's ports.
std::string topology_dot(const topology& picture, const std::vector<std::string>& ports);

json server_json(const topology_server& server);
json unbound_json(const card& record);

}  // namespace qnmctl
