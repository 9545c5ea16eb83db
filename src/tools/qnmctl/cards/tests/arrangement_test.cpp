// Which cards are shown, and in which order.
#include "cards/arrangement.h"

#include <gtest/gtest.h>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

using ids = std::vector<std::uint64_t>;

const wall_time now = from_milliseconds(1'700'000'005'123);

// The server was heard five seconds ago, the device never; a third one has no path.
std::vector<card> three_cards() {
    qnm_qnsv_t lost = sample_server();
    lost.esv_com_dev.ecd_id = 0x5;
    lost.esv_com_dev.ecd_vlan_id = 20;
    lost.esv_com_dev.ecd_state[0][0] = 0;
    lost.esv_com_dev.ecd_recvtime[0][0] = 1'700'000'004'123;
    return {sample_server(), sample_device(), lost};
}

ids shown(const card_filter& filter, card_order order = card_order::id, bool reversed = false) {
    ids found;
    for (const card& record : arranged(three_cards(), filter, order, reversed, now))
        found.push_back(common(record).ecd_id);
    return found;
}

TEST(Arranged, IsByTheOrder) {
    const ids by_id = {0x5, 0x020000001000, 0x020000003000};
    EXPECT_EQ(by_id, shown({}));
    EXPECT_EQ(ids(by_id.rbegin(), by_id.rend()), shown({}, card_order::id, true));
    EXPECT_EQ((ids{0x020000001000, 0x5, 0x020000003000}), shown({}, card_order::vlan));
    EXPECT_EQ((ids{0x5, 0x020000001000, 0x020000003000}), shown({}, card_order::paths));
    EXPECT_EQ((ids{0x5, 0x020000001000, 0x020000003000}), shown({}, card_order::kind));
    EXPECT_EQ((ids{0x5, 0x020000001000, 0x020000003000}), shown({}, card_order::type));
    EXPECT_EQ((ids{0x020000003000, 0x020000001000, 0x5}), shown({}, card_order::heard));
}

TEST(Arranged, LeavesOutWhatDoesNotPass) {
    EXPECT_EQ(ids{0x5}, shown({.connected = false}));
    EXPECT_EQ((ids{0x020000001000, 0x020000003000}), shown({.connected = true}));
    EXPECT_EQ(ids{0x020000003000}, shown({.cards = {.kind = card_kind::device}}));
    EXPECT_EQ(ids{0x5}, shown({.cards = {.group = 20}}));
    EXPECT_EQ(ids{0x020000003000}, shown({.text = "40G vlan30"}));
    EXPECT_EQ(ids{}, shown({.text = "40G vlan10"}));
}

}  // namespace
}  // namespace qnmctl
