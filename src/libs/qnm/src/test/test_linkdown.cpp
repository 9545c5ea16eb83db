// test_linkdown.cpp - the link watcher.

#include "qnm_linkdown.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/sockios.h>

#include <cerrno>
#include <thread>

#include "fake_netif.h"
#include "fake_pcap.h"
#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t k_id = 2;

struct linkdown : units {
    std::thread task;

    linkdown() {
        fake_pcap::reset();
        fake_netif::reset();
        for (int port = 0; port < 2; port++) {
            const std::string name = "port" + std::to_string(port);
            strcpy(qnm_config.ether_port_name[port], name.c_str());
            fake_netif::set(name, {.index = 5 + port, .mac = 0x0A0000000000U + port});
            EXPECT_EQ(_qnm_socket_open(name.c_str(), 0, &qnm_root.er_port_info[port]), 0);
        }
        EXPECT_EQ(pipe(qnm_terminate_fd_link), 0);
        qnm_qnsv_t card = {};
        card.esv_com_dev.ecd_id = k_id;
        card.esv_com_dev.ecd_state[0][0] = card.esv_com_dev.ecd_state[1][0] = 1;
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnsv(k_id, &card, 0, 0, QNM_VALID_ALL), 0);
        logs.clear();
    }

    ~linkdown() override {
        stop();
        for (qnm_port_info_t& port : qnm_root.er_port_info)
            _qnm_socket_close(&port);
        for (int& fd : qnm_terminate_fd_link) {
            close(fd);
            fd = -1;
        }
        EXPECT_EQ(fake_netif::listeners(), 0U);
    }

    void start() {
        task = std::thread(_qnm_watch_linkstate, nullptr);
        EXPECT_TRUE(fake_netif::wait_listener());
    }

    void stop() {
        if (!task.joinable()) return;
        EXPECT_EQ(write(qnm_terminate_fd_link[1], "a", 1), 1);
        task.join();
    }

    // Notifications until the library has looked at the interfaces, and then one more.
    void notify() {
        const uint64_t before = fail::count(fail::call::recv);
        fake_netif::notify();
        EXPECT_TRUE(wait_until([&] { return fail::count(fail::call::recv) > before; }));
    }

    static std::string paths() {
        qnm_qnsv_t card = {};
        qnm_get_qnsv(k_id, &card);
        const auto& state = card.esv_com_dev.ecd_state;
        return std::string(1, state[0][0] != 0 ? 'C' : 'D') + (state[1][0] != 0 ? 'C' : 'D');
    }
};

TEST_F(linkdown, a_port_that_goes_down_disconnects_its_cards_and_comes_back_quietly) {
    start();
    fake_netif::set_link("port1", false);
    notify();
    const std::string text = "State of QNM port1 changed. mac=0a0000000001, if_index=6 (UP->DOWN)";
    EXPECT_TRUE(logs.wait_for(k_info, "_qnm_link_state_update: " + text));
    EXPECT_TRUE(logs.wait_for(k_info, text, 1, "syslogfile"));
    EXPECT_TRUE(wait_until([] { return paths() == "CD"; }));
    fake_netif::set_link("port1", true);
    notify();
    EXPECT_TRUE(logs.wait_for(k_info,
                              "_qnm_link_state_update: State of QNM port1 changed. "
                              "mac=0a0000000001, if_index=6 (DOWN->UP)"));
    stop();
    EXPECT_EQ(qnm_stats.est_port0_down_total, 0U);
    EXPECT_EQ(qnm_stats.est_port1_down_total, 1U);
    EXPECT_EQ(qnm::load(qnm_root.er_port_info[1].epi_link_state), 1U);
    EXPECT_TRUE(logs.has(k_info, "_qnm_watch_linkstate: start."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_watch_linkstate_lin: poll() catch terminate-event."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_watch_linkstate: end."));
}

TEST_F(linkdown, port_0_counts_on_its_own) {
    start();
    fake_netif::set_link("port0", false);
    notify();
    EXPECT_TRUE(wait_until([] { return paths() == "DC"; }));
    stop();
    EXPECT_EQ(qnm_stats.est_port0_down_total, 1U);
    EXPECT_EQ(qnm_stats.est_port1_down_total, 0U);
}

TEST_F(linkdown, a_notification_without_a_change_queries_both_ports_silently) {
    start();
    const uint64_t before = fail::count(fail::call::ioctl);
    notify();
    EXPECT_TRUE(wait_until([&] { return fail::count(fail::call::ioctl) == before + 2; }));
    stop();
    EXPECT_THAT(logs.texts("syslogfile"), IsEmpty());
}

TEST_F(linkdown, one_port_in_use_means_one_port_queried) {
    qnm_config.use_port_num_linux = 1;
    start();
    const uint64_t before = fail::count(fail::call::ioctl);
    fake_netif::set_link("port1", false);
    notify();
    notify();
    stop();
    EXPECT_EQ(fail::count(fail::call::ioctl), before + 2);
    EXPECT_EQ(paths(), "CC");
}

TEST_F(linkdown, a_port_that_did_not_open_is_passed_over) {
    _qnm_socket_close(&qnm_root.er_port_info[0]);
    start();
    fake_netif::set_link("port1", false);
    notify();
    EXPECT_TRUE(wait_until([] { return paths() == "CD"; }));
    stop();
    EXPECT_EQ(logs.count_level(k_error), 0U);
}

TEST_F(linkdown, a_failed_query_passes_over_its_port_only) {
    fail::nth(fail::call::ioctl, 1, EIO);
    fake_netif::set_link("port1", false);
    start();
    notify();
    EXPECT_TRUE(wait_until([] { return paths() == "CD"; }));
    stop();
    EXPECT_TRUE(
        logs.has(k_error, "_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=5"));
}

TEST_F(linkdown, the_watcher_ends_with_the_stop_flag) {
    fail::on_poll([](auto, int timeout_ms) {
        EXPECT_EQ(timeout_ms, 1000);
        qnm::store(qnm_root.er_fini_flag, 0U);
        return std::optional(fail::poll_events({0, 0}));
    });
    _qnm_watch_linkstate_lin();
    EXPECT_EQ(fail::count(fail::call::poll), 1U);
}

TEST_F(linkdown, a_socket_that_cannot_be_made_or_bound_stops_the_manager) {
    fail::nth(fail::call::socket, 1, EMFILE);
    _qnm_watch_linkstate_lin();
    EXPECT_TRUE(logs.has(k_fatal, "_qnm_watch_linkstate_lin: Failed to socket(). errno=24"));
    EXPECT_EQ(qnm::load(internal_err), EPROTO);
    fail::nth(fail::call::bind, 1, EPERM);
    _qnm_watch_linkstate_lin();
    EXPECT_TRUE(logs.has(k_fatal, "_qnm_watch_linkstate_lin: Failed to bind(). errno=1"));
    EXPECT_EQ(
        logs.count(k_fatal, "_qnm_fini_manager: LFI will terminate by reason of internal error."),
        2U);
}

struct fatal_row {
    fail::poll_result found;
    fail::call failing;  // fails with EIO
    const char* error;   // "" when none is logged
    const char* fatal;
};

TEST_F(linkdown, failures_of_the_poll_set_stop_the_manager) {
    const auto none = fail::call::pipe;  // which the watcher does not call
    const fatal_row rows[] = {
        {{-1, EINTR, {}}, none, "", "poll() returned -1. errno=4"},
        {fail::poll_events({0, POLLHUP}), none, "",
         "poll error event has occurred (in terminate event wait). revents=0x10"},
        {fail::poll_events({0, POLLNVAL}), none, "",
         "poll error event has occurred (in terminate event wait). revents=0x20"},
        {fail::poll_events({0, POLLERR}), fail::call::read, "Failed to read(). err=-1, errno=5",
         "POLLERR event has occurred (in terminate event wait). revents=0x8"},
        {fail::poll_events({POLLHUP, 0}), none, "",
         "poll error event has occurred (in link state check wait). revents=0x10"},
        {fail::poll_events({POLLNVAL, 0}), none, "",
         "poll error event has occurred (in link state check wait). revents=0x20"},
        {fail::poll_events({POLLERR, 0}), fail::call::recv,
         "Failed to recv(). revent is POLLERR. err=-1, errno=5, revents=0x8",
         "POLLERR event has occurred (in link state check wait). revents=0x8"},
        {fail::poll_events({POLLIN, 0}), fail::call::recv, "",
         "Failed to recv(). revent is POLLIN. err=-1, errno=5, revents=0x1"},
    };
    const std::string name = "_qnm_watch_linkstate_lin: ";
    for (const fatal_row& row : rows) {
        logs.clear();
        set_running();
        if (row.failing != none) fail::nth(row.failing, 1, EIO);
        fail::poll_nth(1, row.found);
        _qnm_watch_linkstate_lin();
        EXPECT_THAT(logs.texts("logfile", k_fatal),
                    ElementsAre(name + row.fatal,
                                "_qnm_fini_manager: LFI will terminate by reason of internal "
                                "error."));
        EXPECT_EQ(logs.count_level(k_error), row.error[0] != '\0' ? 1U : 0U);
        EXPECT_EQ(logs.has(k_error, name + row.error), row.error[0] != '\0');
        EXPECT_EQ(qnm::load(internal_err), EPROTO);
    }
    set_running();
}

}  // namespace
