// test_frame.cpp - the wire format: where every field of a frame lies, and how numbers are encoded.

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "qnm_frame.h"

namespace {

// ---- Layout -------------------------------------------------------------------------------------

struct layout_row {
    const char* name;
    size_t offset;  // from the first byte of the frame
    size_t size;
    size_t expected_offset;
    size_t expected_size;
};

template <typename Record>
constexpr Record k_any = {};

#define WHOLE(record) #record, 0, sizeof(record)
#define FIELD(record, field) #record "." #field, PLACE(record, field)
#define PLACE(record, field) offsetof(record, field), sizeof((k_any<record>).field)

constexpr layout_row k_layout[] = {
    {WHOLE(quillnet_header_s), 0, 18},
    {FIELD(quillnet_header_s, dmac), 0, 6},
    {FIELD(quillnet_header_s, smac), 6, 6},
    {FIELD(quillnet_header_s, tpid), 12, 2},
    {FIELD(quillnet_header_s, tci), 14, 2},
    {FIELD(quillnet_header_s, type), 16, 2},

    {WHOLE(vm_ether_header_s), 0, 18},
    {FIELD(vm_ether_header_s, dmac), 0, 6},
    {FIELD(vm_ether_header_s, smac), 6, 6},
    {FIELD(vm_ether_header_s, type), 12, 2},
    {FIELD(vm_ether_header_s, tpid), 14, 2},
    {FIELD(vm_ether_header_s, tci), 16, 2},

    {WHOLE(quillnet_peb_s), 0, 22},
    {FIELD(quillnet_peb_s, subtype), 18, 1},

    {WHOLE(qnet_com_devinfo_s), 0, 10},
    {WHOLE(qnw_devinfo_com_s), 0, 28},
    {FIELD(qnw_devinfo_com_s, com.subtype), 18, 1},
    {FIELD(qnw_devinfo_com_s, com.flowid_da), 19, 1},
    {FIELD(qnw_devinfo_com_s, com.flowid_sa), 20, 1},
    {FIELD(qnw_devinfo_com_s, com.ver), 21, 1},
    {FIELD(qnw_devinfo_com_s, com.info), 22, 1},
    {FIELD(qnw_devinfo_com_s, com.host), 23, 1},
    {FIELD(qnw_devinfo_com_s, com.link_status), 24, 1},
    {FIELD(qnw_devinfo_com_s, com.sw_status), 25, 3},
    {WHOLE(vm_devinfo_com_s), 0, 28},
    {FIELD(vm_devinfo_com_s, com), 18, 10},

    {WHOLE(qnw_devinfo_server_s), 0, 272},
    {WHOLE(qnw_devinfo_server_40g_s), 0, 496},
    {WHOLE(qnw_devinfo_io_s), 0, 44},
    {WHOLE(qnw_devinfo_mrio_s), 0, 46},
    {FIELD(qnw_devinfo_mrio_s, resource_id), 44, 2},

    {WHOLE(qnw_completion_s), 0, 28},
    {FIELD(qnw_completion_s, comp.subtype), 18, 1},
    {FIELD(qnw_completion_s, comp.flowid_da), 19, 1},
    {FIELD(qnw_completion_s, comp.flowid_sa), 20, 1},
    {FIELD(qnw_completion_s, comp.ver), 21, 1},
    {FIELD(qnw_completion_s, comp.info), 22, 1},
    {FIELD(qnw_completion_s, comp.tag), 23, 1},
    {FIELD(qnw_completion_s, comp.data), 24, 4},

    {WHOLE(qnet_com_register_s), 0, 10},
    {WHOLE(qnw_register_read_s), 0, 28},
    {FIELD(qnw_register_read_s, regr.com.subtype), 18, 1},
    {FIELD(qnw_register_read_s, regr.com.flowid_da), 19, 1},
    {FIELD(qnw_register_read_s, regr.com.flowid_sa), 20, 1},
    {FIELD(qnw_register_read_s, regr.com.ver), 21, 1},
    {FIELD(qnw_register_read_s, regr.com.info), 22, 1},
    {FIELD(qnw_register_read_s, regr.com.tag), 23, 1},
    {FIELD(qnw_register_read_s, regr.com.address), 24, 4},
    {WHOLE(qnw_register_write_s), 0, 32},
    {FIELD(qnw_register_write_s, regw.com.tag), 23, 1},
    {FIELD(qnw_register_write_s, regw.com.address), 24, 4},
    {FIELD(qnw_register_write_s, regw.data), 28, 4},

    {WHOLE(qnw_vlanset_type0_s), 0, 28},
    {FIELD(qnw_vlanset_type0_s, vlanset.subtype), 18, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.flowid_da), 19, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.flowid_sa), 20, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.ver), 21, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.info), 22, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.type), 23, 1},
    {FIELD(qnw_vlanset_type0_s, vlanset.vlan_id), 24, 2},
    {FIELD(qnw_vlanset_type0_s, vlanset.reserved1), 26, 2},

    {WHOLE(qnw_reset_s), 0, 24},
    {FIELD(qnw_reset_s, reset.subtype), 18, 1},
    {FIELD(qnw_reset_s, reset.flowid_da), 19, 1},
    {FIELD(qnw_reset_s, reset.flowid_sa), 20, 1},
    {FIELD(qnw_reset_s, reset.ver), 21, 1},
    {FIELD(qnw_reset_s, reset.info), 22, 1},
    {FIELD(qnw_reset_s, reset.status), 23, 1},

    {WHOLE(qnw_mms_write_s), 0, 156},
    {FIELD(qnw_mms_write_s, dmac), 0, 6},
    {FIELD(qnw_mms_write_s, smac), 6, 6},
    {FIELD(qnw_mms_write_s, tpid), 12, 2},
    {FIELD(qnw_mms_write_s, tci), 14, 2},
    {FIELD(qnw_mms_write_s, type), 16, 2},
    {FIELD(qnw_mms_write_s, subtype), 18, 1},
    {FIELD(qnw_mms_write_s, flowid_da), 19, 1},
    {FIELD(qnw_mms_write_s, flowid_sa), 20, 1},
    {FIELD(qnw_mms_write_s, reserved), 21, 3},
    {FIELD(qnw_mms_write_s, address), 24, 4},
    {FIELD(qnw_mms_write_s, data), 28, 128},
};

#undef WHOLE
#undef FIELD
#undef PLACE

TEST(layout, has_every_field_at_its_place) {
    for (const layout_row& row : k_layout) {
        EXPECT_EQ(row.offset, row.expected_offset) << row.name;
        EXPECT_EQ(row.size, row.expected_size) << row.name;
    }
}

template <typename Frame>
class Overlay : public testing::Test {};

using frames =
    testing::Types<quillnet_header_s, vm_ether_header_s, quillnet_peb_s, qnw_devinfo_com_s,
                   vm_devinfo_com_s, qnw_devinfo_server_s, qnw_devinfo_server_40g_s,
                   qnw_devinfo_io_s, qnw_devinfo_mrio_s, qnw_completion_s, qnw_register_read_s,
                   qnw_register_write_s, qnw_vlanset_type0_s, qnw_reset_s, qnw_mms_write_s>;
TYPED_TEST_SUITE(Overlay, frames);

TYPED_TEST(Overlay, fits_any_address_and_any_bytes) {
    EXPECT_EQ(alignof(TypeParam), 1u);
    EXPECT_TRUE(std::is_trivially_copyable_v<TypeParam>);
    EXPECT_TRUE(std::has_unique_object_representations_v<TypeParam>);  // no padding
}

// ---- Constants ----------------------------------------------------------------------------------

TEST(constants, are_those_of_the_wire) {
    EXPECT_EQ(qnm::k_vlan_tpid, 0x8100);
    EXPECT_EQ(qnm::k_priority_mask, 0xE0);
    EXPECT_EQ(qnm::k_priority, 0x80);
    EXPECT_EQ(qnm::k_vlan_id_mask, 0x0FFF);
    EXPECT_EQ(qnm::k_no_flowid, 0xFF);
    EXPECT_EQ(qnm::k_min_recv_size, 28u);
    EXPECT_EQ(qnm::k_send_size, 60u);
    EXPECT_EQ(qnm::k_host_qnsv, 0);
    EXPECT_EQ(qnm::k_host_qnio, 1);
    EXPECT_EQ(qnm::k_version_mask, 0x0F);
    EXPECT_EQ(qnm::k_version_mr, 1);
}

TEST(constants, tell_the_message_kinds) {
    EXPECT_EQ(qnm::k_devinfo, 0x10);
    EXPECT_EQ(qnm::k_notify, 0x11);
    EXPECT_EQ(qnm::k_devinfo_40g, 0x18);
    EXPECT_EQ(qnm::k_notify_40g, 0x19);
    EXPECT_EQ(qnm::k_completion, 0x20);
    EXPECT_EQ(qnm::k_reset, 0x30);
    EXPECT_EQ(qnm::k_vlanset_type0, 0x80);
    EXPECT_EQ(qnm::k_register_write, 0x90);
    EXPECT_EQ(qnm::k_register_read, 0x91);
    EXPECT_EQ(qnm::k_mms_write, 0x92);
}

// ---- Numbers ------------------------------------------------------------------------------------

using bytes4 = std::array<uint8_t, 4>;

bytes4 wire_address(uint32_t address) {
    uint8_t bytes[4];
    qnm::put_be32(bytes, qnm::encode_register_address(address));
    return std::to_array(bytes);
}

TEST(numbers, of_16_bits_travel_most_significant_byte_first) {
    uint8_t bytes[2] = {0xEE, 0xEE};
    qnm::put_be16(bytes, 0x88B6);
    EXPECT_EQ(std::to_array(bytes), (std::array<uint8_t, 2>{0x88, 0xB6}));
    EXPECT_EQ(qnm::be16(bytes), 0x88B6);
    const uint8_t high[2] = {0xFF, 0x01};
    EXPECT_EQ(qnm::be16(high), 0xFF01);
}

TEST(numbers, of_32_bits_travel_most_significant_byte_first) {
    uint8_t bytes[4];
    qnm::put_be32(bytes, 0xFEDCBA98);
    EXPECT_EQ(std::to_array(bytes), (bytes4{0xFE, 0xDC, 0xBA, 0x98}));
}

TEST(numbers, of_the_cards_registers_travel_least_significant_byte_first) {
    const uint8_t two[2] = {0x01, 0x02};
    const uint8_t four[4] = {0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(qnm::host16(two), 0x0201);
    EXPECT_EQ(qnm::host32(four), 0x04030201u);
}

TEST(register_address, travels_with_a_gap_and_without_its_highest_bits) {
    EXPECT_EQ(qnm::encode_register_address(0x00ABCDEF), 0x02BC0DEFu);
    EXPECT_EQ(wire_address(0x00ABCDEF), (bytes4{0x02, 0xBC, 0x0D, 0xEF}));
}

TEST(register_address, moves_each_bit_to_its_place) {
    for (unsigned bit = 0; bit < 32; bit++) {
        const uint32_t expected = bit <= 11   ? uint32_t{1} << bit
                                  : bit <= 21 ? uint32_t{1} << (bit + 4)
                                              : 0;
        EXPECT_EQ(qnm::encode_register_address(uint32_t{1} << bit), expected) << bit;
    }
    EXPECT_EQ(qnm::encode_register_address(0xFFFFFFFF), 0x03FF0FFFu);
}

}  // namespace
