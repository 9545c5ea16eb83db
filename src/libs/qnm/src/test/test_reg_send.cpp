// test_reg_send.cpp - the per-card write locks.

#include <cerrno>

#include "units.h"

namespace {

constexpr uint64_t k_id = 0x001122334454;

using reg_send = units;

TEST_F(reg_send, a_node_is_made_once_per_card) {
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 1U);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EEXIST);
    EXPECT_TRUE(logs.has(k_trace,
                         "_qnm_create_reg_lock_node: Failed to _qnm_rbtree_put(). err=EEXIST, "
                         "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 2U);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
}

TEST_F(reg_send, no_memory_for_a_node_is_reported) {
    alloc::fail_nth(1);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), ENOMEM);
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 0U);
    EXPECT_TRUE(logs.has(k_warn, "_write_reg_create: Failed to _write_reg_node_alloc()"));
    EXPECT_TRUE(logs.has(k_warn,
                         "_qnm_create_reg_lock_node: Failed to _write_reg_create(). "
                         "id=0x001122334454"));
}

extern "C" int __real__qnm_mutex_init(qnm_mutex_t* mutex);
extern "C" int __real__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node);

int g_mutex_result = 0;
int g_put_result = 0;

extern "C" int __wrap__qnm_mutex_init(qnm_mutex_t* mutex) {
    return g_mutex_result != 0 ? g_mutex_result : __real__qnm_mutex_init(mutex);
}

extern "C" int __wrap__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    return g_put_result != 0 ? g_put_result : __real__qnm_rbtree_put(tree, node);
}

TEST_F(reg_send, a_mutex_that_cannot_be_made_frees_the_node) {
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), ENOMEM);
    g_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_warn, "_write_reg_create: Failed to _qnm_mutex_init()"));
    EXPECT_EQ(qnm_stats.est_wreg_node_al, 1U);
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
}

TEST_F(reg_send, another_insert_error_is_an_internal_error) {
    g_put_result = EINVAL;
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), EPROTO);
    g_put_result = 0;
    EXPECT_TRUE(logs.has(k_warn,
                         "_qnm_create_reg_lock_node: Failed to _qnm_rbtree_put(). err=22, "
                         "id=0x001122334454"));
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
}

TEST_F(reg_send, lock_and_unlock_need_a_node) {
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), ENOENT);
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
}

TEST_F(reg_send, a_held_lock_keeps_another_thread_out_but_not_another_card) {
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id + 2), 0);
    ASSERT_EQ(_qnm_write_reg_lock(k_id), 0);
    std::atomic<bool> released = false;
    std::thread other([&] {
        EXPECT_EQ(_qnm_write_reg_lock(k_id + 2), 0);
        EXPECT_EQ(_qnm_write_reg_unlock(k_id + 2), 0);
        EXPECT_EQ(_qnm_write_reg_lock(k_id), 0);
        EXPECT_TRUE(released);
        EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    });
    released = true;
    EXPECT_EQ(_qnm_write_reg_unlock(k_id), 0);
    other.join();
}

TEST_F(reg_send, destroying_all_empties_the_map) {
    ASSERT_EQ(_qnm_create_reg_lock_node(k_id), 0);
    _qnm_destroy_all_reg_lock_node();
    EXPECT_EQ(qnm_stats.est_wreg_node_fr, 1U);
    EXPECT_EQ(_qnm_write_reg_lock(k_id), ENOENT);
    EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
}

TEST_F(reg_send, a_later_init_says_that_it_is_initialised_already) {
    EXPECT_EQ(_qnm_reg_init(), 0);
    EXPECT_EQ(_qnm_reg_fini(), 0);
    EXPECT_THAT(logs.texts(),
                testing::ElementsAre(
                    "_qnm_reg_init: start.",
                    "_qnm_reg_init: qnm_write_reg_lock_mng is already initialized.",
                    "_qnm_reg_init: end. ret=0", "_qnm_reg_fini: start.", "_qnm_reg_fini: end."));
}

}  // namespace
