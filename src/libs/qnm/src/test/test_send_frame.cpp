// test_send_frame.cpp - the senders: every frame byte for byte, its path, and what is counted and
// logged.

#include "qnm_send_frame.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <thread>

#include "ports.h"
#include "qnm_util.h"

namespace {

using frames::frame_t;
using testing::ElementsAre;

// The counters in the order in which they were counted, and whether the frame had left by then.
struct count_call {
    int port;
    qnm_stats_type_t type;
    size_t sent;
    bool operator==(const count_call&) const = default;
};

std::vector<count_call>* g_counts = nullptr;

extern "C" void __real__qnm_stats_count_frame(int port, qnm_stats_type_t type);
extern "C" void __wrap__qnm_stats_count_frame(int port, qnm_stats_type_t type) {
    if (g_counts != nullptr) g_counts->push_back({port, type, ports::sent_count()});
    __real__qnm_stats_count_frame(port, type);
}

// Locks that this thread has taken.
thread_local int g_stats_locks = 0;
thread_local int g_other_locks = 0;

extern "C" int __real__qnm_mutex_lock(qnm_mutex_t* mutex);
extern "C" int __wrap__qnm_mutex_lock(qnm_mutex_t* mutex) {
    (mutex == &qnm_stats_mutex ? g_stats_locks : g_other_locks)++;
    return __real__qnm_mutex_lock(mutex);
}

constexpr uint64_t k_mac = 0x0200AABBCC10;
constexpr uint32_t k_page_data[32] = {0x04030201, 0xFFEEDDCC};

// A card on VLAN 0x123 with one connected path.
qnm_com_dev_t card(int port, int mac_bit) {
    qnm_com_dev_t dev = {};
    dev.ecd_id = k_mac;
    _qnm_uint64_to_mac(k_mac, dev.ecd_macaddr);
    dev.ecd_vlan_id = 0x123;
    dev.ecd_state[port][mac_bit] = 1;
    return dev;
}

// Stand for "not stored".
constexpr uint64_t k_no_mac = 0xDEAD;
constexpr int k_no_port = -7;

struct read_out {
    uint64_t mac = k_no_mac;
    int port = k_no_port;
};

read_out g_read_out;

// A sender with a message of its own, and the frame's bytes behind the header.
struct sender {
    const char* name;
    const char* no_path;
    qnm_stats_type_t counter;
    int (*send)(const qnm_com_dev_t* dev);
    frame_t message;
    size_t length;
    bool to_broadcast;
};

const sender k_senders[] = {
    {"_qnm_send_reset",
     "Send port error.",
     QNM_STATS_T_RESET,
     [](const qnm_com_dev_t* dev) { return _qnm_send_reset(dev, 0xA5); },
     {0x30, 0xFF, 0xFF, 0, 0, 0xA5},
     60,
     true},
    {"_qnm_send_mms",
     "Send port error.",
     QNM_STATS_T_MMS,
     [](const qnm_com_dev_t* dev) { return _qnm_send_mms(dev, 0x89ABCDEF, k_page_data); },
     {0x92, 0xFF, 0xFF, 0, 0, 0, 0x89, 0xAB, 0xCD, 0xEF, 0x01, 0x02, 0x03, 0x04, 0xCC, 0xDD, 0xEE,
      0xFF},
     156,
     false},
    {"_qnm_send_vlanset",
     "Send port error.",
     QNM_STATS_T_VLANSET,
     [](const qnm_com_dev_t* dev) { return _qnm_send_vlanset(dev, 0xFEDC); },
     {0x80, 0xFF, 0xFF, 0, 0, 0, 0xFE, 0xDC, 0, 0},
     60,
     false},
    {"_qnm_send_regwrite",
     "Send port error.",
     QNM_STATS_T_REGW,
     [](const qnm_com_dev_t* dev) { return _qnm_send_regwrite(dev, 0x003FFFFF, 0x44332211); },
     {0x90, 0xFF, 0xFF, 0, 0, 0, 0x03, 0xFF, 0x0F, 0xFF, 0x11, 0x22, 0x33, 0x44},
     60,
     false},
    {"_qnm_send_regread",
     "Sendable port don't exist.",
     QNM_STATS_T_REGR,
     [](const qnm_com_dev_t* dev) {
         g_read_out = {};
         return _qnm_send_regread(dev, 0x00ABCDEF, 0xC3, &g_read_out.mac, &g_read_out.port);
     },
     {0x91, 0xFF, 0xFF, 0, 0, 0xC3, 0x02, 0xBC, 0x0D, 0xEF},
     60,
     false},
};

const sender& k_regread = k_senders[4];

const frame_t k_first_mac = {0x02, 0x00, 0xAA, 0xBB, 0xCC, 0x10};
const frame_t k_second_mac = {0x02, 0x00, 0xAA, 0xBB, 0xCC, 0x11};
const frame_t k_broadcast_mac = {0x03, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};  // unless configured

struct send_frame : ports {
    // The frame that is expected when these are bytes 12 and following of the header.
    static frame_t expected(const sender& it, const frame_t& dmac, int port, const frame_t& rest) {
        frame_t frame = it.to_broadcast ? k_broadcast_mac : dmac;
        for (int shift = 40; shift >= 0; shift -= 8)
            frame.push_back(static_cast<uint8_t>(k_port_mac[port] >> shift));
        frame.insert(frame.end(), rest.begin(), rest.end());
        frame.insert(frame.end(), it.message.begin(), it.message.end());
        frame.resize(it.length);
        return frame;
    }

    static frame_t last_sent(int port) {
        const auto sent = fake_pcap::sent(name(port));
        return sent.empty() ? frame_t() : sent.back();
    }

    // Everything that is counted per frame, on both ports.
    static uint64_t all_counted() {
        uint64_t sum = 0;
        for (int type = 0; type < QNM_STATS_TYPE_MAX; type++)
            sum += qnm_stats.est_stats_p0[type] + qnm_stats.est_stats_p1[type];
        return sum;
    }
};

// ---- Bytes --------------------------------------------------------------------------------------

TEST_F(send_frame, every_byte_is_known_in_the_ordinary_arrangement) {
    for (const sender& it : k_senders) {
        const qnm_com_dev_t dev = card(0, 0);
        EXPECT_EQ(it.send(&dev), 0) << it.name;
        EXPECT_EQ(last_sent(0), expected(it, k_first_mac, 0, {0x81, 0x00, 0x81, 0x23, 0x88, 0xB6}))
            << it.name;
    }
    EXPECT_EQ(fake_pcap::sent("port0").size(), std::size(k_senders)) << "each once";
    EXPECT_EQ(fake_pcap::sent("port1").size(), 0U);
}

TEST_F(send_frame, a_card_in_vlan_tag_change_mode_gets_the_type_before_the_tag) {
    for (const uint8_t mode : {1, 2, 255}) {
        qnm_com_dev_t dev = card(0, 0);
        dev.ecd_vlan_mode = mode;
        for (const sender& it : k_senders) {
            EXPECT_EQ(it.send(&dev), 0) << it.name;
            EXPECT_EQ(last_sent(0),
                      expected(it, k_first_mac, 0, {0x88, 0xB6, 0x81, 0x00, 0x81, 0x23}))
                << it.name << ' ' << int{mode};
        }
    }
}

TEST_F(send_frame, the_tag_carries_12_bits_of_the_vlan_id_and_the_type_is_configured) {
    qnm_config.ether_type = 0x1234;
    qnm_com_dev_t dev = card(0, 0);
    dev.ecd_vlan_id = 0xFABC;
    for (const sender& it : k_senders) {
        EXPECT_EQ(it.send(&dev), 0) << it.name;
        EXPECT_EQ(last_sent(0), expected(it, k_first_mac, 0, {0x81, 0x00, 0x8A, 0xBC, 0x12, 0x34}))
            << it.name;
    }
}

TEST_F(send_frame, a_mac_address_that_is_odd_itself_stays_odd) {
    qnm_com_dev_t dev = card(0, 0);
    dev.ecd_macaddr[5] = 0x11;
    EXPECT_EQ(k_regread.send(&dev), 0);
    EXPECT_EQ(last_sent(0),
              expected(k_regread, k_second_mac, 0, {0x81, 0x00, 0x81, 0x23, 0x88, 0xB6}));
}

TEST_F(send_frame, a_reset_goes_to_the_configured_broadcast_address) {
    qnm_config.broadcast_mac = 0x0123456789AB;
    for (const uint8_t mode : {0, 1}) {
        qnm_com_dev_t dev = card(1, 1);
        dev.ecd_vlan_mode = mode;
        EXPECT_EQ(_qnm_send_reset(&dev, 0), 0);
        const frame_t frame = last_sent(1);
        EXPECT_EQ(frame_t(frame.begin(), frame.begin() + 6),
                  (frame_t{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB}));
    }
}

TEST_F(send_frame, a_register_address_loses_its_bits_22_to_31) {
    const struct {
        uint32_t address;
        frame_t encoded;
    } rows[] = {{0x00000FFF, {0x00, 0x00, 0x0F, 0xFF}},
                {0x00001000, {0x00, 0x01, 0x00, 0x00}},
                {0x00200000, {0x02, 0x00, 0x00, 0x00}},
                {0xFFC00000, {0x00, 0x00, 0x00, 0x00}},
                {0xFFFFFFFF, {0x03, 0xFF, 0x0F, 0xFF}}};
    const qnm_com_dev_t dev = card(0, 0);
    for (const auto& row : rows) {
        uint64_t mac = 0;
        int port = 0;
        EXPECT_EQ(_qnm_send_regread(&dev, row.address, 0, &mac, &port), 0);
        frame_t frame = last_sent(0);
        EXPECT_EQ(frame_t(frame.begin() + 24, frame.begin() + 28), row.encoded);
        EXPECT_EQ(_qnm_send_regwrite(&dev, row.address, 0), 0);
        frame = last_sent(0);
        EXPECT_EQ(frame_t(frame.begin() + 24, frame.begin() + 28), row.encoded);
    }
}

TEST_F(send_frame, an_mms_frame_carries_all_32_words) {
    uint32_t words[32];
    for (uint32_t n = 0; n < 32; n++)
        words[n] = 0x01000000 * (4 * n + 3) + 0x010000 * (4 * n + 2) + 0x0100 * (4 * n + 1) + 4 * n;
    const qnm_com_dev_t dev = card(0, 0);
    EXPECT_EQ(_qnm_send_mms(&dev, 1023, words), 0);
    const frame_t frame = only_sent();
    ASSERT_EQ(frame.size(), 156U);
    for (size_t n = 0; n < 128; n++)
        EXPECT_EQ(frame[28 + n], n);
}

// ---- Path ---------------------------------------------------------------------------------------

TEST_F(send_frame, the_first_connected_path_is_taken_and_no_other) {
    for (unsigned states = 1; states < 16; states++) {
        qnm_com_dev_t dev = card(0, 0);
        for (int path = 0; path < 4; path++)
            dev.ecd_state[path / 2][path % 2] = states >> path & 1;
        const int path = __builtin_ctz(states);
        const int port = path / 2;
        const frame_t& dmac = path % 2 == 0 ? k_first_mac : k_second_mac;
        for (const sender& it : k_senders) {
            const size_t before[2] = {fake_pcap::sent("port0").size(),
                                      fake_pcap::sent("port1").size()};
            EXPECT_EQ(it.send(&dev), 0) << it.name;
            EXPECT_EQ(fake_pcap::sent(name(port)).size(), before[port] + 1) << it.name;
            EXPECT_EQ(fake_pcap::sent(name(1 - port)).size(), before[1 - port]) << it.name;
            EXPECT_EQ(last_sent(port),
                      expected(it, dmac, port, {0x81, 0x00, 0x81, 0x23, 0x88, 0xB6}))
                << it.name << ' ' << states;
        }
        EXPECT_EQ(g_read_out.mac, k_mac + path % 2);
        EXPECT_EQ(g_read_out.port, port);
        read_out foretold;
        EXPECT_EQ(_qnm_get_send_path(&dev, &foretold.mac, &foretold.port), 0);
        EXPECT_EQ(foretold.mac, g_read_out.mac);
        EXPECT_EQ(foretold.port, g_read_out.port);
    }
}

TEST_F(send_frame, only_the_value_1_means_connected) {
    qnm_com_dev_t dev = card(1, 0);
    dev.ecd_state[0][0] = 2;
    EXPECT_EQ(k_regread.send(&dev), 0);
    EXPECT_EQ(g_read_out.port, 1);
}

TEST_F(send_frame, a_card_that_is_connected_nowhere_gets_nothing) {
    qnm_com_dev_t dev = card(0, 0);
    dev.ecd_state[0][0] = 0;
    for (const sender& it : k_senders) {
        logs.clear();
        EXPECT_EQ(it.send(&dev), ENOLINK);
        ASSERT_EQ(logs.lines().size(), 1U) << it.name;
        EXPECT_TRUE(logs.has(k_error, std::string(it.name) + ": " + it.no_path)) << it.name;
    }
    EXPECT_EQ(sent_count(), 0U);
    EXPECT_EQ(all_counted(), 0U);
    EXPECT_EQ(g_read_out.mac, k_no_mac);
    EXPECT_EQ(g_read_out.port, k_no_port);
    logs.clear();
    EXPECT_EQ(_qnm_get_send_path(&dev, &g_read_out.mac, &g_read_out.port), ENOLINK);
    EXPECT_EQ(g_read_out.mac, k_no_mac);
    EXPECT_TRUE(logs.lines().empty());
}

// ---- Failure and counting -----------------------------------------------------------------------

TEST_F(send_frame, a_frame_that_libpcap_refuses_is_not_counted) {
    fake_pcap::set_send_failure("port1", 1, true);
    const qnm_com_dev_t dev = card(1, 1);
    for (const sender& it : k_senders) {
        logs.clear();
        EXPECT_EQ(it.send(&dev), EPROTO) << it.name;
        EXPECT_THAT(logs.texts("logfile", k_error),
                    ElementsAre("_qnm_send: Failed to pcap_sendpacket().",
                                std::string(it.name) + ": Failed to _qnm_send(). err=71"));
    }
    EXPECT_EQ(all_counted(), 0U);
    EXPECT_EQ(g_read_out.mac, k_no_mac);
    EXPECT_EQ(g_read_out.port, k_no_port);
    EXPECT_TRUE(fake_pcap::sent("port0").empty()) << "the other port is not tried";
}

TEST_F(send_frame, each_frame_counts_for_its_kind_and_then_in_total_once_it_has_left) {
    size_t sent = 0;
    for (int path = 0; path < 4; path++) {
        const int port = path / 2;
        const qnm_com_dev_t dev = card(port, path % 2);
        for (const sender& it : k_senders) {
            std::vector<count_call> counts;
            const uint64_t kind_before = counted(port, it.counter);
            const uint64_t total_before = counted(port, QNM_STATS_T_TOTAL);
            const uint64_t all_before = all_counted();
            g_counts = &counts;
            EXPECT_EQ(it.send(&dev), 0) << it.name;
            g_counts = nullptr;
            sent++;
            EXPECT_THAT(counts, ElementsAre(count_call{port, it.counter, sent},
                                            count_call{port, QNM_STATS_T_TOTAL, sent}))
                << it.name;
            EXPECT_EQ(counted(port, it.counter), kind_before + 1) << it.name;
            EXPECT_EQ(counted(port, QNM_STATS_T_TOTAL), total_before + 1) << it.name;
            EXPECT_EQ(all_counted(), all_before + 2) << it.name;
        }
    }
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(send_frame, each_counter_takes_the_statistics_mutex_once_and_nothing_else_is_locked) {
    qnm_com_dev_t dev = card(0, 0);
    g_other_locks = 0;
    for (const sender& it : k_senders) {
        g_stats_locks = 0;
        EXPECT_EQ(it.send(&dev), 0) << it.name;
        EXPECT_EQ(g_stats_locks, 2) << it.name;
    }
    g_stats_locks = 0;
    fake_pcap::set_send_failure("port0", 1);
    EXPECT_EQ(k_regread.send(&dev), EPROTO);
    dev.ecd_state[0][0] = 0;
    EXPECT_EQ(k_regread.send(&dev), ENOLINK);
    EXPECT_EQ(g_stats_locks, 0) << "what was not sent is not counted";
    EXPECT_EQ(g_other_locks, 0);
}

TEST_F(send_frame, frames_of_several_threads_do_not_mix) {
    constexpr int k_rounds = 500;
    std::vector<std::thread> threads;
    for (const sender& it : k_senders) {
        if (&it == &k_regread) continue;
        threads.emplace_back([&it] {
            const qnm_com_dev_t dev = card(0, 0);
            for (int i = 0; i < k_rounds; i++)
                EXPECT_EQ(it.send(&dev), 0);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const auto sent = fake_pcap::sent("port0");
    for (const sender& it : k_senders) {
        if (&it == &k_regread) continue;
        EXPECT_EQ(std::count(sent.begin(), sent.end(),
                             expected(it, k_first_mac, 0, {0x81, 0x00, 0x81, 0x23, 0x88, 0xB6})),
                  k_rounds)
            << it.name;
    }
    EXPECT_EQ(counted(0, QNM_STATS_T_TOTAL), threads.size() * k_rounds);
}

}  // namespace
