// access_test.cpp - registers, EEPROM and commands, on cards that answer.

#include <gmock/gmock.h>

#include <array>
#include <numeric>
#include <thread>
#include <vector>

#include "rig.h"

namespace e2e {
namespace {

constexpr uint32_t k_register = 0x1230;
constexpr qnm_retry_t k_patient = {20, 500};
constexpr qnm_retry_t k_hasty = {1, 50};

struct access : running_manager {
    using running_manager::running_manager;

    // A card that is known by all its paths.
    void add(
        uint64_t id, card_kind kind, card_speed speed,
        const std::function<void(cardsim::card&)>& change = [](cardsim::card&) {}) {
        cardsim::card card = lively(kind, speed, id);
        change(card);
        const std::string all = speed == card_speed::g40 ? "CCCC" : "CDCD";
        cards_->add(card);
        ASSERT_TRUE(wait_for([=] { return paths(id) == all; }));
    }

    void add(card_kind kind, card_speed speed) { add(k_id, kind, speed); }

    uint32_t at(uint32_t address) { return cards_->read_register(k_id, address); }
};

// ---- Registers ----------------------------------------------------------------------------------

TEST_F(access, a_register_is_read_written_and_changed) {
    add(card_kind::qnsv, card_speed::g40);
    cards_->write_register(k_id, k_register, 0x12345678);
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, k_register, &data, &k_patient, 0), QNM_API_SUCCESS);
    EXPECT_EQ(data, 0x12345678U);
    EXPECT_EQ(qnm_write_register(k_id, k_register, 0xCAFE0001, &k_patient, QNM_FLAG_VERIFY),
              QNM_API_SUCCESS);
    EXPECT_EQ(at(k_register), 0xCAFE0001U);
    EXPECT_EQ(
        qnm_modify_register(k_id, k_register, 0xFFFFFFFF, 0x0000FF00, &k_patient, QNM_FLAG_VERIFY),
        QNM_API_SUCCESS);
    EXPECT_EQ(at(k_register), 0xCAFEFF01U);
    EXPECT_EQ(qnm_write_register(k_id, k_register, 7, &k_patient, 0), QNM_API_SUCCESS);
    EXPECT_TRUE(wait_for([&] { return at(k_register) == 7; }));
}

TEST_F(access, a_card_in_vlan_tag_change_mode_answers) {
    add(k_id, card_kind::qnio, card_speed::g1_10, [](cardsim::card& card) {
        card.vlan_change_mode = true;
        card.vlan_id = 77;
    });
    EXPECT_EQ(qnm_write_register(k_id, k_register, 0x0BADF00D, &k_patient, QNM_FLAG_VERIFY),
              QNM_API_SUCCESS);
    EXPECT_EQ(at(k_register), 0x0BADF00DU);
    EXPECT_EQ(cards_->count().faulty, 0U);
}

TEST_F(access, a_dump_reads_a_range_in_order) {
    add(card_kind::qnio, card_speed::g40);
    for (uint32_t n = 0; n < 64; n++)
        cards_->write_register(k_id, 0x2000 + 4 * n, 1000 + n);
    std::array<uint32_t, 64> data{};
    size_t len = sizeof data;
    EXPECT_EQ(qnm_dump_register(k_id, 0x2000, 0x2100, data.data(), &len, &k_patient, 0),
              QNM_API_SUCCESS);
    EXPECT_EQ(len, sizeof data);
    std::array<uint32_t, 64> expected{};
    std::iota(expected.begin(), expected.end(), 1000);
    EXPECT_EQ(data, expected);
}

TEST_F(access, a_card_that_vanishes_in_the_middle_of_a_dump_leaves_what_was_read) {
    add(card_kind::qnsv, card_speed::g1_10);
    constexpr uint32_t k_end = 0x100000;  // more than can be read before the card falls silent
    std::vector<uint32_t> data(k_end / 4);
    size_t len = k_end;
    qnm_api_code_t ret = QNM_API_CODE_MAX;
    std::thread dump(
        [&] { ret = qnm_dump_register(k_id, 0, k_end, data.data(), &len, &k_hasty, 0); });
    EXPECT_TRUE(wait_for([&] { return cards_->count().reads >= 100; }));
    cards_->silence(k_id, 0, 0);
    cards_->silence(k_id, 1, 0);
    dump.join();
    EXPECT_EQ(ret, QNM_API_ETIMEDOUT);
    EXPECT_EQ(len % 4, 0U);
    EXPECT_GE(len, 4 * 99U);
    EXPECT_LT(len, k_end);
}

TEST_F(access, a_port_that_goes_down_leaves_the_other_carrying_on) {
    constexpr uint64_t k_other = k_id + 2;
    add(card_kind::qnsv, card_speed::g1_10);
    cardsim::card card = lively(card_kind::qnsv, card_speed::g1_10, k_other);
    card.heard = {};
    card.heard[1][0] = true;
    cards_->add(card);
    ASSERT_TRUE(wait_for([] { return paths(k_other) == "DDCD"; }));
    std::atomic<bool> over = false;
    std::atomic<unsigned> failed = 0;
    std::thread reader([&] {
        uint32_t data = 0;
        while (!over) {
            if (qnm_read_register(k_other, 0, &data, &k_patient, 0) != QNM_API_SUCCESS) failed++;
        }
    });
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_patient, 0), QNM_API_SUCCESS);
    run("ip link set qsim0 down");
    // Until the card is known to be gone from port 0, its reads are lost there.
    EXPECT_TRUE(wait_for(
        [&] { return qnm_read_register(k_id, 0, &data, &k_hasty, 0) == QNM_API_SUCCESS; }));
    EXPECT_EQ(paths(k_id), "DDCD");
    over = true;
    reader.join();
    EXPECT_EQ(failed, 0U);
    EXPECT_FALSE(host.has_ended());
}

TEST_F(access, a_card_whose_monitoring_is_stopped_is_found_by_the_live_check) {
    add(card_kind::qnsv, card_speed::g40);
    ASSERT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    cards_->silence(k_id, 0, 0);
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_patient, 0), QNM_API_ENOLINK);
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_patient, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_send_resetframe(k_id, 1, nullptr, QNM_FLAG_LIVECHECK), QNM_API_ENOLINK);
    EXPECT_EQ(qnm_read_register(k_id + 2, 0, &data, &k_patient, 0), QNM_API_ENOENT);
}

// One forged frame is enough to make a record of the other kind with a card's ID. After that record
// has expired, it must not hide the live card.
TEST_F(access, a_forged_announcement_of_the_other_kind_cuts_no_card_off) {
    add(card_kind::qnio, card_speed::g1_10);
    const cardsim::card forged =
        cardsim::make_card("forged", card_kind::qnsv, card_speed::g1_10, k_id);
    cards_->send_raw(0, encode(forged, cardsim::message::devinfo, 0));
    ASSERT_TRUE(wait_for([] { return qnsv(k_id).has_value(); }));
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "DDDD"; })) << "of the QNSV record";
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, k_register, &data, &k_patient, 0), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_write_register(k_id, k_register, 7, &k_patient, QNM_FLAG_VERIFY),
              QNM_API_SUCCESS);
}

// A switch floods frames for unknown ports, so answers to other managers arrive: from the same card
// and with the same tags.
TEST_F(access, answers_for_other_managers_are_not_taken) {
    add(card_kind::qnio, card_speed::g1_10);
    std::atomic<bool> over = false;
    std::thread flood([&] {
        cardsim::frame_bytes frame;
        for (uint8_t tag = 0; !over; tag++) {
            const cardsim::completion foreign = {
                .source = k_id, .destination = 0x0200000000AA, .tag = tag, .value = 0xBAD};
            encode(cards_->get(k_id), foreign, frame);
            cards_->send_raw(0, frame);
        }
    });
    unsigned wrong = 0;
    for (int n = 0; n < 2000; n++) {
        uint32_t data = 0;
        const auto ret = qnm_read_register(k_id, k_register, &data, &k_patient, 0);
        if (ret != QNM_API_SUCCESS || data != 0) wrong++;
    }
    over = true;
    flood.join();
    EXPECT_EQ(wrong, 0U);
}

// ---- EEPROM -------------------------------------------------------------------------------------

std::vector<uint8_t> numbered_bytes() {
    std::vector<uint8_t> bytes(cardsim::eeprom_size);
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return bytes;
}

uint32_t word_at(const std::vector<uint8_t>& bytes, uint32_t address) {
    uint32_t word = 0;
    for (uint32_t i = 4; i-- > 0;)
        word = word << 8 | bytes[address + i];
    return word;
}

struct eeprom_row {
    card_speed speed;
    bool id_lock;
    bool packed;
};

struct eeprom : access, testing::WithParamInterface<eeprom_row> {
    // A lock that cannot be had is given up after a quarter of a second.
    eeprom() : access("eeprom_retry_interval = 10\neeprom_retry_count = 25\n") {}

    void SetUp() override {
        access::SetUp();
        add(k_id, card_kind::qnio, GetParam().speed, [](cardsim::card& card) {
            card.device.id_lock = GetParam().id_lock;
            card.device.eeprom_packed = GetParam().packed;
        });
    }

    bool is_free() {
        const cardsim::lock_holders lock = cards_->lock(k_id);
        return lock.bits == 0 && lock.requests == 0 && lock.holder == 0;
    }
};

INSTANTIATE_TEST_SUITE_P(cards, eeprom,
                         testing::Values(eeprom_row{card_speed::g1_10, false, true},
                                         eeprom_row{card_speed::g1_10, true, true},
                                         eeprom_row{card_speed::g1_10, false, false},
                                         eeprom_row{card_speed::g40, false, false},
                                         eeprom_row{card_speed::g40, true, false}));

TEST_P(eeprom, is_dumped_read_and_written_and_its_lock_released) {
    const std::vector<uint8_t> bytes = numbered_bytes();
    cards_->set_eeprom(k_id, bytes);
    std::vector<uint32_t> data(64);
    size_t len = data.size() * 4;
    EXPECT_EQ(qnm_dump_eeprom(k_id, 0x300, 0x400, data.data(), &len, &k_patient, 0),
              QNM_API_SUCCESS);
    EXPECT_EQ(len, data.size() * 4);
    for (uint32_t n = 0; n < data.size(); n++)
        EXPECT_EQ(data[n], word_at(bytes, 0x300 + 4 * n)) << n;
    EXPECT_EQ(qnm_write_eeprom(k_id, 2044, 0x01020304, &k_patient, QNM_FLAG_VERIFY),
              QNM_API_SUCCESS);
    uint32_t word = 0;
    EXPECT_EQ(qnm_read_eeprom(k_id, 2044, &word, &k_patient, 0), QNM_API_SUCCESS);
    EXPECT_EQ(word, 0x01020304U);
    EXPECT_EQ(word_at(cards_->eeprom(k_id), 2044), 0x01020304U);
    EXPECT_TRUE(is_free());
}

TEST_P(eeprom, lock_of_another_party_is_respected_or_taken_by_force) {
    // The bit of the other party that the configuration knows.
    cards_->take_lock(k_id, 8);
    uint32_t word = 0;
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, &word, &k_patient, 0), QNM_API_EBUSY);
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, &word, &k_patient, QNM_FLAG_FORCELOCK), QNM_API_SUCCESS);
    EXPECT_TRUE(is_free());
    cards_->take_lock(k_id, 8);
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_SUCCESS);
    EXPECT_TRUE(is_free());
}

TEST_P(eeprom, refused_access_is_a_protocol_error) {
    cards_->set(k_id, "eeprom_refusing", "true");
    uint32_t word = 0;
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, &word, &k_patient, 0), QNM_API_EPROTO);
    EXPECT_EQ(qnm_write_eeprom(k_id, 0, 1, &k_patient, 0), QNM_API_EPROTO);
    EXPECT_TRUE(is_free());
}

// ---- Commands -----------------------------------------------------------------------------------

TEST_F(access, a_vlan_change_is_confirmed_by_the_card_or_times_out) {
    add(card_kind::qnsv, card_speed::g1_10);
    EXPECT_EQ(qnm_set_vlanid(k_id, 1234, &k_patient, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
    EXPECT_EQ(qnsv(k_id)->esv_com_dev.ecd_vlan_id, 1234);
    uint32_t data = 0;
    EXPECT_EQ(qnm_read_register(k_id, 0, &data, &k_patient, 0), QNM_API_SUCCESS);
    cards_->set(k_id, "vlan_frozen", "true");
    EXPECT_EQ(qnm_set_vlanid(k_id, 99, &k_hasty, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
}

TEST_F(access, a_reset_and_a_page_reach_the_card) {
    add(k_id, card_kind::qnio, card_speed::g40, [](cardsim::card& card) { card.version = 1; });
    EXPECT_EQ(qnm_send_resetframe(k_id, 0x5A, nullptr, 0), QNM_API_SUCCESS);
    EXPECT_TRUE(wait_for([&] { return cards_->resets(k_id).count == 1; }));
    EXPECT_EQ(cards_->resets(k_id).last_status, 0x5A);
    std::array<uint32_t, 32> page{};
    std::iota(page.begin(), page.end(), 0xA0000000);
    EXPECT_EQ(qnm_write_mmspage(k_id, 1023, page.data(), 0), QNM_API_SUCCESS);
    EXPECT_TRUE(wait_for([&] { return cards_->mms_page(k_id, 1023).has_value(); }));
    EXPECT_EQ(*cards_->mms_page(k_id, 1023), page);
    EXPECT_EQ(cards_->count().faulty, 0U);
}

}  // namespace
}  // namespace e2e
