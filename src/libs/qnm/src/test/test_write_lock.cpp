// test_write_lock.cpp - the per-card write locks.

#include <cerrno>
#include <chrono>
#include <thread>

#include "qnm_limits.h"
#include "qnm_write_lock.h"
#include "registers.h"
#include "units.h"
#include "wait.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint64_t k_id = card_units::k_id;

using write_lock = units;

extern "C" int __real__qnm_mutex_init(qnm_mutex_t* mutex);
extern "C" int __real__qnm_mutex_init_st(qnm_mutex_t* mutex);
extern "C" int __real__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node);

int g_mutex_result = 0;
int g_static_mutex_result = 0;
int g_put_result = 0;

extern "C" int __wrap__qnm_mutex_init(qnm_mutex_t* mutex) {
    return g_mutex_result != 0 ? g_mutex_result : __real__qnm_mutex_init(mutex);
}

extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t* mutex) {
    return g_static_mutex_result != 0 ? g_static_mutex_result : __real__qnm_mutex_init_st(mutex);
}

extern "C" int __wrap__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    return g_put_result != 0 ? g_put_result : __real__qnm_rbtree_put(tree, node);
}

// ---- Start and end of the unit ------------------------------------------------------------------

int g_first_init_result = 0;
std::vector<log_line> g_first_init_lines;

// An init makes the mutex only until it has succeeded once in a process, so the test in which it
// fails comes first.
struct first_init : testing::Environment {
    void SetUp() override {
        const log_capture logs;
        g_static_mutex_result = EAGAIN;
        g_first_init_result = _qnm_reg_init();
        g_static_mutex_result = 0;
        g_first_init_lines = logs.lines();
    }
};

testing::Environment* const g_first_init = testing::AddGlobalTestEnvironment(new first_init);

TEST_F(write_lock, a_mutex_that_cannot_be_made_fails_the_init) {
    EXPECT_EQ(g_first_init_result, EPROTO);
    ASSERT_EQ(g_first_init_lines.size(), 3U);
    EXPECT_EQ(g_first_init_lines[0].text, "_qnm_reg_init: start.");
    EXPECT_EQ(g_first_init_lines[1].text, "_qnm_reg_init: Failed to _qnm_mutex_init_st()");
    EXPECT_EQ(g_first_init_lines[1].level, k_error);
    EXPECT_EQ(g_first_init_lines[2].text, "_qnm_reg_init: end. ret=71");
}

TEST_F(write_lock, a_later_init_says_that_it_is_initialised_already) {
    EXPECT_EQ(_qnm_reg_init(), 0);
    EXPECT_EQ(_qnm_reg_fini(), 0);
    EXPECT_THAT(
        logs.texts("logfile", k_info),
        ElementsAre("_qnm_reg_init: start.",
                    "_qnm_reg_init: qnm_write_reg_lock_mng is already initialized.",
                    "_qnm_reg_init: end. ret=0", "_qnm_reg_fini: start.", "_qnm_reg_fini: end."));
}

TEST_F(write_lock, neither_a_later_init_nor_the_end_of_the_unit_loses_a_lock) {
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(_qnm_reg_fini(), 0);
    EXPECT_EQ(_qnm_reg_init(), 0);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
}

// ---- Write locks --------------------------------------------------------------------------------

TEST_F(write_lock, a_node_is_made_once_per_card) {
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 1U);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
    EXPECT_TRUE(logs.has(k_trace,
                         "_qnm_create_reg_lock_node: Failed to _qnm_rbtree_put(). err=EEXIST, "
                         "id=0x001122334454"));
    EXPECT_EQ(logs.lines().size(), 1U);
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 2U);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_destroy), 1U);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0) << "the first one is still there";
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

// Makes and takes the locks one after the other, each while those before it are held. Each is taken
// on a thread of its own, because a thread holds one at a time.
void take_all(const uint64_t* id, const uint64_t* end) {
    if (id == end) return;
    EXPECT_EQ(_qnm_write_reg_lock(*id), ENOENT);
    EXPECT_EQ(_qnm_create_reg_lock_node(*id), 0);
    EXPECT_EQ(_qnm_write_reg_lock(*id), 0);
    std::thread(take_all, id + 1, end).join();
    EXPECT_EQ(_qnm_create_reg_lock_node(*id), EEXIST);
    EXPECT_EQ(_qnm_write_reg_unlock(*id), 0);
}

TEST_F(write_lock, ids_that_differ_in_any_bit_have_locks_of_their_own) {
    constexpr uint64_t k_top = uint64_t{1} << 63;
    const uint64_t ids[] = {0, 1, k_top, k_top + 1, uint64_t{1} << 32, UINT64_MAX};
    take_all(std::begin(ids), std::end(ids));
}

TEST_F(write_lock, no_memory_for_a_node_is_reported) {
    alloc::fail_nth(1);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), ENOMEM);
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 0U);
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_write_reg_create: Failed to _write_reg_node_alloc()",
                            "_qnm_create_reg_lock_node: Failed to _write_reg_create(). "
                            "id=0x001122334454"));
}

TEST_F(write_lock, a_mutex_that_cannot_be_made_frees_the_node) {
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), ENOMEM);
    g_mutex_result = 0;
    EXPECT_THAT(logs.texts("logfile", k_warn),
                ElementsAre("_write_reg_create: Failed to _qnm_mutex_init()",
                            "_qnm_create_reg_lock_node: Failed to _write_reg_create(). "
                            "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 1U);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
}

TEST_F(write_lock, another_insert_error_is_an_internal_error) {
    g_put_result = EINVAL;
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EPROTO);
    g_put_result = 0;
    EXPECT_TRUE(logs.has(k_warn,
                         "_qnm_create_reg_lock_node: Failed to _qnm_rbtree_put(). err=22, "
                         "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
}

TEST_F(write_lock, lock_and_unlock_need_a_node) {
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), ENOENT);
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_F(write_lock, a_held_lock_keeps_another_thread_out_but_not_another_card) {
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id + 2), 0);
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    std::atomic<bool> released = false;
    const uint64_t before = fail::count(fail::call::pthread_mutex_lock);
    std::thread other([&] {
        EXPECT_EQ(_qnm_write_reg_lock(k_id + 2), 0);
        EXPECT_EQ(_qnm_write_reg_unlock(k_id + 2), 0);
        EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
        EXPECT_TRUE(released);
        EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    });
    // The map and the other card's lock; the map, to release that lock; the map and the lock that
    // is held here.
    EXPECT_TRUE(
        wait_until([&] { return fail::count(fail::call::pthread_mutex_lock) >= before + 5; }));
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id + 4), 0) << "the map is free meanwhile";
    released = true;
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    other.join();
}

// ---- Very many write locks ----------------------------------------------------------------------

// One more than the number of locks that may outlive their cards.
struct many_locks : write_lock {
    many_locks() {
        for (uint64_t n = 0; n <= qnm::k_spare_locks_max; n++)
            EXPECT_EQ(_qnm_create_reg_lock_node(k_id + 2 * n), 0);
    }
};

TEST_F(many_locks, the_lock_of_a_deleted_card_goes_with_it) {
    _qnm_forget_reg_lock_node(k_id);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
    _qnm_forget_reg_lock_node(k_id);
    _qnm_forget_reg_lock_node(k_id + 2);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U) << "there is room again";
}

TEST_F(many_locks, a_lock_that_is_held_goes_when_the_last_one_releases_it) {
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    std::atomic<bool> taken = false;
    const uint64_t before = fail::count(fail::call::pthread_mutex_lock);
    std::thread waiter([&] {
        EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
        taken = true;
        EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    });
    // The map, and the lock that is held here.
    EXPECT_TRUE(
        wait_until([&] { return fail::count(fail::call::pthread_mutex_lock) >= before + 2; }));
    _qnm_forget_reg_lock_node(k_id);
    EXPECT_FALSE(taken);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 0U);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    waiter.join();
    EXPECT_TRUE(taken);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
}

TEST_F(many_locks, a_card_that_is_announced_again_keeps_the_lock_that_is_held) {
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    _qnm_forget_reg_lock_node(k_id);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_F(write_lock, destroying_all_empties_the_map) {
    for (uint64_t id = k_id; id < k_id + 3; id++)
        ASSERT_EQ(_qnm_create_reg_lock_node(id), 0);
    _qnm_destroy_all_reg_lock_node();
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 3U);
    EXPECT_EQ(fail::count(fail::call::pthread_mutex_destroy), 3U);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_THAT(logs.texts(), IsEmpty());
}

}  // namespace
