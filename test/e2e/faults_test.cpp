// faults_test.cpp - device access on cards and cables that lose, delay, repeat and reorder frames.
//
// A value that is returned is the right one, whatever happened on the way; a failure is a
// documented error.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "rig.h"

namespace e2e {
namespace {

constexpr size_t k_cards = 16;
constexpr unsigned k_threads = 8;
constexpr unsigned k_parts = 4;
constexpr unsigned k_accesses = 1250 / k_parts + 1;  // of each thread
constexpr qnm_retry_t k_retry = {30, 20};

// Every fourth card sometimes answers so late that it has been asked again; the others repeat and
// reorder their answers.
cardsim::card faulty_card(size_t number, unsigned part) {
    const card_kind kind = number % 2 == 0 ? card_kind::qnsv : card_kind::qnio;
    const card_speed speed = number % 4 < 2 ? card_speed::g40 : card_speed::g1_10;
    cardsim::card card = lively(kind, speed, k_id + 2 * number);
    cardsim::fault_settings& faults = card.faults;
    const bool late = number % 4 == 3;
    faults.seed = part * k_cards + number + 1;
    faults.lose_requests = 100;
    faults.lose_answers = 100;
    faults.duplicate_answers = late ? 0 : 200;
    faults.reorder_answers = late ? 0 : 100;
    faults.wrong_port = 20;
    faults.wrong_mac = 20;
    faults.delay_max_ms = late ? 2 * k_retry.er_retry_interval : 3;
    return card;
}

// A register that only one thread uses, and its possible contents: one value, or, after an access
// that may have failed, both the old and the new one.
class own_register {
  public:
    own_register(uint64_t id, uint32_t address) : id_(id), address_(address) {}

    // Makes one access of a random kind; returns whether it ended as it may.
    bool use(std::mt19937& random) {
        const uint32_t value = random();
        switch (random() % 4) {
            case 0:
                return write(value, QNM_FLAG_VERIFY);
            case 1:
                return write(value, 0);
            case 2:
                return modify(value, random());
            default:
                return read();
        }
    }

    bool read() {
        uint32_t value = 0;
        const qnm_api_code_t ret = qnm_read_register(id_, address_, &value, &k_retry, 0);
        if (ret == QNM_API_SUCCESS) {
            if (!possible_.contains(value)) return false;
            possible_ = {value};
        }
        return is_documented(ret);
    }

  private:
    static bool is_documented(qnm_api_code_t ret) {
        return ret == QNM_API_SUCCESS || ret == QNM_API_ETIMEDOUT || ret == QNM_API_ENOLINK;
    }

    bool write(uint32_t value, uint32_t flags) {
        const qnm_api_code_t ret = qnm_write_register(id_, address_, value, &k_retry, flags);
        if (ret == QNM_API_SUCCESS && flags != 0) possible_.clear();
        possible_.insert(value);
        return is_documented(ret);
    }

    bool modify(uint32_t value, uint32_t mask) {
        if (!read()) return false;
        if (possible_.size() != 1) return true;
        const uint32_t wanted = (value & mask) | (*possible_.begin() & ~mask);
        const qnm_api_code_t ret =
            qnm_modify_register(id_, address_, value, mask, &k_retry, QNM_FLAG_VERIFY);
        if (ret == QNM_API_SUCCESS) possible_.clear();
        possible_.insert(wanted);
        return is_documented(ret);
    }

    uint64_t id_;
    uint32_t address_;
    std::set<uint32_t> possible_ = {0};
};

// Ten thousand accesses in all. Most of the time is spent waiting for answers, so the parts run
// side by side.
class faults_part : public testing::TestWithParam<unsigned> {};

TEST_P(faults_part, of_ten_thousand_accesses_gives_right_values_or_documented_errors) {
    const cables wires;
    const installation install("ether_port = qnm0,qnm1\ndevinfo_expire_time = 100000\n");
    manager host(install.path());
    ASSERT_TRUE(host.is_running()) << install.log();
    const auto cards = make_cards();
    for (size_t number = 0; number < k_cards; number++)
        cards->add(faulty_card(number, GetParam()));
    cards->start();
    ASSERT_TRUE(wait_for([] { return qnsv_total() + qnio_total() == k_cards; }));

    std::atomic<unsigned> wrong = 0;
    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < k_threads; thread++) {
        threads.emplace_back([thread, &wrong] {
            std::mt19937 random(GetParam() * k_threads + thread);
            std::vector<own_register> registers;
            for (size_t number = 0; number < k_cards; number++)
                registers.emplace_back(k_id + 2 * number, 0x1000 + 4 * thread);
            for (unsigned n = 0; n < k_accesses; n++) {
                if (!registers[random() % k_cards].use(random)) wrong++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0U);
    const cardsim::counters counted = cards->count();
    EXPECT_EQ(counted.faulty, 0U);
    for (const uint64_t fault : {counted.lost_requests, counted.lost_answers, counted.duplicated,
                                 counted.reordered, counted.delayed, counted.wrong_port}) {
        EXPECT_NE(fault, 0U) << "a fault that was asked for never happened";
    }
    EXPECT_EQ(host.stop(), QNM_API_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(seeds, faults_part, testing::Range(0U, k_parts));

}  // namespace
}  // namespace e2e
