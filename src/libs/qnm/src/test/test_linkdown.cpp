// test_linkdown.cpp - the link watcher.

#include "qnm_linkdown.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/sockios.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "fake_netif.h"
#include "fake_pcap.h"
#include "qnm_socket.h"
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
        connect();
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

    // Waits until the watcher has checked the ports for the first time and waits for notifications.
    void start() {
        const uint64_t before = fail::count(fail::call::poll);
        task = std::thread(_qnm_watch_linkstate, nullptr);
        EXPECT_TRUE(wait_until([=] { return fail::count(fail::call::poll) > before; }));
        EXPECT_EQ(fake_netif::listeners(), 1U);
    }

    void stop() {
        if (!task.joinable()) return;
        EXPECT_EQ(write(qnm_terminate_fd_link[1], "a", 1), 1);
        task.join();
    }

    // Waits until the watcher has taken the notification, has checked the ports and waits again.
    void notify() {
        std::atomic<uint64_t> polls = UINT64_MAX;
        fail::on(fail::call::recv, [&](uint64_t) {
            polls = fail::count(fail::call::poll);
            return fail::pass;
        });
        fake_netif::notify();
        EXPECT_TRUE(wait_until([&] { return fail::count(fail::call::poll) > polls; }));
        fail::clear(fail::call::recv);
    }

    // Makes the card known by both ports.
    static void connect() {
        qnm_qnsv_t card = {};
        card.esv_com_dev.ecd_id = k_id;
        card.esv_com_dev.ecd_state[0][0] = card.esv_com_dev.ecd_state[1][0] = 1;
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnsv(k_id, &card, 0, 0, QNM_VALID_ALL), 0);
    }

    static uint32_t link_state(int port) {
        return qnm::load(qnm_root.er_port_info[port].epi_link_state);
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
    EXPECT_EQ(paths(), "DC");
    stop();
    EXPECT_EQ(qnm_stats.est_port0_down_total, 1U);
    EXPECT_EQ(qnm_stats.est_port1_down_total, 0U);
}

TEST_F(linkdown, a_notification_without_a_change_queries_both_ports_silently) {
    start();
    const uint64_t before = fail::count(fail::call::ioctl);
    notify();
    stop();
    // For each port: the interface behind its name, then the link of that interface.
    EXPECT_EQ(fail::count(fail::call::ioctl), before + 4);
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
    EXPECT_EQ(fail::count(fail::call::ioctl), before + 4);
    EXPECT_EQ(paths(), "CC");
}

TEST_F(linkdown, a_port_that_did_not_open_is_passed_over) {
    _qnm_socket_close(&qnm_root.er_port_info[0]);
    start();
    fake_netif::set_link("port1", false);
    notify();
    EXPECT_EQ(paths(), "CD");
    stop();
    EXPECT_EQ(logs.count_level(k_error), 0U);
}

TEST_F(linkdown, a_failed_query_passes_over_its_port_only) {
    const char* const lines[] = {
        "_qnm_find_interface: Failed to ioctl(SIOCGIFINDEX). errno=5",
        "_qnm_get_linkstate_lin_impl: Failed to ioctl(SIOCETHTOOL). errno=5"};
    start();
    for (unsigned query = 1; query <= 2; query++) {
        const bool up = query % 2 == 0;
        fail::nth(fail::call::ioctl, query, EIO);
        fake_netif::set_link("port0", up);
        fake_netif::set_link("port1", up);
        notify();
        EXPECT_EQ(link_state(1), up ? 1U : 0U);
        EXPECT_TRUE(logs.has(k_error, lines[query - 1]));
        EXPECT_NE(link_state(0), link_state(1)) << "passed over this time";
        notify();
        EXPECT_EQ(link_state(0), link_state(1));
    }
    stop();
    EXPECT_EQ(logs.count_level(k_error), 2U);
}

// ---- A change before the watcher listens --------------------------------------------------------

TEST_F(linkdown, a_change_since_the_ports_were_opened_is_seen_without_a_notification) {
    fake_netif::set_link("port1", false);
    start();
    EXPECT_EQ(paths(), "CD");
    EXPECT_EQ(link_state(1), 0U);
    stop();
    EXPECT_EQ(qnm_stats.est_port1_down_total, 1U);
    EXPECT_TRUE(logs.has(k_info,
                         "_qnm_link_state_update: State of QNM port1 changed. "
                         "mac=0a0000000001, if_index=6 (UP->DOWN)"));
}

TEST_F(linkdown, a_start_without_a_change_says_nothing_of_the_ports) {
    start();
    stop();
    EXPECT_EQ(logs.count_part(k_info, "State of QNM port"), 0U);
    EXPECT_THAT(logs.texts("syslogfile"), IsEmpty());
}

// ---- Interfaces that are not what they were -----------------------------------------------------

constexpr char k_lost[] =
    "_qnm_link_state_update: port1 is no longer the interface that was opened as QNM port1 "
    "(if_index=6): that was removed or renamed. The port counts as down. Restart the manager to "
    "open it anew.";

// What has happened to the interface behind port 1's name.
struct loss_row {
    const char* what;
    void (*lose)();
};

TEST_F(linkdown, a_port_whose_name_leads_elsewhere_is_down_and_says_so_once) {
    const loss_row rows[] = {
        {"gone", [] { fake_netif::remove("port1"); }},
        {"replaced", [] { fake_netif::set("port1", {.index = 9, .mac = 0x0A0000000001}); }},
    };
    start();
    unsigned losses = 0;
    for (const loss_row& row : rows) {
        SCOPED_TRACE(row.what);
        losses++;
        connect();
        logs.clear();
        row.lose();
        notify();
        EXPECT_EQ(paths(), "CD");
        EXPECT_EQ(link_state(1), 0U);
        EXPECT_EQ(logs.texts("logfile", k_error), std::vector<std::string>{k_lost});
        notify();
        EXPECT_EQ(logs.count(k_error, k_lost), 1U) << "once for each change";
        // The name belongs to the opened interface again.
        fake_netif::set("port1", {.index = 6, .mac = 0x0A0000000001});
        notify();
        EXPECT_EQ(link_state(1), 1U);
    }
    stop();
    EXPECT_EQ(qnm_stats.est_port1_down_total, losses);
    EXPECT_EQ(qnm_stats.est_port0_down_total, 0U);
}

TEST_F(linkdown, a_port_that_was_down_before_it_is_lost_says_so_as_well) {
    start();
    fake_netif::set_link("port1", false);
    notify();
    EXPECT_EQ(paths(), "CD");
    fake_netif::remove("port1");
    notify();
    EXPECT_TRUE(logs.has(k_error, k_lost));
    stop();
    EXPECT_EQ(qnm_stats.est_port1_down_total, 1U);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(linkdown, the_socket_is_told_not_to_fail_when_it_overruns) {
    start();
    EXPECT_EQ(fake_netif::patient_listeners(), 1U);
    stop();
    fail::nth(fail::call::setsockopt, 1, ENOPROTOOPT);
    start();
    EXPECT_EQ(fake_netif::patient_listeners(), 0U) << "it goes on without";
    EXPECT_TRUE(logs.has(
        k_warn, "_qnm_watch_linkstate_lin: Failed to setsockopt(NETLINK_NO_ENOBUFS). errno=92"));
    stop();
    EXPECT_EQ(qnm::load(internal_err), 0);
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
