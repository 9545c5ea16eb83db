// eeproms.h - what the tests of EEPROM access share: a card with an EEPROM, and the steps that an
// access to it is made of.
#pragma once

#include <cerrno>
#include <string>

#include "qnm_eeprom_send.h"
#include "scripted_card.h"

// A word whose two forms of address differ.
constexpr uint32_t k_addr = 0x7F8, k_packed = 0x700F8;
constexpr uint32_t k_data = 0xCAFEF00D, k_new_data = 0x12345678, k_untouched = 0x55555555;

// One card, as in card_units, whose registers are those of the script; live checks alone go out as
// frames.
struct eeproms : card_units {
    static constexpr uint32_t k_ready = scripted_card::k_ready,
                              k_complete = scripted_card::k_complete,
                              k_refused = scripted_card::k_refused, k_busy = 0x40000001;
    static constexpr uint32_t k_control = 0x5010, k_read_data = 0x5018,
                              k_bit_lock = scripted_card::k_bit_lock,
                              k_id_request = scripted_card::k_id_request,
                              k_id_unlock = scripted_card::k_id_unlock,
                              k_id_status = scripted_card::k_id_status;
    using answer = scripted_card::answer;
    static constexpr auto failed = scripted_card::failed;

    scripted_card script;
    qnm_retry_t retry = {.er_retry_count = 1, .er_retry_interval = 20};  // to come with each access
    uint32_t word = k_untouched;                                         // to be read into

    eeproms() {
        qnm_config.eeprom_retry_interval = 50;
        qnm_config.eeprom_retry_count = 2;
        qnm_config.eeprom_check_interval = 3;
        qnm_config.eeprom_check_retry_count = 2;
        qnm_config.eeprom_verify_count = 2;
        qnm_config.eeprom_verify_interval = 7;
        qnm_config.eeprom_rw_interval = 90;
        qnm_config.force_lock_try_count = 2;
        qnm_config.frame_retry_interval_lc = 1;
        qnm_config.frame_retry_count_lc = 1;
        renew();
    }

    // A card that works, and nothing logged.
    void renew() {
        script.reset();
        script.expect_retry(retry);
        script.memory(k_packed) = script.memory(k_addr) = k_data;
        word = k_untouched;
        logs.clear();
    }

    // What calls come with that are given no retry parameters.
    static qnm_retry_t configured() {
        return {qnm_config.frame_retry_count, qnm_config.frame_retry_interval};
    }

    // Each access of a call that goes well fails in turn: that ends the call at once, but for
    // taking back what it may have left.
    template <typename Call>
    void expect_each_access_final(Call call) {
        renew();
        ASSERT_EQ(call(), 0);
        const steps all = script.accesses();
        for (const int err : {EPROTO, ENOSYS}) {
            for (size_t n = 1; n <= all.size(); n++) {
                SCOPED_TRACE(testing::Message() << "access " << n << " fails with " << err);
                renew();
                script.fail_at(n, err);
                EXPECT_EQ(call(), err);
                const steps done(all.begin(), all.begin() + static_cast<ptrdiff_t>(n));
                EXPECT_THAT(script.accesses(),
                            testing::ElementsAreArray(done + take_back_steps(done)));
            }
        }
    }

    // The frames that take back what these accesses, of which the last one has failed, may have
    // left on a card that nobody else uses.
    static steps take_back_steps(const steps& done) {
        bool command = false, bit = false, id = false;
        for (size_t n = 0; n < done.size(); n++) {
            const bool went_well = n + 1 < done.size();
            if (done[n].starts_with("W 5010=8")) command = true;
            if (done[n] == "V 50F0=4") bit = true;
            if (!went_well) continue;
            if (done[n] == "W 5010=0") command = false;
            if (done[n] == "M 50F0=0/4") bit = false;
            if (done[n] == "W 5200=4") id = true;
            if (done[n] == "R 5208" && done[n - 1] == "W 5204=4") id = false;
        }
        steps expected;
        if (command) expected.emplace_back("W 5010=0");
        if (bit) expected.emplace_back("W 50F0=0");
        if (id) expected.emplace_back("W 5204=4");
        return expected;
    }

    // Whether the card has nothing of this host's.
    bool is_clean() {
        return script.get(k_bit_lock) == 0 && script.get(k_id_status) == 0 &&
               script.get(k_id_request) == 0 && script.get(k_control) == k_ready;
    }
};

// The steps of the calls, for a 1G/10G card: addresses and commands in hexadecimal.
inline const steps k_rest = {"W 5010=0", "R 5010"};

inline steps command_steps(const std::string& address, const std::string& command) {
    return {"V 5014=" + address, "W 5010=" + command, "S 3", "R 5010"};
}

inline steps read_steps(const std::string& address = "700F8") {
    return steps{"R 5010"} + command_steps(address, "80000001") + steps{"R 5018"} + k_rest;
}

inline steps write_steps(const std::string& address = "700F8") {
    return steps{"R 5010", "V 501C=12345678"} + command_steps(address, "80000003") + k_rest;
}

inline const steps k_lock = {"R 50F0", "V 50F0=4", "S 7", "R 50F0", "S 7", "R 50F0"};
inline const steps k_unlock = {"M 50F0=0/4"};
inline const steps k_lock_id = {"W 5200=4", "R 5208", "R 5200"};
inline const steps k_unlock_id = {"W 5204=4", "R 5208"};
