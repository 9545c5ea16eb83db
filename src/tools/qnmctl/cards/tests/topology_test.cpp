// What two sides report of their links, brought together.
#include "cards/topology.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

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
    EXPECT_EQ(json::parse(R"({"id": "0x020000001000", "heard": true, "group": 10, "links": [
                  {"port": 3, "qnio": {"id": "0x020000003000", "heard": true, "group": 30},
                   "agreed": false, "disagreement": "the QNIO card reports no QNSV card"}]})"),
              server_json(made.servers.at(0)));
    EXPECT_EQ(json::parse(R"({"id": "0x020000003000", "heard": true, "group": 30})"),
              unbound_json(sample_device()));
}

TEST(TopologyDot, HasNodesAndEdges) {
    const std::string dot =
        topology_dot(make_topology({server_with(3, device_id), sample_device()}));
    EXPECT_EQ(0U, dot.find("digraph topology {\n"));
    EXPECT_NE(std::string::npos,
              dot.find("    \"0x020000001000\" [label=\"QNSV\\n0x020000001000\\nVLAN ID 10\", "
                       "shape=box];\n"))
        << dot;
    EXPECT_NE(
        std::string::npos,
        dot.find("    \"0x020000001000\" -> \"0x020000003000\" [label=\"port 3\\nthe QNIO card "
                 "reports no QNSV card\", color=red, fontcolor=red, style=dashed];\n"))
        << dot;
}

}  // namespace
}  // namespace qnmctl
