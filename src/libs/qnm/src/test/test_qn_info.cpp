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

// The public calls of a kind, beside what the library itself knows of it.
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

    // Takes a list over and gives it back.
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

// A card of each kind under one ID, of which the VLAN ID tells them apart.
struct qn_info_twins : qn_info {
    // Adds both, the one of either kind with these paths.
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

TEST_F(qn_info, empty_tables_are_printed_as_such) {
    _qnm_qn_stats_print(0);
    EXPECT_THAT(
        logs.texts("statslogfile"),
        ElementsAre("  - QN card num", "    qnsv total: 0", "    qnio total: 0", " ",
                    "    G-ID SV num IO num", "    ---- ------ ------", "  - QN card information",
                    "    [QNSV]", "    no entry.", "    [QNIO]", "    no entry."));
}

TEST_F(qn_info, cards_are_printed_in_rows) {
    qnm_qnsv_t sv = make(0x0A, 10);
    sv.esv_com_dev.ecd_state[0][0] = sv.esv_com_dev.ecd_state[1][1] = 1;
    sv.esv_com_dev.ecd_ver = 2;
    ASSERT_EQ(set(0x0A, &sv, 7, QNM_WATCH_RESTART), 0);
    qnm_qnio_t card = {};
    card.eio_com_dev.ecd_id = 0x0B;
    card.eio_com_dev.ecd_vlan_id = 20;
    card.eio_com_dev.ecd_type = 1;
    card.eio_com_dev.ecd_vlan_mode = 1;
    card.eio_mr_resource_num = 7;
    {
        const qnm::table_guard lock;
        ASSERT_EQ(_qnm_set_qnio(0x0B, &card, QNM_IGNORE, 0, 7), 0);
    }
    _qnm_qn_stats_print(0);
    EXPECT_THAT(
        logs.texts("statslogfile"),
        ElementsAre("  - QN card num", "    qnsv total: 1", "    qnio total: 1", " ",
                    "    G-ID SV num IO num", "    ---- ------ ------", "      10      1      0",
                    "      20      0      1", "  - QN card information", "    [QNSV]",
                    "                ID G-ID  TYPE VER CONNECT IG-STATE VLAN MODE",
                    "    -------------- ---- ----- --- ------- -------- ---------",
                    "    0x00000000000a   10 1/10G   3    CDDC  RESTART    NORMAL", "    [QNIO]",
                    "                ID G-ID  TYPE VER CONNECT IG-STATE VLAN MODE R-ID",
                    "    -------------- ---- ----- --- ------- -------- --------- ----",
                    "    0x00000000000b   20   40G   1    DDDD   IGNORE    CHANGE    7"));
}

TEST_F(qn_info, the_detail_shows_every_field) {
    qnm_qnsv_t sv = make(0x0A, 10, 5);
    sv.esv_com_dev.ecd_recvtime[1][0] = 123;
    sv.esv_down_port[15].edp_port_status[1] = 2;
    ASSERT_EQ(set(0x0A, &sv, 7, 0, 4), 0);
    qnm_qnio_t card = {};
    card.eio_com_dev.ecd_id = 0x0B;
    card.eio_class_code = 0x010203;
    card.eio_sermacaddr[5] = 0xFE;
    {
        const qnm::table_guard lock;
        ASSERT_EQ(_qnm_set_qnio(0x0B, &card, 0, 0, 7), 0);
    }
    _qnm_qn_stats_print(1);
    const std::vector<std::string> lines = logs.texts("statslogfile");
    EXPECT_THAT(lines, IsSupersetOf({"  - QN card information detail",
                                     "    ID: 0x00000000000a",
                                     "      esn_ignore_state      : 0",
                                     "      esn_check_count       : 4",
                                     "      ecd_recvtime[1][0]    : 123",
                                     "      ecd_updatetime        : 5",
                                     "      ecd_state[1][1]       : 0",
                                     "      ecd_vlan_id           : 10",
                                     "      ecd_macaddr           : 00:00:00:00:00:00",
                                     "      ecd_swstatus          : 00 00 00",
                                     "      UP PORT",
                                     "        ecp_command           : 0",
                                     "      DOWN PORT0",
                                     "      DOWN PORT15",
                                     "        edp_port_status       : 00 02",
                                     "        edp_io_mac            : 00:00:00:00:00:00",
                                     "    ID: 0x00000000000b",
                                     "      ein_ignore_state      : 0",
                                     "      eio_class_code        : 66051",
                                     "      eio_sermacaddr        : 00:00:00:00:00:fe",
                                     "      eio_substate          : 00 00",
                                     "      eio_pcie_presence     : 0"}));
    // Head, 2 states, 22 common fields; 1 + 10 for the up port; 16 * (1 + 2 + 10); a blank.
    const auto first = std::find(lines.begin(), lines.end(), "    ID: 0x00000000000a");
    const auto second = std::find(lines.begin(), lines.end(), "    ID: 0x00000000000b");
    EXPECT_EQ(second - first, 1 + 2 + 22 + 11 + 16 * 13 + 1);
    EXPECT_EQ(lines.end() - second, 1 + 2 + 22 + 9 + 1);
    EXPECT_EQ(lines.back(), " ");
}

// Enough cards of both kinds, in groups of their own, that the dump copies them in many goes.
struct long_dump : qn_info {
    static constexpr uint64_t k_cards = 300;

    long_dump() {
        for (uint64_t id = 1; id <= k_cards; id++)
            add_both(2 * id);
        logs.clear();
    }

    static void add_both(uint64_t id) {
        add(id, static_cast<uint16_t>(id));
        qnm_qnio_t card = {};
        card.eio_com_dev.ecd_id = id;
        card.eio_com_dev.ecd_vlan_id = 7;
        const qnm::table_guard lock;
        ASSERT_EQ(_qnm_set_qnio(id, &card, QNM_WATCH, 0, QNM_VALID_ALL), 0);
    }

    static bool table_is_free() {
        if (pthread_mutex_trylock(&qnm_qn.eei_mutex.em_mutex) != 0) return false;
        pthread_mutex_unlock(&qnm_qn.eei_mutex.em_mutex);
        return true;
    }

    // The IDs of the detailed part, in its order: QNSV cards, then QNIO cards.
    std::vector<uint64_t> detailed() const {
        std::vector<uint64_t> ids;
        for (const std::string& line : logs.texts("statslogfile")) {
            if (line.starts_with("    ID: "))
                ids.push_back(std::stoull(line.substr(8), nullptr, 16));
        }
        return ids;
    }
};

TEST_F(long_dump, holds_the_table_while_no_line_is_written) {
    size_t held = 0;
    logs.on_line([&](const log_line& line) {
        if (line.logger == "statslogfile" && !table_is_free()) held++;
    });
    _qnm_qn_stats_print(1);
    logs.on_line(nullptr);
    EXPECT_EQ(held, 0U) << "of " << logs.texts("statslogfile").size() << " lines";
}

TEST_F(long_dump, has_every_card_and_group_once_and_in_order) {
    _qnm_qn_stats_print(1);
    std::vector<uint64_t> expected;
    for (uint64_t id = 1; id <= k_cards; id++)
        expected.push_back(2 * id);
    std::vector<uint64_t> rows;
    std::vector<uint64_t> groups;
    for (const std::string& line : logs.texts("statslogfile")) {
        if (line.starts_with("    0x"))
            rows.push_back(std::stoull(line.substr(4, 14), nullptr, 16));
        if (line.ends_with("      1      0")) groups.push_back(std::stoull(line));
    }
    EXPECT_EQ(groups, expected);
    for (const uint64_t id : std::vector(expected))
        expected.push_back(id);
    EXPECT_EQ(rows, expected);
    EXPECT_EQ(detailed(), expected);
}

// The card that the dump has come to is gone when it goes on; others come before and behind it.
TEST_F(long_dump, goes_on_behind_cards_that_are_deleted_meanwhile) {
    bool added = false;
    logs.on_line([&](const log_line& line) {
        if (!line.text.starts_with("    ID: ")) return;
        const uint64_t id = std::stoull(line.text.substr(8), nullptr, 16);
        if (qnm_delete_qnsv(id) != QNM_API_SUCCESS) qnm_delete_qnio(id);
        if (id != 100 || added) return;
        added = true;
        add_both(51);
        add_both(501);
    });
    _qnm_qn_stats_print(1);
    logs.on_line(nullptr);
    std::vector<uint64_t> servers = {501};
    std::vector<uint64_t> ios = {51, 501};
    for (uint64_t id = 2; id <= 2 * k_cards; id += 2) {
        servers.push_back(id);
        ios.push_back(id);
    }
    std::sort(servers.begin(), servers.end());
    std::sort(ios.begin(), ios.end());
    servers.insert(servers.end(), ios.begin(), ios.end());
    EXPECT_EQ(detailed(), servers);
}

}  // namespace
