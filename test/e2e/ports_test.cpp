// ports_test.cpp - ports that go down, go away or never open.

#include <gmock/gmock.h>
#include <linux/if_packet.h>
#include <pcap/pcap.h>
#include <sys/socket.h>

#include "qnm_root.h"
#include "rig.h"

namespace e2e {
namespace {

using testing::HasSubstr;

// A card with all four paths, known by those that are expected.
std::unique_ptr<cardsim::simulator> play_card(const std::string& expected_paths) {
    auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards->start();
    EXPECT_TRUE(wait_for([&] { return paths(k_id) == expected_paths; }));
    return cards;
}

TEST(ports, link_down_disconnects_its_cards_and_link_up_brings_them_back) {
    const cables wires;
    const installation install("ether_port = qnm0,qnm1\ndevinfo_expire_time = 100000\n");
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    const auto cards = play_card("CCCC");
    // With this expiry time, only the link can be the cause.
    run("ip link set qsim1 down");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCDD"; }));
    EXPECT_THAT(install.log(), HasSubstr("(UP->DOWN)"));
    EXPECT_THAT(install.log(), HasSubstr("syslogfile INFO State of QNM port1 changed."));
    run("ip link set qsim1 up");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    ASSERT_TRUE(wait_for([&] { return install.log().find("(DOWN->UP)") != std::string::npos; }));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

TEST(ports, an_interface_that_goes_away_leaves_the_other_port_working) {
    const cables wires;
    const installation install(k_two_ports);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    const auto cards = play_card("CCCC");
    run("ip link del qnm1");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCDD"; }));
    host.forget_events();
    cards->set(k_id, "vlan_id", "55");
    ASSERT_TRUE(host.wait_event(k_id, QNM_EVT_UPDATEDEVINFO));
    EXPECT_FALSE(host.has_ended());
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

// A port that does not open, and why.
struct broken_port {
    const char* name;
    const char* set_up;
    const char* conf;
    const char* open_paths;  // of the card, by the other port
};

void PrintTo(const broken_port& it, std::ostream* out) {
    *out << it.name;
}

class one_port : public testing::TestWithParam<broken_port> {};

TEST_P(one_port, is_enough) {
    const cables wires;
    run(GetParam().set_up);
    const installation install(GetParam().conf);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    EXPECT_THAT(install.log(),
                HasSubstr("ERROR _qnm_socket_open_lin: Failed to pcap_open_live()."));
    const auto cards = play_card(GetParam().open_paths);
    // A notification for the watcher, which has to skip the port that did not open.
    run("ip link set qnm0 mtu 1400 2>/dev/null || ip link set qnm1 mtu 1400");
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(
    ports, one_port,
    testing::Values(broken_port{"missing_port_1", "true", "ether_port = qnm0,nowhere\n", "CCDD"},
                    broken_port{"missing_port_0", "true", "ether_port = nowhere,qnm1\n", "DDCC"},
                    broken_port{"port_1_down", "ip link set qnm1 down", "ether_port = qnm0,qnm1\n",
                                "CCDD"}),
    [](const testing::TestParamInfo<broken_port>& it) { return it.param.name; });

TEST(ports, none_open_ends_the_start) {
    const cables wires;
    const installation install("ether_port = nowhere,neither\n");
    manager host(install.path());
    EXPECT_FALSE(host.is_running());
    EXPECT_EQ(host.stop(), QNM_API_EPROTO);
    EXPECT_THAT(install.log(), HasSubstr("Failed to _qnm_socket_open(). port=1, err=71"));
}

TEST(ports, frames_are_handed_over_one_by_one_and_not_by_the_block) {
    const cables wires;
    const installation install(k_two_ports);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    for (const qnm_port_info_t& port : qnm_root.er_port_info) {
        int version = -1;
        socklen_t length = sizeof version;
        ASSERT_EQ(
            getsockopt(pcap_fileno(port.epi_pcap), SOL_PACKET, PACKET_VERSION, &version, &length),
            0);
        EXPECT_NE(version, TPACKET_V3);
    }
}

}  // namespace
}  // namespace e2e
