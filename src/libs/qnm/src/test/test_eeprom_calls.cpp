// test_eeprom_calls.cpp - the public calls that read, write and dump an EEPROM.

#include <cerrno>
#include <utility>
#include <vector>

#include "eeproms.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

// ---- What all calls share -----------------------------------------------------------------------

// What reads, writes and dumps have in common.
struct word_call {
    const char* name;
    const char* inner;  // who reads the type of the lock
    const char* work;   // what fails with the word
    qnm_stats_func_t func;
    steps (*word_steps)(const std::string& address);
    qnm_api_code_t (*call)(uint64_t id, const qnm_retry_t* retry, uint32_t flags);
};

qnm_api_code_t read_one(uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
    uint32_t word = 0;
    return qnm_read_eeprom(id, k_addr, &word, retry, flags);
}

qnm_api_code_t write_one(uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
    return qnm_write_eeprom(id, k_addr, k_new_data, retry, flags);
}

qnm_api_code_t dump_one(uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
    uint32_t word = 0;
    size_t len = sizeof word;
    const qnm_api_code_t ret =
        qnm_dump_eeprom(id, k_addr, k_addr + sizeof word, &word, &len, retry, flags);
    EXPECT_TRUE(len == sizeof word || (len == 0 && ret != QNM_API_SUCCESS)) << len;
    return ret;
}

const word_call k_calls[] = {
    {"qnm_read_eeprom", "qnm_read_eeprom", "_qnm_read_eeprom", QNM_STATS_READ_EEPROM, read_steps,
     read_one},
    {"qnm_write_eeprom", "qnm_write_eeprom", "_qnm_write_eeprom", QNM_STATS_WRITE_EEPROM,
     write_steps, write_one},
    {"qnm_dump_eeprom", "_qnm_dump_eeprom", "_qnm_dump_eeprom", QNM_STATS_DUMP_EEPROM, read_steps,
     dump_one},
};

struct eeprom_call : eeproms, testing::WithParamInterface<word_call> {
    eeprom_call() {
        retry = k_retry;
        renew();
    }

    static qnm_api_code_t call(uint32_t flags = 0) { return call(k_id, flags); }
    static qnm_api_code_t call(uint64_t id, uint32_t flags) {
        return GetParam().call(id, &k_retry, flags);
    }

    void expect_exit(qnm_api_code_t ret, const char* id = "0x001122334454") {
        EXPECT_TRUE(logs.has(k_info, std::string(GetParam().name) +
                                         ": (OUT) ret=" + std::to_string(ret) + ", id=" + id));
        expect_counted(GetParam().func, ret);
    }

    bool has_failure(const std::string& what) const {
        return logs.has(k_error, std::string(GetParam().name) + ": Failed to " + what);
    }
    // A dump logs its locks as it logs its words.
    bool has_lock_failure(const std::string& lock, int err) const {
        const bool is_dump = GetParam().func == QNM_STATS_DUMP_EEPROM;
        return has_failure((is_dump ? GetParam().work : lock) + "(). err=" + std::to_string(err));
    }

    static steps word_steps() { return GetParam().word_steps("700F8"); }
};

std::string name_of(const testing::TestParamInfo<word_call>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(each, eeprom_call, testing::ValuesIn(k_calls), name_of);

TEST_P(eeprom_call, works_under_the_write_lock_and_the_bit_lock) {
    EXPECT_EQ(call(), QNM_API_SUCCESS);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"lock", "R 520C"} + k_lock + word_steps() +
                                                k_unlock + steps{"unlock"}));
    EXPECT_EQ(script.dev().ecd_id, k_id);
    EXPECT_EQ(logs.count_level(k_error), 0U);
    expect_exit(QNM_API_SUCCESS);
}

TEST_P(eeprom_call, works_under_the_write_lock_and_the_id_lock) {
    script.offer_id_lock();
    EXPECT_EQ(call(), QNM_API_SUCCESS);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"lock", "R 520C"} + k_lock_id + word_steps() +
                                                k_unlock_id + steps{"unlock"}));
}

TEST_P(eeprom_call, goes_by_bit_0_of_the_lock_type_only) {
    const std::pair<uint32_t, const char*> rows[] = {{0xFFFFFFFE, "R 50F0"}, {0x3, "W 5200=4"}};
    for (const auto& [type, first] : rows) {
        renew();
        script.set(scripted_card::k_lock_type, type);
        EXPECT_EQ(call(), QNM_API_SUCCESS);
        EXPECT_EQ(script.seen()[2], first);
    }
}

TEST_P(eeprom_call, uses_the_configured_retries_when_given_none) {
    script.expect_retry(configured());
    EXPECT_EQ(GetParam().call(k_id, nullptr, 0), QNM_API_SUCCESS);
}

TEST_P(eeprom_call, works_on_qnio_cards) {
    qnm_com_dev_t io = record(k_id + 2, k_mac + 2);
    io.ecd_type = 1;
    store_qnio(io);
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id + 2), 0);
    EXPECT_EQ(call(k_id + 2, 0), QNM_API_SUCCESS);
    EXPECT_EQ(script.dev().ecd_id, k_id + 2);
    EXPECT_EQ(script.count("R 40"), 3U) << "by the registers of its type";
    EXPECT_EQ(script.count("V 50F0=4"), 1U) << "by the lock of either type";
}

TEST_P(eeprom_call, needs_a_running_manager_before_all_else) {
    const qnm_retry_t bad = {.er_retry_count = 1, .er_retry_interval = 0};
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}, {1U, 0U}}) {
        set_flags(init, 1, fini);
        EXPECT_EQ(GetParam().call(1, &bad, 0), QNM_API_ENOSYS);
    }
    EXPECT_THAT(script.seen(), IsEmpty());
    EXPECT_TRUE(
        logs.has(k_info, std::string(GetParam().name) + ": (OUT) ret=9, id=0x000000000001"));
    expect_counted(GetParam().func, QNM_API_ENOSYS, 3);
}

TEST_P(eeprom_call, refuses_a_retry_interval_of_0_before_it_looks_the_card_up) {
    const qnm_retry_t bad = {.er_retry_count = 1, .er_retry_interval = 0};
    EXPECT_EQ(GetParam().call(1, &bad, 0), QNM_API_EINVAL);
    EXPECT_THAT(script.seen(), IsEmpty());
    expect_exit(QNM_API_EINVAL, "0x000000000001");
}

TEST_P(eeprom_call, does_not_know_an_unknown_card) {
    EXPECT_EQ(call(1, QNM_FLAG_LIVECHECK), QNM_API_ENOENT);
    EXPECT_THAT(script.seen(), IsEmpty());
    expect_exit(QNM_API_ENOENT, "0x000000000001");
}

TEST_P(eeprom_call, does_not_reach_a_card_that_is_not_monitored) {
    store(dev, QNM_IGNORE);
    EXPECT_EQ(call(QNM_FLAG_VERIFY | QNM_FLAG_FORCELOCK), QNM_API_ENOLINK);
    EXPECT_THAT(script.seen(), IsEmpty());
    expect_exit(QNM_API_ENOLINK);
}

TEST_P(eeprom_call, reaches_a_card_whose_monitoring_restarts) {
    store(dev, QNM_WATCH_RESTART);
    EXPECT_EQ(call(), QNM_API_SUCCESS);
}

TEST_P(eeprom_call, trusts_the_paths_of_a_monitored_card) {
    card.set_reachable(false);
    EXPECT_EQ(call(QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
    EXPECT_EQ(card.reads(), 0U);
}

TEST_P(eeprom_call, finds_a_card_that_is_not_monitored_afresh) {
    store(dev, QNM_IGNORE);
    card.set_reachable(0, 0, false);
    EXPECT_EQ(call(QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
    EXPECT_EQ(script.dev().ecd_state[0][0], 0U);
    EXPECT_EQ(script.dev().ecd_state[1][0], 1U);
}

TEST_P(eeprom_call, fails_under_the_write_lock_when_the_live_check_does) {
    store(dev, QNM_IGNORE);
    card.set_reachable(false);
    EXPECT_EQ(call(QNM_FLAG_LIVECHECK), QNM_API_ENOLINK);
    EXPECT_THAT(script.seen(), ElementsAre("lock", "unlock"));
    EXPECT_GT(card.reads(0), 0U);
    EXPECT_TRUE(has_failure("_qnm_livecheck(). err=67"));
    expect_exit(QNM_API_ENOLINK);
}

TEST_P(eeprom_call, needs_the_write_lock_of_the_card) {
    store(record(k_id + 2, k_mac), QNM_IGNORE);
    EXPECT_EQ(call(k_id + 2, QNM_FLAG_LIVECHECK), QNM_API_ENOENT);
    EXPECT_THAT(script.seen(), IsEmpty());
    EXPECT_EQ(card.reads(), 0U) << "the live check comes later";
    EXPECT_TRUE(has_failure("QNM_WREG_LOCK()."));
    expect_exit(QNM_API_ENOENT, "0x001122334456");
}

TEST_P(eeprom_call, gives_up_when_the_wait_for_the_write_lock_ends_in_a_stop) {
    script.stop_at_lock();
    EXPECT_EQ(call(), QNM_API_ENOSYS);
    EXPECT_THAT(script.seen(), ElementsAre("lock", "unlock"));
    expect_exit(QNM_API_ENOSYS);
}

TEST_P(eeprom_call, ends_when_the_lock_type_cannot_be_read) {
    const std::pair<int, qnm_api_code_t> rows[] = {{ETIMEDOUT, QNM_API_ETIMEDOUT},
                                                   {ENOLINK, QNM_API_ENOLINK},
                                                   {EPROTO, QNM_API_EPROTO},
                                                   {ENOSYS, QNM_API_ENOSYS}};
    for (const auto& [err, ret] : rows) {
        renew();
        script.fail_at(1, err);
        EXPECT_EQ(call(), ret);
        EXPECT_THAT(script.seen(), ElementsAre("lock", "R 520C", "unlock"));
        EXPECT_TRUE(
            logs.has(k_error, std::string(GetParam().inner) +
                                  ": Failed to _qnm_get_locktype(). err=" + std::to_string(err)));
        expect_exit(ret);
    }
}

TEST_P(eeprom_call, is_busy_while_another_party_holds_the_bit_lock) {
    script.set(k_bit_lock, 8);
    EXPECT_EQ(call(), QNM_API_EBUSY);
    EXPECT_THAT(script.seen(), ElementsAreArray(steps{"lock", "R 520C"} +
                                                times(3, {"R 50F0", "S 50"}) + steps{"unlock"}));
    EXPECT_TRUE(has_lock_failure("_qnm_lock_eeprom", EBUSY));
    expect_exit(QNM_API_EBUSY);
}

TEST_P(eeprom_call, is_busy_while_another_party_holds_the_id_lock) {
    script.offer_id_lock();
    script.set(k_id_request, 2);
    EXPECT_EQ(call(), QNM_API_EBUSY);
    EXPECT_EQ(script.seen().back(), "unlock");
    EXPECT_TRUE(has_lock_failure("_qnm_lock_eeprom_id", EBUSY));
    expect_exit(QNM_API_EBUSY);
}

TEST_P(eeprom_call, takes_a_lock_by_force_when_told_to) {
    script.set(k_bit_lock, 8);
    EXPECT_EQ(call(QNM_FLAG_FORCELOCK), QNM_API_SUCCESS);
    EXPECT_EQ(script.count("M 50F0=0/8"), 1U);
    renew();
    script.offer_id_lock();
    script.set(k_id_request, 2);
    EXPECT_EQ(call(QNM_FLAG_FORCELOCK), QNM_API_SUCCESS);
    EXPECT_EQ(script.count("W 5204=2"), 1U);
}

TEST_P(eeprom_call, times_out_when_force_does_not_help) {
    script.on_read(k_bit_lock, {8});
    EXPECT_EQ(call(QNM_FLAG_FORCELOCK), QNM_API_ETIMEDOUT);
    EXPECT_TRUE(has_lock_failure("_qnm_lock_eeprom", ETIMEDOUT));
    expect_exit(QNM_API_ETIMEDOUT);
}

TEST_P(eeprom_call, is_busy_when_the_bit_lock_does_not_settle) {
    script.on_read(k_bit_lock, {0, 0xC, 0, 0xC, 0, 0xC});
    EXPECT_EQ(call(), QNM_API_EBUSY);
    EXPECT_EQ(script.count("M 50F0=0/4"), 3U);
    EXPECT_TRUE(has_lock_failure("_qnm_lock_eeprom", EBUSY));
    expect_exit(QNM_API_EBUSY);
}

TEST_P(eeprom_call, releases_both_locks_after_a_refusal) {
    script.on_read(k_control, {k_ready, k_refused, k_refused, k_ready});
    EXPECT_EQ(call(), QNM_API_EPROTO);
    EXPECT_THAT(steps(script.seen().end() - 2, script.seen().end()),
                ElementsAre("M 50F0=0/4", "unlock"));
    EXPECT_TRUE(has_failure(std::string(GetParam().work) + "(). err=71"));
    expect_exit(QNM_API_EPROTO);
}

TEST_P(eeprom_call, releases_both_locks_after_the_last_attempt) {
    script.offer_id_lock();
    script.on_read(k_control, {k_busy});
    EXPECT_EQ(call(), QNM_API_ETIMEDOUT);
    EXPECT_EQ(script.count("S 90"), k_retry.er_retry_count + 1);
    EXPECT_THAT(steps(script.seen().end() - 3, script.seen().end()),
                ElementsAre("W 5204=4", "R 5208", "unlock"));
    EXPECT_TRUE(has_failure(std::string(GetParam().work) + "(). err=110"));
    expect_exit(QNM_API_ETIMEDOUT);
}

TEST_P(eeprom_call, releases_both_locks_whatever_access_fails) {
    for (const bool by_id : {false, true}) {
        const steps release = by_id ? k_unlock_id : k_unlock;
        const size_t taken = 1 + (by_id ? 3 : 4);  // accesses until the lock is held
        const size_t worked = taken + 7;
        for (size_t n = taken + 1; n <= worked; n++) {
            SCOPED_TRACE(testing::Message() << "by ID: " << by_id << ", access " << n);
            renew();
            if (by_id) script.offer_id_lock();
            script.fail_at(n, EPROTO);
            EXPECT_EQ(call(), QNM_API_EPROTO);
            const size_t command = taken + (GetParam().func == QNM_STATS_WRITE_EEPROM ? 4 : 3);
            const bool is_given = n >= command && n < worked;
            const steps cleared = is_given ? steps{"W 5010=0"} : steps{};
            EXPECT_EQ(script.accesses().size(), n + cleared.size() + release.size());
            const steps end = cleared + release + steps{"unlock"};
            EXPECT_THAT(steps(script.seen().end() - static_cast<ptrdiff_t>(end.size()),
                              script.seen().end()),
                        ElementsAreArray(end));
        }
    }
}

TEST_P(eeprom_call, takes_command_and_lock_back_after_a_stop_without_waiting) {
    script.on_read(k_control, {k_ready, k_busy});
    script.set(k_bit_lock, 0xF0);
    script.stop_at_sleep(3);  // the first one for the command
    EXPECT_EQ(call(), QNM_API_ENOSYS);
    EXPECT_THAT(steps(script.seen().end() - 5, script.seen().end()),
                ElementsAre("S 3", "R 5010", "W 5010=0", "W 50F0=F0", "unlock"));
    EXPECT_FALSE(has_failure("_qnm_unlock_eeprom(). err=38"));
    expect_exit(QNM_API_ENOSYS);
}

TEST_P(eeprom_call, leaves_nothing_on_the_card_whenever_it_is_stopped) {
    for (const bool by_id : {false, true}) {
        for (size_t n = 1;; n++) {
            SCOPED_TRACE(testing::Message() << "by ID: " << by_id << ", access " << n);
            renew();
            if (by_id) script.offer_id_lock();
            script.stop_at(n);
            const qnm_api_code_t ret = call();
            EXPECT_TRUE(is_clean());
            if (qnm::is_running()) break;  // that was later than its last access
            EXPECT_TRUE(ret == QNM_API_ENOSYS || ret == QNM_API_SUCCESS) << ret;
        }
    }
}

TEST_P(eeprom_call, takes_the_lock_back_when_its_release_fails) {
    for (const int err : {EPROTO, ETIMEDOUT}) {
        SCOPED_TRACE(err);
        renew();
        script.fail_at(1 + 4 + 7 + 1, err);  // lock type, lock, word, release
        call();
        EXPECT_THAT(steps(script.seen().end() - 3, script.seen().end()),
                    ElementsAre("M 50F0=0/4", "W 50F0=0", "unlock"));
        EXPECT_TRUE(is_clean());
    }
}

TEST_P(eeprom_call, keeps_its_own_failure_when_the_release_fails_as_well) {
    script.on_read(k_control, {k_busy});
    script.on_write(k_bit_lock, {0, ENOLINK});
    EXPECT_EQ(call(), QNM_API_ETIMEDOUT);
    EXPECT_TRUE(has_failure(std::string(GetParam().work) + "(). err=110"));
    expect_exit(QNM_API_ETIMEDOUT);
}

TEST_P(eeprom_call, leaves_the_write_lock_free) {
    EXPECT_EQ(call(), QNM_API_SUCCESS);
    EXPECT_TRUE(is_lock_free());
    script.set(k_bit_lock, 8);
    EXPECT_EQ(call(), QNM_API_EBUSY);
    EXPECT_TRUE(is_lock_free());
}

// A failed release does not change the result of a read or a write.
struct eeprom_word : eeprom_call {};

INSTANTIATE_TEST_SUITE_P(each, eeprom_word, testing::Values(k_calls[0], k_calls[1]), name_of);

TEST_P(eeprom_word, tells_of_a_bit_that_stays_and_succeeds) {
    script.on_write(k_bit_lock, {0, ENOLINK});
    EXPECT_EQ(call(), QNM_API_SUCCESS);
    EXPECT_TRUE(has_failure("_qnm_unlock_eeprom(). err=67"));
    EXPECT_EQ(logs.count_level(k_error), 1U);
}

TEST_P(eeprom_word, tells_of_an_id_that_stays_and_succeeds) {
    script.offer_id_lock();
    script.on_read(k_id_status, {4});
    EXPECT_EQ(call(), QNM_API_SUCCESS);
    EXPECT_EQ(script.count("W 5204=4"), 3U);
    EXPECT_TRUE(has_failure("_qnm_unlock_eeprom_id(). err=110"));
    EXPECT_EQ(logs.count_level(k_error), 1U);
}

// ---- Reads and writes ---------------------------------------------------------------------------

struct eeprom_public : eeproms {
    eeprom_public() {
        retry = k_retry;
        renew();
    }
};

TEST_F(eeprom_public, a_read_gives_the_word_between_its_two_lines) {
    EXPECT_EQ(qnm_read_eeprom(k_id, k_addr, &word, &k_retry, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
    EXPECT_EQ(word, k_data);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_read_eeprom: (IN). id=0x001122334454, addr=0x000007F8, "
                            "retry_cnt=2, retry_int=1, flags=0x00000002",
                            "qnm_read_eeprom: (OUT) ret=0, id=0x001122334454"));
    logs.clear();
    script.expect_retry(configured());
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, &word, nullptr, 0), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_read_eeprom: (IN). id=0x001122334454, addr=0x00000000, "
                            "retry_param=NULL, flags=0x00000000",
                            "qnm_read_eeprom: (OUT) ret=0, id=0x001122334454"));
}

TEST_F(eeprom_public, a_write_stores_the_word_between_its_two_lines) {
    EXPECT_EQ(qnm_write_eeprom(k_id, k_addr, 0xABCDEF12, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(script.memory(k_packed), 0xABCDEF12U);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_write_eeprom: (IN). id=0x001122334454, addr=0x000007F8, "
                            "data=0xABCDEF12, retry_cnt=2, retry_int=1, flags=0x00000000",
                            "qnm_write_eeprom: (OUT) ret=0, id=0x001122334454"));
    logs.clear();
    script.expect_retry(configured());
    EXPECT_EQ(qnm_write_eeprom(k_id, 0, 1, nullptr, QNM_FLAG_FORCELOCK), QNM_API_SUCCESS);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_write_eeprom: (IN). id=0x001122334454, addr=0x00000000, "
                            "data=0x00000001, retry_param=NULL, flags=0x00000004",
                            "qnm_write_eeprom: (OUT) ret=0, id=0x001122334454"));
}

TEST_F(eeprom_public, a_write_reads_back_when_told_to) {
    script.on_read(k_read_data, {1});
    EXPECT_EQ(qnm_write_eeprom(k_id, k_addr, 2, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_write_eeprom(k_id, k_addr, 1, &k_retry, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
    EXPECT_EQ(script.count("R 5018"), 1U);
    EXPECT_EQ(qnm_write_eeprom(k_id, k_addr, 2, &k_retry, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
}

TEST_F(eeprom_public, the_last_word_is_at_2044) {
    EXPECT_EQ(qnm_read_eeprom(k_id, 2044, &word, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_write_eeprom(k_id, 2044, 1, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(script.count("V 5014=700FC"), 2U);
    renew();
    const uint64_t unknown = 1;  // the address comes first
    for (const uint32_t addr : {2048U, 2045U, 1U, 2U, 0xFFFFFFFCU}) {
        EXPECT_EQ(qnm_read_eeprom(unknown, addr, &word, &k_retry, 0), QNM_API_EINVAL) << addr;
        EXPECT_EQ(qnm_write_eeprom(unknown, addr, 1, &k_retry, 0), QNM_API_EINVAL) << addr;
    }
    EXPECT_THAT(script.seen(), IsEmpty());
    expect_counted(QNM_STATS_READ_EEPROM, QNM_API_EINVAL, 5);
    expect_counted(QNM_STATS_WRITE_EEPROM, QNM_API_EINVAL, 5);
}

TEST_F(eeprom_public, a_read_needs_a_place_for_the_word) {
    EXPECT_EQ(qnm_read_eeprom(k_id, 0, nullptr, &k_retry, 0), QNM_API_EINVAL);
    EXPECT_THAT(script.seen(), IsEmpty());
}

TEST_F(eeprom_public, a_failed_read_leaves_the_word_alone) {
    script.on_read(k_control, {k_ready, k_complete, k_busy});
    EXPECT_EQ(qnm_read_eeprom(k_id, k_addr, &word, &k_retry, 0), QNM_API_ETIMEDOUT);
    EXPECT_EQ(word, k_untouched);
}

// ---- Dumps --------------------------------------------------------------------------------------

struct eeprom_dump : eeprom_public {
    std::vector<uint32_t> words = std::vector<uint32_t>(513, k_untouched);
    size_t len = words.size() * sizeof(uint32_t);

    qnm_api_code_t dump(uint32_t start, uint32_t end, uint64_t id = k_id, uint32_t flags = 0) {
        return qnm_dump_eeprom(id, start, end, words.data(), &len, &k_retry, flags);
    }
};

TEST_F(eeprom_dump, each_word_is_read_under_a_lock_of_its_own) {
    for (uint32_t i = 0; i < 3; i++)
        script.memory(0x700F0 + 4 * i) = 100 + i;
    EXPECT_EQ(dump(0x7F0, 0x7FC), QNM_API_SUCCESS);
    EXPECT_EQ(len, 12U);
    words.resize(4);
    EXPECT_THAT(words, ElementsAre(100, 101, 102, k_untouched));
    steps all = {"lock", "R 520C"};
    for (const char* address : {"700F0", "700F4", "700F8"})
        all = all + k_lock + read_steps(address) + k_unlock;
    EXPECT_THAT(script.seen(), ElementsAreArray(all + steps{"unlock"}));
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("qnm_dump_eeprom: (IN). id=0x001122334454, startaddr=0x000007F0, "
                            "endaddr=0x000007FC, retry_cnt=2, retry_int=1, flags=0x00000000",
                            "qnm_dump_eeprom: (OUT) ret=0, id=0x001122334454"));
    expect_counted(QNM_STATS_DUMP_EEPROM, QNM_API_SUCCESS);
}

TEST_F(eeprom_dump, each_word_is_read_under_an_id_lock_of_its_own) {
    script.offer_id_lock();
    EXPECT_EQ(dump(0x7F0, 0x7F8), QNM_API_SUCCESS);
    EXPECT_THAT(
        script.seen(),
        ElementsAreArray(steps{"lock", "R 520C"} + k_lock_id + read_steps("700F0") + k_unlock_id +
                         k_lock_id + read_steps("700F4") + k_unlock_id + steps{"unlock"}));
}

TEST_F(eeprom_dump, the_whole_eeprom_can_be_dumped) {
    for (uint32_t addr = 0; addr < 2048; addr += 4)
        script.memory((addr & 0xF00) << 8 | (addr & 0xFF)) = addr + 1;
    EXPECT_EQ(dump(0, 2048), QNM_API_SUCCESS);
    EXPECT_EQ(len, 2048U);
    for (uint32_t i = 0; i < 512; i++)
        EXPECT_EQ(words[i], 4 * i + 1);
    EXPECT_EQ(words[512], k_untouched);
}

TEST_F(eeprom_dump, the_entry_line_has_a_form_without_retries) {
    script.expect_retry(configured());
    EXPECT_EQ(qnm_dump_eeprom(k_id, 2044, 2048, words.data(), &len, nullptr, QNM_FLAG_FORCELOCK),
              QNM_API_SUCCESS);
    EXPECT_EQ(len, 4U);
    EXPECT_TRUE(logs.has(k_info,
                         "qnm_dump_eeprom: (IN). id=0x001122334454, startaddr=0x000007FC, "
                         "endaddr=0x00000800, retry_param=NULL, flags=0x00000004"));
}

TEST_F(eeprom_dump, bounds_that_make_no_sense_are_refused) {
    const std::pair<uint32_t, uint32_t> rows[] = {
        {0, 2052}, {2044, 2052}, {2048, 2052}, {2048, 2048},    {8, 8},         {8, 4},
        {1, 8},    {0, 6},       {2045, 2047}, {4, 0xFFFFFFFC}, {0xFFFFFFFC, 4}};
    for (const auto& [start, end] : rows) {
        len = 4096;
        EXPECT_EQ(dump(start, end, 1), QNM_API_EINVAL) << start << ' ' << end;
        EXPECT_EQ(len, 0U);
    }
    EXPECT_THAT(script.seen(), IsEmpty());
    expect_counted(QNM_STATS_DUMP_EEPROM, QNM_API_EINVAL, std::size(rows));
}

TEST_F(eeprom_dump, the_array_must_hold_all_words) {
    len = 11;
    EXPECT_EQ(dump(0, 12), QNM_API_EINVAL);
    EXPECT_EQ(len, 0U);
    len = 12;
    EXPECT_EQ(dump(0, 12), QNM_API_SUCCESS);
    EXPECT_EQ(len, 12U);
    EXPECT_EQ(qnm_dump_eeprom(k_id, 0, 12, nullptr, &len, &k_retry, 0), QNM_API_EINVAL);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(qnm_dump_eeprom(k_id, 0, 12, words.data(), nullptr, &k_retry, 0), QNM_API_EINVAL);
    const qnm_retry_t bad = {.er_retry_count = 1, .er_retry_interval = 0};
    len = 12;
    EXPECT_EQ(qnm_dump_eeprom(k_id, 0, 12, words.data(), &len, &bad, 0), QNM_API_EINVAL);
    EXPECT_EQ(len, 0U);
}

TEST_F(eeprom_dump, every_early_failure_tells_a_length_of_0) {
    const auto expect_nothing = [&](qnm_api_code_t ret, uint64_t id = k_id, uint32_t flags = 0) {
        len = 64;
        EXPECT_EQ(dump(0, 8, id, flags), ret);
        EXPECT_EQ(len, 0U) << ret;
    };
    expect_nothing(QNM_API_ENOENT, 1);
    store(record(k_id + 2, k_mac + 2));  // without a write lock
    expect_nothing(QNM_API_ENOENT, k_id + 2);
    script.fail_at(1, ETIMEDOUT);
    expect_nothing(QNM_API_ETIMEDOUT);
    script.set(k_bit_lock, 8);
    expect_nothing(QNM_API_EBUSY);
    store(dev, QNM_IGNORE);
    expect_nothing(QNM_API_ENOLINK);
    card.set_reachable(false);
    expect_nothing(QNM_API_ENOLINK, k_id, QNM_FLAG_LIVECHECK);
    scripted_card::stop();
    expect_nothing(QNM_API_ENOSYS);
    set_flags(1, 1, 1);
    expect_nothing(QNM_API_ENOSYS);
}

TEST_F(eeprom_dump, a_failed_lock_stops_it_after_the_words_read) {
    script.on_read(k_bit_lock, {0, 4, 4, 0, 4, 4, 8});
    EXPECT_EQ(dump(0, 16), QNM_API_EBUSY);
    EXPECT_EQ(len, 8U);
    EXPECT_EQ(words[2], k_untouched);
    EXPECT_EQ(script.count("M 50F0=0/4"), 2U);
    EXPECT_TRUE(logs.has(k_error, "qnm_dump_eeprom: Failed to _qnm_dump_eeprom(). err=16"));
    expect_counted(QNM_STATS_DUMP_EEPROM, QNM_API_EBUSY);
}

TEST_F(eeprom_dump, a_failed_word_stops_it_after_the_words_read) {
    script.on_read(k_control,
                   {k_ready, k_complete, k_ready, k_ready, k_refused, k_refused, k_ready});
    EXPECT_EQ(dump(0, 16), QNM_API_EPROTO);
    EXPECT_EQ(len, 4U);
    EXPECT_EQ(words[1], k_untouched);
    EXPECT_EQ(script.count("M 50F0=0/4"), 2U) << "the lock of the failed word as well";
    EXPECT_TRUE(logs.has(k_error, "qnm_dump_eeprom: Failed to _qnm_dump_eeprom(). err=71"));
}

TEST_F(eeprom_dump, a_failed_release_stops_it_and_its_word_counts) {
    script.on_write(k_bit_lock, {0, 0, 0, ENOLINK});
    EXPECT_EQ(dump(0, 16), QNM_API_ENOLINK);
    EXPECT_EQ(len, 8U);
    EXPECT_EQ(words[1], 0U);
    EXPECT_EQ(words[2], k_untouched);
    EXPECT_TRUE(logs.has(k_error, "qnm_dump_eeprom: Failed to _qnm_dump_eeprom(). err=67"));
}

TEST_F(eeprom_dump, a_stop_ends_it_after_the_words_read) {
    script.stop_at_sleep(4);  // while the second word's lock is watched
    EXPECT_EQ(dump(0, 16), QNM_API_ENOSYS);
    EXPECT_EQ(script.count("R 5018"), 1U);
    EXPECT_EQ(len, 4U);
    EXPECT_EQ(script.seen().back(), "unlock");
    EXPECT_TRUE(logs.has(k_error, "qnm_dump_eeprom: Failed to _qnm_dump_eeprom(). err=38"));
}

}  // namespace
