// ports.h - the units with both local ports open on the fake libpcap, for the tests of what sends
// and receives.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <string>

#include "fake_netif.h"
#include "fake_pcap.h"
#include "frames.h"
#include "qnm_recv.h"
#include "units.h"

struct ports : units {
    static constexpr uint64_t k_port_mac[2] = {0x0A0000000000, 0x0A0000000001};

    ports() {
        fake_pcap::reset();
        fake_netif::reset();
        for (int port = 0; port < 2; port++) {
            fake_netif::set(name(port), {.index = 5 + port, .mac = k_port_mac[port]});
            EXPECT_EQ(_qnm_socket_open(name(port).c_str(), 0, &qnm_root.er_port_info[port]), 0);
            EXPECT_EQ(pipe(qnm_terminate_fd_recv[port]), 0);
        }
        logs.clear();
    }

    ~ports() override {
        for (int port = 0; port < 2; port++) {
            _qnm_socket_close(&qnm_root.er_port_info[port]);
            for (int& fd : qnm_terminate_fd_recv[port]) {
                close(fd);
                fd = -1;
            }
        }
        EXPECT_EQ(fake_pcap::open_handles(), 0U);
    }

    static std::string name(int port) { return "port" + std::to_string(port); }

    // Takes one frame in on the calling thread, as the port's receive thread does.
    static int receive(const frames::frame_t& frame, int port = 0) {
        fake_pcap::push_frame(name(port), frame);
        return _qnm_recv_frame(port);
    }

    static std::size_t sent_count() {
        return fake_pcap::sent(name(0)).size() + fake_pcap::sent(name(1)).size();
    }

    // The only frame that has been sent, by this port.
    static frames::frame_t only_sent(int port = 0) {
        const auto sent = fake_pcap::sent(name(port));
        EXPECT_EQ(sent.size(), 1U);
        EXPECT_EQ(sent_count(), sent.size());
        return sent.empty() ? frames::frame_t() : sent.front();
    }

    // A counter of the frames of a port.
    static uint64_t counted(int port, qnm_stats_type_t type) {
        return (port == 0 ? qnm_stats.est_stats_p0 : qnm_stats.est_stats_p1)[type];
    }
};
