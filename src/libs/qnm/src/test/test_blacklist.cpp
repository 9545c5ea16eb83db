// test_blacklist.cpp - stopping and restarting the monitoring of card IDs.

#include <cerrno>

#include "units.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t k_id = 0x001122334454;

extern "C" int __real__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node);
extern "C" int __real__qnm_mutex_init_st(qnm_mutex_t* mutex);

int g_put_result = 0;
int g_mutex_result = 0;

extern "C" int __wrap__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    return g_put_result != 0 ? g_put_result : __real__qnm_rbtree_put(tree, node);
}

extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t* mutex) {
    return g_mutex_result != 0 ? g_mutex_result : __real__qnm_mutex_init_st(mutex);
}

struct blacklist : units {
    static uint32_t is_listed(uint64_t id) {
        const qnm::blacklist_guard lock;
        uint32_t state = 2;
        EXPECT_EQ(_qnm_get_monitor_state(id, &state), 0);
        return state;
    }

    template <typename Kind>
    static void add_card(uint64_t id) {
        typename Kind::record card = {};
        (card.*Kind::com_dev).ecd_id = id;
        const qnm::table_guard lock;
        ASSERT_EQ(Kind::set(id, &card, QNM_WATCH, 7, QNM_VALID_ALL), 0);
    }

    template <typename Kind>
    static std::pair<uint32_t, uint32_t> state_of(uint64_t id) {
        const qnm::table_guard lock;
        std::pair<uint32_t, uint32_t> state = {99, 99};
        Kind::get(id, nullptr, &state.first, &state.second,
                  QNM_VALID_IGNORE_STATE | QNM_VALID_CHECK_COUNT);
        return state;
    }
};

TEST_F(blacklist, stopping_twice_succeeds_and_lists_the_id_once) {
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_EQ(is_listed(k_id), 1U);
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_TRUE(logs.has(k_trace,
                         "qnm_stop_monitor: The ID already exist in black list. "
                         "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_bl_node_al, 2U);
    EXPECT_EQ(qnm_stats.est_bl_node_fr, 1U);
    EXPECT_EQ(logs.count(k_info, "qnm_stop_monitor: (IN) id=0x001122334454"), 2U);
    EXPECT_EQ(logs.count(k_info, "qnm_stop_monitor: (OUT) ret=0, id=0x001122334454"), 2U);
    expect_counted(QNM_STATS_STOP_MONITOR, QNM_API_SUCCESS, 2);
}

TEST_F(blacklist, stop_and_restart_move_cards_of_both_kinds) {
    add_card<qnm::qnsv_kind>(k_id);
    add_card<qnm::qnio_kind>(k_id);
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id), std::pair(uint32_t{QNM_IGNORE}, 7U));
    EXPECT_EQ(state_of<qnm::qnio_kind>(k_id), std::pair(uint32_t{QNM_IGNORE}, 7U));
    EXPECT_EQ(qnm_restart_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_EQ(is_listed(k_id), 0U);
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id), std::pair(uint32_t{QNM_WATCH_RESTART}, 0U));
    EXPECT_EQ(state_of<qnm::qnio_kind>(k_id), std::pair(uint32_t{QNM_WATCH_RESTART}, 0U));
    EXPECT_EQ(qnm_stats.est_bl_node_fr, 1U);
}

TEST_F(blacklist, an_id_that_is_listed_already_still_sets_the_card_to_ignore) {
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    add_card<qnm::qnsv_kind>(k_id);
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id).first, uint32_t{QNM_IGNORE});
}

TEST_F(blacklist, restarting_an_id_that_was_never_stopped_succeeds_and_restarts_its_card) {
    add_card<qnm::qnsv_kind>(k_id);
    EXPECT_EQ(qnm_restart_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_TRUE(logs.has(k_trace,
                         "qnm_restart_monitor: The ID don't exist in black list. "
                         "id=0x001122334454"));
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id), std::pair(uint32_t{QNM_WATCH_RESTART}, 0U));
    EXPECT_TRUE(logs.has(k_info, "qnm_restart_monitor: (IN) id=0x001122334454"));
    EXPECT_TRUE(logs.has(k_info, "qnm_restart_monitor: (OUT) ret=0, id=0x001122334454"));
    expect_counted(QNM_STATS_RESTART_MONITOR, QNM_API_SUCCESS);
}

TEST_F(blacklist, no_memory_leaves_everything_as_it_was) {
    add_card<qnm::qnsv_kind>(k_id);
    alloc::fail_nth(1);
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_ENOMEM);
    EXPECT_TRUE(logs.has(k_error, "qnm_stop_monitor: can't alloc memory for qnm_bl_node_t."));
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(is_listed(k_id), 0U);
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id).first, uint32_t{QNM_WATCH});
}

TEST_F(blacklist, another_insert_error_does_not_touch_the_tables) {
    add_card<qnm::qnsv_kind>(k_id);
    g_put_result = EINVAL;
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_EPROTO);
    g_put_result = 0;
    EXPECT_TRUE(logs.has(k_error,
                         "qnm_stop_monitor: Failed to _qnm_rbtree_put(). err=22, "
                         "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_bl_node_fr, 1U);
    EXPECT_EQ(state_of<qnm::qnsv_kind>(k_id).first, uint32_t{QNM_WATCH});
}

TEST_F(blacklist, both_locks_are_taken_table_first) {
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    const std::vector<std::string> traces = logs.texts("logfile", k_trace);
    ASSERT_GE(traces.size(), 4U);
    EXPECT_EQ(traces.front(), "_qnm_qn_lock: qn lock");
    EXPECT_EQ(traces[1], "_qnm_lock_blacklist: blacklist lock");
    EXPECT_EQ(traces[traces.size() - 2], "_qnm_unlock_blacklist: blacklist unlock");
    EXPECT_EQ(traces.back(), "_qnm_qn_unlock: qn unlock");
}

TEST_F(blacklist, an_unusable_manager_refuses_before_anything_is_allocated) {
    set_flags(1, 1, 1);
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_ENOSYS);
    EXPECT_EQ(qnm_restart_monitor(k_id), QNM_API_ENOSYS);
    EXPECT_EQ(qnm_stats.est_bl_node_al, 0U);
    expect_counted(QNM_STATS_STOP_MONITOR, QNM_API_ENOSYS);
    expect_counted(QNM_STATS_RESTART_MONITOR, QNM_API_ENOSYS);
}

TEST_F(blacklist, the_list_is_printed_in_ascending_order) {
    _qnm_bl_stats_print();
    EXPECT_THAT(logs.texts("statslogfile"),
                ElementsAre("  - Black list ids", "    no entry.", " "));
    logs.clear();
    for (const uint64_t id : {3, 1, 2})
        EXPECT_EQ(qnm_stop_monitor(id), QNM_API_SUCCESS);
    _qnm_bl_stats_print();
    EXPECT_THAT(logs.texts("statslogfile"),
                ElementsAre("  - Black list ids", "    0x000000000001", "    0x000000000002",
                            "    0x000000000003", " "));
}

TEST_F(blacklist, fini_frees_every_node) {
    EXPECT_EQ(qnm_stop_monitor(k_id), QNM_API_SUCCESS);
    EXPECT_EQ(qnm_stop_monitor(k_id + 2), QNM_API_SUCCESS);
    logs.clear();
    EXPECT_EQ(_qnm_blacklist_fini(), 0);
    EXPECT_EQ(qnm_stats.est_bl_node_fr, 2U);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("_qnm_blacklist_fini: start.", "_qnm_blacklist_fini: end."));
    EXPECT_EQ(is_listed(k_id), 0U);
}

TEST_F(blacklist, init_reports_a_mutex_that_cannot_be_made) {
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_blacklist_init(), EPROTO);
    g_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_error, "_qnm_blacklist_init: Failed to _qnm_mutex_init_st()"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_blacklist_init: end. ret=71"));
}

}  // namespace
