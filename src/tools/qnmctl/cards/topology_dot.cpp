// A topology as a picture for Graphviz, from left to right: the host, its ports, and the cards by
// group, each QNIO card behind its QNSV card. A thin line is a path by which a card is heard, an
// arrow a link between two cards; what is lost or in dispute is red and dashed.
#include <map>

#include "cards/topology.h"
#include "output/text.h"
#include "records/condition.h"

namespace qnmctl {

namespace {

constexpr char link_colour[] = "color=\"#24292f\"";
constexpr char red_and_dashed[] = "color=red, fontcolor=red, style=dashed";

// How the cards of a kind look.
struct kind_look {
    const char* name;
    const char* attributes;
};

constexpr kind_look server_look = {"QNSV", "shape=box, fillcolor=\"#ddf4ff\""};
constexpr kind_look device_look = {"QNIO", "shape=ellipse, fillcolor=\"#dafbe1\""};

struct drawn_card {
    const kind_look& kind;
    topology_card self;
};

using drawn_cards = std::map<std::uint64_t, drawn_card>;

// Each card once, though several links may name it.
drawn_cards cards_of(const topology& picture) {
    drawn_cards cards;
    const auto add = [&cards](const kind_look& kind, const topology_card& drawn) {
        cards.try_emplace(drawn.id, drawn_card{kind, drawn});
    };
    for (const topology_server& server : picture.servers) {
        add(server_look, server.server);
        for (const topology_link& link : server.links)
            add(device_look, link.device);
    }
    for (const card& unbound : picture.unbound)
        add(device_look, {common(unbound).ecd_id, unbound});
    return cards;
}

// Text between the quotes of a label. The name of an interface may hold quotes itself.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result;
}

std::string port_name(std::size_t port) {
    return "\"port " + std::to_string(port) + '"';
}

std::string card_name(std::uint64_t id) {
    return '"' + id_text(id) + '"';
}

// ---- Host and ports -----------------------------------------------------------------------------

// The invisible edge keeps port 0 above port 1.
std::string ports_text(const std::vector<std::string>& ports) {
    std::string text = "    host;\n";
    for (std::size_t port = 0; port < ports.size(); ++port) {
        text += "    " + port_name(port) + " [label=\"port " + std::to_string(port) + "\\n" +
                escaped(ports[port]) + "\"];\n    host -> " + port_name(port) + ";\n";
    }
    if (ports.size() < 2) return text;
    return text + "    {rank=same; " + port_name(0) + " -> " + port_name(1) + " [style=invis];}\n";
}

// ---- Cards --------------------------------------------------------------------------------------

std::string node_line(const drawn_card& drawn) {
    const topology_card& self = drawn.self;
    std::string label = drawn.kind.name;
    if (self.record) label += common(*self.record).ecd_type != 0 ? " 40G" : " 1/10G";
    label += "\\n" + id_text(self.id);
    std::string look = drawn.kind.attributes;
    if (!self.record) {
        label += "\\nnot heard";
        look += ", style=dashed";
    } else if (!is_connected(*self.record)) {
        label += "\\nlost";
        look += std::string(", ") + red_and_dashed;
    }
    return card_name(self.id) + " [label=\"" + label + "\", " + look + "];\n";
}

// A box for each group. The group of a card that is not heard is not known.
std::string groups_text(const drawn_cards& cards) {
    std::map<std::uint16_t, std::string> groups;
    std::string text;
    for (const auto& [id, one] : cards) {
        if (one.self.record) {
            groups[common(*one.self.record).ecd_vlan_id] += "        " + node_line(one);
        } else {
            text += "    " + node_line(one);
        }
    }
    for (const auto& [group, nodes] : groups) {
        const std::string title = "VLAN ID " + std::to_string(group);
        text += "    subgraph \"cluster " + title + "\" {\n        label=\"" + title + "\";\n" +
                nodes + "    }\n";
    }
    return text;
}

// ---- Paths and links ----------------------------------------------------------------------------

std::string path_line(const card& record, int port, int path) {
    const path_sight sight = path_of(record, port, path);
    if (sight == path_sight::never_heard) return {};
    const std::string line = "    " + port_name(static_cast<std::size_t>(port)) + " -> " +
                             card_name(common(record).ecd_id);
    if (sight == path_sight::connected) return line + ";\n";
    return line + " [label=\"P" + std::to_string(port) + 'M' + std::to_string(path) + " lost\", " +
           red_and_dashed + "];\n";
}

std::string paths_text(const drawn_cards& cards) {
    std::string text;
    for (const auto& [id, one] : cards) {
        if (!one.self.record) continue;
        for (const int port : {0, 1}) {
            for (const int path : {0, 1})
                text += path_line(*one.self.record, port, path);
        }
    }
    return text;
}

std::string link_line(std::uint64_t server, const topology_link& link) {
    std::vector<std::string> words;
    if (link.port) words.push_back("down port " + std::to_string(*link.port));
    if (!link.disagreement.empty()) words.push_back(link.disagreement);
    std::string line = "    " + card_name(server) + " -> " + card_name(link.device.id) +
                       " [label=\"" + join(words, "\\n") + "\", arrowhead=normal, penwidth=2, ";
    line += link.disagreement.empty() ? link_colour : red_and_dashed;
    return line + "];\n";
}

}  // namespace

std::string topology_dot(const topology& picture, const std::vector<std::string>& ports) {
    const drawn_cards cards = cards_of(picture);
    std::string text =
        "digraph topology {\n"
        "    rankdir=LR;\n"
        "    ranksep=1;\n"
        "    newrank=true;\n"
        "    graph [fontname=\"sans-serif\", style=\"filled,rounded\", color=\"#d0d7de\", "
        "fillcolor=\"#f6f8fa\"];\n"
        "    node [fontname=\"sans-serif\", shape=box, style=filled, fillcolor=white];\n"
        "    edge [fontname=\"sans-serif\", fontsize=11, color=\"#8c959f\", arrowhead=none];\n";
    text += ports_text(ports) + groups_text(cards) + paths_text(cards);
    for (const topology_server& server : picture.servers) {
        for (const topology_link& link : server.links)
            text += link_line(server.server.id, link);
    }
    return text + "}\n";
}

}  // namespace qnmctl
