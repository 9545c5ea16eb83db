// test_completion.cpp - completion tags: rotation, matching, and waits that no signal escapes.

#include "qnm_completion.h"

#include <cerrno>
#include <functional>
#include <thread>

#include "units.h"
#include "wait.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::ElementsAre;

// Locks held by this thread, and how often it took one.
thread_local int g_held = 0;
thread_local int g_taken = 0;

extern "C" int __real__qnm_mutex_lock(qnm_mutex_t* mutex);
extern "C" int __wrap__qnm_mutex_lock(qnm_mutex_t* mutex) {
    g_held++;
    g_taken++;
    return __real__qnm_mutex_lock(mutex);
}

extern "C" int __real__qnm_mutex_unlock(qnm_mutex_t* mutex);
extern "C" int __wrap__qnm_mutex_unlock(qnm_mutex_t* mutex) {
    g_held--;
    return __real__qnm_mutex_unlock(mutex);
}

int g_mutex_result = 0;
int g_mutexes_destroyed = 0;

extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t*) {
    return g_mutex_result;
}

extern "C" int __wrap__qnm_mutex_destroy_st(qnm_mutex_t*) {
    g_mutexes_destroyed++;
    return 0;
}

// Called before a tag's event is set.
std::function<void()> g_before_signal;

extern "C" int __real__qnm_event_set(qnm_event_t* evt);
extern "C" int __wrap__qnm_event_set(qnm_event_t* evt) {
    EXPECT_EQ(g_held, 0) << "signalled with the lock held";
    if (g_before_signal) g_before_signal();
    return __real__qnm_event_set(evt);
}

constexpr uint64_t k_mac = 0x020000001001;
constexpr uint32_t k_long = 120000;  // ms

struct completion : units {
    completion() {
        EXPECT_EQ(_qnm_cmp_init(), 0);
        logs.clear();
        g_mutexes_destroyed = 0;
    }

    ~completion() override {
        g_before_signal = nullptr;
        _qnm_cmp_fini();
        EXPECT_EQ(g_held, 0);
    }

    // A range of tags, none of which has been handed out yet.
    void use_range(uint32_t min, uint32_t max) {
        qnm_config.tag_min = min;
        qnm_config.tag_max = max;
        _qnm_cmp_fini();
        EXPECT_EQ(_qnm_cmp_init(), 0);
        logs.clear();
    }

    static int get() {
        int tag = -2;
        return _qnm_get_tag(&tag) == 0 ? tag : -1;
    }

    // Takes a tag and gives it back at once.
    static std::vector<int> get_and_release(int times) {
        std::vector<int> tags;
        for (int n = 0; n < times; n++) {
            tags.push_back(get());
            _qnm_release_tag(tags.back());
        }
        return tags;
    }

    static int value_of(int tag, uint32_t expected) {
        uint32_t value = ~expected;
        const int err = _qnm_get_readreg(tag, &value);
        if (err == 0) {
            EXPECT_EQ(value, expected);
        } else {
            EXPECT_EQ(value, ~expected) << "stored in spite of the error";
        }
        return err;
    }

    static uint64_t waits() { return fail::count(fail::call::pthread_cond_timedwait); }
    static uint64_t signals() { return fail::count(fail::call::pthread_cond_signal); }
};

// ---- Init and fini ------------------------------------------------------------------------------

TEST_F(completion, init_makes_256_events_and_fini_destroys_them) {
    _qnm_cmp_fini();
    logs.clear();
    fail::reset();
    g_mutexes_destroyed = 0;
    EXPECT_EQ(_qnm_cmp_init(), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_init), 256U);
    EXPECT_EQ(_qnm_cmp_fini(), 0);
    EXPECT_EQ(fail::count(fail::call::pthread_cond_destroy), 256U);
    EXPECT_EQ(g_mutexes_destroyed, 1);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("_qnm_cmp_init: start.", "_qnm_cmp_init: end. ret=0",
                            "_qnm_cmp_fini: start.", "_qnm_cmp_fini: end."));
    EXPECT_EQ(logs.lines().size(), 4U);
    EXPECT_EQ(_qnm_cmp_init(), 0);
}

TEST_F(completion, init_fails_without_its_mutex) {
    _qnm_cmp_fini();
    logs.clear();
    fail::reset();
    g_mutexes_destroyed = 0;
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_cmp_init(), EPROTO);
    g_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_error, "_qnm_cmp_init: Failed to _qnm_mutex_init_st()"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_cmp_init: start."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_cmp_init: end. ret=71"));
    EXPECT_EQ(fail::count(fail::call::pthread_cond_init), 0U);
    EXPECT_EQ(g_mutexes_destroyed, 0);
    EXPECT_EQ(_qnm_cmp_init(), 0);
}

TEST_F(completion, init_that_fails_at_an_event_destroys_those_before_it_and_the_mutex) {
    for (const unsigned made : {0U, 1U, 100U, 255U}) {
        _qnm_cmp_fini();
        logs.clear();
        fail::reset();
        g_mutexes_destroyed = 0;
        fail::nth(fail::call::pthread_condattr_setclock, made + 1, EINVAL);
        EXPECT_EQ(_qnm_cmp_init(), EPROTO);
        EXPECT_TRUE(logs.has(k_error, "_qnm_cmp_init: Failed to _qnm_event_init()"));
        EXPECT_TRUE(logs.has(k_info, "_qnm_cmp_init: end. ret=71"));
        EXPECT_EQ(fail::count(fail::call::pthread_condattr_setclock), made + 1);
        EXPECT_EQ(fail::count(fail::call::pthread_cond_destroy), made);
        EXPECT_EQ(g_mutexes_destroyed, 1);
        EXPECT_EQ(_qnm_cmp_init(), 0);
    }
}

TEST_F(completion, init_forgets_all_that_was) {
    use_range(1, 3);
    for (int n = 0; n < 3; n++)
        get();
    _qnm_set_comp_recv_wait(1, k_mac, 0);
    _qnm_recv_comp(1, 0, k_mac, 5);
    _qnm_set_comp_recv_wait(2, k_mac, 0);
    use_range(1, 3);
    EXPECT_EQ(value_of(1, 5), ENOENT);
    _qnm_recv_comp(2, 0, k_mac, 5);
    EXPECT_EQ(value_of(2, 5), ENOENT);
    EXPECT_EQ(get(), 2) << "the one after tag_min";
}

// ---- Tags ---------------------------------------------------------------------------------------

TEST_F(completion, tags_are_handed_out_in_rotation) {
    use_range(1, 8);
    EXPECT_THAT(get_and_release(10), ElementsAre(2, 3, 4, 5, 6, 7, 8, 1, 2, 3));
}

TEST_F(completion, the_whole_byte_is_used_unless_configured) {
    std::vector<int> tags = get_and_release(257);
    EXPECT_EQ(tags.front(), 1);
    EXPECT_EQ(tags[254], 255);
    EXPECT_EQ(tags[255], 0);
    EXPECT_EQ(tags[256], 1);
}

TEST_F(completion, tags_in_use_are_passed_over) {
    use_range(1, 8);
    ASSERT_EQ(get(), 2);
    ASSERT_EQ(get(), 3);
    ASSERT_EQ(get(), 4);
    _qnm_release_tag(3);
    EXPECT_THAT(get_and_release(4), ElementsAre(5, 6, 7, 8));
    EXPECT_EQ(get(), 1);
    EXPECT_EQ(get(), 3) << "2 and 4 are not free";
}

TEST_F(completion, the_tag_handed_out_last_is_the_last_to_be_tried) {
    use_range(1, 4);
    for (const int tag : {2, 3, 4, 1})
        ASSERT_EQ(get(), tag);
    _qnm_release_tag(1);
    EXPECT_EQ(get(), 1);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(completion, one_tag_serves_one_owner_at_a_time) {
    use_range(5, 5);
    EXPECT_EQ(get(), 5);
    int tag = 77;
    EXPECT_EQ(_qnm_get_tag(&tag), -1);
    EXPECT_EQ(tag, 77);
    EXPECT_TRUE(
        logs.has(k_error, "_qnm_get_tag: Can't get a tag value, because all tags are used."));
    EXPECT_EQ(logs.lines().size(), 1U);
    EXPECT_EQ(_qnm_release_tag(5), 0);
    EXPECT_EQ(get(), 5);
}

TEST_F(completion, a_range_that_leaves_the_last_tag_behind_starts_anew) {
    use_range(100, 110);
    ASSERT_EQ(get(), 101);
    qnm_config.tag_min = 200;
    qnm_config.tag_max = 210;
    EXPECT_EQ(get(), 201);
    qnm_config.tag_min = 1;
    qnm_config.tag_max = 8;
    EXPECT_EQ(get(), 2);
    qnm_config.tag_min = 1;
    qnm_config.tag_max = 2;
    EXPECT_EQ(get(), 1) << "2 is within the range";
}

TEST_F(completion, a_tag_needs_a_place_to_be_stored) {
    EXPECT_EQ(_qnm_get_tag(nullptr), -1);
    EXPECT_TRUE(logs.has(k_warn, "_qnm_get_tag: Invalid parameter. tag is NULL."));
    EXPECT_EQ(get(), 1) << "none was taken";
}

TEST_F(completion, a_new_owner_finds_its_tag_idle) {
    use_range(5, 5);
    _qnm_set_comp_recv_wait(5, k_mac, 0);
    _qnm_recv_comp(5, 0, k_mac, 1);
    ASSERT_EQ(value_of(5, 1), 0);
    ASSERT_EQ(get(), 5);
    EXPECT_EQ(value_of(5, 1), ENOENT);
}

// The tags of a range that are given back after a frame without an answer.
std::vector<int> get_and_rest(int times) {
    std::vector<int> tags;
    for (int n = 0; n < times; n++) {
        int tag = -1;
        EXPECT_EQ(_qnm_get_tag(&tag), 0);
        EXPECT_EQ(_qnm_rest_tag(tag), 0);
        tags.push_back(tag);
    }
    return tags;
}

TEST_F(completion, few_tags_are_handed_out_in_rotation_without_answers_too) {
    use_range(1, 4);
    EXPECT_THAT(get_and_rest(8), ElementsAre(2, 3, 4, 1, 2, 3, 4, 1));
    use_range(1, 63);
    std::vector<int> rotation;
    for (int n = 1; n <= 3 * 63; n++)
        rotation.push_back(n % 63 + 1);
    EXPECT_EQ(get_and_rest(3 * 63), rotation);
}

// Starts again when the machine was so slow that the tag's rest had already ended.
TEST_F(completion, a_resting_tag_is_passed_over) {
    std::vector<int> tags;
    EXPECT_TRUE(wait_until([&] {
        use_range(0, 63);
        const auto start = steady_clock::now();
        EXPECT_EQ(_qnm_rest_tag(get()), 0);
        tags = get_and_release(64);
        return steady_clock::now() - start < 990ms;
    }));
    EXPECT_EQ(tags.front(), 2);
    EXPECT_EQ(tags[61], 63);
    EXPECT_EQ(tags[62], 0);
    EXPECT_EQ(tags[63], 2) << "1 rests";
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(completion, half_of_the_tags_rest_at_most) {
    std::vector<int> tags;
    EXPECT_TRUE(wait_until([&] {
        use_range(1, 65);
        const auto start = steady_clock::now();
        get_and_rest(65);
        tags = get_and_release(34);
        return steady_clock::now() - start < 990ms;
    }));
    EXPECT_EQ(tags.front(), 34) << "2 to 33 rest";
    EXPECT_EQ(tags[31], 65);
    EXPECT_EQ(tags[32], 1);
    EXPECT_EQ(tags[33], 34);
}

TEST_F(completion, a_tag_rests_for_a_second) {
    use_range(0, 63);
    const auto start = steady_clock::now();
    const std::vector<int> rested = get_and_rest(1);
    EXPECT_TRUE(wait_until([&] { return get_and_release(1) == rested; }));
    EXPECT_GE(steady_clock::now() - start, 999ms) << "but for parts of a millisecond";
}

TEST_F(completion, a_resting_tag_is_used_when_no_other_is_left) {
    use_range(0, 63);
    const std::vector<int> rested = get_and_rest(1);
    for (int n = 0; n < 63; n++)
        EXPECT_NE(get(), -1);
    EXPECT_EQ(get(), rested.front());
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(get(), -1) << "its new owner has it alone";
}

TEST_F(completion, a_late_answer_to_a_resting_tag_is_ignored_silently) {
    use_range(5, 5);
    ASSERT_EQ(get(), 5);
    _qnm_set_comp_recv_wait(5, k_mac, 0);
    _qnm_rest_tag(5);
    EXPECT_EQ(_qnm_recv_comp(5, 0, k_mac, 1), 0);
    EXPECT_EQ(value_of(5, 1), ENOENT);
    EXPECT_EQ(signals(), 0U);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(completion, tags_outside_the_range_are_refused_by_every_call) {
    struct row {
        const char* name;
        int result;
        int (*call)(int tag);
    };
    const row rows[] = {
        {"_qnm_release_tag", 0, _qnm_release_tag},
        {"_qnm_rest_tag", 0, _qnm_rest_tag},
        {"_qnm_set_comp_recv_wait", 0,
         [](int tag) {
             _qnm_set_comp_recv_wait(tag, k_mac, 0);
             return 0;
         }},
        {"_qnm_sigwait_comp", EPROTO, [](int tag) { return _qnm_sigwait_comp(tag, k_long); }},
        {"_qnm_recv_comp", 0, [](int tag) { return _qnm_recv_comp(tag, 0, k_mac, 1); }},
        {"_qnm_get_readreg", EPROTO, [](int tag) { return value_of(tag, 1); }},
        {"_qnm_get_readreg", EPROTO, [](int tag) { return _qnm_get_readreg(tag, nullptr); }},
    };
    use_range(10, 20);
    for (const row& it : rows) {
        for (const int tag : {-1, 0, 9, 21, 255, 256}) {
            logs.clear();
            _qnm_paced_init();  // each of them is the first
            EXPECT_EQ(it.call(tag), it.result) << it.name;
            const std::string line =
                std::string(it.name) + ": Invalid tag. tag=" + std::to_string(tag);
            EXPECT_TRUE(logs.has(k_warn, line)) << line;
            EXPECT_EQ(logs.lines().size(), 1U) << line;
        }
    }
    logs.clear();
    for (const int tag : {10, 20}) {
        _qnm_set_comp_recv_wait(tag, k_mac, 0);
        EXPECT_EQ(_qnm_recv_comp(tag, 0, k_mac, 3), 0);
        EXPECT_EQ(_qnm_sigwait_comp(tag, k_long), 0);
        EXPECT_EQ(value_of(tag, 3), 0);
        EXPECT_EQ(_qnm_release_tag(tag), 0);
    }
    EXPECT_TRUE(logs.lines().empty());
}

// ---- Matching -----------------------------------------------------------------------------------

TEST_F(completion, the_awaited_answer_is_accepted_and_can_be_fetched_again) {
    _qnm_set_comp_recv_wait(7, k_mac, 1);
    EXPECT_EQ(value_of(7, 0x12345678), ENOENT);
    EXPECT_EQ(_qnm_recv_comp(7, 1, k_mac, 0x12345678), 0);
    EXPECT_EQ(signals(), 1U);
    EXPECT_EQ(value_of(7, 0x12345678), 0);
    EXPECT_EQ(value_of(7, 0x12345678), 0);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(completion, the_value_needs_a_place_to_be_stored) {
    _qnm_set_comp_recv_wait(7, k_mac, 1);
    _qnm_recv_comp(7, 1, k_mac, 1);
    EXPECT_EQ(_qnm_get_readreg(7, nullptr), EPROTO);
    EXPECT_TRUE(logs.has(k_warn, "_qnm_get_readreg: Invalid parameter. data is NULL."));
}

TEST_F(completion, an_answer_that_is_not_awaited_is_ignored_silently) {
    EXPECT_EQ(value_of(7, 1), ENOENT);
    EXPECT_EQ(_qnm_recv_comp(7, 0, k_mac, 1), 0) << "never armed";
    EXPECT_EQ(value_of(7, 1), ENOENT);
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_recv_comp(7, 0, k_mac, 1);
    EXPECT_EQ(_qnm_recv_comp(7, 0, k_mac, 2), 0) << "answered already";
    EXPECT_EQ(_qnm_recv_comp(7, 1, k_mac + 1, 2), 0);
    EXPECT_EQ(value_of(7, 1), 0);
    _qnm_set_comp_recv_wait(8, k_mac, 0);
    _qnm_release_tag(8);
    EXPECT_EQ(_qnm_recv_comp(8, 0, k_mac, 1), 0) << "released";
    EXPECT_EQ(value_of(8, 1), ENOENT);
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_EQ(signals(), 1U);
}

constexpr char k_wrong_port[] =
    "_qnm_recv_comp: Completion frame is received from the port which isn't used by sending "
    "Register Read frame.";
constexpr char k_wrong_mac[] =
    "_qnm_recv_comp: The MAC address which isn't used by sending Register Read frame received set "
    "Completion frame.";

TEST_F(completion, an_answer_by_the_other_port_or_from_another_card_is_traced_and_ignored) {
    const struct {
        int port;
        uint64_t mac;
        const char* line;
    } rows[] = {{0, k_mac, k_wrong_port},
                {1, k_mac - 1, k_wrong_mac},
                {1, k_mac | 1ULL << 47, k_wrong_mac},
                {0, k_mac - 1, k_wrong_port}};
    _qnm_set_comp_recv_wait(7, k_mac, 1);
    for (const auto& row : rows) {
        logs.clear();
        EXPECT_EQ(_qnm_recv_comp(7, row.port, row.mac, 1), 0);
        EXPECT_THAT(logs.texts("logfile", k_trace), ElementsAre(row.line));
        EXPECT_EQ(logs.lines().size(), 1U);
        EXPECT_EQ(value_of(7, 1), ENOENT);
    }
    EXPECT_EQ(signals(), 0U);
    EXPECT_EQ(_qnm_sigwait_comp(7, 1), ETIMEDOUT);
    _qnm_recv_comp(7, 1, k_mac, 2);
    EXPECT_EQ(value_of(7, 2), 0) << "the right one still comes through";
}

TEST_F(completion, arming_again_moves_the_wait_to_the_new_path) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_set_comp_recv_wait(7, k_mac + 2, 1);
    _qnm_recv_comp(7, 0, k_mac, 1);
    EXPECT_THAT(logs.texts(), ElementsAre(k_wrong_port));
    EXPECT_EQ(value_of(7, 1), ENOENT);
    _qnm_recv_comp(7, 1, k_mac + 2, 2);
    EXPECT_EQ(value_of(7, 2), 0);
}

TEST_F(completion, arming_again_keeps_an_accepted_answer) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_recv_comp(7, 0, k_mac, 1);
    _qnm_set_comp_recv_wait(7, k_mac + 2, 1);
    EXPECT_EQ(value_of(7, 1), 0);
    EXPECT_EQ(_qnm_sigwait_comp(7, k_long), 0);
    _qnm_recv_comp(7, 1, k_mac + 2, 2);
    EXPECT_EQ(value_of(7, 1), 0);
}

TEST_F(completion, tags_do_not_meet) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_set_comp_recv_wait(8, k_mac, 0);
    _qnm_recv_comp(8, 0, k_mac, 8);
    EXPECT_EQ(value_of(7, 8), ENOENT);
    EXPECT_EQ(value_of(8, 8), 0);
    _qnm_release_tag(8);
    _qnm_recv_comp(7, 0, k_mac, 7);
    EXPECT_EQ(value_of(7, 7), 0);
}

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(completion, a_wait_ends_with_the_answer) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    int result = -1;
    std::thread reader([&] { result = _qnm_sigwait_comp(7, k_long); });
    EXPECT_TRUE(wait_until([] { return waits() == 1; }));
    EXPECT_EQ(_qnm_recv_comp(7, 0, k_mac, 1), 0);
    reader.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(value_of(7, 1), 0);
}

TEST_F(completion, an_answer_before_the_wait_is_found_without_sleeping) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_recv_comp(7, 0, k_mac, 1);
    EXPECT_EQ(_qnm_sigwait_comp(7, k_long), 0);
    EXPECT_EQ(waits(), 0U);
}

TEST_F(completion, a_wait_without_an_answer_lasts_for_its_limit) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    const auto before = steady_clock::now();
    EXPECT_EQ(_qnm_sigwait_comp(7, 50), ETIMEDOUT);
    EXPECT_GE(steady_clock::now() - before, 50ms);
    EXPECT_EQ(waits(), 1U);
}

TEST_F(completion, a_wake_up_without_an_answer_ends_no_wait) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    fail::on(fail::call::pthread_cond_timedwait,
             [](uint64_t number) { return number < 4 ? fail::done : fail::outcome(ETIMEDOUT); });
    EXPECT_EQ(_qnm_sigwait_comp(7, k_long), ETIMEDOUT);
    EXPECT_EQ(waits(), 4U);
}

TEST_F(completion, a_wait_that_fails_is_an_internal_error) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    for (const fail::call call : {fail::call::pthread_cond_timedwait, fail::call::clock_gettime,
                                  fail::call::pthread_mutex_lock}) {
        fail::nth(call, 1, EINVAL);
        EXPECT_EQ(_qnm_sigwait_comp(7, k_long), EPROTO);
    }
}

// The receive thread has accepted an answer and is about to signal it. Meanwhile the reader finds
// the answer and gives the tag back, and another reader waits with the same tag.
TEST_F(completion, a_signal_for_the_tag_s_last_owner_ends_no_wait) {
    use_range(5, 5);
    ASSERT_EQ(get(), 5);
    _qnm_set_comp_recv_wait(5, k_mac, 0);
    std::atomic<bool> about_to_signal = false;
    std::atomic<bool> may_signal = false;
    g_before_signal = [&] {
        about_to_signal = true;
        EXPECT_TRUE(wait_until([&] { return may_signal.load(); }));
    };
    std::thread receiver([] { _qnm_recv_comp(5, 0, k_mac, 1); });
    EXPECT_TRUE(wait_until([&] { return about_to_signal.load(); }));
    EXPECT_EQ(_qnm_sigwait_comp(5, k_long), 0);
    EXPECT_EQ(value_of(5, 1), 0);
    EXPECT_EQ(_qnm_release_tag(5), 0);

    ASSERT_EQ(get(), 5);
    _qnm_set_comp_recv_wait(5, k_mac, 0);
    std::atomic<int> result = -1;
    std::thread reader([&] { result = _qnm_sigwait_comp(5, k_long); });
    EXPECT_TRUE(wait_until([] { return waits() == 1; }));
    may_signal = true;
    receiver.join();
    EXPECT_TRUE(wait_until([&] { return waits() == 2 || result != -1; }));
    EXPECT_EQ(result, -1) << "woken for good by a signal that was not meant for it";
    _qnm_recv_comp(5, 0, k_mac, 2);
    reader.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(value_of(5, 2), 0);
}

// A round fails if the answer is lost between the reader's check and its sleep.
TEST_F(completion, no_answer_slips_past_a_reader) {
    constexpr uint32_t k_rounds = 5000;
    std::atomic<uint32_t> armed = 0;
    std::atomic<bool> over = false;
    std::thread receiver([&] {
        for (uint32_t n = 1; n <= k_rounds; n++) {
            while (armed < n && !over)
                std::this_thread::yield();
            _qnm_recv_comp(7, 0, k_mac, n);
        }
    });
    for (uint32_t n = 1; n <= k_rounds; n++) {
        _qnm_set_comp_recv_wait(7, k_mac, 0);
        armed = n;
        const int err = _qnm_sigwait_comp(7, 60000);
        if (err != 0 || value_of(7, n) != 0) {
            ADD_FAILURE() << "round " << n << ", err " << err;
            break;
        }
        _qnm_release_tag(7);
    }
    over = true;
    receiver.join();
}

// ---- The stop -----------------------------------------------------------------------------------

TEST_F(completion, the_stop_wakes_every_wait_and_lets_none_begin) {
    std::vector<std::thread> readers;
    std::atomic<int> woken = 0;
    for (const int tag : {7, 8, 9}) {
        _qnm_set_comp_recv_wait(tag, k_mac, 0);
        readers.emplace_back([&, tag] { woken += _qnm_sigwait_comp(tag, k_long) == 0 ? 1 : 0; });
    }
    EXPECT_TRUE(wait_until([] { return waits() == 3; }));
    _qnm_cmp_wake();
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(woken, 3);
    EXPECT_EQ(value_of(7, 0), ENOENT);
    _qnm_set_comp_recv_wait(10, k_mac, 0);
    EXPECT_EQ(_qnm_sigwait_comp(10, k_long), 0);
    EXPECT_EQ(waits(), 3U);
    use_range(1, 20);
    _qnm_set_comp_recv_wait(10, k_mac, 0);
    EXPECT_EQ(_qnm_sigwait_comp(10, 1), ETIMEDOUT) << "after a new start waits last again";
}

TEST_F(completion, fini_signals_the_tags_that_wait_and_no_others) {
    _qnm_set_comp_recv_wait(7, k_mac, 0);
    _qnm_set_comp_recv_wait(9, k_mac, 0);
    _qnm_set_comp_recv_wait(8, k_mac, 0);
    _qnm_recv_comp(8, 0, k_mac, 1);
    fail::reset();
    uint64_t destroyed_before = 1;
    g_before_signal = [&] { destroyed_before = fail::count(fail::call::pthread_cond_destroy); };
    EXPECT_EQ(_qnm_cmp_fini(), 0);
    EXPECT_EQ(signals(), 2U);
    EXPECT_EQ(destroyed_before, 0U) << "woken before the events go";
    EXPECT_EQ(_qnm_cmp_init(), 0);
}

// ---- Locking ------------------------------------------------------------------------------------

TEST_F(completion, every_step_takes_the_lock_once_and_no_wait_or_signal_holds_it) {
    fail::on(fail::call::pthread_cond_timedwait, [](uint64_t) {
        EXPECT_EQ(g_held, 0) << "waiting with the lock held";
        return fail::outcome(ETIMEDOUT);
    });
    const auto locks_in = [](auto&& step) {
        const int before = g_taken;
        step();
        return g_taken - before;
    };
    int tag = -1;
    uint32_t value = 0;
    EXPECT_EQ(locks_in([&] { _qnm_get_tag(&tag); }), 1);
    EXPECT_EQ(locks_in([&] { _qnm_set_comp_recv_wait(tag, k_mac, 0); }), 1);
    EXPECT_EQ(_qnm_sigwait_comp(tag, k_long), ETIMEDOUT);
    EXPECT_EQ(waits(), 1U);
    EXPECT_EQ(locks_in([&] { _qnm_recv_comp(tag, 0, k_mac, 1); }), 1);
    EXPECT_EQ(signals(), 1U);
    EXPECT_EQ(locks_in([&] { _qnm_get_readreg(tag, &value); }), 1);
    EXPECT_EQ(locks_in([&] { _qnm_release_tag(tag); }), 1);
    EXPECT_EQ(locks_in([&] { _qnm_rest_tag(tag); }), 1);
}

TEST_F(completion, no_two_threads_own_one_tag) {
    use_range(1, 3);
    constexpr int k_rounds = 3000;
    std::atomic<int> owners[4] = {};
    std::atomic<int> clashes = 0;
    std::vector<std::thread> threads;
    for (int n = 0; n < 3; n++) {
        threads.emplace_back([&] {
            for (int i = 0; i < k_rounds; i++) {
                const int tag = get();
                if (tag == -1 || ++owners[tag] != 1) {
                    clashes++;
                    continue;
                }
                owners[tag]--;
                _qnm_release_tag(tag);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(clashes, 0);
}

TEST_F(completion, a_flood_of_invalid_tags_costs_one_line_a_second) {
    use_range(10, 20);
    logs.clear();
    _qnm_paced_init();
    for (int n = 0; n < 1000; n++)
        EXPECT_EQ(_qnm_recv_comp(21, 0, k_mac, 1), 0);
    EXPECT_EQ(logs.count(k_warn, "_qnm_recv_comp: Invalid tag. tag=21"), 1U);
    _qnm_paced_fini();
    uint64_t told = 1;
    for (const std::string& text : logs.texts("logfile", k_warn)) {
        if (text.ends_with(": Invalid tag.")) told += std::stoull(text.substr(16));
    }
    EXPECT_EQ(told, 1000U);
}

}  // namespace
