// test_reg_calls.cpp - the public register calls.

#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <span>
#include <thread>

#include "qnm_card_call.h"
#include "qnm_counters.h"
#include "qnm_qn_info.h"
#include "qnm_reg_send.h"
#include "qnm_write_lock.h"
#include "registers.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr uint64_t k_id = card_units::k_id;

extern "C" int __real__qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state);
extern "C" int __real__qnm_mutex_lock(qnm_mutex_t* mutex);

int g_lookup_result = 0;
thread_local qnm_mutex_t* g_last_locked = nullptr;

extern "C" int __wrap__qnm_get_qndev_ign(uint64_t id, qnm_com_dev_t* dev, uint32_t* ignore_state) {
    EXPECT_EQ(pthread_mutex_trylock(&qnm_qn.eei_mutex.em_mutex), EBUSY) << "the table is unlocked";
    if (g_lookup_result != 0) return g_lookup_result;
    return __real__qnm_get_qndev_ign(id, dev, ignore_state);
}

extern "C" int __wrap__qnm_mutex_lock(qnm_mutex_t* mutex) {
    g_last_locked = mutex;
    return __real__qnm_mutex_lock(mutex);
}

bool is_free(qnm_mutex_t* mutex) {
    if (pthread_mutex_trylock(&mutex->em_mutex) != 0) return false;
    pthread_mutex_unlock(&mutex->em_mutex);
    return true;
}

// ---- Public calls: what they share --------------------------------------------------------------

// All four calls, on register 0x10 with the data 5 and a dump of two registers.
struct calls : registers {
    qnm_mutex_t* node_mutex = nullptr;  // of the card's write lock
    uint32_t words[2] = {9, 9};
    size_t len = sizeof words;

    calls() {
        EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
        node_mutex = g_last_locked;
        EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    }

    ~calls() override {
        g_lookup_result = 0;
        EXPECT_TRUE(is_free(node_mutex)) << "the write lock is held";
    }

    struct call {
        const char* name;
        qnm_stats_func_t func;
        bool locks;
        std::function<qnm_api_code_t(uint64_t, const qnm_retry_t*, uint32_t)> run;
    };

    std::vector<call> all() {
        return {
            {"qnm_read_register", QNM_STATS_READ_REGISTER, false,
             [this](uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
                 return qnm_read_register(id, 0x10, &value, retry, flags);
             }},
            {"qnm_write_register", QNM_STATS_WRITE_REGISTER, true,
             [](uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
                 return qnm_write_register(id, 0x10, 5, retry, flags);
             }},
            {"qnm_modify_register", QNM_STATS_MODIFY_REGISTER, true,
             [](uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
                 return qnm_modify_register(id, 0x10, 5, 0xFF, retry, flags);
             }},
            {"qnm_dump_register", QNM_STATS_DUMP_REGISTER, false,
             [this](uint64_t id, const qnm_retry_t* retry, uint32_t flags) {
                 len = sizeof words;
                 return qnm_dump_register(id, 0x10, 0x18, words, &len, retry, flags);
             }},
        };
    }

    // Expects that the call fails as stated, is logged and counted, and leaves its outputs alone.
    void expect_failure(const call& it, qnm_api_code_t ret, uint64_t id, const qnm_retry_t* retry,
                        uint32_t flags) {
        const uint64_t before = qnm_stats.est_func_code[it.func][ret];
        const uint64_t total = qnm_stats.est_api_code[ret];
        logs.clear();
        EXPECT_EQ(it.run(id, retry, flags), ret) << it.name;
        const std::vector<std::string> infos = logs.texts("logfile", k_info);
        char exit_line[80];
        snprintf(exit_line, sizeof exit_line, "%s: (OUT) ret=%d, id=0x%.12lx", it.name, ret, id);
        ASSERT_EQ(infos.size(), 2U);
        EXPECT_THAT(infos[0], StartsWith(std::string(it.name) + ": (IN). "));
        EXPECT_EQ(infos[1], exit_line);
        EXPECT_EQ(logs.lines().back().text, exit_line);
        EXPECT_EQ(qnm_stats.est_func_code[it.func][ret], before + 1);
        EXPECT_EQ(qnm_stats.est_api_code[ret], total + 1);
        EXPECT_EQ(value, 0xDEADBEEF);
        EXPECT_EQ(words[0], 9U);
        EXPECT_TRUE(len == 0 || it.func != QNM_STATS_DUMP_REGISTER);
    }

    void expect_failures(qnm_api_code_t ret, uint64_t id, const qnm_retry_t* retry = &k_retry,
                         uint32_t flags = 0) {
        for (const call& it : all())
            expect_failure(it, ret, id, retry, flags);
    }
};

TEST_F(calls, entry_and_exit_are_logged_with_the_retry_parameters_or_without) {
    const std::string with = "retry_cnt=2, retry_int=1, flags=0x00000000";
    const std::string without = "retry_param=NULL, flags=0x00000002";
    const char* const k_arguments[] = {
        "addr=0x00000010, ",
        "addr=0x00000010, data=0x00000005, ",
        "addr=0x00000010, data=0x00000005, mask=0x000000FF, ",
        "startaddr=0x00000010, endaddr=0x00000018, ",
    };
    const char* const* arguments = k_arguments;
    for (const call& it : all()) {
        const std::string name = it.name;
        const std::string in = name + ": (IN). id=0x001122334454, " + *arguments++;
        const std::string out = name + ": (OUT) ret=0, id=0x001122334454";
        logs.clear();
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_SUCCESS);
        EXPECT_THAT(logs.texts("logfile", k_info), ElementsAre(in + with, out));
        EXPECT_EQ(logs.lines().front().text, in + with);
        EXPECT_EQ(logs.lines().back().text, out);
        logs.clear();
        EXPECT_EQ(it.run(k_id, nullptr, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
        EXPECT_THAT(logs.texts("logfile", k_info), ElementsAre(in + without, out));
        expect_counted(it.func, QNM_API_SUCCESS, 2);
    }
    EXPECT_EQ(qnm_stats.est_api_code[QNM_API_SUCCESS], 8U);
}

TEST_F(calls, each_does_its_work) {
    card.set(0x10, 0x1234);
    card.set(0x14, 0x5678);
    EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(value, 0x1234U);
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x18, words, &len, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_THAT(words, ElementsAre(0x1234, 0x5678));
    EXPECT_EQ(len, 8U);
    EXPECT_EQ(qnm_modify_register(k_id, 0x10, 0x77, 0xFF, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(card.get(0x10), 0x1277U);
    EXPECT_EQ(qnm_write_register(k_id, 0x10, 0x77, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(card.get(0x10), 0x77U);
    EXPECT_EQ(sequence(card), "R10 R10 R14 R10 W10=1277 W10=77");
}

TEST_F(calls, the_verify_flag_reaches_write_and_modify_and_other_bits_nobody) {
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10 R10 R10 R14");
    card.forget();
    card.set(0x10, 0);
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, &k_retry, 0xFFFFFFFC), QNM_API_SUCCESS);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10 R10 R14");
    EXPECT_TRUE(logs.has(k_info,
                         "qnm_write_register: (IN). id=0x001122334454, addr=0x00000010, "
                         "data=0x00000005, retry_cnt=2, retry_int=1, flags=0xFFFFFFFC"));
}

// Without a manager only the log line on entry would look at them.
TEST_F(calls, no_line_is_prepared_below_its_level) {
    set_flags(1, 0, 1);
    void* const page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    qnm::store(g_log_level, QNM_LOGLVL_WARN);
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, static_cast<const qnm_retry_t*>(page), 0), QNM_API_ENOSYS);
    qnm::store(g_log_level, QNM_LOGLVL_INFO);
    munmap(page, 1);
}

TEST_F(calls, none_is_served_unless_the_manager_runs) {
    set_flags(1, 0, 1);
    expect_failures(QNM_API_ENOSYS, k_id);
    set_flags(0, 0, 0);
    expect_failures(QNM_API_ENOSYS, k_id);
    EXPECT_THAT(card.accesses(), IsEmpty());
    set_flags(0, 1, 1);
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_SUCCESS) << "before its start as well";
}

TEST_F(calls, what_is_wrong_first_is_what_is_told) {
    constexpr qnm_retry_t k_zero = {.er_retry_count = 5, .er_retry_interval = 0};
    expect_failures(QNM_API_EINVAL, k_id + 2, &k_zero);
    set_flags(0, 0, 0);
    expect_failures(QNM_API_ENOSYS, k_id + 2, &k_zero);
}

TEST_F(calls, the_largest_retry_parameters_and_ids_are_logged_in_full) {
    constexpr qnm_retry_t k_most = {.er_retry_count = UINT32_MAX, .er_retry_interval = UINT32_MAX};
    for (const call& it : all()) {
        logs.clear();
        EXPECT_EQ(it.run(k_id, &k_most, UINT32_MAX & ~uint32_t{QNM_FLAG_VERIFY}), QNM_API_SUCCESS);
        EXPECT_TRUE(logs.has_part(
            k_info, ", retry_cnt=4294967295, retry_int=4294967295, flags=0xFFFFFFFD"));
        EXPECT_EQ(it.run(UINT64_MAX, &k_retry, 0), QNM_API_ENOENT);
        EXPECT_TRUE(logs.has_part(k_info, ": (IN). id=0xffffffffffffffff, "));
        EXPECT_TRUE(
            logs.has(k_info, std::string(it.name) + ": (OUT) ret=3, id=0xffffffffffffffff"));
    }
}

TEST_F(calls, a_retry_interval_of_0_is_refused) {
    constexpr qnm_retry_t k_zero = {.er_retry_count = 5, .er_retry_interval = 0};
    expect_failures(QNM_API_EINVAL, k_id, &k_zero);
    constexpr qnm_retry_t k_least = {.er_retry_count = 0, .er_retry_interval = 1};
    for (const call& it : all())
        EXPECT_NE(it.run(k_id, &k_least, 0), QNM_API_EINVAL);
}

TEST_F(calls, addresses_that_are_no_multiple_of_4_are_refused) {
    for (const uint32_t addr : {1U, 2U, 3U, 0xFFFFFFFDU}) {
        EXPECT_EQ(qnm_read_register(k_id, addr, &value, &k_retry, 0), QNM_API_EINVAL);
        EXPECT_EQ(qnm_write_register(k_id, addr, 5, &k_retry, 0), QNM_API_EINVAL);
        EXPECT_EQ(qnm_modify_register(k_id, addr, 5, 0, &k_retry, 0), QNM_API_EINVAL);
    }
    EXPECT_THAT(card.accesses(), IsEmpty());
    EXPECT_EQ(qnm_read_register(k_id, 0, &value, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_read_register(k_id, 0x3FFFFC, &value, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(sequence(card), "R0 R3ffffc");
}

TEST_F(calls, a_read_into_nowhere_is_refused) {
    EXPECT_EQ(qnm_read_register(k_id, 0x10, nullptr, &k_retry, 0), QNM_API_EINVAL);
    EXPECT_THAT(card.accesses(), IsEmpty());
}

struct dump_row {
    uint32_t start;
    uint32_t end;
    bool has_data;
    size_t len;
};

TEST_F(calls, a_dump_that_makes_no_sense_or_does_not_fit_is_refused_with_size_0) {
    for (const dump_row& row : {dump_row{0x11, 0x18, true, 8},
                                {0x10, 0x17, true, 8},
                                {0x10, 0x10, true, 8},
                                {0x18, 0x10, true, 8},
                                {0x10, 0x18, true, 7},
                                {0x10, 0x18, true, 4},
                                {0x10, 0x18, true, 0},
                                {0, 0xFFFFFFFC, true, 8},
                                {0x10, 0x18, false, 8}}) {
        size_t size = row.len;
        EXPECT_EQ(qnm_dump_register(k_id, row.start, row.end, row.has_data ? words : nullptr, &size,
                                    &k_retry, 0),
                  QNM_API_EINVAL)
            << row.start << " " << row.end << " " << row.len;
        EXPECT_EQ(size, 0U);
    }
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x18, words, nullptr, &k_retry, 0), QNM_API_EINVAL);
    EXPECT_THAT(card.accesses(), IsEmpty());
    expect_counted(QNM_STATS_DUMP_REGISTER, QNM_API_EINVAL, 10);
}

TEST_F(calls, a_dump_of_4_bytes_reads_exactly_one_register) {
    size_t size = 4;
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x14, words, &size, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(size, 4U);
    EXPECT_EQ(sequence(card), "R10");
    size = 1000;  // of an array that is larger than needed
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x14, words, &size, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(size, 4U);
}

TEST_F(calls, an_unknown_card_is_no_entry) {
    expect_failures(QNM_API_ENOENT, k_id + 2);
    EXPECT_EQ(logs.count_level(k_error), 0U) << "not the missing lock is reported";
}

TEST_F(calls, a_look_up_that_fails_is_an_internal_error) {
    g_lookup_result = EPROTO;
    expect_failures(QNM_API_EPROTO, k_id);
    EXPECT_THAT(card.accesses(), IsEmpty());
}

TEST_F(calls, cards_of_both_kinds_are_reached) {
    constexpr uint64_t k_io = k_id + 2;
    answering_card other(k_mac + 0x100);
    other.set(0x10, 0x66);
    store_qnio(record(k_io, k_mac + 0x100));
    ASSERT_EQ(_qnm_create_reg_lock_node(k_io), 0);
    EXPECT_EQ(qnm_read_register(k_io, 0x10, &value, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(value, 0x66U);
    for (const call& it : all())
        EXPECT_EQ(it.run(k_io, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_THAT(card.accesses(), IsEmpty());
}

TEST_F(calls, the_table_is_unlocked_before_anything_is_sent) {
    fake_pcap::on_send("port0",
                       [](const fake_pcap::frame_t&) { EXPECT_TRUE(is_free(&qnm_qn.eei_mutex)); });
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_VERIFY), QNM_API_SUCCESS);
}

TEST_F(calls, without_retry_parameters_the_configured_ones_apply) {
    qnm_config.frame_retry_count = 3;
    qnm_config.frame_retry_interval = 10;
    card.set_reachable(false);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, nullptr, 0), QNM_API_ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
    EXPECT_EQ(sequence(card), "R10 R10 R10 R10");
    expect_counted(QNM_STATS_READ_REGISTER, QNM_API_ETIMEDOUT);
    card.set_reachable(true);
    take_only(0x10, 0);
    EXPECT_EQ(qnm_write_register(k_id, 0x10, 5, nullptr, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
    EXPECT_EQ(card.writes(), 4U);
    EXPECT_EQ(qnm_modify_register(k_id, 0x10, 5, 5, nullptr, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
    EXPECT_EQ(card.writes(), 8U);
    card.forget();
    card.set_reachable(false);
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x18, words, &len, nullptr, 0), QNM_API_ETIMEDOUT);
    EXPECT_EQ(sequence(card), "R10 R10 R10 R10");
}

TEST_F(calls, a_read_and_a_dump_with_retry_count_0_send_one_frame) {
    constexpr qnm_retry_t k_once = {.er_retry_count = 0, .er_retry_interval = 1};
    card.set_reachable(false);
    EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, &k_once, 0), QNM_API_ETIMEDOUT);
    EXPECT_EQ(qnm_dump_register(k_id, 0x20, 0x28, words, &len, &k_once, 0), QNM_API_ETIMEDOUT);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(sequence(card), "R10 R20");
}

TEST_F(calls, a_card_without_a_path_is_unreachable) {
    dev.ecd_state[0][0] = 0;
    store(dev);
    expect_failures(QNM_API_ENOLINK, k_id);
}

// ---- Public calls: ignored cards and the live check ---------------------------------------------

TEST_F(calls, an_ignored_card_is_unreachable_without_the_live_check) {
    store(dev, QNM_IGNORE);
    expect_failures(QNM_API_ENOLINK, k_id);
    expect_failures(QNM_API_ENOLINK, k_id, &k_retry, QNM_FLAG_VERIFY);
    EXPECT_THAT(card.accesses(), IsEmpty());
    EXPECT_EQ(logs.count_level(k_error), 0U);
}

TEST_F(calls, an_ignored_card_is_reached_with_it_by_a_path_found_afresh) {
    for (uint32_t& path : std::span(&dev.ecd_state[0][0], 4))
        path = 1;
    store(dev, QNM_IGNORE);
    card.set_reachable(0, 0, false);
    const char* const k_sequences[] = {"R0 R0 R0 R10", "R0 R0 R0 W10=5", "R0 R0 R0 R10",
                                       "R0 R0 R0 R10 R14"};
    const char* const* expected = k_sequences;
    for (const call& it : all()) {
        card.forget();
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
        EXPECT_EQ(sequence(card), *expected++);
        EXPECT_THAT(paths(card), StartsWith("00 00 10 10"));
    }
    qnm_com_dev_t stored = {};
    uint32_t ignore_state = 0;
    EXPECT_EQ(_qnm_copy_card(k_id, &stored, &ignore_state), 0);
    EXPECT_EQ(memcmp(&stored, &dev, sizeof dev), 0) << "the record is left alone";
}

TEST_F(calls, a_connected_card_is_not_asked_by_the_live_check) {
    store(dev, QNM_WATCH_RESTART);
    for (const call& it : all()) {
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_SUCCESS);
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
    }
    EXPECT_EQ(card.reads(0), 0U);
}

TEST_F(calls, a_live_check_that_fails_ends_the_call) {
    dev.ecd_state[0][0] = 0;
    store(dev);
    card.set_reachable(false);
    for (const call& it : all()) {
        expect_failure(it, QNM_API_ENOLINK, k_id, &k_retry, QNM_FLAG_LIVECHECK);
        EXPECT_THAT(logs.texts("logfile", k_error),
                    ElementsAre(std::string(it.name) + ": Failed to _qnm_livecheck(). err=67"));
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
    EXPECT_EQ(card.reads(0), card.accesses().size());
    fake_pcap::set_send_failure("port0", 1, true);
    for (const call& it : all()) {
        expect_failure(it, QNM_API_EPROTO, k_id, &k_retry, QNM_FLAG_LIVECHECK);
        EXPECT_TRUE(
            logs.has(k_error, std::string(it.name) + ": Failed to _qnm_livecheck(). err=71"));
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
    fake_pcap::set_send_failure("port0", 0);
}

TEST_F(calls, a_stop_during_the_live_check_ends_the_call) {
    store(dev, QNM_IGNORE);
    card.on_read(0, [](uint32_t) {
        stop();
        return 1U;
    });
    for (const call& it : all()) {
        set_running();
        card.forget();
        expect_failure(it, QNM_API_ENOSYS, k_id, &k_retry, QNM_FLAG_LIVECHECK);
        EXPECT_TRUE(
            logs.has(k_error, std::string(it.name) + ": Failed to _qnm_livecheck(). err=38"));
        EXPECT_EQ(sequence(card), "R0");
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
}

// ---- Public calls: the write lock ---------------------------------------------------------------

TEST_F(calls, write_and_modify_hold_the_cards_lock_and_read_and_dump_do_not) {
    store(dev, QNM_IGNORE);  // for a live check
    bool locks = false;
    fake_pcap::on_send("port0",
                       [&](const fake_pcap::frame_t&) { EXPECT_EQ(is_free(node_mutex), !locks); });
    for (const call& it : all()) {
        card.forget();
        locks = it.locks;
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_LIVECHECK | QNM_FLAG_VERIFY), QNM_API_SUCCESS);
        EXPECT_EQ(card.reads(0), 1U);
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
}

TEST_F(calls, a_read_and_a_dump_pass_a_held_lock) {
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    for (const call& it : all()) {
        if (it.locks) continue;
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_SUCCESS) << it.name;
    }
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_F(calls, every_failure_releases_the_lock) {
    for (const call& it : all()) {
        fake_pcap::set_send_failure("port0", 1);
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_EPROTO);
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
    take_only(0x10, 0);
    for (const call& it : all()) {
        if (!it.locks) continue;
        EXPECT_EQ(it.run(k_id, &k_retry, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
        EXPECT_TRUE(is_free(node_mutex)) << it.name;
    }
}

TEST_F(calls, a_card_without_a_lock_can_be_read_but_not_written) {
    constexpr uint64_t k_bare = k_id + 2;
    dev.ecd_id = k_bare;
    store(dev, QNM_IGNORE);
    for (const call& it : all()) {
        card.forget();
        if (!it.locks) {
            EXPECT_EQ(it.run(k_bare, &k_retry, QNM_FLAG_LIVECHECK), QNM_API_SUCCESS);
            value = 0xDEADBEEF;
            words[0] = 9;
            continue;
        }
        expect_failure(it, QNM_API_ENOENT, k_bare, &k_retry, QNM_FLAG_LIVECHECK);
        EXPECT_THAT(logs.texts("logfile", k_error),
                    ElementsAre(std::string(it.name) + ": Failed to QNM_WREG_LOCK()."));
        EXPECT_THAT(card.accesses(), IsEmpty()) << "the lock comes before the live check";
    }
}

TEST_F(calls, an_ignored_card_is_refused_before_its_lock_is_taken) {
    store(dev, QNM_IGNORE);
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    expect_failures(QNM_API_ENOLINK, k_id);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

// Runs work while another thread is inside call and waits for the card's lock.
template <typename Work>
void while_queued(const calls::call& it, qnm_api_code_t expected, Work work) {
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    const uint64_t locked = fail::count(fail::call::pthread_mutex_lock);
    std::thread other(
        [&] { EXPECT_EQ(it.run(k_id, &card_units::k_retry, 0), expected) << it.name; });
    // The locks of the device tables, of the map, and of the card.
    EXPECT_TRUE(
        wait_until([&] { return fail::count(fail::call::pthread_mutex_lock) >= locked + 3; }));
    work();
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    other.join();
}

TEST_F(calls, a_card_that_has_been_deleted_keeps_its_lock) {
    dev.ecd_state[0][0] = 0;
    store(dev);
    ASSERT_EQ(qnm_delete_qnsv(k_id), QNM_API_SUCCESS);
    expect_failures(QNM_API_ENOENT, k_id);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
    dev.ecd_state[0][0] = 1;
    store(dev);
    for (const call& it : all())
        EXPECT_EQ(it.run(k_id, &k_retry, 0), QNM_API_SUCCESS) << it.name;
}

TEST_F(calls, write_and_modify_wait_for_a_held_lock) {
    for (const call& it : all()) {
        if (!it.locks) continue;
        card.forget();
        card.set(0x10, 0);
        while_queued(it, QNM_API_SUCCESS, [&] { EXPECT_THAT(card.accesses(), IsEmpty()); });
        EXPECT_EQ(card.writes(), 1U);
    }
}

TEST_F(calls, a_call_queued_on_a_lock_leaves_at_a_stop_without_a_frame) {
    for (const call& it : all()) {
        if (!it.locks) continue;
        set_running();
        while_queued(it, QNM_API_ENOSYS, [] { stop(); });
        EXPECT_TRUE(is_free(node_mutex));
    }
    EXPECT_THAT(card.accesses(), IsEmpty());
}

TEST_F(calls, modifies_of_different_threads_do_not_undo_each_other) {
    constexpr int k_rounds = 200;
    const auto raise_bits = [](uint32_t shift) {
        for (uint32_t n = 1; n <= k_rounds; n++) {
            EXPECT_EQ(qnm_modify_register(k_id, 0x10, n << shift, 0xFFU << shift, nullptr, 0),
                      QNM_API_SUCCESS);
        }
    };
    qnm::store(g_log_level, QNM_LOGLVL_ERROR);
    qnm_config.frame_retry_interval = 60'000;
    std::thread other(raise_bits, 16);
    raise_bits(0);
    other.join();
    EXPECT_EQ(card.get(0x10), 0x00C800C8U);
    EXPECT_EQ(card.writes(), 2U * k_rounds);
}

}  // namespace
