// test_eeprom_lock.cpp - the locks of an EEPROM, by bits and by ID: taken, and freed from others.

#include <cerrno>
#include <utility>
#include <vector>

#include "eeproms.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

struct eeprom_lock : eeproms {
    int lock(uint32_t flags = 0) {
        return _qnm_lock_eeprom(&dev, retry.er_retry_interval, retry.er_retry_count, flags);
    }
    int lock_id(uint32_t flags = 0) {
        return _qnm_lock_eeprom_id(&dev, retry.er_retry_interval, retry.er_retry_count, flags);
    }
};

// ---- The lock by bits ---------------------------------------------------------------------------

TEST_F(eeprom_lock, a_free_bit_lock_is_written_verified_and_watched) {
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(k_lock));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(eeprom_lock, without_a_verify_count_a_bit_lock_is_taken_after_one_verified_write) {
    qnm_config.eeprom_verify_count = 0;
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAre("R 50F0", "V 50F0=4"));
}

TEST_F(eeprom_lock, the_verify_count_is_the_number_of_looks) {
    qnm_config.eeprom_verify_count = 5;
    EXPECT_EQ(lock(), 0);
    EXPECT_EQ(script.count("S 7"), 5U);
    EXPECT_EQ(script.count("R 50F0"), 6U);
}

TEST_F(eeprom_lock, an_own_bit_is_taken_as_ours_at_once) {
    for (const uint32_t bits : {0x4U, 0xFFFFFFF7U}) {
        renew();
        script.set(k_bit_lock, bits);
        EXPECT_EQ(lock(), 0);
        EXPECT_THAT(script.seen(), ElementsAre("R 50F0"));
    }
}

TEST_F(eeprom_lock, bits_of_no_other_party_are_no_hindrance_and_are_kept) {
    script.set(k_bit_lock, 0xF3);
    EXPECT_EQ(lock(), 0);
    EXPECT_EQ(script.accesses()[1], "V 50F0=F7");
    EXPECT_EQ(script.get(k_bit_lock), 0xF7U);
}

TEST_F(eeprom_lock, the_other_parties_are_those_of_the_configured_mask) {
    qnm_config.eeprom_lock_other_bit = 0x30;
    const std::pair<uint32_t, int> rows[] = {{0x8, 0}, {0x10, EBUSY}, {0x20, EBUSY}, {0x34, EBUSY}};
    for (const auto& [bits, err] : rows) {
        renew();
        script.set(k_bit_lock, bits);
        EXPECT_EQ(lock(), err) << bits;
    }
    qnm_config.eeprom_lock_other_bit = 0;
    renew();
    script.set(k_bit_lock, 0x38);
    EXPECT_EQ(lock(), 0);
}

TEST_F(eeprom_lock, a_bit_lock_of_another_party_is_busy_after_count_plus_1_attempts) {
    for (const uint32_t count : {0U, 2U}) {
        qnm_config.eeprom_retry_count = count;
        renew();
        script.set(k_bit_lock, 0xC);  // although the own bit is set
        EXPECT_EQ(lock(), EBUSY);
        EXPECT_THAT(script.seen(), ElementsAreArray(times(count + 1, {"R 50F0", "S 50"})));
        EXPECT_TRUE(
            logs.has(k_trace, "_qnm_lock_eeprom: Failed to _qnm_lock_eeprom_impl(). err=16"));
        EXPECT_EQ(logs.lines().size(), 1U);
    }
}

TEST_F(eeprom_lock, a_bit_lock_is_taken_when_the_other_party_drops_it) {
    script.on_read(k_bit_lock, {8, 8, 0, 4});
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(2, {"R 50F0", "S 50"}) + k_lock));
}

TEST_F(eeprom_lock, a_failed_look_at_a_bit_lock_counts_and_is_not_slept_on) {
    script.on_read(k_bit_lock, {failed(ETIMEDOUT)});
    EXPECT_EQ(lock(), ETIMEDOUT);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(3, {"R 50F0"})));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_lock_eeprom: Failed to _qnm_lock_eeprom_impl(). err=110"));
    renew();
    script.on_read(k_bit_lock, {8, failed(ETIMEDOUT), 8});
    EXPECT_EQ(lock(), EBUSY) << "the last reason";
}

TEST_F(eeprom_lock, a_failed_write_of_a_bit_lock_counts_and_is_not_slept_on) {
    script.on_write(k_bit_lock, {ETIMEDOUT, ETIMEDOUT, ETIMEDOUT});
    EXPECT_EQ(lock(), ETIMEDOUT);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(3, {"R 50F0", "V 50F0=4"})));
    renew();
    script.on_write(k_bit_lock, {ETIMEDOUT});
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 50F0", "V 50F0=4"} + k_lock));
}

TEST_F(eeprom_lock, an_own_bit_that_is_lost_while_watched_is_busy) {
    for (const uint32_t bits : {0U, 8U}) {
        renew();
        script.on_read(k_bit_lock, {0, 4, bits, 0, 4});
        EXPECT_EQ(lock(), 0);
        EXPECT_THAT(script.seen(), ElementsAreArray(k_lock + steps{"S 50"} + k_lock));
    }
    renew();
    script.on_read(k_bit_lock, {0, 0});
    EXPECT_EQ(lock(), EBUSY);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(times(3, {"R 50F0", "V 50F0=4", "S 7", "R 50F0", "S 50"})));
}

TEST_F(eeprom_lock, another_bit_that_comes_while_watched_withdraws_the_own_one) {
    script.on_read(k_bit_lock, {0, 4, 0xC, 0, 4});
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(k_lock + k_unlock + steps{"S 50"} + k_lock));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(eeprom_lock, a_failed_watch_withdraws_the_own_bit_and_is_not_slept_on) {
    script.on_read(k_bit_lock, {0, 4, failed(ETIMEDOUT), 0, 4});
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(k_lock + k_unlock + k_lock));
    renew();
    qnm_config.eeprom_retry_count = 0;
    script.on_read(k_bit_lock, {0, failed(ETIMEDOUT)});
    EXPECT_EQ(lock(), ETIMEDOUT);
    EXPECT_EQ(script.get(k_bit_lock), 0U);
}

TEST_F(eeprom_lock, a_failed_withdrawal_of_a_bit_is_told_and_tried_on) {
    script.on_read(k_bit_lock, {0, 0xC, 0, 4});
    script.on_write(k_bit_lock, {0, ETIMEDOUT});
    EXPECT_EQ(lock(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 50F0", "V 50F0=4", "S 7", "R 50F0"} +
                                                k_unlock + steps{"S 50"} + k_lock));
    EXPECT_TRUE(
        logs.has(k_trace, "_qnm_lock_eeprom_impl: Failed to _qnm_unlock_eeprom(). err=110"));
    EXPECT_EQ(logs.lines().size(), 1U);
}

TEST_F(eeprom_lock, a_71_or_a_38_of_any_access_ends_the_bit_lock_at_once) {
    expect_each_access_final([this] { return lock(); });
    expect_each_access_final([this] { return lock(QNM_FLAG_FORCELOCK); });
    for (const int err : {EPROTO, ENOSYS}) {
        renew();
        script.on_read(k_bit_lock, {0, 0xC});
        script.on_write(k_bit_lock, {0, err});  // of the withdrawal
        EXPECT_EQ(lock(), err);
        EXPECT_THAT(script.accesses(),
                    ElementsAre("R 50F0", "V 50F0=4", "R 50F0", "M 50F0=0/4", "W 50F0=8"))
            << "the others' bits are those that were seen last";
    }
}

TEST_F(eeprom_lock, an_own_bit_of_an_earlier_attempt_is_taken_back) {
    script.on_write(k_bit_lock, {ETIMEDOUT});  // nobody knows whether it has arrived
    script.on_read(k_bit_lock, {0xF0, failed(EPROTO)});
    EXPECT_EQ(lock(), EPROTO);
    EXPECT_THAT(script.accesses(), ElementsAre("R 50F0", "V 50F0=F4", "R 50F0", "W 50F0=F0"));
    renew();
    script.on_write(k_bit_lock, {ETIMEDOUT});
    script.on_read(k_bit_lock, {0xF0, 0xF0, failed(EPROTO)});
    EXPECT_EQ(lock(), EPROTO);
    EXPECT_EQ(script.accesses().back(), "W 50F0=F0");
}

TEST_F(eeprom_lock, nothing_is_taken_back_that_is_not_there) {
    script.set(k_bit_lock, 0xC);  // another host of this party, and another party
    script.stop_at_sleep(1);
    EXPECT_EQ(lock(), ENOSYS);
    EXPECT_THAT(script.accesses(), ElementsAre("R 50F0"));
    renew();
    script.on_read(k_bit_lock, {0, 8});  // another party has overwritten the own bit
    script.stop_at_sleep(2);
    EXPECT_EQ(lock(), ENOSYS);
    EXPECT_THAT(script.accesses(), ElementsAre("R 50F0", "V 50F0=4", "R 50F0"));
    renew();
    script.on_write(k_id_request, {EPROTO});  // it was not sent
    EXPECT_EQ(lock_id(), EPROTO);
    EXPECT_THAT(script.accesses(), ElementsAre("W 5200=4"));
}

TEST_F(eeprom_lock, a_stop_at_any_moment_leaves_nothing_on_the_card) {
    for (const bool by_id : {false, true}) {
        for (size_t n = 1; n <= 7; n++) {
            SCOPED_TRACE(testing::Message() << "by ID: " << by_id << ", access " << n);
            renew();
            script.stop_at(n);
            const int err = by_id ? lock_id() : lock();
            // A call that has its lock already is not ended by the stop.
            EXPECT_EQ(is_clean(), err == ENOSYS);
            EXPECT_EQ(err == ENOSYS, n <= (by_id ? k_lock_id.size() : 4));
        }
    }
}

TEST_F(eeprom_lock, a_stop_ends_the_bit_lock) {
    scripted_card::stop();
    EXPECT_EQ(lock(), ENOSYS);
    EXPECT_THAT(script.seen(), IsEmpty());
    renew();
    script.set(k_bit_lock, 8);
    script.stop_at_sleep(1);  // between attempts
    EXPECT_EQ(lock(QNM_FLAG_FORCELOCK), ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAre("R 50F0", "S 50"));
    renew();
    script.stop_at_sleep(2);  // while watched
    EXPECT_EQ(lock(), ENOSYS);
    EXPECT_THAT(script.seen(),
                ElementsAre("R 50F0", "V 50F0=4", "S 7", "R 50F0", "S 7", "W 50F0=0"));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_lock_eeprom: Failed to _qnm_lock_eeprom_impl(). err=38"));
}

TEST_F(eeprom_lock, force_clears_the_bits_of_the_others_after_all_attempts) {
    qnm_config.eeprom_lock_other_bit = 0x18;
    script.set(k_bit_lock, 0x109);
    EXPECT_EQ(lock(QNM_FLAG_FORCELOCK), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(3, {"R 50F0", "S 50"}) +
                                                steps{"M 50F0=0/18", "R 50F0", "V 50F0=105", "S 7",
                                                      "R 50F0", "S 7", "R 50F0"}));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(eeprom_lock, force_gives_up_after_its_count_of_passes) {
    for (const uint32_t count : {0U, 1U, 3U}) {
        qnm_config.force_lock_try_count = count;
        renew();
        script.on_read(k_bit_lock, {8});
        EXPECT_EQ(lock(QNM_FLAG_FORCELOCK), ETIMEDOUT);
        const steps pass = times(3, {"R 50F0", "S 50"});
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(times(count, pass + steps{"M 50F0=0/8"}) + pass));
        EXPECT_TRUE(
            logs.has(k_warn, "_qnm_lock_eeprom: EEPROM access forcelock mode retry timedout."));
        EXPECT_EQ(logs.lines().size(), 1U);
    }
}

TEST_F(eeprom_lock, force_starts_a_new_pass_whatever_the_attempts_failed_with) {
    script.on_read(k_bit_lock, {8, 8, failed(ETIMEDOUT), 0, 4});
    EXPECT_EQ(lock(QNM_FLAG_FORCELOCK), 0);
    EXPECT_EQ(script.count("M 50F0=0/8"), 1U);
}

TEST_F(eeprom_lock, bits_of_others_that_cannot_be_cleared_end_the_force) {
    for (const int err : {ETIMEDOUT, ENOLINK, EPROTO, ENOSYS}) {
        renew();
        script.set(k_bit_lock, 8);
        script.on_write(k_bit_lock, {err});
        EXPECT_EQ(lock(QNM_FLAG_FORCELOCK), err);
        EXPECT_EQ(script.accesses().size(), 4U);
        EXPECT_TRUE(logs.has(k_trace, "_qnm_lock_eeprom: Failed to _qnm_modify_register(). ret=" +
                                          std::to_string(err)));
    }
}

// ---- The lock by ID -----------------------------------------------------------------------------

TEST_F(eeprom_lock, an_id_lock_is_asked_for_noted_and_held) {
    qnm_config.eeprom_id_number = 0x8000;  // not the ID of the lock
    EXPECT_EQ(lock_id(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(k_lock_id));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(eeprom_lock, a_request_is_repeated_until_it_is_noted) {
    script.on_read(k_id_status, {0xFFFB, 0, 0x104});
    EXPECT_EQ(lock_id(), 0);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(times(2, {"W 5200=4", "R 5208", "S 50"}) + k_lock_id));
}

TEST_F(eeprom_lock, a_request_that_is_never_noted_ends_with_110_after_count_plus_1_attempts) {
    for (const uint32_t count : {0U, 2U}) {
        qnm_config.eeprom_retry_count = count;
        renew();
        script.on_read(k_id_status, {0xFFFB});
        EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), ETIMEDOUT);
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(times(count + 1, {"W 5200=4", "R 5208", "S 50"})));
    }
}

TEST_F(eeprom_lock, a_failed_request_counts_and_is_not_slept_on) {
    script.on_write(k_id_request, {ETIMEDOUT, ENOLINK});
    EXPECT_EQ(lock_id(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(2, {"W 5200=4"}) + k_lock_id));
    renew();
    script.on_read(k_id_status, {failed(ENOLINK), failed(ETIMEDOUT), 4});
    EXPECT_EQ(lock_id(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(2, {"W 5200=4", "R 5208"}) + k_lock_id));
    renew();
    script.on_read(k_id_status, {failed(ENOLINK)});
    EXPECT_EQ(lock_id(), ETIMEDOUT);
    EXPECT_EQ(script.count("W 5200=4"), 3U);
}

TEST_F(eeprom_lock, the_lock_is_awaited_from_its_holder) {
    script.on_read(k_id_request, {2, 0x14, 4});
    EXPECT_EQ(lock_id(), 0);
    EXPECT_THAT(script.seen(),
                ElementsAre("W 5200=4", "R 5208", "R 5200", "S 50", "R 5200", "S 50", "R 5200"));
}

TEST_F(eeprom_lock, an_id_lock_of_another_party_is_busy_after_count_plus_1_looks) {
    for (const uint32_t count : {0U, 2U}) {
        qnm_config.eeprom_retry_count = count;
        renew();
        script.set(k_id_request, 2);
        script.set(k_id_status, 2);
        EXPECT_EQ(lock_id(), EBUSY);
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(steps{"W 5200=4", "R 5208"} +
                                     times(count + 1, {"R 5200", "S 50"}) + k_unlock_id));
        EXPECT_EQ(script.get(k_id_status), 2U) << "the own request is withdrawn";
        EXPECT_TRUE(logs.has(k_trace, "_qnm_lock_check_id: Other have acquired the lock."));
        EXPECT_EQ(logs.lines().size(), 1U);
    }
}

TEST_F(eeprom_lock, a_holder_that_cannot_be_read_at_last_withdraws_the_request) {
    script.on_read(k_id_request, {2, 2, failed(ENOLINK)});
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), ENOLINK);
    EXPECT_THAT(
        script.accesses(),
        ElementsAreArray(steps{"W 5200=4", "R 5208", "R 5200", "R 5200", "R 5200"} + k_unlock_id));
    EXPECT_TRUE(logs.has(k_trace, "_qnm_lock_check_id: Failed to _qnm_read_register(). err=67"));
    EXPECT_EQ(logs.lines().size(), 1U);
    renew();
    script.on_read(k_id_request, {failed(ENOLINK), failed(ENOLINK), 2});
    EXPECT_EQ(lock_id(), EBUSY);
    renew();
    script.on_read(k_id_request, {failed(ENOLINK), 4});
    EXPECT_EQ(lock_id(), 0);
    EXPECT_EQ(script.count("S 50"), 1U) << "slept on, unlike a failed request";
}

TEST_F(eeprom_lock, a_failed_withdrawal_of_a_request_is_told_and_changes_nothing) {
    script.on_read(k_id_request, {2});
    script.on_write(k_id_unlock, {ENOLINK, ENOLINK, ENOLINK});
    EXPECT_EQ(lock_id(), EBUSY);
    EXPECT_EQ(script.count("W 5204=4"), 3U);
    EXPECT_TRUE(
        logs.has(k_trace, "_qnm_lock_eeprom_id: Failed to _qnm_unlock_eeprom_id(). err=110"));
    renew();
    script.on_read(k_id_request, {2});
    script.on_write(k_id_unlock, {EPROTO});
    EXPECT_EQ(lock_id(), EBUSY);
    EXPECT_EQ(script.count("W 5204=4"), 2U) << "tried once more, without looking";
    EXPECT_TRUE(
        logs.has(k_trace, "_qnm_lock_eeprom_id: Failed to _qnm_unlock_eeprom_id(). err=71"));
}

TEST_F(eeprom_lock, force_releases_the_id_of_the_holder_after_all_looks) {
    script.set(k_id_request, 0x12);
    script.set(k_id_status, 0x112);
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), 0);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(steps{"W 5200=4", "R 5208"} + times(3, {"R 5200", "S 50"}) +
                                 steps{"W 5204=12", "R 5208", "R 5200"}));
    EXPECT_EQ(script.get(k_id_status), 0x104U);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(eeprom_lock, force_releases_the_holder_that_was_read_last) {
    script.on_read(k_id_request, {1, 2, 8, 4});
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), 0);
    EXPECT_EQ(script.count("W 5204=8"), 1U);
    EXPECT_EQ(script.accesses().size(), 8U);
}

TEST_F(eeprom_lock, force_against_holders_gives_up_after_its_count_of_passes) {
    for (const uint32_t count : {0U, 1U, 3U}) {
        qnm_config.force_lock_try_count = count;
        renew();
        script.on_read(k_id_request, {2});
        EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), ETIMEDOUT);
        const steps pass = times(3, {"R 5200", "S 50"});
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(steps{"W 5200=4", "R 5208"} +
                                     times(count, pass + steps{"W 5204=2", "R 5208"}) + pass +
                                     k_unlock_id));
        EXPECT_TRUE(
            logs.has(k_warn, "_qnm_lock_check_id: EEPROM access forcelock mode retry timedout."));
        EXPECT_EQ(logs.lines().size(), 1U);
    }
}

TEST_F(eeprom_lock, force_looks_again_when_the_holder_could_not_be_released) {
    script.on_read(k_id_request, {2, 2, 2, 4});
    script.on_write(k_id_unlock, {ENOLINK, ENOLINK, ENOLINK});
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), 0);
    EXPECT_EQ(script.count("W 5204=2"), 3U);
}

TEST_F(eeprom_lock, force_releases_nothing_where_nobody_holds_the_lock) {
    script.on_read(k_id_request, {0, 0, 0, 4});
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), 0);
    EXPECT_THAT(script.accesses(),
                ElementsAreArray(steps{"W 5200=4", "R 5208"} + times(4, {"R 5200"})));
}

TEST_F(eeprom_lock, a_71_or_a_38_of_any_access_ends_the_id_lock_at_once) {
    expect_each_access_final([this] { return lock_id(); });
    for (const int err : {EPROTO, ENOSYS}) {
        renew();
        script.on_read(k_id_request, {2, failed(err)});
        EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), err);
        EXPECT_THAT(script.accesses(),
                    ElementsAre("W 5200=4", "R 5208", "R 5200", "R 5200", "W 5204=4"));
        renew();
        script.on_read(k_id_request, {2});
        script.on_write(k_id_unlock, {err});  // of the holder
        EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), err);
        EXPECT_EQ(script.count("W 5204=2"), 1U);
        EXPECT_EQ(script.count("R 5200"), 3U);
        EXPECT_EQ(script.accesses().back(), "W 5204=4");
    }
}

TEST_F(eeprom_lock, a_stop_ends_the_id_lock) {
    scripted_card::stop();
    EXPECT_EQ(lock_id(), ENOSYS);
    EXPECT_THAT(script.seen(), IsEmpty());
    renew();
    script.on_read(k_id_status, {0});
    script.stop_at_sleep(1);
    EXPECT_EQ(lock_id(), ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAre("W 5200=4", "R 5208", "S 50", "W 5204=4"));
    renew();
    script.on_read(k_id_request, {2});
    script.stop_at_sleep(1);
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAre("W 5200=4", "R 5208", "R 5200", "S 50", "W 5204=4"));
    EXPECT_TRUE(logs.lines().empty());
    renew();
    script.on_read(k_id_request, {2});
    script.on_read(k_id_status, {4, 2});
    script.stop_at_sleep(4);  // while the holder is released
    EXPECT_EQ(lock_id(QNM_FLAG_FORCELOCK), ENOSYS);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(steps{"W 5200=4", "R 5208"} + times(3, {"R 5200", "S 50"}) +
                                 steps{"W 5204=2", "R 5208", "S 50", "W 5204=4"}));
}

// ---- The locks of the others --------------------------------------------------------------------

struct eeprom_unlock : eeproms {
    eeprom_unlock() {
        retry = configured();
        renew();
    }
};

TEST_F(eeprom_unlock, clears_the_bits_of_the_others_without_any_lock) {
    qnm_config.eeprom_lock_other_bit = 0x18;
    script.set(k_bit_lock, 0x3C);
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_SUCCESS);
    EXPECT_THAT(script.seen(), ElementsAre("R 520C", "M 50F0=0/18"));
    EXPECT_EQ(script.get(k_bit_lock), 0x24U);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_unlock_eeprom: (IN) id=0x001122334454",
                            "qnm_unlock_eeprom: (OUT) ret=0, id=0x001122334454"));
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_SUCCESS);
}

TEST_F(eeprom_unlock, releases_the_ids_of_everybody_without_any_lock) {
    script.offer_id_lock();
    script.on_read(k_id_status, {0x8000, 0x10000});
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_SUCCESS);
    EXPECT_THAT(script.seen(),
                ElementsAre("R 520C", "W 5204=FFFF", "R 5208", "S 50", "W 5204=FFFF", "R 5208"));
}

TEST_F(eeprom_unlock, fails_when_the_lock_type_cannot_be_read) {
    script.fail_at(1, ETIMEDOUT);
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ETIMEDOUT);
    EXPECT_THAT(script.seen(), ElementsAre("R 520C"));
    EXPECT_TRUE(logs.has(k_error, "qnm_unlock_eeprom: Failed to _qnm_get_locktype(). err=110"));
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_ETIMEDOUT);
}

TEST_F(eeprom_unlock, fails_when_the_bits_cannot_be_cleared) {
    script.on_write(k_bit_lock, {EPROTO});
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_EPROTO);
    EXPECT_TRUE(
        logs.has(k_error, "qnm_unlock_eeprom: Failed to _qnm_unlock_eeprom_impl(). err=71"));
    EXPECT_TRUE(logs.has(k_info, "qnm_unlock_eeprom: (OUT) ret=6, id=0x001122334454"));
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_EPROTO);
}

TEST_F(eeprom_unlock, repeats_a_failed_release_of_ids_without_a_sleep) {
    script.offer_id_lock();
    script.on_write(k_id_unlock, {ENOLINK});
    script.on_read(k_id_status, {failed(ETIMEDOUT), 0});
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_SUCCESS);
    EXPECT_THAT(script.seen(), ElementsAre("R 520C", "W 5204=FFFF", "W 5204=FFFF", "R 5208",
                                           "W 5204=FFFF", "R 5208"));
    renew();
    script.offer_id_lock();
    script.on_read(k_id_status, {failed(ENOLINK)});
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ETIMEDOUT);
    EXPECT_EQ(script.count("W 5204=FFFF"), 3U);
    EXPECT_EQ(script.count("S 50"), 0U);
}

TEST_F(eeprom_unlock, ends_the_release_of_ids_at_once_with_a_71_a_38_or_a_stop) {
    const std::pair<int, qnm_api_code_t> rows[] = {{EPROTO, QNM_API_EPROTO},
                                                   {ENOSYS, QNM_API_ENOSYS}};
    for (const auto& [err, ret] : rows) {
        for (const size_t n : {2U, 3U}) {
            renew();
            script.offer_id_lock();
            script.fail_at(n, err);
            EXPECT_EQ(qnm_unlock_eeprom(k_id), ret);
            EXPECT_EQ(script.accesses().size(), n);
        }
    }
    renew();
    script.offer_id_lock();
    script.on_read(k_id_status, {4});
    script.stop_at_sleep(1);
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAre("R 520C", "W 5204=FFFF", "R 5208", "S 50"));
}

TEST_F(eeprom_unlock, fails_when_the_ids_stay) {
    script.offer_id_lock();
    script.on_read(k_id_status, {1});
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ETIMEDOUT);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(steps{"R 520C"} + times(3, {"W 5204=FFFF", "R 5208", "S 50"})));
    EXPECT_TRUE(logs.has(k_error, "qnm_unlock_eeprom: Failed to _qnm_unlock_eeprom_id(). err=110"));
}

TEST_F(eeprom_unlock, needs_a_running_manager_and_a_known_and_monitored_card) {
    EXPECT_EQ(qnm_unlock_eeprom(1), QNM_API_ENOENT);
    EXPECT_TRUE(logs.has(k_info, "qnm_unlock_eeprom: (OUT) ret=3, id=0x000000000001"));
    store(dev, QNM_IGNORE);
    EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ENOLINK);
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        EXPECT_EQ(qnm_unlock_eeprom(k_id), QNM_API_ENOSYS);
    }
    EXPECT_THAT(script.seen(), IsEmpty());
    EXPECT_EQ(card.reads(), 0U) << "no live check";
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_ENOENT);
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_ENOLINK);
    expect_counted(QNM_STATS_UNLOCK_EEPROM, QNM_API_ENOSYS, 3);
}

}  // namespace
