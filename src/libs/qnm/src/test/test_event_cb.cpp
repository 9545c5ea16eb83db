// test_event_cb.cpp - the event queue, the event thread and the callback tables.

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <thread>

#include "qnm_limits.h"
#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t k_id = 0x001122334454;

extern "C" int __real__qnm_mutex_init(qnm_mutex_t* mutex);
extern "C" int __real__qnm_mutex_init_st(qnm_mutex_t* mutex);

int g_failing_mutex = -1;  // number of the _qnm_mutex_init() that fails
int g_static_mutex_result = 0;

extern "C" int __wrap__qnm_mutex_init(qnm_mutex_t* mutex) {
    if (g_failing_mutex >= 0 && g_failing_mutex-- == 0) return EAGAIN;
    return __real__qnm_mutex_init(mutex);
}

extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t* mutex) {
    return g_static_mutex_result != 0 ? g_static_mutex_result : __real__qnm_mutex_init_st(mutex);
}

struct call {
    std::string callback;
    uint64_t id;
    qnm_evt_type_t type;
    bool operator==(const call&) const = default;
};

// A callback that does something and notes, under a name, when it has run.
struct listener {
    std::string name;
    std::vector<call>* calls;
    std::function<void()> act = [] {};
};

std::mutex g_calls_mutex;

void note(uint64_t id, qnm_evt_type_t type, void* arg) {
    auto* const it = static_cast<listener*>(arg);
    it->act();
    const std::lock_guard lock(g_calls_mutex);
    it->calls->push_back({it->name, id, type});
}

struct event_cb : units {
    std::vector<call> calls;
    std::thread task;

    ~event_cb() override { stop(); }

    void start() { task = std::thread(_qnm_event_task, nullptr); }

    void stop() {
        if (!task.joinable()) return;
        qnm::store(qnm_root.er_fini_flag, 0U);
        task.join();
        set_running();
    }

    std::vector<call> calls_so_far() {
        const std::lock_guard lock(g_calls_mutex);
        return calls;
    }

    bool wait_calls(size_t count) {
        return wait_until([&] { return calls_so_far().size() >= count; });
    }

    static qnm_cbid_t add(qnm_evt_type_t type, listener& it) {
        qnm_cbid_t id = nullptr;
        EXPECT_EQ(qnm_register_callback(type, note, &it, &id), QNM_API_SUCCESS);
        EXPECT_NE(id, nullptr);
        return id;
    }
};

TEST_F(event_cb, wrong_arguments_are_refused) {
    qnm_cbid_t id = nullptr;
    for (const int type : {6, -1}) {
        EXPECT_EQ(qnm_register_callback(static_cast<qnm_evt_type_t>(type), note, nullptr, &id),
                  QNM_API_EINVAL);
    }
    EXPECT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, nullptr, nullptr, &id), QNM_API_EINVAL);
    EXPECT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, note, nullptr, nullptr), QNM_API_EINVAL);
    EXPECT_EQ(id, nullptr);
    EXPECT_TRUE(logs.has(k_info, "qnm_register_callback: (IN) type=-1"));
    EXPECT_TRUE(logs.has(k_info, "qnm_register_callback: (OUT) ret=1, type=-1"));
    EXPECT_EQ(qnm_unregister_callback(nullptr), QNM_API_EINVAL);
    EXPECT_TRUE(logs.has(k_info, "qnm_unregister_callback: (OUT) ret=1"));
    expect_counted(QNM_STATS_REGISTER_CALLBACK, QNM_API_EINVAL, 4);
    expect_counted(QNM_STATS_UNREGISTER_CALLBACK, QNM_API_EINVAL);
}

TEST_F(event_cb, an_unusable_manager_refuses) {
    qnm_cbid_t id = nullptr;
    for (const auto& [init, fini] : {std::pair{1U, 1U}, {0U, 0U}}) {
        set_flags(init, 1, fini);
        EXPECT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, note, nullptr, &id), QNM_API_ENOSYS);
        EXPECT_EQ(qnm_unregister_callback(nullptr), QNM_API_ENOSYS);
    }
    expect_counted(QNM_STATS_REGISTER_CALLBACK, QNM_API_ENOSYS, 2);
    expect_counted(QNM_STATS_UNREGISTER_CALLBACK, QNM_API_ENOSYS, 2);
}

TEST_F(event_cb, registration_logs_the_handle_and_counts_the_record) {
    listener one = {"one", &calls};
    const qnm_cbid_t id = add(QNM_EVT_PATHSTATECHANGE, one);
    char line[128];
    snprintf(line, sizeof line, "qnm_register_callback: (OUT) ret=0, type=4, cbid=%p",
             static_cast<void*>(id));
    EXPECT_TRUE(logs.has(k_info, line));
    EXPECT_EQ(qnm_stats.est_cbinfo_al, 1U);
    EXPECT_EQ(qnm_unregister_callback(id), QNM_API_SUCCESS);
    snprintf(line, sizeof line, "qnm_unregister_callback: (IN) cbid=%p", static_cast<void*>(id));
    EXPECT_TRUE(logs.has(k_info, line));
    EXPECT_TRUE(logs.has(k_info, "qnm_unregister_callback: (OUT) ret=0"));
    EXPECT_EQ(qnm_stats.est_cbinfo_fr, 1U);
}

TEST_F(event_cb, a_handle_that_is_not_listed_is_refused) {
    listener one = {"one", &calls};
    add(QNM_EVT_NEWDEVINFO, one);
    // A record of the right shape that nobody registered.
    alignas(8) unsigned char stranger[64] = {};
    EXPECT_EQ(qnm_unregister_callback(reinterpret_cast<qnm_cbid_t>(stranger)), QNM_API_EINVAL);
}

// A host may keep its handles over a restart; the records behind them are gone then.
TEST_F(event_cb, a_handle_from_before_a_restart_is_refused) {
    listener one = {"one", &calls};
    const qnm_cbid_t old = add(QNM_EVT_NEWDEVINFO, one);
    EXPECT_EQ(_qnm_event_cb_fini(), 0);
    EXPECT_EQ(_qnm_event_cb_init(), 0);
    EXPECT_EQ(qnm_unregister_callback(old), QNM_API_EINVAL);
    EXPECT_EQ(qnm_stats.est_cbinfo_fr, 1U);
}

TEST_F(event_cb, a_handle_that_has_been_given_back_is_refused) {
    listener one = {"one", &calls};
    const qnm_cbid_t gone = add(QNM_EVT_NEWDEVINFO, one);
    EXPECT_EQ(qnm_unregister_callback(gone), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_unregister_callback(gone), QNM_API_EINVAL);
}

TEST_F(event_cb, a_handle_that_points_nowhere_is_refused) {
    EXPECT_EQ(qnm_unregister_callback(reinterpret_cast<qnm_cbid_t>(uintptr_t{8})), QNM_API_EINVAL);
}

// Whatever type the handle was for: a callback that is running may never return.
TEST_F(event_cb, an_unknown_handle_waits_for_no_callback) {
    listener other = {"other", &calls};
    listener one = {"one", &calls};
    std::vector<qnm_cbid_t> unknown = {reinterpret_cast<qnm_cbid_t>(uintptr_t{8})};
    for (int type = 0; type < QNM_EVT_MAX; type++) {
        unknown.push_back(add(static_cast<qnm_evt_type_t>(type), other));
        EXPECT_EQ(qnm_unregister_callback(unknown.back()), QNM_API_SUCCESS);
    }
    std::atomic<int> tried = 0;  // a stop meanwhile would be the answer
    one.act = [&] {
        std::thread elsewhere([&] {
            for (const qnm_cbid_t id : unknown)
                EXPECT_EQ(qnm_unregister_callback(id), QNM_API_EINVAL);
        });
        elsewhere.join();
        tried++;
    };
    for (int type = 0; type < QNM_EVT_MAX; type++) {
        // The new record may lie at the address of one that was freed.
        std::erase(unknown, add(static_cast<qnm_evt_type_t>(type), one));
    }
    start();
    for (int type = 0; type < QNM_EVT_MAX; type++)
        EXPECT_EQ(_qnm_add_event(static_cast<qnm_evt_type_t>(type), k_id), 0);
    EXPECT_TRUE(wait_until([&] { return tried == QNM_EVT_MAX; }));
    stop();
}

TEST_F(event_cb, threads_register_and_unregister_for_all_types_at_once) {
    listener one = {"one", &calls};
    const auto work = [&] {
        for (int n = 0; n < 2000; n++) {
            const qnm_cbid_t id = add(static_cast<qnm_evt_type_t>(n % QNM_EVT_MAX), one);
            EXPECT_EQ(qnm_unregister_callback(id), QNM_API_SUCCESS);
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    EXPECT_EQ(qnm_stats.est_cbinfo_al, 4000U);
    EXPECT_EQ(qnm_stats.est_cbinfo_fr, 4000U);
}

TEST_F(event_cb, no_memory_for_a_registration_registers_nothing) {
    qnm_cbid_t id = nullptr;
    alloc::fail_nth(1);
    EXPECT_EQ(qnm_register_callback(QNM_EVT_NEWDEVINFO, note, nullptr, &id), QNM_API_ENOMEM);
    EXPECT_EQ(id, nullptr);
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_TRUE(logs.has(k_error, "_cbinfo_create: can't alloc memory for qnm_cbinfo_t"));
    EXPECT_TRUE(logs.has(k_error, "qnm_register_callback: Failed to _cbinfo_create()."));
}

TEST_F(event_cb, no_memory_for_an_event_loses_it_with_a_warning) {
    alloc::fail_nth(1);
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), ENOMEM);
    EXPECT_TRUE(logs.has(k_error, "_evt_node_create: can't alloc memory for qnm_evt_node_t"));
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_NEWDEVINFO], 0U);
    for (int type = 0; type < QNM_EVT_MAX; type++) {
        alloc::fail_nth(1);
        _qnm_raise_event("_producer", static_cast<qnm_evt_type_t>(type), k_id);
    }
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_producer: Failed to _qnm_add_event(QNM_EVT_NEWDEVINFO) "
                            "id=0x001122334454",
                            "_producer: Failed to _qnm_add_event(QNM_EVT_UPDATEDEVINFO) "
                            "id=0x001122334454",
                            "_producer: Failed to _qnm_add_event(QNM_EVT_CONNECTIONCHANGE) "
                            "id=0x001122334454",
                            "_producer: Failed to _qnm_add_event(QNM_EVT_MAJORMINORERROR) "
                            "id=0x001122334454",
                            "_producer: Failed to _qnm_add_event(QNM_EVT_PATHSTATECHANGE) "
                            "id=0x001122334454",
                            "_producer: Failed to _qnm_add_event(QNM_EVT_CHANNELSTATECHANGE) "
                            "id=0x001122334454"));
}

TEST_F(event_cb, events_beyond_the_ceiling_are_dropped_and_told_once_a_second) {
    qnm::store(g_log_level, QNM_LOGLVL_WARN);
    for (uint32_t n = 0; n < qnm::k_events_max; n++)
        ASSERT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), 0);
    _qnm_paced_init();
    EXPECT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), ENOMEM);
    for (int n = 0; n < 100; n++)
        _qnm_raise_event("_producer", QNM_EVT_PATHSTATECHANGE, k_id);
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_UPDATEDEVINFO], qnm::k_events_max);
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_PATHSTATECHANGE], 0U);
    EXPECT_EQ(qnm_stats.est_evt_node_al - qnm_stats.est_evt_node_fr, qnm::k_events_max);
    EXPECT_EQ(qnm_stats.est_alloc_err, 0U);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_qnm_add_event: Too many events are waiting. Drop "
                            "QNM_EVT_UPDATEDEVINFO. max=1000000, id=0x001122334454"));
    logs.clear();
    _qnm_paced_fini();
    ASSERT_EQ(logs.count_level(k_warn), 1U);
    EXPECT_TRUE(logs.texts("logfile", k_warn)[0].starts_with("_producer: 100 more in the last "));
}

TEST_F(event_cb, a_queue_that_was_full_takes_events_again_as_they_are_delivered) {
    qnm::store(g_log_level, QNM_LOGLVL_WARN);
    for (uint32_t n = 0; n < qnm::k_events_max; n++)
        ASSERT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), 0);
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), ENOMEM);
    listener one = {"one", &calls};
    add(QNM_EVT_NEWDEVINFO, one);
    start();
    EXPECT_TRUE(wait_until([] { return _qnm_add_event(QNM_EVT_NEWDEVINFO, k_id) == 0; }));
    EXPECT_TRUE(wait_calls(1));
    stop();
}

TEST_F(event_cb, callbacks_are_called_in_order_of_registration_with_their_own_argument) {
    listener first = {"first", &calls};
    listener second = {"second", &calls};
    add(QNM_EVT_UPDATEDEVINFO, first);
    add(QNM_EVT_UPDATEDEVINFO, second);
    add(QNM_EVT_UPDATEDEVINFO, first);
    start();
    EXPECT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), 0);
    ASSERT_TRUE(wait_calls(3));
    EXPECT_THAT(calls_so_far(), ElementsAre(call{"first", k_id, QNM_EVT_UPDATEDEVINFO},
                                            call{"second", k_id, QNM_EVT_UPDATEDEVINFO},
                                            call{"first", k_id, QNM_EVT_UPDATEDEVINFO}));
    stop();
    EXPECT_EQ(qnm_stats.est_cb_call, 3U);
    EXPECT_EQ(qnm_stats.est_cb_return, 3U);
    EXPECT_EQ(logs.count(k_debug, "_qnm_do_callback: end."), 3U);
    EXPECT_EQ(logs.count_part(k_debug,
                              "_qnm_do_callback: start. id=0x001122334454, event_type=1, "
                              "cb_func="),
              3U);
}

TEST_F(event_cb, events_are_delivered_in_the_order_of_queueing_on_one_thread) {
    listener one = {"one", &calls};
    for (int type = 0; type < QNM_EVT_MAX; type++)
        add(static_cast<qnm_evt_type_t>(type), one);
    std::vector<call> expected;
    for (uint64_t i = 0; i < 600; i++) {
        const auto type = static_cast<qnm_evt_type_t>(i * 5 % QNM_EVT_MAX);
        EXPECT_EQ(_qnm_add_event(type, i), 0);
        expected.push_back({"one", i, type});
    }
    start();
    ASSERT_TRUE(wait_calls(expected.size()));
    EXPECT_EQ(calls_so_far(), expected);
}

TEST_F(event_cb, an_event_for_nobody_is_consumed_and_counted) {
    EXPECT_EQ(_qnm_add_event(QNM_EVT_PATHSTATECHANGE, k_id), 0);
    EXPECT_EQ(qnm_stats.est_evt[QNM_EVT_PATHSTATECHANGE], 1U);
    EXPECT_EQ(qnm_stats.est_evt_node_al, 1U);
    start();
    EXPECT_TRUE(wait_until([] {
        const qnm::mutex_guard lock(qnm_stats_mutex);
        return qnm_stats.est_evt_node_fr == 1;
    }));
    stop();
    EXPECT_EQ(qnm_stats.est_cb_call, 0U);
}

TEST_F(event_cb, an_unregistered_callback_is_not_called_any_more) {
    listener gone = {"gone", &calls};
    listener kept = {"kept", &calls};
    const qnm_cbid_t id = add(QNM_EVT_NEWDEVINFO, gone);
    add(QNM_EVT_NEWDEVINFO, kept);
    EXPECT_EQ(qnm_unregister_callback(id), QNM_API_SUCCESS);
    start();
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), 0);
    ASSERT_TRUE(wait_calls(1));
    EXPECT_THAT(calls_so_far(), ElementsAre(call{"kept", k_id, QNM_EVT_NEWDEVINFO}));
}

TEST_F(event_cb, a_callback_may_register_and_unregister_for_other_types) {
    listener other = {"other", &calls};
    listener one = {"one", &calls, [&] {
                        const qnm_cbid_t id = add(QNM_EVT_NEWDEVINFO, other);
                        EXPECT_EQ(qnm_unregister_callback(id), QNM_API_SUCCESS);
                    }};
    add(QNM_EVT_UPDATEDEVINFO, one);
    start();
    EXPECT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), 0);
    EXPECT_TRUE(wait_calls(1));
}

// An event that is queued while the thread empties the queue signals nobody, so the thread has to
// check the queue before it sleeps.
TEST_F(event_cb, the_thread_never_sleeps_over_a_queued_event) {
    listener second = {"second", &calls};
    listener first = {"first", &calls,
                      [] { EXPECT_EQ(_qnm_add_event(QNM_EVT_UPDATEDEVINFO, k_id), 0); }};
    add(QNM_EVT_NEWDEVINFO, first);
    add(QNM_EVT_UPDATEDEVINFO, second);
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), 0);
    // Queued before the thread exists, so this signal is lost as well.
    fail::on(fail::call::pthread_cond_timedwait, [&](std::uint64_t) {
        EXPECT_EQ(calls_so_far().size(), 2U) << "asleep with events in the queue";
        return fail::pass;
    });
    start();
    EXPECT_TRUE(wait_calls(2));
    stop();
}

TEST_F(event_cb, the_thread_ends_with_the_stop_flag) {
    start();
    stop();
    EXPECT_TRUE(logs.has(k_info, "_qnm_event_task_com: start."));
    EXPECT_TRUE(logs.has(k_info, "_qnm_event_task_com: end."));
    EXPECT_EQ(logs.count_level(k_fatal), 0U);
}

TEST_F(event_cb, a_failed_wait_stops_the_manager) {
    fail::always(fail::call::pthread_cond_timedwait, EINVAL);
    start();
    task.join();
    EXPECT_THAT(logs.texts("logfile", k_fatal),
                ElementsAre("_qnm_event_task_com: Failed to _qnm_event_timedwait(). err=71",
                            "_qnm_fini_manager: LFI will terminate by reason of internal error."));
    EXPECT_EQ(qnm::load(qnm_root.er_fini_flag), 0U);
    EXPECT_EQ(qnm::load(internal_err), EPROTO);
}

TEST_F(event_cb, fini_drops_events_and_registrations) {
    listener one = {"one", &calls};
    add(QNM_EVT_NEWDEVINFO, one);
    add(QNM_EVT_PATHSTATECHANGE, one);
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), 0);
    logs.clear();
    EXPECT_EQ(_qnm_event_cb_fini(), 0);
    EXPECT_EQ(qnm_stats.est_cbinfo_fr, 2U);
    EXPECT_EQ(qnm_stats.est_evt_node_fr, 1U);
    EXPECT_TRUE(calls.empty());
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("_qnm_event_cb_fini: start.", "_qnm_event_cb_fini: end."));
    EXPECT_EQ(_qnm_event_cb_init(), 0);
}

TEST_F(event_cb, init_failures_undo_what_was_made) {
    _qnm_event_cb_fini();
    g_static_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_event_cb_init(), EPROTO);
    g_static_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_error,
                         "_qnm_event_cb_init: Failed to _qnm_mutex_init_st() for qnm_event_queue. "
                         "err=11"));
    fail::nth(fail::call::pthread_condattr_setclock, 1, EINVAL);
    EXPECT_EQ(_qnm_event_cb_init(), EPROTO);
    EXPECT_TRUE(
        logs.has(k_error, "_qnm_event_cb_init: Failed to _qnm_event_init() for event_sig. err=22"));
    const auto destroyed = fail::count(fail::call::pthread_mutex_destroy);
    g_failing_mutex = 4;
    EXPECT_EQ(_qnm_event_cb_init(), EPROTO);
    EXPECT_TRUE(logs.has(k_error,
                         "_qnm_event_cb_init: Failed to _qnm_mutex_init() for cb_evt_tbl. err=11, "
                         "i=4"));
    // The mutexes of entries 0 to 3 and the event's own.
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_destroy), destroyed + 5);
    EXPECT_EQ(logs.count(k_info, "_qnm_event_cb_init: end. ret=71"), 3U);
    EXPECT_EQ(_qnm_event_cb_init(), 0);
    EXPECT_TRUE(logs.has(k_info, "_qnm_event_cb_init: end. ret=0"));
}

}  // namespace
