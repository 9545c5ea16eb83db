// test_recv_offsets.cpp - frames at addresses that are not aligned for the numbers in them.
//
// In libpcap's ring a frame begins two bytes after an aligned address, in a file anywhere. On
// x86-64 and arm64 most unaligned reads work, so only UndefinedBehaviorSanitizer finds a careless
// one.

#include <cstring>
#include <utility>

#include "frame_kinds.h"
#include "ports.h"
#include "qnm_completion.h"

namespace {

using frames::frame_t;

constexpr size_t k_offsets = 16;

struct recv_offsets : ports {
    // Handles the frame at that many bytes after an aligned address.
    static int receive_at(size_t offset, const frame_t& frame) {
        fake_pcap::set_frame_offset(offset);
        return receive(frame);
    }
};

// A record without the fields that differ between two cards with the same announcement.
template <typename Record>
Record without_own(Record record, qnm_com_dev_t Record::*common) {
    qnm_com_dev_t& own = record.*common;
    own.ecd_id = 0;
    memset(own.ecd_recvtime, 0, sizeof own.ecd_recvtime);
    own.ecd_updatetime = 0;
    memset(own.ecd_macaddr, 0, sizeof own.ecd_macaddr);
    return record;
}

qnm_qnsv_t record_of(uint64_t id, qnm_qnsv_t) {
    qnm_qnsv_t record = {};
    EXPECT_EQ(qnm_get_qnsv(id, &record), QNM_API_SUCCESS);
    return without_own(record, &qnm_qnsv_t::esv_com_dev);
}

qnm_qnio_t record_of(uint64_t id, qnm_qnio_t) {
    qnm_qnio_t record = {};
    EXPECT_EQ(qnm_get_qnio(id, &record), QNM_API_SUCCESS);
    return without_own(record, &qnm_qnio_t::eio_com_dev);
}

// An announcement of this kind by this card; neighbouring bytes of its payload always differ.
frame_t announced(const frame_kind& it, uint64_t id) {
    frames::announcement announcement = it.announcement;
    announcement.mac = id;
    frame_t frame = frames::build(announcement);
    for (size_t at = 28; at < frame.size(); at++)
        frame[at] = static_cast<unsigned char>(at * 37 + 11);
    return frame;
}

// From cards with this ID and those that follow, one for each offset.
template <typename Record>
void expect_the_same_at_every_offset(const frame_kind& it, uint64_t first) {
    constexpr uint64_t k_step = 2;  // IDs of 40G cards are even
    for (size_t offset = 0; offset < k_offsets; offset++) {
        const uint64_t id = first + k_step * offset;
        EXPECT_EQ(recv_offsets::receive_at(offset, announced(it, id)), 0);
        const Record expected = record_of(first, Record());
        const Record made = record_of(id, Record());
        EXPECT_EQ(memcmp(&made, &expected, sizeof made), 0) << text_of(it) << " at " << offset;
    }
}

TEST_F(recv_offsets, announcements_are_read_alike_wherever_they_lie) {
    uint64_t first = k_new;
    for (const frame_kind& it : all_kinds()) {
        if (it.is_server()) {
            expect_the_same_at_every_offset<qnm_qnsv_t>(it, first);
        } else {
            expect_the_same_at_every_offset<qnm_qnio_t>(it, first);
        }
        first += 0x1000;
    }
}

TEST_F(recv_offsets, completions_are_read_alike_wherever_they_lie) {
    constexpr uint64_t k_mac = 0x020000001001;
    EXPECT_EQ(_qnm_cmp_init(), 0);
    for (const bool change_mode : {false, true}) {
        for (size_t offset = 0; offset < k_offsets; offset++) {
            _qnm_set_comp_recv_wait(7, k_mac, 0);
            const frames::completion answer = {.tag = 7,
                                               .mac = k_mac,
                                               .data = {0x01, 0x02, 0x03, 0x04},
                                               .vlan_change_mode = change_mode};
            EXPECT_EQ(receive_at(offset, frames::build_completion(answer)), 0);
            uint32_t value = 0;
            EXPECT_EQ(_qnm_get_readreg(7, &value), 0) << offset;
            EXPECT_EQ(value, 0x04030201U) << offset;
            _qnm_release_tag(7);
        }
    }
    _qnm_cmp_fini();
}

}  // namespace
