// links_test.cpp - links that flap, change together with many others, or go down unnoticed, and
// interfaces that are paused, replaced or renamed under the manager.

#include <gmock/gmock.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "qnm_counters.h"
#include "qnm_root.h"
#include "rig.h"

namespace e2e {
namespace {

using testing::HasSubstr;
using testing::Not;

// With this expiry time, only the link can disconnect a card.
constexpr char k_patient[] = "ether_port = qnm0,qnm1\ndevinfo_expire_time = 100000\n";
constexpr uint32_t k_register = 0x1000;

// Takes interfaces down and up at once; a command would need milliseconds.
class switchboard {
  public:
    ~switchboard() { close(fd_); }

    void set(const char* name, bool up) const {
        struct ifreq request = {};
        strcpy(request.ifr_name, name);
        EXPECT_EQ(ioctl(fd_, SIOCGIFFLAGS, &request), 0);
        set_flag(request, up);
    }

    // Down and up again, with nothing in between.
    void flap(const char* name) const {
        struct ifreq request = {};
        strcpy(request.ifr_name, name);
        EXPECT_EQ(ioctl(fd_, SIOCGIFFLAGS, &request), 0);
        set_flag(request, false);
        set_flag(request, true);
    }

    // An interface that joins frames itself is captured whole, whatever its MTU.
    void stop_offloads(const char* name) const {
        for (const uint32_t command : {ETHTOOL_STSO, ETHTOOL_SGSO, ETHTOOL_SGRO}) {
            struct ethtool_value off = {command, 0};
            struct ifreq request = {};
            strcpy(request.ifr_name, name);
            request.ifr_data = reinterpret_cast<char*>(&off);
            EXPECT_EQ(ioctl(fd_, SIOCETHTOOL, &request), 0) << command;
        }
    }

  private:
    void set_flag(struct ifreq& request, bool up) const {
        const int flags = request.ifr_flags;
        request.ifr_flags = static_cast<short>(up ? flags | IFF_UP : flags & ~IFF_UP);
        EXPECT_EQ(ioctl(fd_, SIOCSIFFLAGS, &request), 0);
    }

    int fd_ = socket(AF_INET, SOCK_DGRAM, 0);
};

// Reads the counters, under the mutex that guards them.
template <typename Look>
auto in_stats(const Look& look) {
    pthread_mutex_lock(&qnm_stats_mutex.em_mutex);
    const auto seen = look(qnm_stats);
    pthread_mutex_unlock(&qnm_stats_mutex.em_mutex);
    return seen;
}

uint64_t received(int port) {
    return in_stats([=](const qnm_sd_stats_t& stats) {
        return (port == 0 ? stats.est_stats_p0 : stats.est_stats_p1)[QNM_STATS_R_TOTAL];
    });
}

bool hears(int port) {
    const uint64_t before = received(port);
    return wait_for([&] { return received(port) > before; });
}

bool is_logged(const installation& install, const std::string& text) {
    return install.log().find(text) != std::string::npos;
}

size_t times_logged(const installation& install, const std::string& text) {
    const std::string log = install.log();
    size_t times = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        times++;
    return times;
}

uint32_t link_state(int port) {
    return qnm::load(qnm_root.er_port_info[port].epi_link_state);
}

// A stop that ends by itself. A command helps one that hangs, so that the test can report it.
void expect_stop(manager& host, const std::string& help) {
    qnm_fini_manager();
    const bool ended = wait_for([&] { return host.has_ended(); });
    EXPECT_TRUE(ended) << "the stop hangs";
    if (!ended) run(help);
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

// Threads that send to the card without a rest, until they are told to end. A thread waits for an
// answer only when it reads, once in so many writes.
class senders {
  public:
    explicit senders(const std::vector<uint64_t>& ids) {
        for (const uint64_t id : ids)
            threads_.emplace_back([this, id] { send_to(id); });
    }
    ~senders() {
        ended_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }
    uint64_t sent() const { return sent_; }

  private:
    void send_to(uint64_t id) {
        constexpr qnm_retry_t k_quick = {20, 5};
        uint32_t value = 0;
        for (uint32_t n = 0; !ended_; n++) {
            const qnm_api_code_t ret = n % 16 == 0
                                           ? qnm_read_register(id, k_register, &value, &k_quick, 0)
                                           : qnm_write_register(id, k_register, n, nullptr, 0);
            if (ret == QNM_API_ENOSYS) return;
            if (ret == QNM_API_SUCCESS) sent_++;
        }
    }

    std::atomic<bool> ended_ = false;
    std::atomic<uint64_t> sent_ = 0;
    std::vector<std::thread> threads_;
};

// A manager that knows a card by all four paths.
struct links : testing::Test {
    cables wires;
    installation install{k_patient};
    std::unique_ptr<manager> host = std::make_unique<manager>(install.path());
    std::unique_ptr<cardsim::simulator> cards_ = make_cards();

    void SetUp() override {
        ASSERT_TRUE(host->is_running()) << install.log();
        cards_->add(lively(card_kind::qnsv, card_speed::g40, k_id));
        cards_->start();
        ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    }
};

// A thread that sends can take the socket's error before the port's own thread does. The manager
// runs at a low priority, so its threads may be held up between any two steps.
TEST_F(links, ports_that_flap_under_eight_senders_go_on_to_hear_and_to_stop) {
    constexpr int k_flaps = 1000;
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);
    std::thread([this] {
        setpriority(PRIO_PROCESS, 0, 19);
        host = std::make_unique<manager>(install.path());
    }).join();
    qnm_set_loglevel(QNM_LOGLVL_ERROR);
    std::vector<uint64_t> ids;
    for (uint64_t id = k_id + 2; ids.size() < 8; id += 2) {
        cardsim::card card = lively(card_kind::qnsv, card_speed::g40, id);
        card.interval_ms = 10;
        cards_->add(card);
        ids.push_back(id);
        EXPECT_TRUE(wait_for([=] { return paths(id) == "CCCC"; }));
    }
    {
        const senders some(ids);
        const switchboard cable_ends;
        for (int n = 0; n < k_flaps && !host->has_ended(); n++) {
            cable_ends.flap(n % 4 == 3 ? "qnm1" : "qnm0");
            // So that the port sends frames again.
            const uint64_t before = some.sent();
            ASSERT_TRUE(wait_for([&] {
                return host->has_ended() || (paths(ids[0]) == "CCCC" && some.sent() > before + 100);
            })) << "deaf after flap "
                << n;
        }
    }
    ASSERT_FALSE(host->has_ended()) << install.log();
    EXPECT_TRUE(hears(0)) << "port 0 is deaf";
    EXPECT_TRUE(hears(1)) << "port 1 is deaf";
    expect_stop(*host, "ip link set qnm0 down && ip link set qnm1 down");
}

// More interfaces than the watcher's socket can hold notifications of, and the ports after them.
TEST(links_in_a_burst, a_thousand_interfaces_end_nothing_and_hide_nothing) {
    run("for n in $(seq 500); do"
        "  echo link add burst$n group 7 type veth peer name tsrub$n group 7;"
        "done | ip -batch -");
    const cables wires;
    const installation install(k_patient);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards->start();
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    run("ip link set qnm0 group 7 && ip link set qnm1 group 7");
    for (int round = 0; round < 5; round++) {
        // The kernel takes the interfaces in the order in which they were made.
        run("ip link set group 7 down");
        ASSERT_TRUE(wait_for([&] { return paths(k_id) == "DDDD" || host.has_ended(); }));
        ASSERT_FALSE(host.has_ended()) << install.log();
        run("ip link set group 7 up");
        ASSERT_TRUE(wait_for([&] { return paths(k_id) == "CCCC" || host.has_ended(); }));
        ASSERT_FALSE(host.has_ended()) << install.log();
        ASSERT_TRUE(wait_for([] { return link_state(0) == 1 && link_state(1) == 1; }));
    }
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
    run("ip link set qnm0 group 0 && ip link set qnm1 group 0 && ip link del group 7");
}

// Bytes leave at one a second; each frame is charged 1400 more.
constexpr char k_pause[] =
    "tc qdisc add dev qnm0 root tbf rate 8bit burst 1600 limit 100000000 overhead 1400";
constexpr char k_resume[] = "tc qdisc del dev qnm0 root";

TEST_F(links, a_paused_port_fails_calls_and_holds_no_stop) {
    run(k_pause);
    constexpr qnm_retry_t k_once = {0, 1};
    std::atomic<int> result = QNM_API_SUCCESS;
    // Each read leaves a frame in the queue, until the port's send buffer is full.
    std::thread caller([&] {
        uint32_t value = 0;
        while (result == QNM_API_SUCCESS || result == QNM_API_ETIMEDOUT)
            result = qnm_read_register(k_id, k_register, &value, &k_once, 0);
    });
    EXPECT_TRUE(wait_for([&] { return result == QNM_API_EPROTO; })) << "the call hangs";
    EXPECT_TRUE(is_logged(install, "ERROR _qnm_send: Failed to pcap_sendpacket()."));
    {
        const senders some(std::vector<uint64_t>(8, k_id));
        expect_stop(*host, k_resume);
    }
    // The cable may have been removed already, to end what hung.
    run(std::string(k_resume) + " 2>/dev/null || true");
    caller.join();
}

// ---- A change while the manager starts ----------------------------------------------------------

TEST(links_at_a_start, a_link_that_goes_before_the_watcher_listens_is_seen) {
    const cables wires;
    const installation install(k_patient);
    for (int round = 1; round <= 10; round++) {
        const auto opened = static_cast<size_t>(round);
        std::thread breaker([&] {
            // The second port is not open yet, and the watcher starts after it.
            if (wait_for([&] { return times_logged(install, "Success. IF name=qnm0") >= opened; }))
                switchboard().set("qsim0", false);
        });
        manager host(install.path());
        EXPECT_TRUE(host.is_running()) << install.log();
        breaker.join();
        ASSERT_TRUE(wait_for([] { return link_state(0) == 0; })) << "round " << round;
        EXPECT_EQ(link_state(1), 1U);
        EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
        switchboard().set("qsim0", true);
    }
}

TEST(links_at_a_start, an_unchanged_link_is_not_spoken_of) {
    const cables wires;
    const installation install(k_patient);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
    EXPECT_THAT(install.log(), Not(HasSubstr("State of QNM port")));
}

// ---- Interfaces that are not what they were -----------------------------------------------------

constexpr char k_lost[] = "is no longer the interface that was opened";

TEST_F(links, a_port_that_comes_back_as_another_interface_is_down_until_a_restart) {
    run("ip link del qnm1");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCDD"; }));
    run("ip link add qnm1 type veth peer name qsim1 && ip link set qnm1 up && "
        "ip link set qsim1 up");
    ASSERT_TRUE(wait_for([&] { return is_logged(install, k_lost); })) << install.log();
    cards_ = make_cards();
    cards_->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards_->start();
    ASSERT_TRUE(hears(0));
    EXPECT_EQ(link_state(1), 0U) << "it cannot be heard";
    EXPECT_EQ(paths(k_id), "CCDD");
    EXPECT_EQ(in_stats([](const qnm_sd_stats_t& stats) { return stats.est_port1_down_total; }), 1U);
    EXPECT_EQ(times_logged(install, k_lost), 1U) << install.log();
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);

    host = std::make_unique<manager>(install.path());
    ASSERT_TRUE(host->is_running()) << install.log();
    EXPECT_TRUE(wait_for([] { return paths(k_id) == "CCCC"; }));
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);
}

TEST_F(links, a_port_that_is_renamed_is_down_until_it_has_its_name_again) {
    run("ip link set qnm1 down && ip link set qnm1 name away && ip link set away up");
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CCDD"; }));
    ASSERT_TRUE(wait_for([&] { return is_logged(install, k_lost); })) << install.log();
    // The renamed interface still delivers the card's frames.
    ASSERT_TRUE(hears(1));
    EXPECT_EQ(paths(k_id), "CCDD");
    EXPECT_EQ(link_state(1), 0U);
    run("ip link set away down && ip link set away name qnm1 && ip link set qnm1 up");
    EXPECT_TRUE(wait_for([] { return paths(k_id) == "CCCC" && link_state(1) == 1; }));
    EXPECT_EQ(times_logged(install, k_lost), 1U) << install.log();
    EXPECT_EQ(host->stop(), QNM_API_SUCCESS);
}

// ---- A small MTU --------------------------------------------------------------------------------

// The kernel captures no more of a frame than the MTU was when the port was opened.
void expect_no_card_of_half_a_frame(const std::string& more) {
    const cables wires;
    switchboard().stop_offloads("qnm0");
    run("ip link set qnm0 mtu 200");
    const installation install("ether_port = qnm0\n" + more);
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    run("ip link set qnm0 mtu 1500");
    const auto cards = make_cards();
    cards->add(lively(card_kind::qnsv, card_speed::g40, k_id));
    cards->start();
    // Two announcements with small frames, with one of the other card in between.
    cards->add(lively(card_kind::qnio, card_speed::g1_10, k_id + 2));
    const uint64_t before = received(0);
    EXPECT_TRUE(wait_for([=] { return received(0) >= before + 3; }));
    EXPECT_EQ(qnio_total(), 1U);
    EXPECT_EQ(qnsv_total(), 0U);
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

TEST(links_with_a_small_mtu, a_frame_that_is_captured_in_part_makes_no_card) {
    expect_no_card_of_half_a_frame("");
}

TEST(links_with_a_small_mtu, nor_does_it_where_frames_are_taken_one_by_one) {
    expect_no_card_of_half_a_frame("log_level = 5\n");
}

}  // namespace
}  // namespace e2e
