// test_eeprom_send.cpp - words of an EEPROM, read and written.

#include <cerrno>
#include <utility>
#include <vector>

#include "eeproms.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

struct eeprom_send : eeproms {
    int read() { return read_at(k_addr); }
    int read_at(uint32_t addr) {
        return _qnm_read_eeprom(&dev, addr, &word, retry.er_retry_interval, retry.er_retry_count);
    }
    int write(uint32_t flags = 0) {
        return _qnm_write_eeprom(&dev, k_addr, k_new_data, retry.er_retry_interval,
                                 retry.er_retry_count, flags);
    }
    void renew_with(uint32_t count) {
        retry.er_retry_count = count;
        renew();
    }
};

// ---- A word is read -----------------------------------------------------------------------------

TEST_F(eeprom_send, a_word_is_read_by_a_command_at_its_packed_address) {
    script.memory(k_addr) = 0;
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(word, k_data);
    EXPECT_THAT(script.seen(), ElementsAreArray(read_steps()));
    EXPECT_TRUE(logs.has(k_debug, "_check_access: EEPROM access complete. count:0"));
    EXPECT_EQ(logs.lines().size(), 1U);
}

TEST_F(eeprom_send, a_packed_address_has_bits_8_to_11_at_16_to_19) {
    const std::pair<uint32_t, const char*> rows[] = {{0x000, "0"},     {0x0FC, "FC"},
                                                     {0x100, "10000"}, {0x404, "40004"},
                                                     {0x7FC, "700FC"}, {0xFFC, "F00FC"}};
    for (const auto& [addr, packed] : rows) {
        renew();
        EXPECT_EQ(read_at(addr), 0);
        EXPECT_EQ(script.accesses()[1], std::string("V 5014=") + packed);
    }
}

TEST_F(eeprom_send, a_40g_card_has_other_registers_and_takes_the_raw_address_only) {
    for (const uint8_t type : {1, 255}) {
        renew();
        dev.ecd_type = type;
        script.memory(k_packed) = 0;
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(word, k_data);
        EXPECT_THAT(script.seen(), ElementsAre("R 40", "V 44=7F8", "W 40=80000001", "S 3", "R 40",
                                               "R 48", "W 40=0", "R 40"));
        renew();
        EXPECT_EQ(write(), 0);
        EXPECT_THAT(script.seen(), ElementsAre("R 40", "V 4C=12345678", "V 44=7F8", "W 40=80000003",
                                               "S 3", "R 40", "W 40=0", "R 40"));
    }
}

TEST_F(eeprom_send, another_eeprom_type_takes_the_raw_address_only) {
    qnm_config.eeprom_type = 1;
    script.memory(k_packed) = 0;
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(word, k_data);
    EXPECT_THAT(script.seen(), ElementsAreArray(read_steps("7F8")));
}

TEST_F(eeprom_send, a_refused_packed_address_is_followed_by_the_raw_one) {
    script.on_read(k_control, {k_ready, k_refused, k_complete, k_ready});
    script.memory(k_packed) = 0;
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(word, k_data);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(steps{"R 5010"} + command_steps("700F8", "80000001") +
                                 command_steps("7F8", "80000001") + steps{"R 5018"} + k_rest));
    EXPECT_EQ(logs.count_level(k_info), 0U);
}

TEST_F(eeprom_send, a_refused_raw_address_ends_the_read_with_71_after_the_rest) {
    script.on_read(k_control, {k_ready, k_refused, k_refused, k_ready});
    EXPECT_EQ(read(), EPROTO);
    EXPECT_EQ(word, k_untouched);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(steps{"R 5010"} + command_steps("700F8", "80000001") +
                                 command_steps("7F8", "80000001") + k_rest));
    EXPECT_TRUE(logs.has(k_info, "_qnm_read_eeprom: Failed to _check_access(). err=13"));
    EXPECT_EQ(logs.lines().size(), 1U);
}

TEST_F(eeprom_send, a_refusal_without_a_packed_address_needs_no_second_command) {
    dev.ecd_type = 1;
    script.on_read(0x40, {k_ready, k_refused, k_ready});
    EXPECT_EQ(read(), EPROTO);
    EXPECT_EQ(script.count("W 40=80000001"), 1U);
    renew();
    dev.ecd_type = 0;
    qnm_config.eeprom_type = 1;
    script.on_read(k_control, {k_ready, k_refused, k_ready});
    EXPECT_EQ(read(), EPROTO);
    EXPECT_EQ(script.count("W 5010=80000001"), 1U);
    EXPECT_TRUE(logs.has(k_info, "_qnm_read_eeprom: Failed to _check_access(). err=13"));
}

TEST_F(eeprom_send, a_refusal_counts_only_when_the_card_is_ready_again) {
    script.on_read(k_control, {k_ready, k_refused, k_refused, k_busy,  // no result yet
                               k_ready, k_complete, k_ready});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(script.count("S 90"), 1U);
    EXPECT_EQ(word, k_data);
}

TEST_F(eeprom_send, a_command_that_is_not_refused_but_late_is_not_repeated_with_the_raw_address) {
    script.on_read(k_control, {k_ready, k_busy, k_busy, k_busy, k_ready,  // too late
                               k_ready, k_complete, k_ready});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(script.count("V 5014=7F8"), 0U);
    EXPECT_EQ(script.count("V 5014=700F8"), 2U);
}

TEST_F(eeprom_send, ready_is_bit_30_without_bit_0) {
    const std::pair<uint32_t, bool> rows[] = {{0x40000000, true},
                                              {0xFFFFFFFE, true},
                                              {0x40000001, false},
                                              {0, false},
                                              {0xBFFFFFFE, false}};
    for (const auto& [status, ready] : rows) {
        renew();
        script.on_read(k_control, {status, k_complete, k_ready});
        read();
        EXPECT_EQ(script.accesses()[1] == "V 5014=700F8", ready) << status;
    }
}

TEST_F(eeprom_send, complete_is_bit_28_without_bit_0_and_without_bit_29) {
    const std::pair<uint32_t, bool> rows[] = {{0x10000000, true},
                                              {0xD0000000, true},
                                              {0x10000001, false},
                                              {0x20000000, false},
                                              {0, false}};
    for (const auto& [status, complete] : rows) {
        renew();
        if (complete) {
            script.on_read(k_control, {k_ready, status, k_ready});
        } else {
            script.on_read(k_control, {k_ready, status, k_complete, k_ready});
        }
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(script.count("S 3"), complete ? 1U : 2U) << status;
        EXPECT_EQ(script.count("V 5014=7F8"), 0U) << status << " is no refusal";
    }
}

TEST_F(eeprom_send, bits_28_and_29_are_a_refusal_whatever_bit_0_says) {
    for (const uint32_t status : {0x30000000U, 0x30000001U, 0xFFFFFFFFU}) {
        renew();
        script.on_read(k_control, {k_ready, status, status, k_ready});
        EXPECT_EQ(read(), EPROTO) << status;
    }
}

TEST_F(eeprom_send, completion_is_polled_for_count_plus_1_times) {
    for (const uint32_t count : {0U, 2U}) {
        qnm_config.eeprom_check_retry_count = count;
        renew();
        std::vector<answer> statuses = {k_ready};
        statuses.insert(statuses.end(), count, k_busy);
        auto late = statuses;
        statuses.insert(statuses.end(), {k_complete, k_ready});
        script.on_read(k_control, statuses);
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(script.count("S 3"), count + 1);
        EXPECT_TRUE(logs.has(
            k_debug, "_check_access: EEPROM access complete. count:" + std::to_string(count)));
        renew();
        late.insert(late.end(), {k_busy, k_ready, k_ready, k_complete, k_ready});
        script.on_read(k_control, late);
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(script.count("S 3"), count + 2) << "one more in the next attempt";
        EXPECT_EQ(script.count("S 90"), 1U);
    }
}

TEST_F(eeprom_send, a_card_that_is_not_ready_is_put_to_rest_and_tried_count_plus_1_times) {
    for (const uint32_t count : {0U, 3U}) {
        renew_with(count);
        script.on_read(k_control, {k_busy});
        EXPECT_EQ(read(), ETIMEDOUT);
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(times(count + 1, steps{"R 5010"} + k_rest + steps{"S 90"})));
        EXPECT_EQ(word, k_untouched);
        EXPECT_TRUE(logs.lines().empty());
    }
}

TEST_F(eeprom_send, a_word_counts_only_when_the_card_is_ready_again) {
    script.on_read(k_control, {k_ready, k_complete, k_busy});
    EXPECT_EQ(read(), ETIMEDOUT);
    EXPECT_EQ(word, k_untouched);
    EXPECT_THAT(script.seen(),
                ElementsAreArray(read_steps() + steps{"S 90", "R 5010"} + k_rest + steps{"S 90"}));
}

TEST_F(eeprom_send, a_failed_access_of_a_read_is_a_failed_attempt) {
    ASSERT_EQ(read(), 0);
    const size_t all = script.accesses().size();
    ASSERT_EQ(all, 7U);
    for (size_t n = 1; n <= all; n++) {
        SCOPED_TRACE(n);
        renew_with(2);
        script.fail_at(n, ETIMEDOUT);
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(word, k_data);
        EXPECT_EQ(script.count("S 90"), n == 6 ? 2U : 1U) << "not at rest, it is not ready";
        EXPECT_GE(script.count("W 5010=0"), 2U) << "the EEPROM is always put to rest";
        renew_with(0);
        script.fail_at(n, ETIMEDOUT);
        EXPECT_EQ(read(), ETIMEDOUT);
        EXPECT_EQ(word, k_untouched);
    }
}

TEST_F(eeprom_send, a_failed_access_of_a_command_is_no_refusal) {
    for (const size_t n : {2U, 3U, 4U}) {
        renew();
        script.fail_at(n, EACCES);
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(script.count("S 90"), 1U);
        EXPECT_EQ(script.count("V 5014=7F8"), 0U);
        EXPECT_EQ(logs.count_level(k_info), 0U);
    }
}

TEST_F(eeprom_send, each_failed_step_of_a_read_has_its_line) {
    const std::pair<size_t, const char*> rows[] = {
        {1, "_qnm_read_register() of access check. err=67"},
        {5, "_qnm_read_register() of getting EEPROM data. err=67"},
        {6, "_qnm_write_register(). err=67"},
        {7, "_qnm_read_register(). err=67"},
    };
    for (const auto& [n, text] : rows) {
        renew_with(2);
        script.fail_at(n, ENOLINK);
        EXPECT_EQ(read(), 0);
        EXPECT_TRUE(logs.has(k_trace, std::string("_qnm_read_eeprom: Failed to ") + text));
        EXPECT_EQ(logs.count_level(k_trace), 1U) << text;
    }
}

TEST_F(eeprom_send, a_card_that_cannot_be_put_to_rest_but_is_ready_has_given_its_word) {
    script.on_write(k_control, {0, ENOLINK});
    script.on_read(k_control, {k_ready, k_complete, k_ready});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(word, k_data);
    EXPECT_THAT(script.seen(), ElementsAreArray(read_steps()));
}

TEST_F(eeprom_send, a_71_or_a_38_of_any_access_ends_a_read_at_once) {
    expect_each_access_final([this] { return read(); });
    EXPECT_EQ(word, k_untouched);
}

TEST_F(eeprom_send, a_stop_ends_a_read) {
    scripted_card::stop();
    EXPECT_EQ(read(), ENOSYS);
    EXPECT_THAT(script.seen(), IsEmpty());
    renew();
    script.on_read(k_control, {k_ready, k_busy});
    script.stop_at_sleep(1);  // of the polls
    EXPECT_EQ(read(), ENOSYS);
    EXPECT_EQ(script.accesses().back(), "W 5010=0") << "the command is cleared";
    EXPECT_EQ(script.count("W 5010=0"), 1U);
    EXPECT_EQ(script.count("S 3"), 1U);
    renew();
    script.on_read(k_control, {k_busy});
    script.stop_at_sleep(1);  // between attempts
    EXPECT_EQ(read(), ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 5010"} + k_rest + steps{"S 90"}));
    renew_with(0);
    script.on_read(k_control, {k_busy});
    script.stop_at_sleep(1);  // after the last attempt
    EXPECT_EQ(read(), ENOSYS);
}

TEST_F(eeprom_send, a_command_that_cannot_be_cleared_is_tried_once_more) {
    script.on_write(k_control, {0, EPROTO});
    EXPECT_EQ(read(), EPROTO);
    EXPECT_THAT(script.accesses(), ElementsAre("R 5010", "V 5014=700F8", "W 5010=80000001",
                                               "R 5010", "R 5018", "W 5010=0", "W 5010=0"));
}

TEST_F(eeprom_send, a_stop_at_any_moment_leaves_no_command_on_the_card) {
    for (size_t n = 1; n <= 14; n++) {
        for (const bool is_write : {false, true}) {
            SCOPED_TRACE(testing::Message() << "write: " << is_write << ", access " << n);
            renew();
            script.stop_at(n);
            is_write ? write(QNM_FLAG_VERIFY) : read();
            EXPECT_TRUE(is_clean());
        }
    }
}

// ---- A word is written --------------------------------------------------------------------------

TEST_F(eeprom_send, a_word_is_set_and_written_by_a_command_at_its_packed_address) {
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(script.memory(k_packed), 0x12345678U);
    EXPECT_THAT(script.seen(), ElementsAreArray(write_steps()));
    EXPECT_TRUE(logs.has(k_debug, "_check_access: EEPROM access complete. count:0"));
    EXPECT_EQ(logs.lines().size(), 1U);
}

TEST_F(eeprom_send, a_write_goes_on_to_the_raw_address_as_a_read_does) {
    script.on_read(k_control, {k_ready, k_refused, k_complete, k_ready});
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(script.memory(k_addr), 0x12345678U);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 5010", "V 501C=12345678"} +
                                                command_steps("700F8", "80000003") +
                                                command_steps("7F8", "80000003") + k_rest));
    renew();
    qnm_config.eeprom_type = 1;
    EXPECT_EQ(write(), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(write_steps("7F8")));
}

TEST_F(eeprom_send, a_refused_write_ends_at_once_with_71) {
    for (const uint32_t after : {k_ready, k_busy}) {
        renew();
        script.on_read(k_control, {k_ready, k_refused, k_refused, after});
        EXPECT_EQ(write(QNM_FLAG_VERIFY), EPROTO);
        EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 5010", "V 501C=12345678"} +
                                                    command_steps("700F8", "80000003") +
                                                    command_steps("7F8", "80000003") + k_rest));
        EXPECT_TRUE(logs.has(k_info, "_qnm_write_eeprom_impl: Failed to _check_access(). err=13"));
    }
}

TEST_F(eeprom_send, a_completed_write_succeeds_whatever_the_rest_finds) {
    script.on_read(k_control, {k_ready, k_complete, k_busy});
    EXPECT_EQ(write(), 0);
    renew();
    script.on_read(k_control, {k_ready, k_complete, failed(ENOLINK)});
    EXPECT_EQ(write(), 0);
    EXPECT_TRUE(
        logs.has(k_trace, "_qnm_write_eeprom_impl: Failed to _qnm_read_register(). err=67"));
    renew();
    script.on_write(k_control, {0, ENOLINK});
    EXPECT_EQ(write(), 0);
    EXPECT_TRUE(
        logs.has(k_trace, "_qnm_write_eeprom_impl: Failed to _qnm_write_register(). err=67"));
    EXPECT_EQ(script.count("S 90"), 0U);
}

TEST_F(eeprom_send, a_write_that_does_not_complete_is_tried_count_plus_1_times) {
    for (const uint32_t count : {0U, 3U}) {
        renew_with(count);
        script.on_read(k_control, {k_busy});
        EXPECT_EQ(write(), ETIMEDOUT);
        EXPECT_THAT(script.seen(),
                    ElementsAreArray(times(count + 1, steps{"R 5010"} + k_rest + steps{"S 90"})));
    }
}

TEST_F(eeprom_send, a_failed_access_of_a_write_is_a_failed_attempt) {
    ASSERT_EQ(write(), 0);
    ASSERT_EQ(script.accesses().size(), 7U);
    for (size_t n = 1; n <= 5; n++) {
        SCOPED_TRACE(n);
        renew();
        script.fail_at(n, ETIMEDOUT);
        EXPECT_EQ(write(), 0);
        EXPECT_EQ(script.memory(k_packed), 0x12345678U);
        EXPECT_EQ(script.count("S 90"), 1U);
        EXPECT_EQ(script.count("W 5010=0"), 2U) << "the EEPROM is always put to rest";
    }
}

TEST_F(eeprom_send, a_failed_look_or_a_failed_setting_of_a_write_has_its_line) {
    script.fail_at(1, ENOLINK);
    EXPECT_EQ(write(), 0);
    EXPECT_TRUE(logs.has(
        k_trace, "_qnm_write_eeprom_impl: Failed to _qnm_read_register() of access check. err=67"));
    renew();
    script.fail_at(2, ENOLINK);
    EXPECT_EQ(write(), 0);
    EXPECT_TRUE(logs.has(
        k_trace,
        "_qnm_write_eeprom_impl: Failed to _qnm_write_register() of setting data. err=67"));
    EXPECT_EQ(logs.count_level(k_trace), 1U);
}

TEST_F(eeprom_send, a_verified_write_reads_the_word_back) {
    EXPECT_EQ(write(QNM_FLAG_VERIFY), 0);
    EXPECT_THAT(script.seen(), ElementsAreArray(write_steps() + read_steps()));
}

TEST_F(eeprom_send, a_word_that_does_not_hold_is_written_count_plus_1_times) {
    script.on_read(k_read_data, {k_new_data + 1, k_new_data});
    EXPECT_EQ(write(QNM_FLAG_VERIFY), 0);
    const steps once = write_steps() + read_steps();
    EXPECT_THAT(script.seen(), ElementsAreArray(once + steps{"S 90"} + once));
    renew();
    script.on_read(k_read_data, {k_new_data + 1});
    EXPECT_EQ(write(QNM_FLAG_VERIFY), ETIMEDOUT);
    EXPECT_THAT(script.seen(), ElementsAreArray(times(2, once + steps{"S 90"})));
    renew();
    EXPECT_EQ(write(QNM_FLAG_LIVECHECK | QNM_FLAG_FORCELOCK), 0) << "flags for others";
    EXPECT_THAT(script.seen(), ElementsAreArray(write_steps()));
}

TEST_F(eeprom_send, a_word_that_cannot_be_read_back_is_written_again) {
    script.on_read(k_control, {k_ready, k_complete, k_ready,    // written
                               k_busy, k_busy, k_busy, k_busy,  // all attempts to read it
                               k_ready, k_complete, k_ready,    // written again
                               k_ready, k_complete, k_ready});
    EXPECT_EQ(write(QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(script.count("W 5010=80000003"), 2U);
    renew();
    script.on_read(k_control,
                   {k_ready, k_complete, k_ready, k_ready, k_refused, k_refused, k_ready});
    EXPECT_EQ(write(QNM_FLAG_VERIFY), EPROTO) << "a refused reading ends it";
    EXPECT_EQ(script.count("W 5010=80000003"), 1U);
}

TEST_F(eeprom_send, a_71_or_a_38_of_any_access_ends_a_write_at_once) {
    expect_each_access_final([this] { return write(QNM_FLAG_VERIFY); });
}

TEST_F(eeprom_send, a_stop_ends_a_write) {
    scripted_card::stop();
    EXPECT_EQ(write(), ENOSYS);
    EXPECT_THAT(script.seen(), IsEmpty());
    renew();
    script.on_read(k_control, {k_busy});
    script.stop_at_sleep(1);
    EXPECT_EQ(write(), ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"R 5010"} + k_rest + steps{"S 90"}));
}

}  // namespace
