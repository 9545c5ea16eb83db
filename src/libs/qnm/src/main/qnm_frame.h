// qnm_frame.h - the wire format: headers and messages exchanged with QN cards.
//
// A frame starts with an 18-byte header that carries one 802.1Q tag, in one of two arrangements:
// the ordinary one (tag, then Ethernet type) or that of the VLAN-tag change mode (Ethernet type,
// then tag). The message follows at offset 18 in both.
//
// Every structure is made of bytes only, so it has no padding, needs no alignment and can be laid
// over a received frame once its length has been checked. Multi-byte fields are read and written
// through qnm::be16 and its siblings (network byte order) or qnm::host16 and its siblings (the
// host's own byte order, which has to be that of the cards).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qnm {

static_assert(std::endian::native == std::endian::little,
              "cards send their registers with the little end first");

constexpr uint16_t k_vlan_tpid = 0x8100;
constexpr uint8_t k_priority_mask = 0xE0;
constexpr uint8_t k_priority = 0x80;  // the bit pattern 100: priority 4
constexpr uint16_t k_vlan_id_mask = 0x0FFF;
constexpr uint8_t k_no_flowid = 0xFF;
constexpr size_t k_min_recv_size = 28;
constexpr size_t k_send_size = 60;  // Ethernet minimum without the frame check sequence

// Message kinds, byte 18 of every frame.
enum subtype : uint8_t {
    k_devinfo = 0x10,
    k_notify = 0x11,
    k_devinfo_40g = 0x18,
    k_notify_40g = 0x19,
    k_completion = 0x20,
    k_reset = 0x30,
    k_vlanset_type0 = 0x80,
    k_register_write = 0x90,
    k_register_read = 0x91,
    k_mms_write = 0x92,
};

// Byte 23 of a DEVINFO or NOTIFY: what kind of card announces itself.
enum host_kind : uint8_t { k_host_qnsv = 0, k_host_qnio = 1 };

// Multi-root cards announce this version; their QNIO payload carries a resource ID.
constexpr uint8_t k_version_mask = 0x0F;
constexpr uint8_t k_version_mr = 1;

constexpr uint16_t be16(const uint8_t (&b)[2]) {
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

constexpr void put_be16(uint8_t (&b)[2], uint16_t value) {
    b[0] = static_cast<uint8_t>(value >> 8);
    b[1] = static_cast<uint8_t>(value);
}

constexpr void put_be32(uint8_t (&b)[4], uint32_t value) {
    for (int i = 0; i < 4; i++)
        b[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

inline uint16_t host16(const uint8_t (&b)[2]) {
    uint16_t value;
    memcpy(&value, b, sizeof value);
    return value;
}

inline uint32_t host32(const uint8_t (&b)[4]) {
    uint32_t value;
    memcpy(&value, b, sizeof value);
    return value;
}

// A structure laid over a frame that is long enough for it.
template <typename Message>
const Message& view(const unsigned char* frame) {
    static_assert(alignof(Message) == 1);
    return *reinterpret_cast<const Message*>(frame);
}

template <typename Message>
Message& view(unsigned char* frame) {
    static_assert(alignof(Message) == 1);
    return *reinterpret_cast<Message*>(frame);
}

// Register addresses have a gap on the wire: bits 0 to 11 stay, bits 12 to 21 move up four places,
// and bits 22 to 31 are not sent.
constexpr uint32_t encode_register_address(uint32_t address) {
    return (address & 0x003FF000) << 4 | (address & 0x00000FFF);
}

}  // namespace qnm

// ---- Headers ------------------------------------------------------------------------------------

struct quillnet_header_s {
    uint8_t dmac[6];
    uint8_t smac[6];
    uint8_t tpid[2];
    uint8_t tci[2];
    uint8_t type[2];
};

struct vm_ether_header_s {
    uint8_t dmac[6];
    uint8_t smac[6];
    uint8_t type[2];
    uint8_t tpid[2];
    uint8_t tci[2];
};

// The start of any frame, up to its kind.
struct quillnet_peb_s {
    uint8_t reserved1[18];
    uint8_t subtype;
    uint8_t reserved2[3];
};

// ---- DEVINFO and NOTIFY -------------------------------------------------------------------------

struct qnet_com_devinfo_s {
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t ver;   // card type: 0 = 1G/10G, else 40G
    uint8_t info;  // bit 0, 1 link faults (QNIO), bit 2 UID switch, bit 3 power
    uint8_t host;
    uint8_t link_status;
    uint8_t sw_status[3];  // [1]: version, port links, PCIe presence; [2]: interrupt vector
};

struct qnw_devinfo_com_s {
    quillnet_header_s header;
    qnet_com_devinfo_s com;
};

struct vm_devinfo_com_s {
    vm_ether_header_s header;
    qnet_com_devinfo_s com;
};

struct qnet_com_port_s {
    uint8_t pri_bus_num;
    uint8_t sec_bus_num;
    uint8_t sub_bus_num;
    uint8_t command;
    uint8_t memory_base[2];
    uint8_t memory_limit[2];
    uint8_t pre_memory_base[2];
    uint8_t pre_memory_limit[2];
    uint8_t pre_base_upper[4];
    uint8_t pre_limit_upper[4];
};

struct qnet_down_port_s {
    uint8_t port_status[2];
    uint8_t io_mac[6];
    qnet_com_port_s com_port;
};

struct qnw_devinfo_server_s {
    qnw_devinfo_com_s common;
    qnet_com_port_s up_port;
    qnet_down_port_s down_port[8];
};

struct qnw_devinfo_server_40g_s {
    qnw_devinfo_com_s common;
    qnet_com_port_s up_port;
    qnet_down_port_s down_port[16];
};

struct qnet_devinfo_srv_s {
    uint8_t io_substate[2];
    uint8_t ser_mac[6];
    uint8_t device_id[2];
    uint8_t vendor_id[2];
    uint8_t reserved;
    uint8_t class_code[3];  // low byte first
};

struct qnw_devinfo_io_s {
    qnw_devinfo_com_s common;
    qnet_devinfo_srv_s devinfo_srv;
};

struct qnw_devinfo_mrio_s {
    qnw_devinfo_com_s common;
    qnet_devinfo_srv_s devinfo_srv;
    uint8_t resource_id[2];
};

// ---- Completion, and what the manager sends -----------------------------------------------------

struct qnet_com_comp_s {
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t ver;
    uint8_t info;
    uint8_t tag;
    uint8_t data[4];  // host byte order
};

struct qnw_completion_s {
    quillnet_header_s header;
    qnet_com_comp_s comp;
};

// What Register Read and Register Write have in common.
struct qnet_com_register_s {
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t ver;
    uint8_t info;
    uint8_t tag;
    uint8_t address[4];  // encoded
};

struct qnet_com_regr_s {
    qnet_com_register_s com;
};

struct qnet_com_regw_s {
    qnet_com_register_s com;
    uint8_t data[4];  // host byte order
};

struct qnet_com_vlanset0_s {
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t ver;
    uint8_t info;
    uint8_t type;
    uint8_t vlan_id[2];
    uint8_t reserved1[2];
};

struct qnet_com_reset_s {
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t ver;
    uint8_t info;
    uint8_t status;
};

struct qnw_register_read_s {
    quillnet_header_s header;
    qnet_com_regr_s regr;
};

struct qnw_register_write_s {
    quillnet_header_s header;
    qnet_com_regw_s regw;
};

struct qnw_vlanset_type0_s {
    quillnet_header_s header;
    qnet_com_vlanset0_s vlanset;
};

struct qnw_reset_s {
    quillnet_header_s header;
    qnet_com_reset_s reset;
};

struct qnw_mms_write_s {
    uint8_t dmac[6];
    uint8_t smac[6];
    uint8_t tpid[2];
    uint8_t tci[2];
    uint8_t type[2];
    uint8_t subtype;
    uint8_t flowid_da;
    uint8_t flowid_sa;
    uint8_t reserved[3];
    uint8_t address[4];    // page number, not encoded
    uint8_t data[32 * 4];  // 32 words in host byte order
};

// ---- Sizes and offsets --------------------------------------------------------------------------

static_assert(sizeof(quillnet_header_s) == 18 && offsetof(quillnet_header_s, tpid) == 12 &&
              offsetof(quillnet_header_s, tci) == 14 && offsetof(quillnet_header_s, type) == 16);
static_assert(sizeof(vm_ether_header_s) == 18 && offsetof(vm_ether_header_s, type) == 12 &&
              offsetof(vm_ether_header_s, tpid) == 14 && offsetof(vm_ether_header_s, tci) == 16);
static_assert(sizeof(quillnet_peb_s) == 22 && offsetof(quillnet_peb_s, subtype) == 18);
static_assert(sizeof(qnet_com_devinfo_s) == 10 && sizeof(qnw_devinfo_com_s) == 28 &&
              sizeof(vm_devinfo_com_s) == 28 && offsetof(qnw_devinfo_com_s, com) == 18 &&
              offsetof(vm_devinfo_com_s, com) == 18);
static_assert(offsetof(qnw_devinfo_com_s, com.ver) == 21 &&
              offsetof(qnw_devinfo_com_s, com.host) == 23 &&
              offsetof(qnw_devinfo_com_s, com.sw_status) == 25);
static_assert(sizeof(qnet_com_port_s) == 20 && offsetof(qnet_com_port_s, memory_base) == 4 &&
              offsetof(qnet_com_port_s, pre_base_upper) == 12);
static_assert(sizeof(qnet_down_port_s) == 28 && offsetof(qnet_down_port_s, com_port) == 8);
static_assert(sizeof(qnw_devinfo_server_s) == 272 && sizeof(qnw_devinfo_server_40g_s) == 496 &&
              offsetof(qnw_devinfo_server_s, up_port) == 28 &&
              offsetof(qnw_devinfo_server_40g_s, down_port) == 48);
static_assert(sizeof(qnet_devinfo_srv_s) == 16 && offsetof(qnet_devinfo_srv_s, class_code) == 13);
static_assert(sizeof(qnw_devinfo_io_s) == 44 && sizeof(qnw_devinfo_mrio_s) == 46 &&
              offsetof(qnw_devinfo_mrio_s, resource_id) == 44);
static_assert(sizeof(qnw_completion_s) == 28 && offsetof(qnw_completion_s, comp.tag) == 23 &&
              offsetof(qnw_completion_s, comp.data) == 24);
static_assert(sizeof(qnet_com_register_s) == 10 && sizeof(qnw_register_read_s) == 28 &&
              sizeof(qnw_register_write_s) == 32 &&
              offsetof(qnw_register_write_s, regw.data) == 28);
static_assert(sizeof(qnw_vlanset_type0_s) == 28 &&
              offsetof(qnw_vlanset_type0_s, vlanset.vlan_id) == 24);
static_assert(sizeof(qnw_reset_s) == 24 && offsetof(qnw_reset_s, reset.status) == 23);
static_assert(sizeof(qnw_mms_write_s) == 156 && offsetof(qnw_mms_write_s, subtype) == 18 &&
              offsetof(qnw_mms_write_s, address) == 24 && offsetof(qnw_mms_write_s, data) == 28);
