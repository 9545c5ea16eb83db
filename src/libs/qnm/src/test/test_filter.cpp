// test_filter.cpp - when the captures of the ports have a kernel filter.

#include "qnm_filter.h"

#include <cerrno>

#include "ports.h"

namespace {

struct filter : ports {
    static void set_level(qnm_log_level_t level) {
        EXPECT_EQ(qnm_set_loglevel(level), QNM_API_SUCCESS);
    }

    static bool both_filtered() {
        return fake_netif::is_filtered("port0") && fake_netif::is_filtered("port1");
    }

    static bool none_filtered() {
        return !fake_netif::is_filtered("port0") && !fake_netif::is_filtered("port1");
    }

    // Opens port 0 again, as a start does.
    static void reopen() {
        qnm_port_info_t& port = qnm_root.er_port_info[0];
        _qnm_socket_close(&port);
        fake_netif::reset();
        fake_netif::set("port0", {.index = 5});
        EXPECT_EQ(_qnm_socket_open("port0", 0, &port), 0);
    }
};

TEST_F(filter, a_port_is_opened_with_a_filter_below_the_trace_level) {
    for (int level = QNM_LOGLVL_FATAL; level <= QNM_LOGLVL_TRACE; level++) {
        qnm::store(g_log_level, static_cast<qnm_log_level_t>(level));
        reopen();
        EXPECT_EQ(fake_netif::is_filtered("port0"), level != QNM_LOGLVL_TRACE) << level;
    }
}

TEST_F(filter, changing_the_level_changes_the_filters_of_both_ports) {
    EXPECT_TRUE(none_filtered()) << "the fixture traces";
    set_level(QNM_LOGLVL_DEBUG);
    EXPECT_TRUE(both_filtered());
    set_level(QNM_LOGLVL_TRACE);
    EXPECT_TRUE(none_filtered());
    set_level(QNM_LOGLVL_NONE);
    EXPECT_TRUE(both_filtered()) << "the configured level is info";
}

TEST_F(filter, a_closed_port_is_passed_over) {
    _qnm_socket_close(&qnm_root.er_port_info[1]);
    set_level(QNM_LOGLVL_INFO);
    EXPECT_TRUE(fake_netif::is_filtered("port0"));
    EXPECT_FALSE(fake_netif::is_filtered("port1"));
}

TEST_F(filter, an_ether_type_that_is_one_of_a_tag_takes_all_frames) {
    for (const uint16_t type : {0x8100, 0x88A8}) {
        qnm_config.ether_type = type;
        set_level(QNM_LOGLVL_INFO);
        EXPECT_TRUE(none_filtered()) << type;
    }
}

TEST_F(filter, a_filter_that_cannot_be_set_costs_one_line_per_port) {
    fail::always(fail::call::setsockopt, EPERM);
    set_level(QNM_LOGLVL_INFO);
    EXPECT_EQ(logs.count(k_warn,
                         "_qnm_filter_port: Failed to setsockopt(SO_ATTACH_FILTER). errno=1, "
                         "if_index=5"),
              1U);
    EXPECT_EQ(logs.count_level(k_warn), 2U);
    set_level(QNM_LOGLVL_TRACE);
    EXPECT_EQ(logs.count(k_warn,
                         "_qnm_filter_port: Failed to setsockopt(SO_DETACH_FILTER). errno=1, "
                         "if_index=6"),
              1U);
    EXPECT_EQ(logs.count_level(k_warn), 4U);
}

TEST_F(filter, a_level_that_changes_meanwhile_is_applied_as_well) {
    qnm::store(g_log_level, QNM_LOGLVL_INFO);
    const uint64_t before = fail::count(fail::call::setsockopt);
    fail::on(fail::call::setsockopt, [=](uint64_t number) {
        if (number == before + 1) qnm::store(g_log_level, QNM_LOGLVL_TRACE);
        return fail::pass;
    });
    _qnm_filter_port(&qnm_root.er_port_info[0]);
    EXPECT_EQ(fail::count(fail::call::setsockopt), before + 2);
    EXPECT_FALSE(fake_netif::is_filtered("port0"));
}

}  // namespace
