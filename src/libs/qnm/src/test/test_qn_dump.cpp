// test_qn_dump.cpp - the device-table section of the status dump.

#include "qnm_qn_dump.h"

#include <algorithm>
#include <string>
#include <vector>

#include "units.h"

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;

struct qn_dump : units {
    static qnm_qnsv_t make(uint64_t id, uint16_t vlan, uint64_t updatetime = 0) {
        qnm_qnsv_t card = {};
        card.esv_com_dev.ecd_id = id;
        card.esv_com_dev.ecd_vlan_id = vlan;
        card.esv_com_dev.ecd_updatetime = updatetime;
        return card;
    }

    static int set(uint64_t id, qnm_qnsv_t* card, uint32_t valid = QNM_VALID_ALL,
                   uint32_t state = 0, uint32_t count = 0) {
        const qnm::table_guard lock;
        return _qnm_set_qnsv(id, card, state, count, valid);
    }

    static void add(uint64_t id, uint16_t vlan) {
        qnm_qnsv_t card = make(id, vlan);
        ASSERT_EQ(set(id, &card), 0);
    }
};

TEST_F(qn_dump, empty_tables_are_printed_as_such) {
    _qnm_qn_stats_print(0);
    EXPECT_THAT(
        logs.texts("statslogfile"),
        ElementsAre("  - QN card num", "    qnsv total: 0", "    qnio total: 0", " ",
                    "    G-ID SV num IO num", "    ---- ------ ------", "  - QN card information",
                    "    [QNSV]", "    no entry.", "    [QNIO]", "    no entry."));
}

TEST_F(qn_dump, cards_are_printed_in_rows) {
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

TEST_F(qn_dump, the_detail_shows_every_field) {
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

// Enough cards of both kinds, each in its own group, for the dump to copy them in many steps.
struct long_dump : qn_dump {
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

// The card at which the dump has stopped is deleted before it goes on; others are added before and
// after it.
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
