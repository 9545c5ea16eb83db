// Links that both sides report are joined.
#include "cards/topology.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <sstream>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

constexpr std::uint64_t server_id = 0x020000001000;
constexpr std::uint64_t device_id = 0x020000003000;

void set_mac(std::uint8_t (&into)[6], std::uint64_t mac) {
    for (int byte = 5; byte >= 0; --byte, mac >>= 8)
        into[byte] = static_cast<std::uint8_t>(mac);
}

qnm_qnsv_t server_with(int port, std::uint64_t mac) {
    qnm_qnsv_t record = sample_server();
    record.esv_down_port[port].edp_port_status[1] = 0x02;
    set_mac(record.esv_down_port[port].edp_io_mac, mac);
    return record;
}

qnm_qnio_t device_bound_to(std::uint64_t mac) {
    qnm_qnio_t record = sample_device();
    record.eio_substate[1] = 0x02;
    set_mac(record.eio_sermacaddr, mac);
    return record;
}

std::string text_of(const std::vector<card>& cards, const look& how = {}) {
    return topology_text(make_topology(cards), how);
}

TEST(Topology, HasALinkThatBothSidesReport) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- port 3  QNIO 0x020000003000  40G, VLAN ID 30\n",
        text_of({server_with(3, device_id), device_bound_to(server_id)}));
}

TEST(Topology, KnowsTheSecondAddressOfAFastCard) {
    EXPECT_EQ(text_of({server_with(3, device_id), device_bound_to(server_id)}),
              text_of({server_with(3, device_id + 1), device_bound_to(server_id)}));
    EXPECT_NE(text_of({server_with(3, device_id), device_bound_to(server_id)}),
              text_of({server_with(3, device_id), device_bound_to(server_id + 1)}))
        << "a card with one path has one address";
}

TEST(Topology, MarksALinkThatTheDeviceDoesNotReport) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- port 0  QNIO 0x020000003000  40G, VLAN ID 30  ! the QNIO card reports no QNSV card\n",
        text_of({server_with(0, device_id), sample_device()}));
}

TEST(Topology, MarksADeviceThatReportsAnotherServer) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- port 0  QNIO 0x020000003000  40G, VLAN ID 30  ! the QNIO card reports QNSV card "
        "0x020000009000\n"
        "QNSV 0x020000009000  not heard\n"
        "`- no port QNIO 0x020000003000  40G, VLAN ID 30  ! this QNSV card is not heard\n",
        text_of({server_with(0, device_id), device_bound_to(0x020000009000)}));
}

TEST(Topology, MarksADeviceThatTheServerDoesNotReport) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- no port QNIO 0x020000003000  40G, VLAN ID 30  ! the QNSV card reports it behind no "
        "port\n",
        text_of({sample_server(), device_bound_to(server_id)}));
}

TEST(Topology, MarksADeviceThatIsNotHeard) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- port 7  QNIO 0x020000003000  not heard  ! this QNIO card is not heard\n",
        text_of({server_with(7, device_id)}));
}

TEST(Topology, OfAPortThatIsNotConnectedHasNoLink) {
    qnm_qnsv_t record = server_with(0, device_id);
    record.esv_down_port[0].edp_port_status[1] = 0;
    EXPECT_EQ("QNSV 0x020000001000  1/10G, VLAN ID 10\n", text_of({record}));
}

TEST(Topology, ListsDevicesWithoutAServer) {
    EXPECT_EQ(
        "QNIO cards without a QNSV card\n"
        "`- QNIO 0x020000003000  40G, VLAN ID 30\n",
        text_of({sample_device()}));
    EXPECT_EQ("no cards heard\n", text_of({}));
}

TEST(TopologyText, HasLinesAndColoursWhereTheyCanBeShown) {
    qnm_qnsv_t server = server_with(0, device_id);
    server.esv_down_port[1] = server.esv_down_port[0];
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "├─ port 0  QNIO 0x020000003000  not heard  \033[31m! this QNIO card is not heard\033[0m\n"
        "└─ port 1  QNIO 0x020000003000  not heard  \033[31m! this QNIO card is not heard\033[0m\n",
        text_of({server}, {.coloured = true, .unicode = true}));
}

TEST(TopologyText, PutsWhatIsWrongOnALineOfItsOwnWhereItDoesNotFit) {
    EXPECT_EQ(
        "QNSV 0x020000001000  1/10G, VLAN ID 10\n"
        "`- port 7  QNIO 0x020000003000  not heard\n"
        "   ! this QNIO card is not heard\n",
        text_of({server_with(7, device_id)}, {.width = 60}));
}

TEST(TopologyJson, HasBothSidesAndWhetherTheyAgree) {
    const topology made = make_topology({server_with(3, device_id), sample_device()});
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "heard": true, "vlan_id": 10, "links": [
                  {"port": 3, "qnio": {"id": "0x020000003000", "heard": true, "vlan_id": 30},
                   "agreed": false, "disagreement": "the QNIO card reports no QNSV card"}]})"),
              server_json(made.servers.at(0)));
    EXPECT_EQ(json::parse(R"({"id": "0x020000003000", "heard": true, "vlan_id": 30})"),
              unbound_json(sample_device()));
}

// ---- The picture --------------------------------------------------------------------------------

std::string dot_of(const std::vector<card>& cards,
                   const std::vector<std::string>& ports = {"eth1", "eth2"}) {
    return topology_dot(make_topology(cards), ports);
}

// How often a line occurs, with any indentation.
std::ptrdiff_t lines_of(const std::string& line, const std::string& dot) {
    std::istringstream lines(dot);
    std::ptrdiff_t count = 0;
    for (std::string one; std::getline(lines, one);)
        count += one.substr(std::min(one.size(), one.find_first_not_of(' '))) == line ? 1 : 0;
    return count;
}

TEST(TopologyDot, HasKindSpeedAndGroupOfEachCard) {
    const std::string dot = dot_of({sample_server(), sample_device()});
    EXPECT_EQ(1, lines_of("\"0x020000001000\" [label=\"QNSV 1/10G\\n0x020000001000\", "
                          "shape=box, fillcolor=\"#ddf4ff\"];",
                          dot))
        << dot;
    EXPECT_EQ(1, lines_of("\"0x020000003000\" [label=\"QNIO 40G\\n0x020000003000\", "
                          "shape=ellipse, fillcolor=\"#dafbe1\"];",
                          dot))
        << dot;
    EXPECT_EQ(1, lines_of("label=\"VLAN ID 10\";", dot)) << dot;
    EXPECT_EQ(1, lines_of("label=\"VLAN ID 30\";", dot)) << dot;
}

TEST(TopologyDot, PutsCardsOfAGroupIntoOneBox) {
    qnm_qnio_t device = sample_device();
    device.eio_com_dev.ecd_vlan_id = 10;
    EXPECT_EQ(1, lines_of("label=\"VLAN ID 10\";", dot_of({sample_server(), device})));
}

TEST(TopologyDot, LeadsFromTheHostByItsPortsAlongEachPath) {
    const std::string dot = dot_of({sample_server(), sample_device()});
    EXPECT_EQ(1, lines_of("\"port 0\" [label=\"port 0\\neth1\"];", dot)) << dot;
    EXPECT_EQ(1, lines_of("host -> \"port 1\";", dot)) << dot;
    EXPECT_EQ(1, lines_of("\"port 0\" -> \"0x020000001000\";", dot)) << dot;
    EXPECT_EQ(1, lines_of("\"port 1\" -> \"0x020000003000\";", dot)) << dot;
    EXPECT_EQ(0, lines_of("\"port 0\" -> \"0x020000003000\";", dot)) << "never heard by it";
}

TEST(TopologyDot, OfOnePortHasNoOther) {
    EXPECT_EQ(std::string::npos, dot_of({sample_server()}, {"eth1"}).find("port 1"));
}

TEST(TopologyDot, KeepsQuotesInTheNameOfAPort) {
    EXPECT_NE(std::string::npos, dot_of({}, {R"(a"\b)"}).find(R"(\na\"\\b"])"));
}

TEST(TopologyDot, MarksALostPath) {
    qnm_qnsv_t server = sample_server();
    server.esv_com_dev.ecd_recvtime[1][0] = server.esv_com_dev.ecd_recvtime[0][0];
    const std::string dot = dot_of({server});
    EXPECT_EQ(1, lines_of("\"port 0\" -> \"0x020000001000\";", dot)) << dot;
    EXPECT_EQ(1, lines_of("\"port 1\" -> \"0x020000001000\" [label=\"P1M0 lost\", color=red, "
                          "fontcolor=red, style=dashed];",
                          dot))
        << dot;
}

TEST(TopologyDot, MarksACardWithoutAnyPath) {
    qnm_qnsv_t server = sample_server();
    server.esv_com_dev.ecd_state[0][0] = 0;
    EXPECT_NE(std::string::npos, dot_of({server}).find("\\n0x020000001000\\nlost\", shape=box"));
}

TEST(TopologyDot, HasTheLinksOfCards) {
    const std::string dot = dot_of({server_with(3, device_id), device_bound_to(server_id)});
    EXPECT_EQ(1, lines_of("\"0x020000001000\" -> \"0x020000003000\" [label=\"down port 3\", "
                          "arrowhead=normal, penwidth=2, color=\"#24292f\"];",
                          dot))
        << dot;
}

TEST(TopologyDot, MarksALinkThatOneSideReports) {
    const std::string dot = dot_of({server_with(3, device_id), sample_device()});
    EXPECT_EQ(1, lines_of("\"0x020000001000\" -> \"0x020000003000\" [label=\"down port 3\\nthe "
                          "QNIO card reports no QNSV card\", arrowhead=normal, penwidth=2, "
                          "color=red, fontcolor=red, style=dashed];",
                          dot))
        << dot;
}

TEST(TopologyDot, HasACardOnceThatSeveralLinksName) {
    const std::string dot = dot_of({server_with(0, device_id), device_bound_to(0x020000009000)});
    EXPECT_EQ(1, lines_of("\"0x020000003000\" [label=\"QNIO 40G\\n0x020000003000\", "
                          "shape=ellipse, fillcolor=\"#dafbe1\"];",
                          dot))
        << dot;
    EXPECT_NE(std::string::npos, dot.find("QNSV\\n0x020000009000\\nnot heard")) << dot;
}

}  // namespace
}  // namespace qnmctl
