// qnm_qn_dump.cpp - the device-table section of the status dump.
//
// What is printed is copied under the table lock, some cards at a time, and written with the table
// free, because a line may have to wait for the disk. So cards that come, go or change meanwhile
// are printed as they are met.

#include "qnm_qn_dump.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "qnm.h"
#include "qnm_qn_info.h"
#include "qnm_qn_nodes.h"

namespace {

using qnm::com_dev_of;
using qnm::next_node;
using qnm::node_after;
using qnm::qnio_kind;
using qnm::qnsv_kind;
using qnm::table_guard;
using qnm::total_of;
using qnm::walk;

enum class as { u8, u16, u32, u64, bytes2, bytes3, mac };

struct field_row {
    const char* label;
    size_t offset;
    as type;
};

#define FIELD(record, member, type) \
    { #member, offsetof(record, member), as::type }

constexpr field_row k_com_dev_fields[] = {
    FIELD(qnm_com_dev_t, ecd_recvtime[0][0], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[0][1], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[1][0], u64),
    FIELD(qnm_com_dev_t, ecd_recvtime[1][1], u64),
    FIELD(qnm_com_dev_t, ecd_updatetime, u64),
    FIELD(qnm_com_dev_t, ecd_state[0][0], u32),
    FIELD(qnm_com_dev_t, ecd_state[0][1], u32),
    FIELD(qnm_com_dev_t, ecd_state[1][0], u32),
    FIELD(qnm_com_dev_t, ecd_state[1][1], u32),
    FIELD(qnm_com_dev_t, ecd_uidsw, u32),
    FIELD(qnm_com_dev_t, ecd_power, u32),
    FIELD(qnm_com_dev_t, ecd_port0_link, u32),
    FIELD(qnm_com_dev_t, ecd_port1_link, u32),
    FIELD(qnm_com_dev_t, ecd_vlan_id, u16),
    FIELD(qnm_com_dev_t, ecd_macaddr, mac),
    FIELD(qnm_com_dev_t, ecd_swstatus, bytes3),
    FIELD(qnm_com_dev_t, ecd_vlan_mode, u8),
    FIELD(qnm_com_dev_t, ecd_flowid, u8),
    FIELD(qnm_com_dev_t, ecd_type, u8),
    FIELD(qnm_com_dev_t, ecd_linkstatus, u8),
    FIELD(qnm_com_dev_t, ecd_int_vector, u8),
    FIELD(qnm_com_dev_t, ecd_ver, u8),
};

constexpr field_row k_com_port_fields[] = {
    FIELD(qnm_com_port_t, ecp_pre_base_upper, u32),
    FIELD(qnm_com_port_t, ecp_pre_limit_upper, u32),
    FIELD(qnm_com_port_t, ecp_memory_base, u16),
    FIELD(qnm_com_port_t, ecp_memory_limit, u16),
    FIELD(qnm_com_port_t, ecp_pre_memory_base, u16),
    FIELD(qnm_com_port_t, ecp_pre_memory_limit, u16),
    FIELD(qnm_com_port_t, ecp_pri_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_sec_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_sub_bus_num, u8),
    FIELD(qnm_com_port_t, ecp_command, u8),
};

constexpr field_row k_down_port_fields[] = {
    FIELD(qnm_down_port_t, edp_port_status, bytes2),
    FIELD(qnm_down_port_t, edp_io_mac, mac),
};

constexpr field_row k_qnio_fields[] = {
    FIELD(qnm_qnio_t, eio_class_code, u32),   FIELD(qnm_qnio_t, eio_device_id, u16),
    FIELD(qnm_qnio_t, eio_vendor_id, u16),    FIELD(qnm_qnio_t, eio_mr_resource_num, u16),
    FIELD(qnm_qnio_t, eio_sermacaddr, mac),   FIELD(qnm_qnio_t, eio_substate, bytes2),
    FIELD(qnm_qnio_t, eio_link0fault, u8),    FIELD(qnm_qnio_t, eio_link1fault, u8),
    FIELD(qnm_qnio_t, eio_pcie_presence, u8),
};

#undef FIELD

constexpr char k_indent[] = "      ";
constexpr char k_port_indent[] = "        ";

template <typename Number>
Number number_at(const uint8_t* bytes) {
    Number value;
    std::copy_n(bytes, sizeof value, reinterpret_cast<uint8_t*>(&value));
    return value;
}

void print_u32(const char* indent, const char* label, uint32_t value) {
    qnm_statslog("%s%-22s: %u", indent, label, value);
}

void print_field(const char* indent, const field_row& row, const uint8_t* b) {
    switch (row.type) {
        case as::u8:
            return print_u32(indent, row.label, *b);
        case as::u16:
            return print_u32(indent, row.label, number_at<uint16_t>(b));
        case as::u32:
            return print_u32(indent, row.label, number_at<uint32_t>(b));
        case as::u64:
            return qnm_statslog("%s%-22s: %lu", indent, row.label, number_at<uint64_t>(b));
        case as::bytes2:
            return qnm_statslog("%s%-22s: %02x %02x", indent, row.label, b[0], b[1]);
        case as::bytes3:
            return qnm_statslog("%s%-22s: %02x %02x %02x", indent, row.label, b[0], b[1], b[2]);
        case as::mac:
            return qnm_statslog("%s%-22s: %02x:%02x:%02x:%02x:%02x:%02x", indent, row.label, b[0],
                                b[1], b[2], b[3], b[4], b[5]);
    }
}

template <size_t Rows>
void print_fields(const char* indent, const field_row (&rows)[Rows], const void* record) {
    for (const field_row& row : rows) {
        print_field(indent, row, static_cast<const uint8_t*>(record) + row.offset);
    }
}

void print_own_fields(const qnm_qnsv_t& card) {
    qnm_statslog("      UP PORT");
    print_fields(k_port_indent, k_com_port_fields, &card.esv_up_port);
    unsigned number = 0;
    for (const qnm_down_port_t& port : card.esv_down_port) {
        qnm_statslog("      DOWN PORT%u", number++);
        print_fields(k_port_indent, k_down_port_fields, &port);
        print_fields(k_port_indent, k_com_port_fields, &port.edp_com_port);
    }
}

void print_own_fields(const qnm_qnio_t& card) {
    print_fields(k_indent, k_qnio_fields, &card);
}

// Cards copied at a time: at most this many, and no more than fit these bytes of the stack.
constexpr size_t k_copied_max = 64;
constexpr size_t k_copied_bytes = 8192;

template <typename Kind>
struct card_copy {
    uint32_t ignore_state;
    uint32_t check_count;
    typename Kind::record card;
};

template <typename Kind>
struct batch {
    size_t count = 0;
    card_copy<Kind> cards[std::min(k_copied_max, k_copied_bytes / sizeof(card_copy<Kind>))];
};

// The next cards of the walk; false when there are no more.
template <typename Kind>
bool copy_cards(walk& at, batch<Kind>& copied) {
    const table_guard lock;
    copied.count = 0;
    for (auto* node = node_after<Kind>(at); node != nullptr; node = next_node<Kind>(node)) {
        if (copied.count == std::size(copied.cards)) break;
        copied.cards[copied.count++] = {node->*Kind::ignore_state, node->*Kind::check_count,
                                        node->*Kind::card};
        at = {true, com_dev_of<Kind>(*node).ecd_id};
    }
    return copied.count != 0;
}

template <typename Kind>
void print_details() {
    walk at;
    batch<Kind> copied;
    while (copy_cards(at, copied)) {
        for (size_t i = 0; i < copied.count; i++) {
            const card_copy<Kind>& it = copied.cards[i];
            const qnm_com_dev_t& dev = it.card.*Kind::com_dev;
            qnm_statslog("    ID: 0x%.12lx", dev.ecd_id);
            print_u32(k_indent, Kind::ignore_state_label, it.ignore_state);
            print_u32(k_indent, Kind::check_count_label, it.check_count);
            print_fields(k_indent, k_com_dev_fields, &dev);
            print_own_fields(it.card);
            qnm_statslog(" ");
        }
    }
}

constexpr const char* k_ignore_words[] = {"WATCH", "IGNORE", "RESTART"};

const char* ignore_word(uint32_t ignore_state) {
    return ignore_state < std::size(k_ignore_words) ? k_ignore_words[ignore_state] : "UNKNOWN";
}

// The columns of a card's row that both kinds have.
struct row_words {
    const char* type;
    char connect[5];
    const char* vlan_mode;
};

row_words words_of(const qnm_com_dev_t& dev) {
    const auto letter = [&](int port, int path) {
        return dev.ecd_state[port][path] == 1 ? 'C' : 'D';
    };
    return {dev.ecd_type != 0 ? "40G" : "1/10G",
            {letter(0, 0), letter(0, 1), letter(1, 0), letter(1, 1), '\0'},
            dev.ecd_vlan_mode != 0 ? "CHANGE" : "NORMAL"};
}

void print_columns(const qnsv_kind&) {
    qnm_statslog("    %14s %4s %5s %3s %7s %8s %9s", "ID", "G-ID", "TYPE", "VER", "CONNECT",
                 "IG-STATE", "VLAN MODE");
    qnm_statslog("    -------------- ---- ----- --- ------- -------- ---------");
}

void print_columns(const qnio_kind&) {
    qnm_statslog("    %14s %4s %5s %3s %7s %8s %9s %4s", "ID", "G-ID", "TYPE", "VER", "CONNECT",
                 "IG-STATE", "VLAN MODE", "R-ID");
    qnm_statslog("    -------------- ---- ----- --- ------- -------- --------- ----");
}

void print_row(const card_copy<qnsv_kind>& it) {
    const qnm_com_dev_t& dev = it.card.esv_com_dev;
    const row_words words = words_of(dev);
    qnm_statslog("    0x%.12lx %4u %5s %3u %7s %8s %9s", dev.ecd_id, dev.ecd_vlan_id, words.type,
                 dev.ecd_ver + 1U, words.connect, ignore_word(it.ignore_state), words.vlan_mode);
}

void print_row(const card_copy<qnio_kind>& it) {
    const qnm_com_dev_t& dev = it.card.eio_com_dev;
    const row_words words = words_of(dev);
    qnm_statslog("    0x%.12lx %4u %5s %3u %7s %8s %9s %4u", dev.ecd_id, dev.ecd_vlan_id,
                 words.type, dev.ecd_ver + 1U, words.connect, ignore_word(it.ignore_state),
                 words.vlan_mode, it.card.eio_mr_resource_num);
}

template <typename Kind>
void print_table() {
    walk at;
    batch<Kind> copied;
    qnm_statslog("    [%s]", Kind::name);
    if (!copy_cards(at, copied)) {
        qnm_statslog("    no entry.");
        return;
    }
    print_columns(Kind{});
    do {
        for (size_t i = 0; i < copied.count; i++)
            print_row(copied.cards[i]);
    } while (copy_cards(at, copied));
}

struct group_row {
    unsigned group;
    uint32_t qnsv;
    uint32_t qnio;
};

// Copies the next groups that have cards, from *group on; *group moves past the last one checked.
size_t copy_groups(unsigned* group, group_row (&rows)[k_copied_max]) {
    const table_guard lock;
    size_t count = 0;
    for (; *group <= QNM_GROUP_MAX && count < std::size(rows); ++*group) {
        const uint32_t qnsv = qnm_qn.eei_total_svgid[*group];
        const uint32_t qnio = qnm_qn.eei_total_iogid[*group];
        if (qnsv != 0 || qnio != 0) rows[count++] = {*group, qnsv, qnio};
    }
    return count;
}

template <typename Kind>
uint32_t total_now() {
    const table_guard lock;
    return total_of<Kind>();
}

void print_counts() {
    qnm_statslog("  - QN card num");
    qnm_statslog("    qnsv total: %u", total_now<qnsv_kind>());
    qnm_statslog("    qnio total: %u", total_now<qnio_kind>());
    qnm_statslog(" ");
    qnm_statslog("    %4s %6s %6s", "G-ID", "SV num", "IO num");
    qnm_statslog("    ---- ------ ------");
    group_row rows[k_copied_max];
    unsigned group = 0;
    while (const size_t count = copy_groups(&group, rows)) {
        for (size_t i = 0; i < count; i++)
            qnm_statslog("    %4u %6u %6u", rows[i].group, rows[i].qnsv, rows[i].qnio);
    }
}

}  // namespace

extern "C" {

void _qnm_qn_stats_print(uint32_t verbose) {
    print_counts();
    qnm_statslog("  - QN card information");
    print_table<qnsv_kind>();
    print_table<qnio_kind>();
    if (verbose == 0) return;
    qnm_statslog("  - QN card information detail");
    print_details<qnsv_kind>();
    print_details<qnio_kind>();
}

}  // extern "C"
