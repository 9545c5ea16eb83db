// test_socket.cpp - opening, closing and using a port.

#include "qnm_socket.h"

#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "fake_netif.h"
#include "fake_pcap.h"
#include "fake_pcap_create.h"
#include "units.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct socket_unit : units {
    qnm_port_info_t& port = qnm_root.er_port_info[1];

    socket_unit() {
        fake_pcap::reset();
        fake_pcap::reset_create();
        fake_netif::reset();
        fake_netif::set("eth9", {.index = 42, .mac = 0x001122334455, .link_up = true});
        strcpy(qnm_config.ether_port_name[1], "eth9");
    }

    ~socket_unit() override {
        EXPECT_EQ(_qnm_socket_close(&port), 0);
        EXPECT_EQ(fake_pcap::open_handles(), 0U);
    }

    int open(const char* name = "eth9") { return _qnm_socket_open(name, 7, &port); }

    void expect_refused(const std::string& line, const char* name = "eth9") {
        logs.clear();
        EXPECT_EQ(open(name), EPROTO);
        EXPECT_THAT(logs.texts("logfile", k_error), ElementsAre(line));
        EXPECT_EQ(port.epi_pcap, nullptr);
        EXPECT_EQ(fake_pcap::open_handles(), 0U);
    }
};

TEST_F(socket_unit, a_port_is_opened_as_agreed_and_learnt) {
    EXPECT_EQ(open(), 0);
    const auto calls = fake_pcap::open_calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].name, "eth9");
    EXPECT_EQ(calls[0].snaplen, 1024);
    EXPECT_EQ(calls[0].promisc, 1);
    EXPECT_EQ(calls[0].timeout_ms, 1000);
    EXPECT_EQ(port.epi_if_index, 42) << "of the kernel, not of the configuration";
    EXPECT_EQ(port.epi_mac, 0x001122334455U);
    EXPECT_EQ(port.epi_link_state, 1U);
    EXPECT_TRUE(logs.has(k_info,
                         "_qnm_socket_open_lin: Success. IF name=eth9, IF index=42, IF status=1, "
                         "IF MAC=001122334455"));
    EXPECT_THAT(fake_pcap::create_calls(), IsEmpty()) << "no packet socket, so no reopening";
}

TEST_F(socket_unit, a_link_that_is_down_is_learnt_as_such) {
    fake_netif::set_link("eth9", false);
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(port.epi_link_state, 0U);
}

TEST_F(socket_unit, closing_leaves_the_link_state_and_opening_clears_it) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(_qnm_socket_close(&port), 0);
    EXPECT_EQ(port.epi_link_state, 1U);
    fake_pcap::set_next_open_failure("eth9", "eth9: no luck");
    EXPECT_EQ(open(), EPROTO);
    EXPECT_EQ(port.epi_link_state, 0U);
}

TEST_F(socket_unit, a_send_waits_a_second_at_most) {
    for (const int version : {TPACKET_V2, TPACKET_V3}) {
        fake_netif::set_packet_version(version);  // the latter is reopened
        EXPECT_EQ(open(), 0);
        EXPECT_EQ(fake_netif::send_timeout("eth9"), std::chrono::seconds(1));
        EXPECT_EQ(_qnm_socket_close(&port), 0);
    }
    fail::nth(fail::call::setsockopt, 1, ENOPROTOOPT);
    EXPECT_EQ(open(), 0) << "it goes on without";
    EXPECT_TRUE(
        logs.has(k_warn, "_qnm_socket_open_lin: Failed to setsockopt(SO_SNDTIMEO). errno=92"));
}

TEST_F(socket_unit, every_step_that_fails_closes_the_port_again) {
    fake_pcap::set_next_open_failure("eth9", "eth9: no luck");
    expect_refused("_qnm_socket_open_lin: Failed to pcap_open_live(). eth9: no luck");
    fake_pcap::set_fileno("eth9", -1);
    expect_refused("_qnm_socket_open_lin: Failed to pcap_fileno().");
    fake_pcap::set_fileno("eth9", std::nullopt);
    fake_netif::fail_request(SIOCGIFINDEX, ENODEV);
    expect_refused("_qnm_socket_open_lin: Failed to ioctl(SIOCGIFINDEX). errno=19");
    fake_netif::fail_request(SIOCGIFINDEX, 0);
    fake_netif::fail_request(SIOCGIFHWADDR, EIO);
    expect_refused("_qnm_socket_open_lin: Failed to ioctl(SIOCGIFHWADDR). errno=5");
    fake_netif::fail_request(SIOCGIFHWADDR, 0);
    fake_netif::fail_request(SIOCETHTOOL, EOPNOTSUPP);
    expect_refused("_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=95");
}

TEST_F(socket_unit, a_name_of_15_characters_opens_and_one_of_16_does_not) {
    fake_netif::set("a23456789012345", {.index = 1, .mac = 1});
    EXPECT_EQ(open("a23456789012345"), 0);
    EXPECT_EQ(_qnm_socket_close(&port), 0);
    expect_refused(
        "_qnm_socket_open_lin: port_name is greater than IFNAMSIZ. port_name=a234567890123456. "
        "For getting interface index.",
        "a234567890123456");
    EXPECT_EQ(fake_pcap::close_calls().back(), "a234567890123456");
}

TEST_F(socket_unit, closing_twice_is_harmless) {
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(_qnm_socket_close(&port), 0);
    EXPECT_EQ(port.epi_pcap, nullptr);
    EXPECT_EQ(_qnm_socket_close(&port), 0);
}

TEST_F(socket_unit, a_send_that_a_signal_ends_is_made_again) {
    EXPECT_EQ(open(), 0);
    const unsigned char frame[] = {1, 2, 3};
    fake_pcap::set_send_failure("eth9", 1, false, EINTR);
    EXPECT_EQ(_qnm_send(1, frame, sizeof frame), 0);
    EXPECT_EQ(fake_pcap::sent("eth9").size(), 1U);
    fake_pcap::set_send_failure("eth9", 1, true, EINTR);
    EXPECT_EQ(_qnm_send(1, frame, sizeof frame), EPROTO) << "not for ever";
    EXPECT_EQ(logs.count(k_error, "_qnm_send: Failed to pcap_sendpacket()."), 1U);
}

TEST_F(socket_unit, a_frame_is_sent_unchanged) {
    EXPECT_EQ(open(), 0);
    const unsigned char frame[] = {1, 2, 3};
    EXPECT_EQ(_qnm_send(1, frame, sizeof frame), 0);
    EXPECT_THAT(fake_pcap::sent("eth9"), ElementsAre(ElementsAre(1, 2, 3)));
    fake_pcap::set_send_failure("eth9", 1);
    EXPECT_EQ(_qnm_send(1, frame, sizeof frame), EPROTO);
    EXPECT_EQ(_qnm_send(0, frame, sizeof frame), EPROTO) << "port 0 is closed";
    EXPECT_EQ(logs.count(k_error, "_qnm_send: Failed to pcap_sendpacket()."), 2U);
}

TEST_F(socket_unit, the_link_state_is_read_back) {
    EXPECT_EQ(open(), 0);
    uint32_t state = 9;
    EXPECT_EQ(_qnm_get_linkstate(1, &state), 0);
    EXPECT_EQ(state, 1U);
    fake_netif::set_link("eth9", false);
    EXPECT_EQ(_qnm_get_linkstate(1, &state), 0);
    EXPECT_EQ(state, 0U);
    strcpy(qnm_config.ether_port_name[1], "a234567890123456");
    EXPECT_EQ(_qnm_get_linkstate(1, &state), EPROTO);
    EXPECT_TRUE(logs.has(k_error,
                         "_qnm_get_linkstate_lin_impl: port_name is greater than IFNAMSIZ. "
                         "port_name=a234567890123456. For getting link state"));
    fake_pcap::set_fileno("eth9", -1);
    EXPECT_EQ(_qnm_get_linkstate(1, &state), EPROTO);
    EXPECT_EQ(_qnm_get_linkstate(0, &state), EPROTO) << "port 0 is closed";
    EXPECT_EQ(logs.count(k_error, "_qnm_get_linkstate_lin: Failed to pcap_fileno()."), 2U);
}

// Whether the port's name still belongs to its interface, and whether the port is down.
TEST_F(socket_unit, the_interface_behind_the_name_is_compared) {
    EXPECT_FALSE(_qnm_is_port_down(1)) << "a closed port has no link to lose";
    EXPECT_EQ(open(), 0);
    bool present = false;
    EXPECT_EQ(_qnm_find_interface(1, &present), 0);
    EXPECT_TRUE(present);
    EXPECT_FALSE(_qnm_is_port_down(1));
    fake_netif::set("eth9", {.index = 43, .mac = 1});
    EXPECT_EQ(_qnm_find_interface(1, &present), 0);
    EXPECT_FALSE(present) << "another one has the name";
    EXPECT_TRUE(_qnm_is_port_down(1));
    present = true;
    fake_netif::remove("eth9");
    EXPECT_EQ(_qnm_find_interface(1, &present), 0);
    EXPECT_FALSE(present) << "none has it";
    EXPECT_TRUE(_qnm_is_port_down(1));
    EXPECT_EQ(logs.count_level(k_error), 0U);
}

TEST_F(socket_unit, a_port_that_is_down_is_told_without_a_line) {
    EXPECT_EQ(open(), 0);
    fake_netif::set_link("eth9", false);
    EXPECT_TRUE(_qnm_is_port_down(1));
    fake_netif::set_link("eth9", true);
    for (const unsigned long request : {SIOCGIFINDEX, SIOCETHTOOL}) {
        fake_netif::fail_request(request, EIO);
        EXPECT_TRUE(_qnm_is_port_down(1)) << "it does not answer";
        fake_netif::fail_request(request, 0);
    }
    strcpy(qnm_config.ether_port_name[1], "a234567890123456");
    EXPECT_TRUE(_qnm_is_port_down(1));
    EXPECT_EQ(logs.count_level(k_error), 0U);
    bool present = true;
    EXPECT_EQ(_qnm_find_interface(1, &present), EPROTO);
    EXPECT_TRUE(logs.has(k_error,
                         "_qnm_find_interface: port_name is greater than IFNAMSIZ. "
                         "port_name=a234567890123456. For getting interface index."));
}

TEST_F(socket_unit, a_capture_that_delivers_by_the_block_is_reopened_without_delay) {
    fake_netif::set_packet_version(TPACKET_V3);
    EXPECT_EQ(open(), 0);
    const auto created = fake_pcap::create_calls();
    ASSERT_EQ(created.size(), 1U);
    EXPECT_EQ(created[0].name, "eth9");
    EXPECT_EQ(created[0].snaplen, 1024);
    EXPECT_EQ(created[0].promisc, 1);
    EXPECT_EQ(created[0].timeout_ms, 1000);
    EXPECT_EQ(created[0].immediate_mode, 1);
    EXPECT_EQ(created[0].buffer_size, 16 * 1024 * 1024);
    EXPECT_TRUE(created[0].activated);
    EXPECT_EQ(fake_pcap::open_handles("eth9"), 1U) << "the first handle is closed";
}

TEST_F(socket_unit, older_rings_are_left_alone) {
    fake_netif::set_packet_version(TPACKET_V2);
    EXPECT_EQ(open(), 0);
    EXPECT_THAT(fake_pcap::create_calls(), IsEmpty());
}

TEST_F(socket_unit, a_reopening_that_fails_anywhere_keeps_the_first_handle) {
    using fake_pcap::step;
    fake_netif::set_packet_version(TPACKET_V3);
    for (const step failing : {step::create, step::snaplen, step::promisc, step::timeout,
                               step::immediate_mode, step::buffer_size, step::activate}) {
        fake_pcap::set_next_result(failing, -1);
        EXPECT_EQ(open(), 0) << static_cast<int>(failing);
        EXPECT_EQ(fake_pcap::open_handles("eth9"), 1U);
        EXPECT_EQ(logs.count_level(k_error), 0U);
        EXPECT_EQ(_qnm_socket_close(&port), 0);
    }
}

TEST_F(socket_unit, a_warning_of_the_reopening_is_no_failure) {
    fake_netif::set_packet_version(TPACKET_V3);
    fake_pcap::set_next_result(fake_pcap::step::activate, 1);
    EXPECT_EQ(open(), 0);
    EXPECT_TRUE(fake_pcap::create_calls().back().activated);
    EXPECT_EQ(fake_pcap::close_calls().size(), 1U);
}

}  // namespace
