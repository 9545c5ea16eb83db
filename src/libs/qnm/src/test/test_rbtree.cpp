// test_rbtree.cpp - the red-black tree: its operations one by one.

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "alloc.h"
#include "qnm_rbtree.h"
#include "rbtree_records.h"

namespace {

using qnm::id_key;

uint64_t compares = 0;

int counting_compare(qnm_cptr_t a, qnm_cptr_t b) {
    compares++;
    return qnm_rbtree_uint64_compare(a, b);
}

void expect_valid(const qnm_rbtree_t& tree) {
    EXPECT_EQ(broken_rules(tree), "");
}

class Tree : public testing::Test {
  protected:
    Tree() { _qnm_rbtree_init(&tree_, counting_compare, key_of); }

    record* make(uint64_t key) {
        records_.push_back(make_record(key));
        return records_.back().get();
    }

    record* put(uint64_t key) {
        record* const made = make(key);
        EXPECT_EQ(_qnm_rbtree_put(&tree_, &made->node), 0);
        return made;
    }

    void put_all(std::initializer_list<uint64_t> keys) {
        for (const uint64_t key : keys)
            put(key);
    }

    record* get(uint64_t key) { return to_record(_qnm_rbtree_get(&tree_, id_key(key))); }
    record* ceil(uint64_t key) { return to_record(_qnm_rbtree_get_ceil(&tree_, id_key(key))); }
    record* higher(uint64_t key) { return to_record(_qnm_rbtree_get_higher(&tree_, id_key(key))); }
    record* floor(uint64_t key) { return to_record(_qnm_rbtree_get_floor(&tree_, id_key(key))); }

    std::vector<uint64_t> keys() {
        std::vector<uint64_t> found;
        for (qnm_rbnode_t* node = _qnm_rbtree_next(&tree_, nullptr); node != nullptr;
             node = _qnm_rbtree_next(&tree_, node))
            found.push_back(to_record(node)->key);
        return found;
    }

    qnm_rbtree_t tree_;
    std::vector<std::unique_ptr<record>> records_;
};

using keys_t = std::vector<uint64_t>;

// ---- Empty and nearly empty ---------------------------------------------------------------------

TEST_F(Tree, init_sets_its_three_fields) {
    memset(&tree_, k_dirt, sizeof tree_);
    _qnm_rbtree_init(&tree_, qnm_rbtree_int32_compare, key_of);
    EXPECT_EQ(tree_.rb_root, nullptr);
    EXPECT_EQ(tree_.rb_comp, qnm_rbtree_int32_compare);
    EXPECT_EQ(tree_.rb_keyfunc, key_of);
}

TEST_F(Tree, finds_nothing_when_empty) {
    EXPECT_EQ(get(1), nullptr);
    EXPECT_EQ(ceil(0), nullptr);
    EXPECT_EQ(higher(0), nullptr);
    EXPECT_EQ(floor(UINT64_MAX), nullptr);
    EXPECT_EQ(_qnm_rbtree_next(&tree_, nullptr), nullptr);
    EXPECT_EQ(_qnm_rbtree_remove(&tree_, id_key(1)), nullptr);
}

TEST_F(Tree, first_node_is_a_black_root_without_children) {
    const record* const first = put(7);
    EXPECT_EQ(tree_.rb_root, &first->node);
    EXPECT_EQ(first->node.rbn_parent, nullptr);
    EXPECT_EQ(first->node.rbn_children[0], nullptr);
    EXPECT_EQ(first->node.rbn_children[1], nullptr);
    EXPECT_EQ(first->node.rbn_red, 0);
}

TEST_F(Tree, next_nodes_are_red_leaves_smaller_ones_on_side_0) {
    const record* const root = put(7);
    const record* const small = put(3);
    const record* const large = put(9);
    EXPECT_EQ(root->node.rbn_children[0], &small->node);
    EXPECT_EQ(root->node.rbn_children[1], &large->node);
    for (const record* leaf : {small, large}) {
        EXPECT_EQ(leaf->node.rbn_parent, &root->node);
        EXPECT_EQ(leaf->node.rbn_children[0], nullptr);
        EXPECT_EQ(leaf->node.rbn_children[1], nullptr);
        EXPECT_EQ(leaf->node.rbn_red, 1);
    }
}

TEST_F(Tree, becomes_empty_again) {
    record* const only = put(7);
    EXPECT_EQ(_qnm_rbtree_remove(&tree_, id_key(7)), &only->node);
    EXPECT_EQ(tree_.rb_root, nullptr);
}

// ---- Look-up ------------------------------------------------------------------------------------

TEST_F(Tree, get_finds_equal_keys_only) {
    put_all({10, 20, 30});
    EXPECT_EQ(get(20)->key, 20u);
    EXPECT_EQ(get(15), nullptr);
    EXPECT_EQ(get(31), nullptr);
}

TEST_F(Tree, ceil_and_floor_find_the_key_itself_or_its_neighbour) {
    put_all({10, 20, 30, 40, 50, 60, 70});
    for (uint64_t key = 10; key <= 70; key += 10) {
        EXPECT_EQ(ceil(key), get(key));
        EXPECT_EQ(floor(key), get(key));
        EXPECT_EQ(ceil(key - 1), get(key));
        EXPECT_EQ(floor(key + 1), get(key));
    }
    EXPECT_EQ(ceil(71), nullptr);
    EXPECT_EQ(floor(9), nullptr);
    EXPECT_EQ(ceil(0), get(10));
    EXPECT_EQ(floor(UINT64_MAX), get(70));
}

TEST_F(Tree, higher_finds_the_next_key_whether_or_not_the_key_itself_is_there) {
    put_all({10, 20, 30, 40, 50, 60, 70});
    for (uint64_t key = 10; key <= 60; key += 10) {
        EXPECT_EQ(higher(key), get(key + 10));
        EXPECT_EQ(higher(key - 1), get(key));
        EXPECT_EQ(higher(key + 1), get(key + 10));
    }
    EXPECT_EQ(higher(0), get(10));
    EXPECT_EQ(higher(70), nullptr);
    EXPECT_EQ(higher(UINT64_MAX), nullptr);
    put(UINT64_MAX);
    EXPECT_EQ(higher(70), get(UINT64_MAX));
    EXPECT_EQ(higher(UINT64_MAX), nullptr);
}

TEST_F(Tree, next_goes_through_all_nodes_in_the_order_of_their_keys) {
    put_all({50, 20, 70, 10, 30, 60, 40});
    EXPECT_EQ(keys(), (keys_t{10, 20, 30, 40, 50, 60, 70}));
}

// ---- Put and update -----------------------------------------------------------------------------

// Everything about a tree that an operation could change.
std::vector<qnm_rbnode_t> snapshot(const std::vector<std::unique_ptr<record>>& records) {
    std::vector<qnm_rbnode_t> nodes;
    for (const auto& each : records)
        nodes.push_back(each->node);
    return nodes;
}

TEST_F(Tree, put_of_a_key_twice_changes_nothing) {
    put_all({40, 20, 60, 10, 30});
    const qnm_rbnode_t* const root = tree_.rb_root;
    for (const uint64_t key : {40u, 20u, 10u, 60u}) {
        record* const twin = make(key);
        const std::vector<qnm_rbnode_t> before = snapshot(records_);
        EXPECT_EQ(_qnm_rbtree_put(&tree_, &twin->node), EEXIST);
        const std::vector<qnm_rbnode_t> after = snapshot(records_);
        EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin(), same)) << key;
        EXPECT_EQ(tree_.rb_root, root);
        EXPECT_NE(get(key), twin);
    }
    EXPECT_EQ(keys(), (keys_t{10, 20, 30, 40, 60}));
}

TEST_F(Tree, update_of_a_new_key_is_a_put) {
    put_all({10, 30});
    record* const made = make(20);
    EXPECT_EQ(_qnm_rbtree_update(&tree_, &made->node), nullptr);
    EXPECT_EQ(get(20), made);
    expect_valid(tree_);
}

// Root, inner node and leaf.
TEST_F(Tree, update_of_a_known_key_takes_the_exact_place_of_the_old_node) {
    put_all({40, 20, 60, 10, 30, 50, 70, 5});
    for (const uint64_t key : {40u, 20u, 5u, 70u}) {
        record* const old = get(key);
        const qnm_rbnode_t place = old->node;
        record* const made = make(key);
        EXPECT_EQ(_qnm_rbtree_update(&tree_, &made->node), &old->node) << key;
        EXPECT_EQ(get(key), made);
        EXPECT_TRUE(same(made->node, place)) << key;
        EXPECT_TRUE(same(old->node, place)) << key;
        expect_valid(tree_);
    }
    EXPECT_EQ(keys(), (keys_t{5, 10, 20, 30, 40, 50, 60, 70}));
}

// ---- Remove -------------------------------------------------------------------------------------

TEST_F(Tree, remove_of_an_unknown_key_changes_nothing) {
    put_all({10, 20, 30});
    EXPECT_EQ(_qnm_rbtree_remove(&tree_, id_key(25)), nullptr);
    EXPECT_EQ(keys(), (keys_t{10, 20, 30}));
}

// The predecessor is the left child itself, or lies deeper.
class RemoveInner : public Tree, public testing::WithParamInterface<std::vector<uint64_t>> {};

INSTANTIATE_TEST_SUITE_P(predecessor, RemoveInner,
                         testing::Values(keys_t{40, 20, 60}, keys_t{40, 20, 60, 10, 30},
                                         keys_t{40, 20, 60, 10, 30, 50, 70, 25}));

TEST_P(RemoveInner, puts_the_predecessors_own_record_in_the_place_and_colour) {
    for (const uint64_t key : GetParam())
        put(key);
    record* const root = get(40);
    ASSERT_EQ(tree_.rb_root, &root->node);
    record* const predecessor = floor(39);
    const uint64_t predecessor_key = predecessor->key;
    EXPECT_EQ(_qnm_rbtree_remove(&tree_, id_key(40)), &root->node);
    EXPECT_EQ(tree_.rb_root, &predecessor->node);
    EXPECT_EQ(predecessor->key, predecessor_key);
    EXPECT_EQ(get(predecessor_key), predecessor);
    EXPECT_EQ(get(40), nullptr);
    expect_valid(tree_);
}

TEST_F(Tree, remove_node_needs_no_look_up) {
    put_all({40, 20, 60, 10, 30, 50, 70});
    record* const node = get(20);
    compares = 0;
    _qnm_rbtree_remove_node(&tree_, &node->node);
    EXPECT_EQ(compares, 0u);
    EXPECT_EQ(keys(), (keys_t{10, 30, 40, 50, 60, 70}));
    expect_valid(tree_);
}

TEST_F(Tree, removed_node_can_be_put_again) {
    put_all({10, 20, 30});
    qnm_rbnode_t* const node = _qnm_rbtree_remove(&tree_, id_key(20));
    EXPECT_EQ(_qnm_rbtree_put(&tree_, node), 0);
    EXPECT_EQ(keys(), (keys_t{10, 20, 30}));
}

// ---- Clear --------------------------------------------------------------------------------------

struct cleared {
    keys_t order;
    bool leaves = true;
};

// Frees the node too, as the owners of the tables do.
void free_cleared(qnm_rbnode_t* node, qnm_ptr_t arg) {
    cleared& state = *static_cast<cleared*>(arg);
    state.order.push_back(to_record(node)->key);
    if (node->rbn_children[0] != nullptr || node->rbn_children[1] != nullptr) state.leaves = false;
    delete to_record(node);
}

TEST_F(Tree, clear_hands_over_every_node_children_before_parents) {
    for (const uint64_t key : {40u, 20u, 60u, 10u, 30u, 50u, 70u})
        _qnm_rbtree_put(&tree_, &make_record(key).release()->node);
    cleared state;
    _qnm_rbtree_clear(&tree_, free_cleared, &state);
    EXPECT_EQ(state.order, (keys_t{10, 30, 20, 50, 70, 60, 40}));
    EXPECT_TRUE(state.leaves);
    EXPECT_EQ(tree_.rb_root, nullptr);
}

TEST_F(Tree, clear_goes_down_to_the_larger_side_where_there_is_no_smaller_one) {
    for (const uint64_t key : {10u, 20u})
        _qnm_rbtree_put(&tree_, &make_record(key).release()->node);
    cleared state;
    _qnm_rbtree_clear(&tree_, free_cleared, &state);
    EXPECT_EQ(state.order, (keys_t{20, 10}));
}

TEST_F(Tree, clear_needs_no_callback) {
    put_all({10, 20, 30, 40});
    _qnm_rbtree_clear(&tree_, nullptr, nullptr);
    EXPECT_EQ(tree_.rb_root, nullptr);
    EXPECT_EQ(keys(), keys_t{});
}

TEST_F(Tree, clear_of_an_empty_tree_calls_nobody) {
    cleared state;
    _qnm_rbtree_clear(&tree_, free_cleared, &state);
    EXPECT_TRUE(state.order.empty());
    EXPECT_EQ(tree_.rb_root, nullptr);
}

// ---- Key comparison -----------------------------------------------------------------------------

struct compare_row {
    const char* name;
    qnm_rbcomp_t compare;
    uint64_t a;
    uint64_t b;
    int result;
};

class Compare : public testing::TestWithParam<compare_row> {};

INSTANTIATE_TEST_SUITE_P(
    of_keys, Compare,
    testing::Values(
        compare_row{"int32_far", qnm_rbtree_int32_compare, 1, 1000, -1},
        compare_row{"int32_negative", qnm_rbtree_int32_compare, 0xFFFFFFFF, 0, -1},
        compare_row{"int32_ends", qnm_rbtree_int32_compare, 0x80000000, 0x7FFFFFFF, -1},
        compare_row{"int32_above_bit_31", qnm_rbtree_int32_compare, 0x100000005, 5, 0},
        compare_row{"uint32_far", qnm_rbtree_uint32_compare, 1, 1000, -1},
        compare_row{"uint32_large", qnm_rbtree_uint32_compare, 0, 0xFFFFFFFF, -1},
        compare_row{"uint32_ends", qnm_rbtree_uint32_compare, 0x7FFFFFFF, 0x80000000, -1},
        compare_row{"uint32_above_bit_31", qnm_rbtree_uint32_compare, 0x700000005, 5, 0},
        compare_row{"int64_above_bit_31", qnm_rbtree_int64_compare, 5, 0x100000005, -1},
        compare_row{"int64_negative", qnm_rbtree_int64_compare, UINT64_MAX, 0, -1},
        compare_row{"int64_ends", qnm_rbtree_int64_compare, uint64_t{1} << 63, INT64_MAX, -1},
        compare_row{"int64_equal", qnm_rbtree_int64_compare, UINT64_MAX, UINT64_MAX, 0},
        compare_row{"uint64_above_bit_31", qnm_rbtree_uint64_compare, 5, 0x100000005, -1},
        compare_row{"uint64_large", qnm_rbtree_uint64_compare, 0, UINT64_MAX, -1},
        compare_row{"uint64_ends", qnm_rbtree_uint64_compare, INT64_MAX, uint64_t{1} << 63, -1},
        compare_row{"uint64_equal", qnm_rbtree_uint64_compare, UINT64_MAX, UINT64_MAX, 0}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(Compare, returns_minus_1_0_or_1_in_either_order) {
    const compare_row& row = GetParam();
    EXPECT_EQ(row.compare(id_key(row.a), id_key(row.b)), row.result);
    EXPECT_EQ(row.compare(id_key(row.b), id_key(row.a)), -row.result);
}

TEST(Tree32, takes_keys_that_differ_above_bit_31_for_equal) {
    qnm_rbtree_t tree;
    _qnm_rbtree_init(&tree, qnm_rbtree_int32_compare, key_of);
    const auto first = make_record(0x100000005);
    const auto second = make_record(0x200000005);
    EXPECT_EQ(_qnm_rbtree_put(&tree, &first->node), 0);
    EXPECT_EQ(_qnm_rbtree_put(&tree, &second->node), EEXIST);
    EXPECT_EQ(_qnm_rbtree_get(&tree, id_key(5)), &first->node);
}

// ---- Cost ---------------------------------------------------------------------------------------

// A red-black tree of n nodes is at most 2 * log2(n + 1) high. Ascending keys are the worst case of
// a tree that does not balance itself.
TEST_F(Tree, operations_on_a_large_table_compare_few_keys_and_allocate_nothing) {
    constexpr uint64_t k_count = 1 << 14;
    constexpr uint64_t k_height = 2 * (std::bit_width(k_count + 1));
    for (uint64_t key = 1; key <= k_count; key++)
        make(key);
    const uint64_t allocations = alloc::count_in([&] {
        for (const auto& each : records_) {
            compares = 0;
            ASSERT_EQ(_qnm_rbtree_put(&tree_, &each->node), 0);
            ASSERT_LE(compares, k_height);
        }
        for (const auto& each : records_) {
            compares = 0;
            ASSERT_EQ(_qnm_rbtree_remove(&tree_, id_key(each->key)), &each->node);
            ASSERT_LE(compares, k_height);
        }
    });
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(tree_.rb_root, nullptr);
}

}  // namespace
