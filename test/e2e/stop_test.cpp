// stop_test.cpp - a stop while public calls are inside the library.
//
// The cards do not answer and the calls would wait for hours: the manager ends only if the stop
// wakes them.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "rig.h"

namespace e2e {
namespace {

constexpr uint64_t k_other = k_id + 2;
constexpr uint32_t k_silent_register = 0x3000;
constexpr qnm_retry_t k_hours = {100, 3600 * 1000};

uint32_t g_words[512];

qnm_api_code_t dump(qnm_api_code_t (*call)(uint64_t, uint32_t, uint32_t, uint32_t*, size_t*,
                                           const qnm_retry_t*, uint32_t),
                    uint32_t start) {
    uint32_t words[4];
    size_t len = sizeof words;
    return call(k_other, start, start + sizeof words, words, &len, &k_hours, 0);
}

// Every kind of call that can wait, some on the same card, so that they queue for its write lock.
const std::vector<std::function<qnm_api_code_t()>> k_calls = {
    [] { return qnm_read_register(k_id, k_silent_register, g_words, &k_hours, 0); },
    [] { return qnm_read_register(k_id, k_silent_register, g_words + 1, nullptr, 0); },
    [] { return qnm_write_register(k_id, k_silent_register, 1, &k_hours, QNM_FLAG_VERIFY); },
    [] { return qnm_write_register(k_id, k_silent_register, 2, &k_hours, QNM_FLAG_VERIFY); },
    [] { return qnm_write_register(k_id, k_silent_register, 3, &k_hours, 0); },
    [] { return qnm_modify_register(k_id, k_silent_register, 1, 1, &k_hours, 0); },
    [] { return qnm_modify_register(k_other, k_silent_register, 1, 1, &k_hours, 0); },
    [] { return dump(qnm_dump_register, k_silent_register); },
    [] { return qnm_read_eeprom(k_id, 0, g_words + 2, &k_hours, 0); },
    [] { return qnm_write_eeprom(k_other, 0, 1, &k_hours, QNM_FLAG_VERIFY); },
    [] { return dump(qnm_dump_eeprom, 0); },
    [] { return qnm_unlock_eeprom(k_id); },
    [] { return qnm_set_vlanid(k_id, 100, &k_hours, QNM_FLAG_VERIFY); },
    [] { return qnm_set_vlanid(k_other, 100, &k_hours, QNM_FLAG_VERIFY); },
    [] { return qnm_send_resetframe(k_id, 1, nullptr, 0); },
    [] { return qnm_write_mmspage(k_other, 0, g_words, 0); },
};

// A card that accepts everything and answers nothing.
cardsim::card silent_card(uint64_t id) {
    cardsim::card card = lively(card_kind::qnio, card_speed::g40, id);
    card.version = 1;
    card.device.vlan_frozen = true;
    card.faults.lose_answers = 1000;
    return card;
}

void read_from_callback(uint64_t, qnm_evt_type_t, void* result) {
    uint32_t data = 0;
    *static_cast<std::atomic<int>*>(result) =
        qnm_read_register(k_id, k_silent_register, &data, &k_hours, 0);
}

struct stop : testing::Test {
    cables wires;
    installation install{k_two_ports};
    std::unique_ptr<cardsim::simulator> cards_ = make_cards();

    void SetUp() override {
        cards_->add(silent_card(k_id));
        cards_->add(silent_card(k_other));
        cards_->start();
    }

    static bool is_learnt() { return paths(k_id) == "CCCC" && paths(k_other) == "CCCC"; }
};

TEST_F(stop, ends_every_kind_of_call_and_a_restart_works) {
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    ASSERT_TRUE(wait_for(is_learnt));
    std::atomic<unsigned> inside = 0;
    std::atomic<unsigned> unexpected = 0;
    std::vector<std::thread> threads;
    for (const auto& call : k_calls) {
        threads.emplace_back([&] {
            inside++;
            // A call that waits for nothing succeeds until the stop.
            qnm_api_code_t ret = QNM_API_SUCCESS;
            while (ret == QNM_API_SUCCESS || ret == QNM_API_ETIMEDOUT)
                ret = call();
            if (ret != QNM_API_ENOSYS) unexpected++;
        });
    }
    EXPECT_TRUE(wait_for([&] { return inside == k_calls.size() && cards_->count().reads >= 8; }));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(unexpected, 0U);

    cards_->set(k_id, "lose_answers", "0");
    manager again(install.path());
    ASSERT_TRUE(again.is_running()) << install.log();
    ASSERT_TRUE(wait_for(is_learnt));
    EXPECT_EQ(qnm_write_register(k_id, k_silent_register, 5, nullptr, QNM_FLAG_VERIFY),
              QNM_API_SUCCESS);
    EXPECT_EQ(again.stop(), QNM_API_SUCCESS);
}

TEST_F(stop, ends_a_call_from_inside_a_callback) {
    std::atomic<int> result = -1;  // lives as long as the manager whose callback writes it
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    ASSERT_TRUE(wait_for(is_learnt));
    qnm_cbid_t handle = nullptr;
    ASSERT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, read_from_callback, &result, &handle),
              QNM_API_SUCCESS);
    const uint64_t reads = cards_->count().reads;
    cards_->add(silent_card(k_other + 2));
    EXPECT_TRUE(wait_for([&] { return cards_->count().reads > reads; }));
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
    EXPECT_EQ(result, QNM_API_ENOSYS);
}

}  // namespace
}  // namespace e2e
