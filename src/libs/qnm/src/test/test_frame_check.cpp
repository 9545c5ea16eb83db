// test_frame_check.cpp - the verdict on a frame and its text. What the receive path does with each
// verdict is in test_recv.cpp.

#include "qnm_frame_check.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "frames.h"

namespace {

using frames::announcement;
using frames::frame_t;

constexpr uint16_t k_type = 0x88B6;

qnm_frame_verdict_t judge(const frame_t& frame, size_t length, uint16_t type = k_type) {
    const qnm_frame_bytes_t bytes = {frame.data(), frame.size(), length};
    qnm_frame_verdict_t verdict = _qnm_check_frame(&bytes, type);
    _qnm_check_frame_host(&bytes, &verdict);
    return verdict;
}

qnm_frame_verdict_t judge(const frame_t& frame) {
    return judge(frame, frame.size());
}

std::string text_of(const qnm_frame_verdict_t& verdict) {
    char text[QNM_FRAME_TEXT_SIZE];
    _qnm_frame_reason_text(&verdict, text);
    return text;
}

TEST(frame_check, a_frame_that_is_taken_has_its_kind_and_arrangement) {
    for (const bool change_mode : {false, true}) {
        announcement it;
        it.vlan_change_mode = change_mode;
        const qnm_frame_verdict_t verdict = judge(frames::build(it));
        EXPECT_EQ(QNM_FRAME_TAKEN, verdict.reason);
        ASSERT_NE(nullptr, verdict.kind);
        EXPECT_EQ(0x10, verdict.kind->subtype);
        EXPECT_STREQ("1G/10G DEVINFO", verdict.kind->label);
        EXPECT_EQ(change_mode ? 1 : 0, verdict.layout->vlan_mode);
        EXPECT_EQ("", text_of(verdict));
    }
    EXPECT_EQ(QNM_FRAME_TAKEN, judge(frames::build_completion({})).reason);
}

// A frame and the reason for which it is dropped.
struct dropped_row {
    const char* text;
    qnm_frame_reason_t reason;
    frame_t frame;
};

TEST(frame_check, each_reason_has_the_number_that_it_is_about) {
    announcement mode;
    mode.vlan_change_mode = true;
    mode.host = 1;
    frame_t tpid = frames::build(mode);
    tpid[15] = 1;
    const dropped_row rows[] = {
        {"Recv size is too short. len=27", QNM_FRAME_TOO_SHORT, frames::build({.length = 27})},
        {"priority is not 100(bit). pri=0xA0", QNM_FRAME_PRIORITY, frames::build({.tci = 0xA00A})},
        {"TPID type is mismatch.(VlanTag change mode) tpid=0x8101", QNM_FRAME_TPID, tpid},
        {"Subtype is mismatch. subtype=0x30", QNM_FRAME_SUBTYPE, frames::build({.subtype = 0x30})},
        {"Recv size is not enough. subtype=0x19, recv_size=495, msg_size=496", QNM_FRAME_SIZE,
         frames::build({.subtype = 0x19, .length = 495})},
        {"Drop 1G/10G NOTIFY to send from (ver=2) QN card.", QNM_FRAME_VER,
         frames::build({.subtype = 0x11, .ver = 2})},
        {"Unknwon PEB. host=0x02", QNM_FRAME_HOST, frames::build({.host = 2})},
    };
    for (const dropped_row& row : rows) {
        const qnm_frame_verdict_t verdict = judge(row.frame);
        EXPECT_EQ(row.reason, verdict.reason) << row.text;
        EXPECT_EQ(row.text, text_of(verdict));
    }
}

TEST(frame_check, the_arrangement_stands_in_the_text) {
    announcement it;
    it.tci = 0;
    EXPECT_EQ("Ether type is mismatch. type=0x88B6",
              text_of(judge(frames::build({}), 272, 0x1234)));
    it.vlan_change_mode = true;
    EXPECT_EQ("priority is not 100(bit).(VlanTag change mode) pri=0x00",
              text_of(judge(frames::build(it))));
    EXPECT_EQ("Ether type is mismatch.(VlanTag change mode) type=0x88B6",
              text_of(judge(frames::build(it), 272, 0x1234)));
}

// With any number of captured bytes, nothing behind them is read, as the sanitizers check, and a
// frame is not dropped for fields that were not captured.
TEST(frame_check, bytes_that_were_not_captured_count_as_right) {
    for (const announcement& it :
         {announcement{.subtype = 0x11, .host = 1}, announcement{.subtype = 0x18},
          announcement{.subtype = 0x19, .vlan_change_mode = true}}) {
        const frame_t whole = frames::build(it);
        for (size_t captured = 0; captured <= whole.size(); captured++) {
            const frame_t part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(captured));
            const qnm_frame_verdict_t verdict = judge(part, whole.size());
            EXPECT_EQ(QNM_FRAME_TAKEN, verdict.reason) << captured << ' ' << text_of(verdict);
        }
    }
}

TEST(frame_check, reasons_have_names_and_titles_of_their_own) {
    std::set<std::string> names;
    std::set<std::string> titles;
    int reason = QNM_FRAME_TAKEN;
    for (const qnm_frame_reason_row_t& row : qnm::frame_reasons()) {
        EXPECT_EQ(++reason, row.reason);
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_TRUE(titles.insert(row.title).second) << row.title;
    }
    EXPECT_EQ(QNM_FRAME_HOST, reason);
}

}  // namespace
