// whole_manager.h - the whole manager on two fake ports, for the tests that start and stop it.
#pragma once

#include <thread>

#include "config_file.h"
#include "fake_netif.h"
#include "fake_pcap.h"
#include "units.h"
#include "wait.h"

struct whole_manager : testing::Test {
    static constexpr char k_conf[] = "ether_port = port0,port1\ndevinfo_flag_check_interval = 1\n";

    fail::guard guard;
    log_capture logs;
    install_dir dir{k_conf};
    std::thread manager;
    qnm_api_code_t result = QNM_API_CODE_MAX;

    whole_manager() {
        fake_pcap::reset();
        fake_netif::reset();
        fake_netif::set("port0", {.index = 3, .mac = 1});
        fake_netif::set("port1", {.index = 4, .mac = 2});
    }

    ~whole_manager() override {
        stop();
        expect_down();
        qnm::store(g_log_level, QNM_LOGLVL_INFO);
    }

    static bool is_up() { return qnm::is_usable(); }

    void start(qnm_log_level_t level = QNM_LOGLVL_NONE) {
        manager = std::thread([this, level] { result = init(level); });
        ASSERT_TRUE(wait_until(is_up));
    }

    qnm_api_code_t stop() {
        if (manager.joinable()) {
            EXPECT_EQ(qnm_fini_manager(), QNM_API_SUCCESS);
            manager.join();
        }
        return result;
    }

    // For a start that is going to fail.
    qnm_api_code_t init(qnm_log_level_t level = QNM_LOGLVL_NONE) {
        return qnm_init_manager(dir.path().c_str(), level);
    }

    // After any failure the manager starts again as if nothing had happened.
    void expect_restart() {
        start();
        EXPECT_EQ(stop(), QNM_API_SUCCESS);
    }

    // Expects that an ended manager has left nothing behind.
    static void expect_down() {
        EXPECT_EQ(fake_pcap::open_handles(), 0U);
        EXPECT_EQ(fake_netif::listeners(), 0U);
        EXPECT_EQ(qnm::load(internal_err), 0);
        EXPECT_EQ(qnm::load(qnm_root.er_init_flag), 1U);
        for (const int fd : {qnm_terminate_fd_recv[0][0], qnm_terminate_fd_recv[1][1],
                             qnm_terminate_fd_link[0], qnm_terminate_fd_link[1]}) {
            EXPECT_EQ(fd, -1);
        }
    }
};
