// Which cards a kind or a group selects.
#include "records/selection.h"

#include <gtest/gtest.h>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

TEST(FittingIds, AreThoseOfTheKnownCardsThatFit) {
    qnm_qnsv_t second = sample_server();
    second.esv_com_dev.ecd_id = 0x1;
    second.esv_com_dev.ecd_vlan_id = 30;
    const std::vector<card> known = {sample_server(), second, sample_device()};
    using ids = std::vector<std::uint64_t>;
    EXPECT_EQ((ids{0x1, 0x020000001000, 0x020000003000}), fitting_ids(known, {.all = true}));
    EXPECT_EQ((ids{0x1, 0x020000001000}), fitting_ids(known, {.kind = card_kind::server}));
    EXPECT_EQ(ids{0x020000003000}, fitting_ids(known, {.kind = card_kind::device}));
    EXPECT_EQ((ids{0x1, 0x020000003000}), fitting_ids(known, {.group = 30}));
    EXPECT_EQ(ids{0x1}, fitting_ids(known, {.kind = card_kind::server, .group = 30}));
    EXPECT_EQ(ids{}, fitting_ids(known, {.group = 99}));
}

TEST(FittingIds, HasACardThatIsKnownAsBothKindsOnce) {
    qnm_qnio_t changed = sample_device();
    changed.eio_com_dev.ecd_id = 0x020000001000;
    EXPECT_EQ(std::vector<std::uint64_t>{0x020000001000},
              fitting_ids({sample_server(), changed}, {.all = true}));
}

}  // namespace
}  // namespace qnmctl
