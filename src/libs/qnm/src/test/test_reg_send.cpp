// test_reg_send.cpp - the register loops and the live check.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <numeric>
#include <span>
#include <thread>

#include "qnm_limits.h"
#include "qnm_reg_send.h"
#include "registers.h"
#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t k_id = card_units::k_id;

// ---- What the tests of access share -------------------------------------------------------------

extern "C" int __real__qnm_release_tag(int tag);

bool g_stop_at_release = false;

// A stop between a read's last check of the stop flag and that of its caller.
extern "C" int __wrap__qnm_release_tag(int tag) {
    if (g_stop_at_release) registers::stop();
    return __real__qnm_release_tag(tag);
}

struct reg_loops : registers {
    ~reg_loops() override { g_stop_at_release = false; }

    int read(uint32_t addr, uint32_t interval = 1, uint32_t count = 0) {
        return _qnm_read_register(&dev, addr, &value, interval, count);
    }
};

using sleeps_t = std::vector<std::chrono::nanoseconds>;

sleeps_t& record_sleeps() {
    static sleeps_t sleeps;
    sleeps.clear();
    fail::on_sleep([](std::chrono::nanoseconds duration) { sleeps.push_back(duration); });
    return sleeps;
}

// ---- Register read ------------------------------------------------------------------------------

TEST_F(reg_loops, a_read_brings_the_value_and_traces_it) {
    card.set(0x10, 0x12345678);
    EXPECT_EQ(read(0x10), 0);
    EXPECT_EQ(value, 0x12345678U);
    EXPECT_EQ(sequence(card), "R10");
    EXPECT_EQ(qnm_stats.est_stats_p0[QNM_STATS_T_REGR], 1U);
    const int tag = card.accesses().front().tag;
    EXPECT_THAT(logs.texts(), ElementsAre("_qnm_read_register: called. ret=0, id=0x001122334454, "
                                          "addr=0x00000010, data=0x12345678, tag=" +
                                          std::to_string(tag)));
    EXPECT_EQ(logs.count_level(k_trace), 1U);
}

TEST_F(reg_loops, a_read_that_is_never_answered_sends_count_and_one_frames_with_one_tag) {
    card.set_reachable(false);
    for (const uint32_t count : {0U, 1U, 5U}) {
        logs.clear();
        const size_t before = card.reads();
        EXPECT_EQ(read(0x10, 1, count), ETIMEDOUT);
        EXPECT_EQ(card.reads() - before, count + 1);
        const std::vector<answering_card::access> got = card.accesses();
        EXPECT_TRUE(std::all_of(got.begin() + static_cast<ptrdiff_t>(before), got.end(),
                                [&](const auto& it) { return it.tag == got.back().tag; }));
        EXPECT_TRUE(logs.has(k_trace,
                             "_qnm_read_register: called. ret=110, id=0x001122334454, "
                             "addr=0x00000010, data=0x00000000, tag=" +
                                 std::to_string(got.back().tag)));
    }
    EXPECT_EQ(value, 0xDEADBEEF) << "untouched";
}

TEST_F(reg_loops, each_wait_lasts_the_interval) {
    using std::chrono::steady_clock;
    card.set_reachable(false);
    for (const uint32_t count : {0U, 2U}) {
        const auto start = steady_clock::now();
        EXPECT_EQ(read(0x10, 20, count), ETIMEDOUT);
        EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(20) * (count + 1));
    }
    EXPECT_EQ(fail::count(fail::call::clock_nanosleep), 0U) << "the wait is the only pause";
}

TEST_F(reg_loops, a_read_waits_once_per_frame) {
    card.set_reachable(false);
    fail::on(fail::call::pthread_cond_timedwait, [](uint64_t) { return ETIMEDOUT; });
    EXPECT_EQ(read(0x10, 3'600'000, 0), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 1U);
    EXPECT_EQ(read(0x10, 3'600'000, 4), ETIMEDOUT);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 6U);
    EXPECT_EQ(card.reads(), 6U);
}

TEST_F(reg_loops, an_answer_that_is_there_already_is_not_waited_for) {
    fail::on(fail::call::pthread_cond_timedwait, [](uint64_t) { return ETIMEDOUT; });
    EXPECT_EQ(read(0x10, 3'600'000, 0), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_timedwait), 0U);
}

TEST_F(reg_loops, a_read_is_repeated_until_the_answer) {
    card.on_read(0x10, [this](uint32_t) -> std::optional<uint32_t> {
        if (card.reads() < 3) return std::nullopt;
        return 7;
    });
    EXPECT_EQ(read(0x10, 1, 5), 0);
    EXPECT_EQ(value, 7U);
    EXPECT_EQ(card.reads(), 3U);
}

TEST_F(reg_loops, a_late_completion_for_an_earlier_frame_satisfies_a_later_wait) {
    card.on_read(0x10, [this](uint32_t) -> std::optional<uint32_t> {
        if (card.reads() == 2) card.answer(card.accesses().front(), 0x77);
        return std::nullopt;
    });
    EXPECT_EQ(read(0x10, 1, 5), 0);
    EXPECT_EQ(value, 0x77U);
    EXPECT_EQ(card.reads(), 2U);
}

TEST_F(reg_loops, an_answer_that_comes_as_the_wait_expires_counts) {
    card.set_reachable(false);
    std::thread late;
    fail::on(fail::call::pthread_cond_timedwait, [&](uint64_t) {
        // On other threads, because this one holds the mutex of the tag's event.
        const answering_card::access asked = card.accesses().front();
        late = std::thread([this, asked] { card.answer(asked, 0x55); });
        std::thread look([asked] {
            uint32_t data = 0;
            EXPECT_TRUE(wait_until([&] { return _qnm_get_readreg(asked.tag, &data) == 0; }));
        });
        look.join();
        return ETIMEDOUT;
    });
    EXPECT_EQ(read(0x10, 1, 5), 0);
    EXPECT_EQ(value, 0x55U);
    EXPECT_EQ(card.reads(), 1U);
    if (late.joinable()) late.join();
}

TEST_F(reg_loops, no_answer_but_the_one_asked_for_is_taken) {
    card.on_read(0x10, [this](uint32_t) -> std::optional<uint32_t> {
        answering_card::access wrong = card.accesses().back();
        wrong.port = 1;
        card.answer(wrong, 1);
        wrong = card.accesses().back();
        wrong.path = 1;
        card.answer(wrong, 2);
        wrong = card.accesses().back();
        wrong.tag++;
        card.answer(wrong, 3);
        return std::nullopt;
    });
    EXPECT_EQ(read(0x10, 1, 1), ETIMEDOUT);
    EXPECT_EQ(card.reads(), 2U);
}

TEST_F(reg_loops, without_a_free_tag_nothing_is_sent) {
    qnm_config.tag_min = qnm_config.tag_max = 5;
    int tag = -1;
    ASSERT_EQ(_qnm_get_tag(&tag), 0);
    EXPECT_EQ(read(0x10), EPROTO);
    EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, &k_retry, 0), QNM_API_EPROTO);
    EXPECT_EQ(value, 0xDEADBEEF);
    EXPECT_EQ(card.reads(), 0U);
    EXPECT_EQ(logs.count(k_trace,
                         "_qnm_read_register: called. ret=71, id=0x001122334454, "
                         "addr=0x00000010, data=0x00000000, tag=-1"),
              2U);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 0, 0), 0) << "needs none";
    _qnm_release_tag(tag);
    EXPECT_EQ(read(0x10), 0);
}

TEST_F(reg_loops, a_read_without_a_path_ends_at_once) {
    dev.ecd_state[0][0] = 0;
    EXPECT_EQ(read(0x10, 1, 5), ENOLINK);
    EXPECT_EQ(card.reads(), 0U);
    EXPECT_TRUE(logs.has(k_error, "_qnm_send_regread: Sendable port don't exist."));
    EXPECT_TRUE(logs.has_part(k_trace, "_qnm_read_register: called. ret=67, id=0x001122334454, "));
}

TEST_F(reg_loops, a_read_that_cannot_be_sent_again_ends_at_once) {
    card.set_reachable(false);
    fake_pcap::set_send_failure("port0", 2);
    EXPECT_EQ(read(0x10, 1, 5), EPROTO);
    EXPECT_EQ(card.reads(), 1U);
    EXPECT_TRUE(logs.has_part(k_trace, "_qnm_read_register: called. ret=71, id=0x001122334454, "));
}

TEST_F(reg_loops, a_wait_that_fails_ends_the_read) {
    card.set_reachable(false);
    fail::nth(fail::call::pthread_cond_timedwait, 1, EINVAL);
    EXPECT_EQ(read(0x10, 1, 5), EPROTO);
    EXPECT_EQ(card.reads(), 1U);
}

TEST_F(reg_loops, a_tag_that_has_become_invalid_ends_the_read) {
    card.set_reachable(false);
    fail::on(fail::call::pthread_cond_timedwait, [](uint64_t) {
        qnm_config.tag_min = qnm_config.tag_max = 200;
        return ETIMEDOUT;
    });
    EXPECT_EQ(read(0x10, 1, 5), EPROTO);
    EXPECT_EQ(card.reads(), 1U);
    const std::string tag = std::to_string(card.accesses().front().tag);
    EXPECT_TRUE(logs.has(k_warn, "_qnm_get_readreg: Invalid tag. tag=" + tag));
}

TEST_F(reg_loops, a_stop_beats_an_answer) {
    card.on_read(0x10, [](uint32_t) {
        stop();
        return 5U;
    });
    EXPECT_EQ(read(0x10, 1, 5), ENOSYS);
    EXPECT_EQ(value, 0xDEADBEEF);
    EXPECT_EQ(card.reads(), 1U);
}

TEST_F(reg_loops, a_stop_ends_a_running_retry_loop) {
    card.on_read(0x10, [this](uint32_t) -> std::optional<uint32_t> {
        if (card.reads() == 3) stop();
        return std::nullopt;
    });
    EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, &k_retry, 0), QNM_API_ENOSYS);
    EXPECT_EQ(card.reads(), 3U) << "38 comes before 110";
    EXPECT_EQ(value, 0xDEADBEEF);
    expect_counted(QNM_STATS_READ_REGISTER, QNM_API_ENOSYS);
}

TEST_F(reg_loops, a_stop_wakes_a_wait) {
    constexpr qnm_retry_t k_long = {.er_retry_count = 5, .er_retry_interval = 3'600'000};
    card.set_reachable(false);
    std::thread reader(
        [&] { EXPECT_EQ(qnm_read_register(k_id, 0x10, &value, &k_long, 0), QNM_API_ENOSYS); });
    EXPECT_TRUE(wait_until([&] { return card.reads() == 1; }));
    stop();
    _qnm_cmp_wake();
    reader.join();
    EXPECT_EQ(card.reads(), 1U);
}

TEST_F(reg_loops, reads_of_different_threads_run_in_parallel) {
    constexpr uint32_t k_hour = 3'600'000;
    card.on_read(0x10, [](uint32_t) { return std::nullopt; });
    card.set(0x20, 0x22);
    std::thread reader([&] {
        uint32_t data = 0;
        EXPECT_EQ(_qnm_read_register(&dev, 0x10, &data, k_hour, 0), 0);
        EXPECT_EQ(data, 0x11U);
    });
    EXPECT_TRUE(wait_until([&] { return card.reads() == 1; }));
    EXPECT_EQ(read(0x20), 0);
    EXPECT_EQ(value, 0x22U);
    card.answer(card.accesses().front(), 0x11);
    reader.join();
}

// ---- Register write -----------------------------------------------------------------------------

TEST_F(reg_loops, a_write_is_one_frame_and_waits_for_nothing) {
    card.set_reachable(false);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 0xABCD, 1, 5, 0), 0);
    EXPECT_EQ(sequence(card), "W10=abcd");
    EXPECT_EQ(qnm_stats.est_stats_p0[QNM_STATS_T_REGW], 1U);
    EXPECT_THAT(logs.texts(), ElementsAre("_qnm_write_register: called. ret=0, id=0x001122334454, "
                                          "addr=0x00000010, data=0x0000ABCD, flags=0x00000000, "));
    EXPECT_EQ(logs.count_level(k_trace), 1U);
}

TEST_F(reg_loops, a_write_returns_the_senders_error) {
    dev.ecd_state[0][0] = 0;
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 1, 1, 5, 0), ENOLINK);
    dev.ecd_state[0][0] = 1;
    fake_pcap::set_send_failure("port0", 1);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 1, 1, 5, 0), EPROTO);
    EXPECT_FALSE(logs.has_part(k_error, "_qnm_write_register"));
    EXPECT_TRUE(logs.has(k_trace,
                         "_qnm_write_register: called. ret=71, id=0x001122334454, "
                         "addr=0x00000010, data=0x00000001, flags=0x00000000, "));
}

TEST_F(reg_loops, a_verified_write_reads_back) {
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 0xABCD, 1, 5, QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(sequence(card), "W10=abcd R10");
    EXPECT_EQ(logs.texts("logfile", k_trace).back(),
              "_qnm_write_register: called. ret=0, id=0x001122334454, addr=0x00000010, "
              "data=0x0000ABCD, flags=0x00000002, ");
}

TEST_F(reg_loops, a_verified_write_is_repeated_until_it_holds) {
    const sleeps_t& sleeps = record_sleeps();
    qnm_config.register_verify_interval = 30;
    take_only(0x10, 3);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 5, QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(sequence(card), "W10=5 R10 W10=5 R10 W10=5 R10");
    EXPECT_THAT(sleeps, ElementsAre(std::chrono::milliseconds(30), std::chrono::milliseconds(30)));
}

TEST_F(reg_loops, a_verified_write_that_never_holds_times_out_after_count_and_one_writes) {
    take_only(0x10, 0);
    for (const uint32_t interval : {qnm_config.register_verify_interval, 30U}) {
        card.forget();
        const sleeps_t& sleeps = record_sleeps();
        qnm_config.register_verify_interval = interval;
        EXPECT_EQ(qnm_write_register(k_id, 0x10, 5, &k_retry, QNM_FLAG_VERIFY), QNM_API_ETIMEDOUT);
        EXPECT_EQ(card.writes(), k_retry.er_retry_count + 1);
        EXPECT_EQ(card.reads(), k_retry.er_retry_count + 1);
        EXPECT_EQ(sleeps.size(), interval == 0 ? 0 : k_retry.er_retry_count) << "none at the end";
    }
    EXPECT_TRUE(logs.has(k_trace,
                         "_qnm_write_register: called. ret=110, id=0x001122334454, "
                         "addr=0x00000010, data=0x00000005, flags=0x00000002, "));
}

TEST_F(reg_loops, a_verified_write_compares_all_bits) {
    card.on_write(0x10, [this](uint32_t written) { card.set(0x10, written ^ 0x80000000); });
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 0, QNM_FLAG_VERIFY), ETIMEDOUT);
}

TEST_F(reg_loops, a_verified_write_that_cannot_be_sent_says_so) {
    dev.ecd_state[0][0] = 0;
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 5, QNM_FLAG_VERIFY), ENOLINK);
    EXPECT_EQ(logs.texts("logfile", k_error).back(),
              "_qnm_write_register: Failed to _qnm_send_regwrite(). err=67");
    dev.ecd_state[0][0] = 1;
    fake_pcap::set_send_failure("port0", 3);  // the second write
    take_only(0x10, 0);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 5, QNM_FLAG_VERIFY), EPROTO);
    EXPECT_EQ(sequence(card), "W10=5 R10");
    EXPECT_EQ(logs.texts("logfile", k_error).back(),
              "_qnm_write_register: Failed to _qnm_send_regwrite(). err=71");
}

TEST_F(reg_loops, a_verified_write_that_cannot_be_read_back_says_so) {
    card.on_read(0x10, [](uint32_t) { return std::nullopt; });
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 2, QNM_FLAG_VERIFY), ETIMEDOUT);
    EXPECT_EQ(sequence(card), "W10=5 R10 R10 R10");
    EXPECT_TRUE(logs.has(k_trace, "_qnm_write_register: Failed to _qnm_read_register() err=110"));
}

TEST_F(reg_loops, a_stop_ends_a_verified_write_only_when_it_does_not_hold) {
    g_stop_at_release = true;
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 5, 1, 5, QNM_FLAG_VERIFY), 0);
    set_running();
    take_only(0x10, 0);
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 6, 1, 5, QNM_FLAG_VERIFY), ENOSYS);
    EXPECT_EQ(card.writes(), 2U);
    set_running();
    EXPECT_EQ(_qnm_write_register(&dev, 0x10, 6, 1, 0, QNM_FLAG_VERIFY), ENOSYS)
        << "38 comes before 110";
}

// ---- Register modify ----------------------------------------------------------------------------

TEST_F(reg_loops, a_modify_writes_the_masked_bits_and_keeps_the_others) {
    card.set(0x10, 0xA5A5A5A5);
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0x12345678, 0x00FF0FF0, 1, 5, 0), 0);
    EXPECT_EQ(sequence(card), "R10 W10=a534a675");
    EXPECT_TRUE(logs.has(k_trace,
                         "_qnm_write_register: called. ret=0, id=0x001122334454, "
                         "addr=0x00000010, data=0xA534A675, flags=0x00000000, "));
}

TEST_F(reg_loops, a_modify_that_finds_its_bits_sends_no_write) {
    card.set(0x10, 0xA5A5A5A5);
    for (const uint32_t flags : {uint32_t{0}, uint32_t{QNM_FLAG_VERIFY}}) {
        EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0xFFFFFFA5, 0x000000FF, 1, 5, flags), 0);
    }
    EXPECT_EQ(sequence(card), "R10 R10");
}

TEST_F(reg_loops, a_modify_with_mask_0_never_writes) {
    for (const uint32_t flags : {uint32_t{0}, uint32_t{QNM_FLAG_VERIFY}}) {
        EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0xFFFFFFFF, 0, 1, 5, flags), 0);
    }
    EXPECT_EQ(sequence(card), "R10 R10");
}

TEST_F(reg_loops, a_modify_of_all_bits_is_a_write) {
    card.set(0x10, 1);
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0x80000000, 0xFFFFFFFF, 1, 5, 0), 0);
    EXPECT_EQ(sequence(card), "R10 W10=80000000");
}

TEST_F(reg_loops, a_modify_returns_the_error_of_each_step) {
    card.on_read(0x10, [](uint32_t) { return std::nullopt; });
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 1, 1, 1, 1, 0), ETIMEDOUT);
    EXPECT_EQ(sequence(card), "R10 R10");
    for (const uint32_t flags : {uint32_t{0}, uint32_t{QNM_FLAG_VERIFY}}) {
        fake_pcap::set_send_failure("port0", 2);
        EXPECT_EQ(_qnm_modify_register(&dev, 0x20, 1, 1, 1, 1, flags), EPROTO);
    }
    fake_pcap::set_send_failure("port0", 3);
    EXPECT_EQ(_qnm_modify_register(&dev, 0x20, 1, 1, 1, 1, QNM_FLAG_VERIFY), EPROTO);
    EXPECT_EQ(card.writes(0x20), 1U);
    EXPECT_TRUE(logs.texts("logfile", k_error).back().starts_with("_qnm_send_regread: "));
}

TEST_F(reg_loops, a_verified_modify_compares_the_masked_bits_only) {
    card.on_write(0x10, [this](uint32_t written) { card.set(0x10, written ^ 0xFF00); });
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0x5A, 0xFF, 1, 5, QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(sequence(card), "R10 W10=5a R10");
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 0x77A5, 0xFFFF, 1, 0, QNM_FLAG_VERIFY), ETIMEDOUT);
}

TEST_F(reg_loops, a_verified_modify_is_repeated_until_it_holds) {
    const sleeps_t& sleeps = record_sleeps();
    qnm_config.register_verify_interval = 250;
    take_only(0x10, 3);
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 5, 0xF, 1, 5, QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10 W10=5 R10 W10=5 R10");
    EXPECT_EQ(std::accumulate(sleeps.begin(), sleeps.end(), std::chrono::nanoseconds(0)),
              std::chrono::milliseconds(500));
}

TEST_F(reg_loops, a_verified_modify_that_never_holds_times_out_after_count_and_one_writes) {
    take_only(0x10, 0);
    EXPECT_EQ(qnm_modify_register(k_id, 0x10, 5, 0xF, &k_retry, QNM_FLAG_VERIFY),
              QNM_API_ETIMEDOUT);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10 W10=5 R10 W10=5 R10");
    EXPECT_TRUE(is_lock_free());
}

TEST_F(reg_loops, a_verified_modify_logs_its_writes_as_unverified) {
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 5, 0xF, 1, 5, QNM_FLAG_VERIFY), 0);
    EXPECT_EQ(logs.count(k_trace,
                         "_qnm_write_register: called. ret=0, id=0x001122334454, "
                         "addr=0x00000010, data=0x00000005, flags=0x00000000, "),
              1U);
}

TEST_F(reg_loops, a_verified_modify_that_cannot_be_read_back_ends_at_once) {
    card.on_read(0x10, [this](uint32_t current) -> std::optional<uint32_t> {
        if (card.writes() != 0) return std::nullopt;
        return current;
    });
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 5, 0xF, 1, 1, QNM_FLAG_VERIFY), ETIMEDOUT);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10 R10");
}

TEST_F(reg_loops, a_stop_ends_a_verified_modify_that_does_not_hold) {
    take_only(0x10, 0);
    card.on_read(0x10, [this](uint32_t current) {
        g_stop_at_release = card.writes() == 1;  // with the read-back
        return current;
    });
    EXPECT_EQ(_qnm_modify_register(&dev, 0x10, 5, 0xF, 1, 0, QNM_FLAG_VERIFY), ENOSYS);
    EXPECT_EQ(sequence(card), "R10 W10=5 R10");
}

// ---- Register dump ------------------------------------------------------------------------------

TEST_F(reg_loops, a_dump_reads_each_register_up_to_the_end) {
    for (uint32_t addr = 0x10; addr < 0x20; addr += 4)
        card.set(addr, addr * 3);
    uint32_t data[5] = {9, 9, 9, 9, 9};
    size_t len = 777;
    EXPECT_EQ(_qnm_dump_register(&dev, 0x10, 0x20, data, &len, 1, 0), 0);
    EXPECT_EQ(len, 16U);
    EXPECT_THAT(data, ElementsAre(0x30, 0x3C, 0x48, 0x54, 9));
    EXPECT_EQ(sequence(card), "R10 R14 R18 R1c");
}

TEST_F(reg_loops, a_dump_of_nothing_reads_nothing) {
    uint32_t data = 9;
    for (const uint32_t end : {0x10U, 0xCU}) {
        size_t len = 777;
        EXPECT_EQ(_qnm_dump_register(&dev, 0x10, end, &data, &len, 1, 0), 0);
        EXPECT_EQ(len, 0U);
    }
    EXPECT_EQ(card.reads(), 0U);
}

TEST_F(reg_loops, a_dump_tells_a_length_of_0_before_it_reads) {
    uint32_t data[2] = {};
    size_t len = sizeof data;
    card.on_read(0x10, [&](uint32_t current) {
        EXPECT_EQ(len, 0U);
        return current;
    });
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x18, data, &len, &k_retry, 0), QNM_API_SUCCESS);
    EXPECT_EQ(len, 8U);
}

TEST_F(reg_loops, a_dump_may_end_with_the_last_address) {
    uint32_t data[2] = {};
    size_t len = sizeof data;
    EXPECT_EQ(qnm_dump_register(k_id, 0xFFFFFFF4, 0xFFFFFFFC, data, &len, &k_retry, 0),
              QNM_API_SUCCESS);
    EXPECT_EQ(len, 8U);
    EXPECT_EQ(card.reads(), 2U);
    EXPECT_EQ(logs.count_part(k_trace, "addr=0xFFFFFFF4, "), 1U);
    EXPECT_EQ(logs.count_part(k_trace, "addr=0xFFFFFFF8, "), 1U);
}

TEST_F(reg_loops, a_stop_ends_a_dump_that_reports_what_it_has) {
    card.on_read(0x18, [](uint32_t current) {
        stop();
        return current;
    });
    uint32_t data[4] = {9, 9, 9, 9};
    size_t len = sizeof data;
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x20, data, &len, &k_retry, 0), QNM_API_ENOSYS);
    EXPECT_EQ(len, 8U);
    EXPECT_THAT(data, ElementsAre(0, 0, 9, 9));
    EXPECT_EQ(sequence(card), "R10 R14 R18");
}

TEST_F(reg_loops, a_dump_that_fails_part_way_reports_what_it_has) {
    card.set(0x10, 1);
    card.set(0x14, 2);
    card.on_read(0x18, [](uint32_t) { return std::nullopt; });
    uint32_t data[4] = {9, 9, 9, 9};
    size_t len = sizeof data;
    EXPECT_EQ(qnm_dump_register(k_id, 0x10, 0x20, data, &len, &k_retry, 0), QNM_API_ETIMEDOUT);
    EXPECT_EQ(len, 8U);
    EXPECT_THAT(data, ElementsAre(1, 2, 9, 9));
    EXPECT_EQ(sequence(card), "R10 R14 R18 R18 R18");
}

// ---- Live check ---------------------------------------------------------------------------------

struct livecheck : reg_loops {
    livecheck() {
        dev.ecd_state[0][0] = 0;
        dev.ecd_type = 1;
        qnm_config.frame_retry_count_lc = 0;
        card.set_reachable(false);
    }

    static void set_link(int port, bool up) {
        qnm::store(qnm_root.er_port_info[port].epi_link_state, up ? 1U : 0U);
    }

    std::vector<uint32_t> state() const { return {&dev.ecd_state[0][0], &dev.ecd_state[0][0] + 4}; }
};

TEST_F(livecheck, a_card_with_any_path_is_not_asked) {
    for (uint32_t& path : std::span(&dev.ecd_state[0][0], 4)) {
        path = 1;
        EXPECT_EQ(_qnm_livecheck(&dev), 0);
        path = 0;
    }
    EXPECT_EQ(card.reads(), 0U);
}

struct path_row {
    int port;
    int path;
    const char* asked;
    std::vector<uint32_t> state;
};

TEST_F(livecheck, the_first_path_that_answers_register_0_stays) {
    for (const path_row& row : {path_row{0, 0, "00", {1, 0, 0, 0}},
                                {0, 1, "00 01", {0, 1, 0, 0}},
                                {1, 0, "00 01 10", {0, 0, 1, 0}},
                                {1, 1, "00 01 10 11", {0, 0, 0, 1}}}) {
        card.forget();
        card.set_reachable(false);
        card.set_reachable(row.port, row.path, true);
        std::fill_n(&dev.ecd_state[0][0], 4, 0);
        EXPECT_EQ(_qnm_livecheck(&dev), 0);
        EXPECT_EQ(paths(card), row.asked);
        EXPECT_EQ(state(), row.state);
        EXPECT_EQ(card.reads(0), card.accesses().size());
    }
}

TEST_F(livecheck, a_card_that_answers_on_no_path_is_unreachable) {
    EXPECT_EQ(_qnm_livecheck(&dev), ENOLINK);
    EXPECT_EQ(paths(card), "00 01 10 11");
    EXPECT_THAT(state(), ElementsAre(0, 0, 0, 0));
}

TEST_F(livecheck, each_path_is_tried_as_often_as_configured) {
    qnm_config.frame_retry_count_lc = 2;
    qnm_config.frame_retry_interval_lc = 10;
    qnm_config.frame_retry_interval = 3'600'000;  // which is not meant
    qnm_config.frame_retry_count = 9;
    dev.ecd_type = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(_qnm_livecheck(&dev), ENOLINK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
    EXPECT_EQ(paths(card), "00 00 00 10 10 10");
}

TEST_F(livecheck, a_card_of_the_first_type_has_no_second_address) {
    dev.ecd_type = 0;
    EXPECT_EQ(_qnm_livecheck(&dev), ENOLINK);
    EXPECT_EQ(paths(card), "00 10");
    dev.ecd_type = 2;
    EXPECT_EQ(_qnm_livecheck(&dev), ENOLINK);
    EXPECT_EQ(paths(card), "00 10 00 01 10 11") << "any type but 0 has";
}

struct link_row {
    uint32_t used;
    bool up[2];
    const char* asked;
};

TEST_F(livecheck, only_ports_that_are_in_use_and_up_are_tried) {
    for (const link_row& row : {link_row{0, {true, true}, ""},
                                {1, {true, true}, "00 01"},
                                {1, {false, true}, ""},
                                {2, {true, false}, "00 01"},
                                {2, {false, true}, "10 11"},
                                {2, {false, false}, ""}}) {
        card.forget();
        qnm_config.use_port_num_linux = row.used;
        set_link(0, row.up[0]);
        set_link(1, row.up[1]);
        EXPECT_EQ(_qnm_livecheck(&dev), ENOLINK) << row.asked;
        EXPECT_EQ(paths(card), row.asked);
    }
}

TEST_F(livecheck, another_error_than_silence_ends_it_and_keeps_the_path) {
    struct row {
        int silent_paths;
        const char* port;  // whose next frame fails
        unsigned send;
        std::vector<uint32_t> state;
    };
    for (const row& it : {row{0, "port0", 1, {1, 0, 0, 0}},
                          {1, "port0", 2, {0, 1, 0, 0}},
                          {2, "port1", 1, {0, 0, 1, 0}},
                          {3, "port1", 2, {0, 0, 0, 1}}}) {
        card.forget();
        std::fill_n(&dev.ecd_state[0][0], 4, 0);
        fake_pcap::set_send_failure(it.port, it.send);
        EXPECT_EQ(_qnm_livecheck(&dev), EPROTO);
        EXPECT_EQ(state(), it.state);
        EXPECT_EQ(card.reads(), static_cast<size_t>(it.silent_paths));
    }
}

TEST_F(livecheck, a_stop_ends_it) {
    card.set_reachable(true);
    card.on_read(0, [](uint32_t) {
        stop();
        return 1U;
    });
    EXPECT_EQ(_qnm_livecheck(&dev), ENOSYS);
    EXPECT_THAT(state(), ElementsAre(1, 0, 0, 0));
    EXPECT_EQ(card.reads(), 1U);
}

}  // namespace
