// test_paced_log.cpp - log lines that frames can cause: the first at once, then one a second.

#include "qnm_paced_log.h"

#include <cstring>
#include <thread>

#include "qnm_keepalive.h"
#include "units.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct paced : units {
    paced() {
        fail::set_monotonic_clock(std::chrono::hours(1));
        _qnm_paced_init();
    }

    // As in the library's own code.
    static void write(const char* func, qnm_paced_line_t line = QNM_PACED_TAG) {
        if (_qnm_paced_may_write(line, func)) qnm_log_warn("%s: Oh! tag=%d", func, 1);
    }

    static void write_often(int times) {
        for (int n = 0; n < times; n++)
            write("flood");
    }

    static void pass(int ms) { fail::advance_monotonic_clock(std::chrono::milliseconds(ms)); }

    std::vector<std::string> warnings() {
        const std::vector<std::string> texts = logs.texts("logfile", k_warn);
        logs.clear();
        return texts;
    }
};

TEST_F(paced, the_first_line_is_written_and_those_of_the_same_second_are_counted) {
    write_often(1000);
    EXPECT_THAT(warnings(), ElementsAre("flood: Oh! tag=1"));
    pass(999);
    write_often(1);
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(paced, one_line_a_second_tells_how_many_there_were) {
    write_often(1000);
    logs.clear();
    pass(1000);
    write_often(5);
    EXPECT_THAT(warnings(), ElementsAre("flood: 1000 more in the last 1000 ms: Invalid tag."));
    pass(1200);
    write_often(1);
    EXPECT_THAT(warnings(), ElementsAre("flood: 5 more in the last 1200 ms: Invalid tag."));
}

TEST_F(paced, what_is_left_when_a_flood_ends_is_told_without_another_line) {
    write_often(3);
    logs.clear();
    _qnm_paced_report();
    EXPECT_THAT(warnings(), IsEmpty());
    pass(1000);
    _qnm_paced_report();
    EXPECT_THAT(warnings(), ElementsAre("flood: 2 more in the last 1000 ms: Invalid tag."));
    pass(1000);
    _qnm_paced_report();
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(paced, a_line_after_a_quiet_second_is_whole_again) {
    write_often(1);
    pass(1000);
    write_often(1);
    EXPECT_THAT(warnings(), ElementsAre("flood: Oh! tag=1", "flood: Oh! tag=1"));
    write_often(1);
    pass(1000);
    _qnm_paced_report();
    logs.clear();
    pass(1000);
    write_often(1);
    EXPECT_THAT(warnings(), ElementsAre("flood: Oh! tag=1"));
}

TEST_F(paced, every_row_counts_for_itself_and_names_its_last_function) {
    write("one");
    write("two");
    write("other", QNM_PACED_LOCK_NOT_PUT);
    EXPECT_THAT(warnings(), ElementsAre("one: Oh! tag=1", "other: Oh! tag=1"));
    pass(1000);
    _qnm_paced_report();
    EXPECT_THAT(warnings(), ElementsAre("two: 1 more in the last 1000 ms: Invalid tag."));
}

TEST_F(paced, the_count_has_the_level_of_the_line) {
    write("memory", QNM_PACED_EVENT_MEMORY);
    write("memory", QNM_PACED_EVENT_MEMORY);
    _qnm_paced_fini();
    EXPECT_TRUE(logs.has(k_error,
                         "memory: 1 more in the last 0 ms: can't alloc memory for qnm_evt_node_t"));
}

TEST_F(paced, the_end_tells_all_that_is_left_and_the_next_start_begins_anew) {
    write_often(4);
    logs.clear();
    _qnm_paced_fini();
    EXPECT_THAT(warnings(), ElementsAre("flood: 3 more in the last 0 ms: Invalid tag."));
    write_often(2);
    _qnm_paced_init();
    logs.clear();
    write_often(1);
    EXPECT_THAT(warnings(), ElementsAre("flood: Oh! tag=1"));
}

TEST_F(paced, the_keepalive_loop_tells_what_is_left) {
    write_often(8);
    logs.clear();
    size_t sleeps = 0;
    fail::on_sleep([&](std::chrono::nanoseconds) {
        pass(400);
        if (++sleeps == 3) qnm::store(qnm_root.er_fini_flag, 0U);
    });
    EXPECT_EQ(_qnm_interval_check(), 0);
    EXPECT_THAT(warnings(), ElementsAre("flood: 7 more in the last 1200 ms: Invalid tag."));
}

// Every line is written or counted, once.
TEST_F(paced, threads_lose_no_line) {
    constexpr int k_each = 20000;
    fail::reset();  // the clock goes on by itself
    const auto work = [] { write_often(k_each); };
    std::thread first(work);
    std::thread second(work);
    std::thread third([] {
        for (int n = 0; n < 1000; n++)
            _qnm_paced_report();
    });
    for (std::thread* const thread : {&first, &second, &third})
        thread->join();
    _qnm_paced_fini();
    uint64_t told = 0;
    for (const std::string& text : logs.texts("logfile", k_warn))
        told += text.ends_with("Invalid tag.") ? std::stoull(text.substr(strlen("flood: "))) : 1;
    EXPECT_EQ(told, 2U * k_each);
}

}  // namespace
