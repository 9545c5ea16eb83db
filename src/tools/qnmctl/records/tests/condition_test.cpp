// What is wrong with a card.
#include "records/condition.h"

#include <gtest/gtest.h>

#include "tests/sample_cards.h"

namespace qnmctl {
namespace {

qnm_qnio_t well_device() {
    qnm_qnio_t record = sample_device();
    record.eio_com_dev.ecd_power = 1;
    return record;
}

TEST(Condition, IsWellWithoutTrouble) {
    EXPECT_EQ(condition::well, condition_of(well_device()));
    EXPECT_EQ("", trouble_text(well_device()));
}

TEST(Condition, IsLostWithoutAnyPath) {
    qnm_qnio_t record = well_device();
    record.eio_com_dev.ecd_state[1][1] = 0;
    EXPECT_EQ(condition::lost, condition_of(record));
}

TEST(Condition, IsFaultyWithALostPath) {
    qnm_qnio_t record = well_device();
    record.eio_com_dev.ecd_recvtime[0][0] = 1;
    EXPECT_EQ(condition::faulty, condition_of(record));
}

TEST(Condition, IsFaultyWithAnErrorOfTheCard) {
    qnm_qnio_t record = well_device();
    record.eio_link1fault = 1;
    EXPECT_EQ(condition::faulty, condition_of(record));
    EXPECT_EQ("link 1 fault", trouble_text(record));
    record.eio_link0fault = 1;
    record.eio_com_dev.ecd_power = 0;
    record.eio_com_dev.ecd_int_vector = 0x12;
    EXPECT_EQ("link 0 fault, link 1 fault, power off, vector 0x12", trouble_text(record));
    qnm_qnsv_t server = sample_server();
    server.esv_com_dev.ecd_int_vector = 1;
    EXPECT_EQ(condition::faulty, condition_of(server));
}

// A card whose host is switched off is well.
TEST(Condition, IsWellWithoutPower) {
    EXPECT_EQ(condition::well, condition_of(sample_device()));
    EXPECT_EQ("power off", trouble_text(sample_device()));
}

}  // namespace
}  // namespace qnmctl
