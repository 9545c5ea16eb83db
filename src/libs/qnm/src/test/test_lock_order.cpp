// test_lock_order.cpp - a thread that takes the library's locks in the wrong order is aborted, and
// both locks are named. This holds in builds that check the order; in others a mutex is a plain
// one.

#include <cerrno>
#include <iterator>
#include <string>
#include <thread>

#include "qnm_completion.h"
#include "qnm_port_lock.h"
#include "units.h"

namespace {

constexpr uint64_t k_id = 0x001122334454;

struct lock_order : units {
    lock_order() {
        // Only the dying thread is checked; fork() copies no other.
        GTEST_FLAG_SET(death_test_style, "fast");
    }
};

using lock_order_death = lock_order;

void ignore_event(uint64_t, qnm_evt_type_t, void*) {}

void take_two(qnm_mutex_t& outer, qnm_mutex_t& inner) {
    const qnm::mutex_guard first(outer);
    const qnm::mutex_guard second(inner);
}

TEST_F(lock_order_death, the_table_after_the_blacklist) {
    EXPECT_DEATH(
        {
            const qnm::blacklist_guard blacklist_lock;
            const qnm::table_guard table_lock;
        },
        "lock order broken: device table taken while blacklist is held");
}

TEST_F(lock_order_death, anything_after_the_statistics) {
    EXPECT_DEATH(take_two(qnm_stats_mutex, qnm_qn.eei_mutex),
                 "device table taken while statistics is held");
    EXPECT_DEATH(
        {
            const qnm::mutex_guard lock(qnm_stats_mutex);
            _qnm_add_event(QNM_EVT_NEWDEVINFO, k_id);
        },
        "statistics taken while statistics is held");
}

TEST_F(lock_order_death, a_cards_write_lock_after_the_table) {
    _qnm_create_reg_lock_node(k_id);
    EXPECT_DEATH(
        {
            const qnm::table_guard lock;
            _qnm_write_reg_lock(k_id);
        },
        "write lock of a card taken while device table is held");
}

TEST_F(lock_order_death, the_write_locks_of_two_cards) {
    _qnm_create_reg_lock_node(k_id);
    _qnm_create_reg_lock_node(k_id + 2);
    EXPECT_DEATH(
        {
            _qnm_write_reg_lock(k_id);
            _qnm_write_reg_lock(k_id + 2);
        },
        "write lock of a card taken while write lock of a card is held");
}

// One lock per level: a lock that has lost its level would pass.

TEST_F(lock_order_death, a_callback_list_after_the_table) {
    qnm_cbid_t id = nullptr;
    EXPECT_DEATH(
        {
            const qnm::table_guard lock;
            qnm_register_callback(QNM_EVT_NEWDEVINFO, ignore_event, nullptr, &id);
        },
        "callback list taken while device table is held");
}

TEST_F(lock_order_death, the_callback_handles_after_the_table) {
    qnm_cbid_t id = nullptr;
    qnm_register_callback(QNM_EVT_NEWDEVINFO, ignore_event, nullptr, &id);
    EXPECT_DEATH(
        {
            const qnm::table_guard lock;
            qnm_unregister_callback(id);
        },
        "callback handles taken while device table is held");
}

TEST_F(lock_order_death, an_event_object_after_the_statistics) {
    qnm_event_t event;
    ASSERT_EQ(_qnm_event_init(&event), 0);
    EXPECT_DEATH(
        {
            const qnm::mutex_guard lock(qnm_stats_mutex);
            _qnm_event_set(&event);
        },
        "event object taken while statistics is held");
    EXPECT_EQ(_qnm_event_destroy(&event), 0);
}

TEST_F(lock_order_death, the_event_queue_after_the_statistics) {
    EXPECT_DEATH(
        {
            const qnm::mutex_guard lock(qnm_stats_mutex);
            _qnm_event_cb_fini();
        },
        "event queue taken while statistics is held");
}

TEST_F(lock_order_death, the_map_of_write_locks_after_the_blacklist) {
    EXPECT_DEATH(
        {
            const qnm::blacklist_guard lock;
            _qnm_create_reg_lock_node(k_id);
        },
        "map of write locks taken while blacklist is held");
}

TEST_F(lock_order_death, the_tags_after_the_table) {
    int tag = 0;
    EXPECT_DEATH(
        {
            const qnm::table_guard lock;
            _qnm_get_tag(&tag);
        },
        "completion tags taken while device table is held");
}

TEST_F(lock_order_death, a_ports_lock_after_the_table) {
    EXPECT_DEATH(
        {
            const qnm::table_guard lock;
            _qnm_port_lock_close(0);
        },
        "port lock taken while device table is held");
}

// Locks of every level, in their order.
struct all_levels {
    qnm_mutex_t callbacks = QNM_MUTEX_OF_LEVEL(QNM_LOCK_CALLBACKS);
    qnm_mutex_t handles = QNM_MUTEX_OF_LEVEL(QNM_LOCK_HANDLES);
    qnm_mutex_t log = QNM_MUTEX_OF_LEVEL(QNM_LOCK_LOG);
    qnm_mutex_t card_write = QNM_MUTEX_OF_LEVEL(QNM_LOCK_CARD_WRITE);
    qnm_mutex_t table = QNM_MUTEX_OF_LEVEL(QNM_LOCK_TABLE);
    qnm_mutex_t blacklist = QNM_MUTEX_OF_LEVEL(QNM_LOCK_BLACKLIST);
    qnm_mutex_t event = QNM_MUTEX_OF_LEVEL(QNM_LOCK_EVENT);
    qnm_mutex_t event_queue = QNM_MUTEX_OF_LEVEL(QNM_LOCK_EVENT_QUEUE);
    qnm_mutex_t write_locks = QNM_MUTEX_OF_LEVEL(QNM_LOCK_WRITE_LOCKS);
    qnm_mutex_t tags = QNM_MUTEX_OF_LEVEL(QNM_LOCK_TAGS);
    qnm_mutex_t port = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PORT);
    qnm_mutex_t paced = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PACED);
    qnm_mutex_t statistics = QNM_MUTEX_OF_LEVEL(QNM_LOCK_STATS);
};

constexpr qnm_mutex_t all_levels::*k_levels[] = {
    &all_levels::callbacks,   &all_levels::handles,   &all_levels::log,   &all_levels::card_write,
    &all_levels::table,       &all_levels::blacklist, &all_levels::event, &all_levels::event_queue,
    &all_levels::write_locks, &all_levels::tags,      &all_levels::port,  &all_levels::paced,
    &all_levels::statistics,
};
static_assert(std::size(k_levels) + 1 == QNM_LOCK_LEVEL_MAX);

TEST_F(lock_order_death, anything_but_counts_after_a_lock_of_single_steps) {
    for (const auto outer : {&all_levels::handles, &all_levels::event_queue,
                             &all_levels::write_locks, &all_levels::tags, &all_levels::port}) {
        for (const auto inner : k_levels) {
            all_levels of;
            if (inner == &all_levels::statistics || inner == &all_levels::paced) {
                take_two(of.*outer, of.*inner);
            } else {
                EXPECT_DEATH(take_two(of.*outer, of.*inner), "lock order broken");
            }
        }
    }
}

TEST_F(lock_order_death, anything_after_the_counts_of_lines) {
    for (const auto inner : k_levels) {
        all_levels of;
        EXPECT_DEATH(take_two(of.paced, of.*inner), "taken while counts of lines is held");
    }
}

TEST_F(lock_order_death, anything_after_the_statistics_of_any_level) {
    for (const auto inner : k_levels) {
        all_levels of;
        EXPECT_DEATH(take_two(of.statistics, of.*inner), "taken while statistics is held");
    }
}

// A lock that may be taken after what a call holds, and no other.
void expect_taken_by_calls_alone(qnm_mutex_t all_levels::*inner, const std::string& name) {
    for (const auto outer : k_levels) {
        all_levels of;
        if (outer == &all_levels::callbacks || outer == &all_levels::card_write) {
            take_two(of.*outer, of.*inner);
        } else {
            EXPECT_DEATH(take_two(of.*outer, of.*inner), name + " taken while");
        }
    }
}

TEST_F(lock_order_death, the_tags_after_anything_but_what_a_call_holds) {
    expect_taken_by_calls_alone(&all_levels::tags, "completion tags");
}

TEST_F(lock_order_death, a_ports_lock_after_anything_but_what_a_call_holds) {
    expect_taken_by_calls_alone(&all_levels::port, "port lock");
}

TEST_F(lock_order_death, the_same_lock_twice) {
    EXPECT_DEATH(take_two(qnm_qn.eei_mutex, qnm_qn.eei_mutex),
                 "device table taken while device table is held");
}

void register_for(uint64_t, qnm_evt_type_t, void* type) {
    qnm_cbid_t id = nullptr;
    qnm_register_callback(*static_cast<qnm_evt_type_t*>(type), register_for, type, &id);
}

// Delivers one event of the type NEWDEVINFO to a callback that registers for another type.
void deliver(qnm_evt_type_t other) {
    qnm_cbid_t id = nullptr;
    qnm_register_callback(QNM_EVT_NEWDEVINFO, register_for, &other, &id);
    _qnm_add_event(QNM_EVT_NEWDEVINFO, k_id);
    std::thread task(_qnm_event_task, nullptr);
    while (qnm::load(qnm_stats.est_cb_return) == 0)
        std::this_thread::yield();
    qnm::store(qnm_root.er_fini_flag, 0U);
    task.join();
    set_running();
}

TEST_F(lock_order_death, a_callback_that_registers_for_its_own_type) {
    EXPECT_DEATH(deliver(QNM_EVT_NEWDEVINFO), "callback list taken while callback list is held");
}

TEST_F(lock_order, a_callback_may_register_for_another_type) {
    deliver(QNM_EVT_UPDATEDEVINFO);
    EXPECT_EQ(qnm_stats.est_cbinfo_al, 2u);
}

TEST_F(lock_order, the_tables_may_be_held_together_when_an_event_is_added) {
    const qnm::table_guard table_lock;
    const qnm::blacklist_guard blacklist_lock;
    EXPECT_EQ(_qnm_add_event(QNM_EVT_NEWDEVINFO, k_id), 0);
}

TEST_F(lock_order, a_card_gets_its_write_lock_with_the_table_held) {
    const qnm::table_guard table_lock;
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
}

TEST_F(lock_order, a_released_lock_binds_nobody) {
    { const qnm::blacklist_guard lock; }
    const qnm::table_guard lock;
}

TEST_F(lock_order, locks_may_be_released_in_any_order) {
    _qnm_mutex_lock(&qnm_qn.eei_mutex);
    _qnm_mutex_lock(&qnm_stats_mutex);
    _qnm_mutex_unlock(&qnm_qn.eei_mutex);
    _qnm_mutex_unlock(&qnm_stats_mutex);
    take_two(qnm_qn.eei_mutex, qnm_stats_mutex);
}

TEST_F(lock_order, a_lock_that_was_not_got_binds_nobody) {
    fail::nth(fail::call::pthread_mutex_lock, 1, EDEADLK);
    EXPECT_EQ(_qnm_mutex_lock(&qnm_stats_mutex), EDEADLK);
    take_two(qnm_qn.eei_mutex, qnm_stats_mutex);
}

TEST_F(lock_order, each_thread_has_an_order_of_its_own) {
    const qnm::mutex_guard lock(qnm_stats_mutex);
    std::thread other([] { const qnm::blacklist_guard blacklist_lock; });
    other.join();
}

}  // namespace
