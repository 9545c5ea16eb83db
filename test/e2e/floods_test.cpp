// floods_test.cpp - more than a network of cards would ever send: forged announcements, stray
// Completions, changes without end. The library's memory is bounded, what it leaves out of the log
// is counted, and the cards that it knows stay usable.

#include <gmock/gmock.h>

#include <array>
#include <condition_variable>
#include <fstream>
#include <sstream>

#include "qnm_counters.h"
#include "qnm_limits.h"
#include "rig.h"

namespace e2e {
namespace {

using cardsim::frame_bytes;
using cardsim::message;

constexpr uint64_t k_forged = 0x040000000000;  // the first forged card; further ones with even IDs
constexpr uint64_t k_more = 100000;            // beyond a ceiling

uint64_t counter(const uint64_t& word) {
    return std::atomic_ref(const_cast<uint64_t&>(word)).load();
}

uint64_t received(qnm_stats_type_t type) {
    return counter(qnm_stats.est_stats_p0[type]);
}

uint32_t delivered() {
    return std::atomic_ref(qnm_stats.est_evt_node_fr).load();
}

size_t resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    statm >> total >> resident;
    return resident * 4096;
}

// How many lines a line stands for; a line that is written counts as one.
struct told {
    size_t lines = 0;
    uint64_t count = 0;
};

told told_in(const std::string& log, const std::string& text) {
    told all;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        if (line.find(text) == std::string::npos) continue;
        all.lines++;
        const size_t more = line.find(" more in the last ");
        all.count +=
            more == std::string::npos ? 1 : std::stoull(line.substr(line.rfind(' ', more - 1) + 1));
    }
    return all;
}

struct flood : testing::Test {
    cables wires;
    installation install{
        "ether_port = qnm0,qnm1\ndevinfo_expire_time = 100000\nlog_level = 2\ntag_max = 10\n"};
    manager host{install.path()};
    std::unique_ptr<cardsim::simulator> cards_ = make_cards();
    const std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();

    void SetUp() override {
        ASSERT_TRUE(host.is_running()) << install.log();
        cards_->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
        cards_->add(lively(card_kind::qnio, card_speed::g1_10, k_id + 2));
        cards_->start();
        ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD" && paths(k_id + 2) == "CDCD"; }));
    }

    // Forged frames are notifications. Live cards send none, so the counter of notifications counts
    // the forged ones.
    static frame_bytes forged_frame(uint64_t id) {
        return encode(cardsim::make_card("forged", card_kind::qnio, card_speed::g1_10, id),
                      message::notify, 0);
    }

    static void put_source(frame_bytes& frame, uint64_t id) {
        for (size_t i = 0; i < 6; i++)
            frame[6 + i] = static_cast<uint8_t>(id >> (40 - 8 * i));
    }

    void forge(uint64_t first, uint64_t count) {
        frame_bytes frame = forged_frame(k_forged);
        for (uint64_t n = 0; n < count; n++) {
            put_source(frame, k_forged + 2 * (first + n));
            cards_->send_raw(0, frame);
        }
    }

    // A Completion for nobody. The library only counts it.
    static frame_bytes stray_frame() {
        frame_bytes frame;
        encode(cardsim::make_card("stray", card_kind::qnio, card_speed::g1_10, k_id + 2),
               cardsim::completion{.source = k_id + 2, .destination = 0, .tag = 200, .value = 1},
               frame);
        return frame;
    }

    // Everything that port 0 was sent has been handled once a later frame has. That frame may be
    // lost too.
    void expect_all_taken() {
        const uint64_t before = received(QNM_STATS_R_COMP);
        EXPECT_TRUE(wait_for([&] {
            cards_->send_raw(0, stray_frame());
            return received(QNM_STATS_R_COMP) > before;
        }));
    }

    // At most one line a second, and one for the second in which the first one falls.
    size_t lines_allowed() const {
        const auto lasted = std::chrono::steady_clock::now() - began;
        return static_cast<size_t>(std::chrono::ceil<std::chrono::seconds>(lasted).count()) + 1;
    }

    // The live cards are heard and obey.
    void expect_known_cards_go_on() {
        const uint64_t heard = qnsv(k_id)->esv_com_dev.ecd_recvtime[0][0];
        EXPECT_TRUE(wait_for([=] { return qnsv(k_id)->esv_com_dev.ecd_recvtime[0][0] > heard; }));
        cards_->set(k_id + 2, "uid_switch", "true");
        EXPECT_TRUE(wait_for([] { return qnio(k_id + 2)->eio_com_dev.ecd_uidsw == 1; }));
        uint32_t value = 0;
        EXPECT_EQ(qnm_read_register(k_id, 0, &value, nullptr, 0), QNM_API_SUCCESS);
        EXPECT_EQ(paths(k_id), "CDCD");
    }
};

TEST_F(flood, of_forged_cards_fills_the_tables_and_no_more) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "takes minutes with a sanitizer; the units' tests reach the ceilings, too";
#endif
    // Frames may be lost on the way, so they are sent again until all cards are known.
    const auto known = [] { return qnsv_total() + qnio_total(); };
    const uint32_t forged = qnm::k_cards_max - known();
    while (known() < qnm::k_cards_max) {
        ASSERT_LT(std::chrono::steady_clock::now() - began, std::chrono::minutes(4));
        forge(0, forged);
    }
    ASSERT_TRUE(wait_for([] { return delivered() >= qnm::k_cards_max; }));

    expect_all_taken();

    const size_t before = resident_bytes();
    const uint64_t taken = received(QNM_STATS_R_NOTI);
    for (uint64_t n = 0; n < 4; n++)
        forge(forged + n * k_more, k_more);
    expect_known_cards_go_on();
    EXPECT_LT(resident_bytes(), before + (size_t{8} << 20)) << "100 MB more without a ceiling";
    EXPECT_EQ(known(), qnm::k_cards_max);

    const auto refused = [&] { return told_in(install.log(), "Too many cards."); };
    EXPECT_TRUE(wait_for([&] { return refused().count == received(QNM_STATS_R_NOTI) - taken; }))
        << refused().count << " told, " << received(QNM_STATS_R_NOTI) - taken << " taken";
    EXPECT_GT(refused().count, k_more / 10);
    EXPECT_LE(refused().lines, lines_allowed());

    // When a card goes, there is room for another one.
    EXPECT_EQ(qnm_delete_qnio(k_forged), QNM_API_SUCCESS);
    cards_->add(lively(card_kind::qnio, card_speed::g1_10, k_id + 4));
    EXPECT_TRUE(wait_for([] { return paths(k_id + 4) == "CDCD"; }));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

TEST_F(flood, of_completions_with_wrong_tags_is_told_by_their_number) {
    const frame_bytes frame = stray_frame();
    for (uint64_t n = 0; n < k_more; n++)
        cards_->send_raw(0, frame);
    expect_known_cards_go_on();  // whose Completions are counted too, but not told
    const auto invalid = [&] { return told_in(install.log(), "Invalid tag."); };
    EXPECT_TRUE(wait_for([&] {
        const uint64_t right = cards_->count().reads;
        return invalid().count + right == received(QNM_STATS_R_COMP);
    })) << invalid().count
        << " told, " << received(QNM_STATS_R_COMP) << " received";
    EXPECT_GT(invalid().count, k_more / 10);
    EXPECT_LE(invalid().lines, lines_allowed());
}

// A callback that takes very long.
struct obstacle {
    std::mutex mutex;
    std::condition_variable gone;
    bool stands = true;

    static void wait(uint64_t, qnm_evt_type_t, void* self) {
        auto* const it = static_cast<obstacle*>(self);
        std::unique_lock lock(it->mutex);
        it->gone.wait(lock, [=] { return !it->stands; });
    }

    void remove() {
        const std::lock_guard lock(mutex);
        stands = false;
        gone.notify_all();
    }
};

TEST_F(flood, of_changes_fills_the_queue_of_events_and_no_more) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "takes minutes with a sanitizer; the units' tests reach the ceilings, too";
#endif
    obstacle slow;
    qnm_cbid_t handle = nullptr;
    ASSERT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, obstacle::wait, &slow, &handle),
              QNM_API_SUCCESS);
    // One card that is bound and faulty in every second frame: three events a frame.
    std::array<frame_bytes, 2> frames = {forged_frame(k_forged), forged_frame(k_forged)};
    frames[1][29] |= 0x02;  // bound to its QNSV card
    frames[1][22] ^= 0x01;  // a link fault
    const auto dropped = [&] { return told_in(install.log(), "Too many events are waiting."); };
    while (dropped().count < 1000 && !HasFailure()) {
        if (std::chrono::steady_clock::now() - began > std::chrono::minutes(4)) {
            ADD_FAILURE() << "no event was dropped";
        }
        for (uint64_t n = 0; n < k_more; n++)
            cards_->send_raw(0, frames[n % 2]);
    }
    // The waiting events, and the one that is being delivered.
    const auto waiting = [] {
        return std::atomic_ref(qnm_stats.est_evt_node_al).load() - delivered();
    };
    EXPECT_TRUE(wait_for([&] { return waiting() == qnm::k_events_max + 1; })) << waiting();
    EXPECT_LE(dropped().lines, lines_allowed());
    slow.remove();
    // All waiting events are delivered, and then the new ones.
    EXPECT_TRUE(wait_for([&] { return waiting() == 0; }));
    expect_known_cards_go_on();
    EXPECT_TRUE(host.wait_event(k_id + 2, QNM_EVT_UPDATEDEVINFO));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

}  // namespace
}  // namespace e2e
