// filter_test.cpp - which frames reach the library's captures at all.

#include <gmock/gmock.h>
#include <pcap/pcap.h>

#include <algorithm>

#include "qnm_counters.h"
#include "qnm_root.h"
#include "rig.h"

namespace e2e {
namespace {

using cardsim::frame_bytes;
using testing::HasSubstr;
using testing::Not;

using filter = running_manager;

// Frames that the kernel has handed to the capture of port 0.
unsigned captured() {
    pcap_stat stats = {};
    EXPECT_EQ(pcap_stats(qnm_root.er_port_info[0].epi_pcap, &stats), 0);
    return stats.ps_recv;
}

uint64_t taken() {
    return std::atomic_ref(qnm_stats.est_stats_p0[QNM_STATS_R_TOTAL]).load();
}

frame_bytes announcement(bool vlan_change_mode) {
    const auto card = cardsim::make_card("card", card_kind::qnio, card_speed::g1_10, k_id);
    frame_bytes frame = cardsim::encode(card, cardsim::message::devinfo, 0);
    // Tag and type are swapped.
    if (vlan_change_mode) std::rotate(&frame[12], &frame[16], &frame[18]);
    return frame;
}

// An announcement in all but its type, which is that of IPv4.
frame_bytes foreign(bool tagged) {
    frame_bytes frame = announcement(false);
    frame[16] = 0x08;
    frame[17] = 0x00;
    if (!tagged) frame.erase(frame.begin() + 12, frame.begin() + 16);
    return frame;
}

TEST_F(filter, announcements_pass_in_both_arrangements_and_foreign_frames_do_not) {
    constexpr unsigned k_foreign = 1000;
    const unsigned before = captured();
    for (unsigned n = 0; n < k_foreign; n++)
        cards_->send_raw(0, foreign(n % 2 == 0));
    cards_->send_raw(0, announcement(true));
    cards_->send_raw(0, announcement(false));
    ASSERT_TRUE(wait_for([] { return taken() == 2; }));
    EXPECT_EQ(captured() - before, 2U);
}

TEST_F(filter, frames_that_the_host_sends_itself_do_not_pass) {
    const unsigned before = captured();  // while the capture had no filter yet
    cards_->add(lively(card_kind::qnsv, card_speed::g1_10, k_id));
    ASSERT_TRUE(wait_for([] { return paths(k_id) == "CDCD"; }));
    for (uint32_t n = 0; n < 10; n++) {
        uint32_t value = 0;
        EXPECT_EQ(qnm_read_register(k_id, 4 * n, &value, nullptr, 0), QNM_API_SUCCESS);
    }
    // Everything that was captured has been accepted: announcements and Completions.
    EXPECT_TRUE(wait_for([&] { return captured() - before == taken(); }))
        << captured() - before << " captured, " << taken() << " taken";
}

TEST_F(filter, the_trace_level_shows_what_is_dropped_and_no_other_does) {
    const char* const line = "Ether type is mismatch. type=0x0800";
    cards_->send_raw(0, foreign(true));
    ASSERT_EQ(qnm_set_loglevel(QNM_LOGLVL_TRACE), QNM_API_SUCCESS);
    EXPECT_THAT(install.log(), Not(HasSubstr(line)));
    cards_->send_raw(0, foreign(true));
    ASSERT_TRUE(wait_for([&] { return install.log().find(line) != std::string::npos; }));
    ASSERT_EQ(qnm_set_loglevel(QNM_LOGLVL_INFO), QNM_API_SUCCESS);
    const uint64_t taken_before = taken();
    const unsigned captured_before = captured();
    cards_->send_raw(0, foreign(true));
    cards_->send_raw(0, announcement(false));
    ASSERT_TRUE(wait_for([&] { return taken() == taken_before + 1; }));
    EXPECT_EQ(captured() - captured_before, 1U);
}

}  // namespace
}  // namespace e2e
