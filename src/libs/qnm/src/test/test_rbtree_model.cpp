// test_rbtree_model.cpp - the red-black tree beside std::map: after each operation of a random
// sequence both hold the same records in the same order, and the tree keeps its rules.
//
// A record is freed as soon as it is out of the tree, so that AddressSanitizer finds links that
// still point to it.

#include <gtest/gtest.h>

#include <cerrno>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "model/settings.h"
#include "rbtree_records.h"

namespace {

using qnm::id_key;

using records_t = std::map<uint64_t, std::unique_ptr<record>>;

constexpr uint64_t k_sequences = 8;

// Keys are drawn from so few that small and large trees occur.
constexpr uint64_t k_key_ranges[k_sequences] = {3, 8, 16, 40, 80, 120, 200, 300};

struct TreeSequence : testing::TestWithParam<uint64_t> {
    qnm_rbtree_t tree;
    records_t expected;

    TreeSequence() { _qnm_rbtree_init(&tree, qnm_rbtree_uint64_compare, key_of); }

    record* found(records_t::const_iterator at) const {
        return at != expected.end() ? at->second.get() : nullptr;
    }

    void put(uint64_t key) {
        std::unique_ptr<record> made = make_record(key);
        const qnm_rbnode_t untouched = made->node;
        const bool known = expected.contains(key);
        ASSERT_EQ(_qnm_rbtree_put(&tree, &made->node), known ? EEXIST : 0);
        if (known) {
            ASSERT_TRUE(same(made->node, untouched));
        } else {
            expected[key] = std::move(made);
        }
    }

    void update(uint64_t key) {
        std::unique_ptr<record> made = make_record(key);
        record* const old = found(expected.find(key));
        const qnm_rbnode_t place = old != nullptr ? old->node : qnm_rbnode_t{};
        ASSERT_EQ(to_record(_qnm_rbtree_update(&tree, &made->node)), old);
        if (old != nullptr) {
            ASSERT_TRUE(same(old->node, place));
            ASSERT_TRUE(same(made->node, place));
        }
        expected[key] = std::move(made);
    }

    void remove(uint64_t key) {
        ASSERT_EQ(to_record(_qnm_rbtree_remove(&tree, id_key(key))), found(expected.find(key)));
        expected.erase(key);
    }

    void remove_node(uint64_t key) {
        const auto at = expected.lower_bound(key);
        if (at == expected.end()) return;
        _qnm_rbtree_remove_node(&tree, &at->second->node);
        expected.erase(at);
    }

    void look_up(uint64_t key) {
        const auto above = expected.upper_bound(key);
        ASSERT_EQ(to_record(_qnm_rbtree_get(&tree, id_key(key))), found(expected.find(key)));
        ASSERT_EQ(to_record(_qnm_rbtree_get_ceil(&tree, id_key(key))),
                  found(expected.lower_bound(key)));
        ASSERT_EQ(to_record(_qnm_rbtree_get_higher(&tree, id_key(key))), found(above));
        ASSERT_EQ(to_record(_qnm_rbtree_get_floor(&tree, id_key(key))),
                  above != expected.begin() ? std::prev(above)->second.get() : nullptr);
    }

    // Every record is handed over once, without its children, and may be freed then.
    void clear(uint64_t) {
        _qnm_rbtree_clear(
            &tree,
            [](qnm_rbnode_t* node, qnm_ptr_t arg) {
                auto& left = *static_cast<records_t*>(arg);
                EXPECT_EQ(node->rbn_children[0], nullptr);
                EXPECT_EQ(node->rbn_children[1], nullptr);
                EXPECT_EQ(left.erase(key_in(node)), 1U);
            },
            &expected);
        ASSERT_TRUE(expected.empty());
    }

    void expect_same_records() {
        qnm_rbnode_t* node = nullptr;
        for (const auto& [key, wanted] : expected) {
            node = _qnm_rbtree_next(&tree, node);
            ASSERT_EQ(to_record(node), wanted.get()) << "in place of " << key;
        }
        if (!expected.empty()) node = _qnm_rbtree_next(&tree, node);
        ASSERT_EQ(node, nullptr);
        ASSERT_EQ(tree.rb_root == nullptr, expected.empty());
    }
};

struct operation_row {
    const char* name;
    void (TreeSequence::*run)(uint64_t key);
    unsigned growing, shrinking;  // how often, while the tree is to grow or to shrink
};

constexpr operation_row k_operations[] = {
    {"put", &TreeSequence::put, 400, 100},
    {"update", &TreeSequence::update, 200, 100},
    {"remove", &TreeSequence::remove, 100, 400},
    {"remove_node", &TreeSequence::remove_node, 50, 200},
    {"look_up", &TreeSequence::look_up, 100, 100},
    {"clear", &TreeSequence::clear, 0, 1},
};

const operation_row& pick(uint64_t number, bool growing) {
    uint64_t total = 0;
    for (const operation_row& row : k_operations)
        total += growing ? row.growing : row.shrinking;
    number %= total;
    const operation_row* row = k_operations;
    for (; number >= (growing ? row->growing : row->shrinking); row++)
        number -= growing ? row->growing : row->shrinking;
    return *row;
}

INSTANTIATE_TEST_SUITE_P(seeds, TreeSequence, testing::Range<uint64_t>(0, k_sequences));

TEST_P(TreeSequence, keeps_its_rules_and_agrees_with_an_ordered_map_after_every_step) {
    const uint64_t seed = model::first_seed() + GetParam();
    const uint64_t range = k_key_ranges[GetParam()];
    const uint64_t steps = model::step_count() / k_sequences;
    std::mt19937_64 random(seed);
    for (uint64_t number = 1; number <= steps; number++) {
        const uint64_t key = random() % range;
        const operation_row& operation = pick(random(), number / (4 * range) % 2 == 0);
        (this->*operation.run)(key);
        expect_same_records();
        const std::string broken = broken_rules(tree);
        ASSERT_TRUE(broken.empty() && !HasFailure())
            << broken << "after " << operation.name << " " << key << ", seed " << seed << ", step "
            << number;
    }
}

}  // namespace
