// test_qn_info.cpp - the tables of known cards and the public calls that query them.

#include <cerrno>

#include "units.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

int g_put_result = 0;
extern "C" int __real__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node);
extern "C" int __wrap__qnm_rbtree_put(qnm_rbtree_t* tree, qnm_rbnode_t* node) {
    return g_put_result != 0 ? g_put_result : __real__qnm_rbtree_put(tree, node);
}

int g_mutex_result = 0;
extern "C" int __real__qnm_mutex_init_st(qnm_mutex_t* mutex);
extern "C" int __wrap__qnm_mutex_init_st(qnm_mutex_t* mutex) {
    return g_mutex_result != 0 ? g_mutex_result : __real__qnm_mutex_init_st(mutex);
}

// The public calls of one kind, beside what the library itself knows of that kind.
struct server : qnm::qnsv_kind {
    static constexpr auto get_public = qnm_get_qnsv;
    static constexpr auto ids = qnm_get_qnsvids;
    static constexpr auto update_ids = qnm_get_update_qnsvids;
    static constexpr auto group_ids = qnm_get_group_qnsvids;
    static constexpr auto remove = qnm_delete_qnsv;
    static constexpr const char* suffix = "qnsv";
};

struct io : qnm::qnio_kind {
    static constexpr auto get_public = qnm_get_qnio;
    static constexpr auto ids = qnm_get_qnioids;
    static constexpr auto update_ids = qnm_get_update_qnioids;
    static constexpr auto group_ids = qnm_get_group_qnioids;
    static constexpr auto remove = qnm_delete_qnio;
    static constexpr const char* suffix = "qnio";
};

template <typename Kind>
struct tables : units {
    using record = typename Kind::record;

    static record make(uint64_t id, uint16_t vlan = 10, uint64_t updatetime = 0) {
        record card = {};
        qnm_com_dev_t& dev = card.*Kind::com_dev;
        dev.ecd_id = id;
        dev.ecd_vlan_id = vlan;
        dev.ecd_updatetime = updatetime;
        return card;
    }

    static int set(uint64_t id, record* card, uint32_t valid = QNM_VALID_ALL, uint32_t state = 0,
                   uint32_t count = 0) {
        const qnm::table_guard lock;
        return Kind::set(id, card, state, count, valid);
    }

    static void add(uint64_t id, uint16_t vlan = 10, uint64_t updatetime = 0) {
        record card = make(id, vlan, updatetime);
        ASSERT_EQ(set(id, &card), 0);
    }

    static uint32_t total() { return qnm_qn.*Kind::total; }
    static uint32_t group(size_t number) { return (qnm_qn.*Kind::groups)[number]; }

    static std::string name(const char* call) {
        std::string text = call;
        const size_t at = text.find("{k}");
        return at == std::string::npos ? text : text.replace(at, 3, Kind::suffix);
    }

    // Takes over a list and frees it.
    static std::vector<uint64_t> taken(uint64_t* list, uint32_t count) {
        std::vector<uint64_t> ids(list, list + count);
        EXPECT_EQ(qnm_free_idlist(list), QNM_API_SUCCESS);
        return ids;
    }
};

using kinds = testing::Types<server, io>;
TYPED_TEST_SUITE(tables, kinds);

TYPED_TEST(tables, a_get_needs_every_output_that_it_is_asked_for) {
    typename TypeParam::record card;
    uint32_t word = 0;
    const qnm::table_guard lock;
    EXPECT_EQ(TypeParam::get(1, nullptr, &word, &word, 1), EINVAL);
    EXPECT_EQ(TypeParam::get(1, &card, nullptr, &word, 2), EINVAL);
    EXPECT_EQ(TypeParam::get(1, &card, &word, nullptr, 4), EINVAL);
    EXPECT_EQ(TypeParam::get(1, &card, &word, &word, 7), ENOENT);
}

TYPED_TEST(tables, a_set_stores_only_what_it_is_told_to) {
    this->add(1);
    EXPECT_EQ(this->set(1, nullptr, QNM_VALID_IGNORE_STATE, 2, 9), 0);
    EXPECT_EQ(this->set(1, nullptr, QNM_VALID_CHECK_COUNT, 1, 5), 0);
    uint32_t state = 0, count = 0;
    typename TypeParam::record card;
    const qnm::table_guard lock;
    EXPECT_EQ(TypeParam::get(1, &card, &state, &count, 7), 0);
    EXPECT_EQ(state, 2U);
    EXPECT_EQ(count, 5U);
    EXPECT_EQ((card.*TypeParam::com_dev).ecd_vlan_id, 10);
}

TYPED_TEST(tables, adding_needs_all_parts) {
    auto card = this->make(1);
    EXPECT_EQ(this->set(1, nullptr), EINVAL);
    for (uint32_t valid = 1; valid < 7; valid++)
        EXPECT_EQ(this->set(1, &card, valid), EINVAL);
    EXPECT_EQ(this->total(), 0U);
    EXPECT_EQ(this->logs.count(k_trace, std::string(TypeParam::set_name) + ": Failed to " +
                                            TypeParam::add_name + "(). err=22, id=0x000000000001"),
              7U);
}

TYPED_TEST(tables, a_known_card_keeps_its_record_when_there_is_none_to_store) {
    auto card = this->make(1);
    ASSERT_EQ(this->set(1, &card), 0);
    EXPECT_EQ(this->set(1, nullptr), EINVAL);
    EXPECT_EQ(this->total(), 1U);
}

TYPED_TEST(tables, no_memory_for_a_card_adds_nothing) {
    auto card = this->make(1);
    alloc::fail_nth(1);
    EXPECT_EQ(this->set(1, &card), ENOMEM);
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(this->total(), 0U);
    EXPECT_EQ(qnm_stats.*TypeParam::allocated, 0U);
}

TYPED_TEST(tables, a_failed_insert_frees_the_card) {
    auto card = this->make(1);
    g_put_result = EINVAL;
    EXPECT_EQ(this->set(1, &card), EPROTO);
    g_put_result = 0;
    EXPECT_TRUE(this->logs.has(k_warn, std::string(TypeParam::add_name) +
                                           ": Failed to _qnm_rbtree_put(). err=22, "
                                           "id=0x000000000001"));
    EXPECT_EQ(qnm_stats.*TypeParam::freed, 1U);
    EXPECT_EQ(this->total(), 0U);
    EXPECT_EQ(this->group(10), 0U);
}

TYPED_TEST(tables, totals_and_groups_follow_every_change) {
    this->add(1, 10);
    this->add(2, 10);
    this->add(3, 4096);
    this->add(4, 65535);
    EXPECT_EQ(this->total(), 4U);
    EXPECT_EQ(this->group(10), 2U);
    EXPECT_EQ(this->group(4096), 2U);
    this->add(1, 20);
    EXPECT_EQ(this->total(), 4U);
    EXPECT_EQ(this->group(10), 1U);
    EXPECT_EQ(this->group(20), 1U);
    EXPECT_EQ(TypeParam::remove(1), QNM_API_SUCCESS);
    EXPECT_EQ(TypeParam::remove(4), QNM_API_SUCCESS);
    EXPECT_EQ(this->total(), 2U);
    EXPECT_EQ(this->group(20), 0U);
    EXPECT_EQ(this->group(4096), 1U);
    EXPECT_EQ(qnm_stats.*TypeParam::freed, 2U);
}

TYPED_TEST(tables, a_record_is_copied_out) {
    this->add(0x001122334455, 77);
    typename TypeParam::record card = {};
    EXPECT_EQ(TypeParam::get_public(0x001122334455, &card), QNM_API_SUCCESS);
    EXPECT_EQ((card.*TypeParam::com_dev).ecd_vlan_id, 77);
    EXPECT_EQ(TypeParam::get_public(1, &card), QNM_API_ENOENT);
    EXPECT_EQ(TypeParam::get_public(1, nullptr), QNM_API_EINVAL);
    const std::string name = this->name("qnm_get_{k}");
    EXPECT_TRUE(this->logs.has(k_info, name + ": (IN). id=0x001122334455"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT). ret=0 id=0x001122334455"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT). ret=3 id=0x000000000001"));
    this->expect_counted(TypeParam::count_get, QNM_API_SUCCESS);
    this->expect_counted(TypeParam::count_get, QNM_API_ENOENT);
    this->expect_counted(TypeParam::count_get, QNM_API_EINVAL);
}

TYPED_TEST(tables, deleting_an_unknown_card_is_told) {
    EXPECT_EQ(TypeParam::remove(9), QNM_API_ENOENT);
    const std::string name = this->name("qnm_delete_{k}");
    EXPECT_TRUE(this->logs.has(k_info, name + ": (IN). id=0x000000000009"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT). ret=3 id=0x000000000009"));
    this->expect_counted(TypeParam::count_delete, QNM_API_ENOENT);
}

TYPED_TEST(tables, ids_come_in_ascending_order) {
    for (const uint64_t id : {5, 1, 9})
        this->add(id);
    uint64_t* list = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_SUCCESS);
    EXPECT_THAT(this->taken(list, num), ElementsAre(1, 5, 9));
    EXPECT_EQ(qnm_stats.est_idlist_al, 1U);
    EXPECT_EQ(qnm_stats.est_idlist_fr, 1U);
    const std::string name = this->name("qnm_get_{k}ids");
    EXPECT_TRUE(this->logs.has(k_info, name + ": (IN)"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT) ret=0"));
    this->expect_counted(TypeParam::count_ids, QNM_API_SUCCESS);
}

TYPED_TEST(tables, an_empty_table_gives_an_empty_list) {
    uint64_t nothing = 0;
    const auto expect_empty = [&](auto call) {
        uint64_t* list = &nothing;
        uint32_t num = 7;
        EXPECT_EQ(call(&list, &num), QNM_API_SUCCESS);
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(num, 0U);
    };
    expect_empty([](auto... out) { return TypeParam::ids(out...); });
    expect_empty([](auto... out) { return TypeParam::update_ids(0, out...); });
    expect_empty([](auto... out) { return TypeParam::group_ids(10, out...); });
    this->add(1, 11, 50);
    expect_empty([](auto... out) { return TypeParam::update_ids(51, out...); });
    expect_empty([](auto... out) { return TypeParam::group_ids(10, out...); });
    EXPECT_EQ(qnm_stats.est_idlist_al, 0U);
}

TYPED_TEST(tables, a_limit_below_the_number_is_told_and_nothing_allocated) {
    for (uint64_t id = 1; id <= 5; id++)
        this->add(id, 10, 100);
    uint64_t nothing = 0;
    const auto expect_range = [&](auto call) {
        uint64_t* list = &nothing;
        uint32_t num = 3;
        EXPECT_EQ(call(&list, &num), QNM_API_ERANGE);
        EXPECT_EQ(num, 5U);
        EXPECT_EQ(list, &nothing);
    };
    expect_range([](auto... out) { return TypeParam::ids(out...); });
    expect_range([](auto... out) { return TypeParam::update_ids(100, out...); });
    expect_range([](auto... out) { return TypeParam::group_ids(10, out...); });
    EXPECT_EQ(qnm_stats.est_idlist_al, 0U);
    qnm_config.id_list_upper_limit = 4;
    uint64_t* list = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_ERANGE);
    num = 5;
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_SUCCESS);
    EXPECT_THAT(this->taken(list, num), ElementsAre(1, 2, 3, 4, 5));
}

TYPED_TEST(tables, updated_cards_are_those_at_or_after_the_time) {
    this->add(1, 10, 99);
    this->add(2, 10, 100);
    this->add(3, 10, 101);
    uint64_t* list = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(TypeParam::update_ids(100, &list, &num), QNM_API_SUCCESS);
    EXPECT_THAT(this->taken(list, num), ElementsAre(2, 3));
    this->expect_counted(TypeParam::count_update_ids, QNM_API_SUCCESS);
    EXPECT_TRUE(this->logs.has(k_info, this->name("qnm_get_update_{k}ids") + ": (OUT) ret=0"));
}

TYPED_TEST(tables, groups_reach_from_1_to_4094) {
    this->add(1, 1);
    this->add(2, 4094);
    this->add(3, 1);
    uint64_t* list = nullptr;
    uint32_t num = 0;
    for (const uint16_t wrong : {0, 4095, 65535}) {
        EXPECT_EQ(TypeParam::group_ids(wrong, &list, &num), QNM_API_EINVAL);
    }
    EXPECT_EQ(TypeParam::group_ids(1, &list, &num), QNM_API_SUCCESS);
    EXPECT_THAT(this->taken(list, num), ElementsAre(1, 3));
    num = 0;
    EXPECT_EQ(TypeParam::group_ids(4094, &list, &num), QNM_API_SUCCESS);
    EXPECT_THAT(this->taken(list, num), ElementsAre(2));
    const std::string name = this->name("qnm_get_group_{k}ids");
    EXPECT_TRUE(this->logs.has(k_info, name + ": (IN) groupid=4094"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT) ret=0, groupid=4094"));
    EXPECT_TRUE(this->logs.has(k_info, name + ": (OUT) ret=1, groupid=4095"));
}

TYPED_TEST(tables, a_list_takes_both_outputs_and_memory) {
    this->add(1, 10, 5);
    uint64_t* list = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(TypeParam::ids(nullptr, &num), QNM_API_EINVAL);
    EXPECT_EQ(TypeParam::ids(&list, nullptr), QNM_API_EINVAL);
    alloc::fail_nth(1);
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_ENOMEM);
    EXPECT_EQ(qnm_stats.est_alloc_err, 1U);
    EXPECT_EQ(qnm_stats.est_idlist_al, 0U);
    EXPECT_EQ(list, nullptr);
}

TYPED_TEST(tables, a_walk_that_finds_more_than_were_counted_stops_with_a_warning) {
    for (uint64_t id = 1; id <= 3; id++)
        this->add(id);
    (qnm_qn.*TypeParam::total)--;
    uint64_t* list = nullptr;
    uint32_t num = 0;
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_SUCCESS);
    (qnm_qn.*TypeParam::total)++;
    EXPECT_THAT(this->taken(list, num), ElementsAre(1, 2));
    EXPECT_TRUE(this->logs.has(
        k_warn, this->name("qnm_get_{k}ids") + ": Get ID more than allocate size. num_tmp=2"));
}

TYPED_TEST(tables, every_query_needs_a_usable_manager) {
    set_flags(1, 1, 1);
    uint64_t* list = nullptr;
    uint32_t num = 0;
    typename TypeParam::record card;
    EXPECT_EQ(TypeParam::get_public(1, &card), QNM_API_ENOSYS);
    EXPECT_EQ(TypeParam::ids(&list, &num), QNM_API_ENOSYS);
    EXPECT_EQ(TypeParam::update_ids(0, &list, &num), QNM_API_ENOSYS);
    EXPECT_EQ(TypeParam::group_ids(1, &list, &num), QNM_API_ENOSYS);
    EXPECT_EQ(TypeParam::remove(1), QNM_API_ENOSYS);
    EXPECT_EQ(qnm_free_idlist(nullptr), QNM_API_SUCCESS);
    this->expect_counted(QNM_STATS_FREE_IDLIST, QNM_API_SUCCESS);
    EXPECT_EQ(qnm_stats.est_api_code[QNM_API_ENOSYS], 5U);
}

using qn_info = tables<server>;

TEST_F(qn_info, a_lookup_among_both_kinds_prefers_servers) {
    add(1, 10);
    qnm_qnio_t card = {};
    card.eio_com_dev.ecd_id = 2;
    card.eio_com_dev.ecd_vlan_id = 20;
    card.eio_mr_resource_num = 513;
    const qnm::table_guard lock;
    ASSERT_EQ(_qnm_set_qnio(2, &card, QNM_IGNORE, 0, QNM_VALID_ALL), 0);
    qnm_com_dev_t dev = {};
    uint32_t state = 99;
    uint16_t resource = 99;
    EXPECT_EQ(_qnm_get_qndev_rid(1, &dev, &state, &resource), 0);
    EXPECT_EQ(dev.ecd_vlan_id, 10);
    EXPECT_EQ(state, uint32_t{QNM_WATCH});
    EXPECT_EQ(resource, 0);
    EXPECT_EQ(_qnm_get_qndev_rid(2, &dev, &state, &resource), 0);
    EXPECT_EQ(dev.ecd_vlan_id, 20);
    EXPECT_EQ(state, uint32_t{QNM_IGNORE});
    EXPECT_EQ(resource, 513);
    EXPECT_EQ(_qnm_get_qndev_rid(2, nullptr, &state, nullptr), 0);
    EXPECT_EQ(_qnm_get_qndev(2, &dev), 0);
    EXPECT_EQ(_qnm_get_qndev_ign(2, &dev, &state), 0);
    EXPECT_EQ(_qnm_get_qndev(3, &dev), ENOENT);
    EXPECT_EQ(_qnm_get_qndev_rid(1, &dev, nullptr, nullptr), EPROTO);
    EXPECT_TRUE(logs.has(k_warn, "_qnm_get_qndev_rid: Failed to _qnm_get_qnsv(). err=22"));
}

// A card of each kind with the same ID; their VLAN IDs tell them apart.
struct qn_info_twins : qn_info {
    // Adds both cards with these paths.
    void add_twins(uint32_t qnsv_state, uint32_t qnio_state) {
        qnm_qnsv_t qnsv = {};
        qnsv.esv_com_dev.ecd_id = 1;
        qnsv.esv_com_dev.ecd_vlan_id = 10;
        qnsv.esv_com_dev.ecd_state[0][0] = qnsv_state;
        qnm_qnio_t qnio = {};
        qnio.eio_com_dev.ecd_id = 1;
        qnio.eio_com_dev.ecd_vlan_id = 20;
        qnio.eio_com_dev.ecd_state[1][1] = qnio_state;
        qnio.eio_mr_resource_num = 513;
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnsv(1, &qnsv, QNM_WATCH, 0, QNM_VALID_ALL), 0);
        EXPECT_EQ(_qnm_set_qnio(1, &qnio, QNM_WATCH_RESTART, 0, QNM_VALID_ALL), 0);
    }

    // The card that device access finds: its VLAN ID, ignore state and resource ID.
    static std::vector<uint32_t> found() {
        const qnm::table_guard lock;
        qnm_com_dev_t dev = {};
        uint32_t state = 99;
        uint16_t resource = 99;
        EXPECT_EQ(_qnm_get_qndev_rid(1, &dev, &state, &resource), 0);
        return {dev.ecd_vlan_id, state, resource};
    }
};

TEST_F(qn_info_twins, the_connected_one_is_found_and_otherwise_the_qnsv_card) {
    const std::vector<uint32_t> qnsv = {10, QNM_WATCH, 0};
    const std::vector<uint32_t> qnio = {20, QNM_WATCH_RESTART, 513};
    add_twins(0, 1);
    EXPECT_EQ(found(), qnio) << "a dead record hides no live card";
    add_twins(1, 0);
    EXPECT_EQ(found(), qnsv);
    add_twins(1, 1);
    EXPECT_EQ(found(), qnsv);
    add_twins(0, 0);
    EXPECT_EQ(found(), qnsv);
}

TEST_F(qn_info, the_lock_is_traced) {
    { const qnm::table_guard lock; }
    EXPECT_THAT(logs.texts("logfile", k_trace),
                ElementsAre("_qnm_qn_lock: qn lock", "_qnm_qn_unlock: qn unlock"));
}

TEST_F(qn_info, init_and_fini_log_and_empty_the_tables) {
    add(1);
    logs.clear();
    EXPECT_EQ(_qnm_qn_fini(), 0);
    EXPECT_EQ(_qnm_qn_init(), 0);
    EXPECT_EQ(total(), 0U);
    EXPECT_EQ(group(10), 0U);
    EXPECT_THAT(logs.texts("logfile", k_info),
                ElementsAre("_qnm_qn_fini: start.", "_qnm_qn_fini: end.", "_qnm_qn_init: start.",
                            "_qnm_qn_init: end. ret=0"));
    g_mutex_result = EAGAIN;
    EXPECT_EQ(_qnm_qn_init(), EPROTO);
    g_mutex_result = 0;
    EXPECT_TRUE(logs.has(k_error, "_qnm_qn_init: Failed to _qnm_mutex_init_st()"));
    EXPECT_TRUE(logs.has(k_info, "_qnm_qn_init: end. ret=71"));
}

}  // namespace
