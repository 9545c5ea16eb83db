// qnm_recv.cpp - from the wire to the card tables: the receive threads and announcement processing.
//
// Each open port has a thread that polls its capture and its terminate pipe and takes one frame per
// wake-up. Below the debug level, whose lines show each step, it takes up to 64 of the frames that
// wait, and looks at the stop between them. A frame passes a list of checks; one that fails is
// traced and dropped. What is left is dispatched by subtype and counted after its work is done.
// Only a failure of the port or of the poll set is fatal, and then to the whole manager; a link
// that is down is not.
//
// An announcement (DEVINFO or NOTIFY, which are treated alike) becomes a fresh card record before
// any lock is taken. Reading the stored record, comparing and storing then happen under the table
// lock in one step, as the two threads may carry frames of the same card. Events are queued under
// the lock and delivered elsewhere. Code for QNSV and QNIO cards is one template over a kind.

#include "qnm_recv.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "qnm.h"
#include "qnm_blacklist.h"
#include "qnm_completion.h"
#include "qnm_config.h"
#include "qnm_event_cb.h"
#include "qnm_frame.h"
#include "qnm_limits.h"
#include "qnm_log4cxxif.h"
#include "qnm_main.h"
#include "qnm_paced_log.h"
#include "qnm_qn_info.h"
#include "qnm_reg_send.h"
#include "qnm_stats.h"
#include "qnm_util.h"

// Absent where libpcap is replaced by less than the whole; frames are then taken one by one.
#pragma weak pcap_dispatch
#pragma weak pcap_breakloop

namespace {

using qnm::be16;
using qnm::connect_word;
using qnm::host16;
using qnm::host32;
using qnm::view;

constexpr int k_poll_ms = 1000;
constexpr size_t k_drain_size = 128;
constexpr int k_batch_max = 64;        // frames between two polls
constexpr uint32_t k_untold_max = 64;  // events after which their thread is woken at the latest
constexpr char k_loop_name[] = "_qnm_recv_lin";

// ---- Announcement to record ---------------------------------------------------------------------

// Where a frame came in, and when: by the wall clock for the record, by the monotonic one for the
// keepalive check.
struct arrival {
    int port;
    int path;
    uint64_t now;
    uint64_t monotonic;

    qnm_heard_t heard() const { return {port, path, monotonic}; }
};

uint16_t tci_of(const unsigned char* frame, uint8_t vlan_mode) {
    return vlan_mode == 0 ? be16(view<quillnet_header_s>(frame).tci)
                          : be16(view<vm_ether_header_s>(frame).tci);
}

uint8_t bit(uint8_t byte, int number) {
    return byte >> number & 1;
}

// The part of the record that both kinds have. Only the path that the frame came by is connected.
void fill_com_dev(const unsigned char* frame, uint8_t vlan_mode, const arrival& from,
                  qnm_com_dev_t& dev) {
    const qnw_devinfo_com_s& message = view<qnw_devinfo_com_s>(frame);
    const qnet_com_devinfo_s& com = message.com;
    const bool two_paths = com.ver != 0;
    _qnm_mac2id(message.header.smac, &dev.ecd_id, two_paths ? 1 : 0);
    std::copy(std::begin(message.header.smac), std::end(message.header.smac), dev.ecd_macaddr);
    if (two_paths) dev.ecd_macaddr[5] &= 0xFE;
    dev.ecd_recvtime[from.port][from.path] = from.now;
    dev.ecd_state[from.port][from.path] = 1;
    dev.ecd_updatetime = from.now;
    dev.ecd_uidsw = bit(com.info, 2);
    dev.ecd_power = bit(com.info, 3);
    dev.ecd_port0_link = bit(com.sw_status[1], 5);
    dev.ecd_port1_link = bit(com.sw_status[1], 6);
    dev.ecd_vlan_id = tci_of(frame, vlan_mode) & qnm::k_vlan_id_mask;
    std::copy(std::begin(com.sw_status), std::end(com.sw_status), dev.ecd_swstatus);
    dev.ecd_int_vector = com.sw_status[2];
    dev.ecd_ver = com.sw_status[1] & qnm::k_version_mask;
    dev.ecd_vlan_mode = vlan_mode;
    dev.ecd_flowid = com.flowid_sa;
    dev.ecd_type = com.ver;
    dev.ecd_linkstatus = com.link_status;
}

qnm_com_port_t com_port_of(const qnet_com_port_s& wire) {
    qnm_com_port_t port = {};
    port.ecp_pre_base_upper = host32(wire.pre_base_upper);
    port.ecp_pre_limit_upper = host32(wire.pre_limit_upper);
    port.ecp_memory_base = host16(wire.memory_base);
    port.ecp_memory_limit = host16(wire.memory_limit);
    port.ecp_pre_memory_base = host16(wire.pre_memory_base);
    port.ecp_pre_memory_limit = host16(wire.pre_memory_limit);
    port.ecp_pri_bus_num = wire.pri_bus_num;
    port.ecp_sec_bus_num = wire.sec_bus_num;
    port.ecp_sub_bus_num = wire.sub_bus_num;
    port.ecp_command = wire.command;
    return port;
}

bool has_qnio_behind(const uint8_t (&port_status)[2]) {
    return (port_status[1] & 0x02) != 0;
}

bool is_1g10g(uint8_t subtype) {
    return subtype == qnm::k_devinfo || subtype == qnm::k_notify;
}

void fill_own_part(const unsigned char* frame, qnm_qnsv_t& card) {
    // A 1G/10G frame is the head of a 40G one and ends after its eighth port.
    const qnw_devinfo_server_40g_s& message = view<qnw_devinfo_server_40g_s>(frame);
    const int ports = is_1g10g(message.common.com.subtype) ? 8 : 16;
    card.esv_up_port = com_port_of(message.up_port);
    for (int k = 0; k < ports; k++) {
        const qnet_down_port_s& wire = message.down_port[k];
        qnm_down_port_t& port = card.esv_down_port[k];
        std::copy(std::begin(wire.port_status), std::end(wire.port_status), port.edp_port_status);
        std::copy(std::begin(wire.io_mac), std::end(wire.io_mac), port.edp_io_mac);
        if (has_qnio_behind(port.edp_port_status)) port.edp_com_port = com_port_of(wire.com_port);
    }
}

void fill_own_part(const unsigned char* frame, qnm_qnio_t& card) {
    const qnw_devinfo_io_s& message = view<qnw_devinfo_io_s>(frame);
    const qnet_com_devinfo_s& com = message.common.com;
    const qnet_devinfo_srv_s& srv = message.devinfo_srv;
    std::copy(std::begin(srv.io_substate), std::end(srv.io_substate), card.eio_substate);
    std::copy(std::begin(srv.ser_mac), std::end(srv.ser_mac), card.eio_sermacaddr);
    card.eio_device_id = host16(srv.device_id);
    card.eio_vendor_id = host16(srv.vendor_id);
    card.eio_class_code =
        static_cast<uint32_t>(srv.class_code[0] | srv.class_code[1] << 8 | srv.class_code[2] << 16);
    card.eio_pcie_presence = bit(com.sw_status[1], 7);
    card.eio_link0fault = bit(com.info, 0);
    card.eio_link1fault = bit(com.info, 1);
    if ((com.sw_status[1] & qnm::k_version_mask) == qnm::k_version_mr) {
        card.eio_mr_resource_num = be16(view<qnw_devinfo_mrio_s>(frame).resource_id);
        std::swap(card.eio_link0fault, card.eio_link1fault);  // as multi-root cards number them
    }
}

// ---- Record to table and events -----------------------------------------------------------------

// Function names in log lines, per kind.
struct devinfo_names {
    const char* lookup;
    const char* add;
    const char* update;
    const char* compare;
};

constexpr devinfo_names names_of(const qnm::qnsv_kind&) {
    return {"_set_qnsv_devinfo", "_add_qnsv_devinfo", "_update_qnsv_devinfo", "_update_qnsv_state"};
}

constexpr devinfo_names names_of(const qnm::qnio_kind&) {
    return {"_set_qnio_devinfo", "_add_qnio_devinfo", "_update_qnio_devinfo", "_update_qnio_state"};
}

template <typename Kind>
constexpr devinfo_names k_names = names_of(Kind{});

// The new record of a frame beside the stored one, and what the frame has changed.
template <typename Kind>
struct update {
    const typename Kind::record& old_card;
    typename Kind::record& new_card;
    bool state_changed;
    bool record_changed;

    const qnm_com_dev_t& old_dev() const { return old_card.*Kind::com_dev; }
    qnm_com_dev_t& new_dev() const { return new_card.*Kind::com_dev; }
};

// Clears the status bits that do not count as a change.
void mask_status(uint8_t (&status)[2]) {
    status[0] &= 0xF8;
    status[1] &= 0xFE;
}

void mask_status(qnm_qnsv_t& card) {
    for (qnm_down_port_t& port : card.esv_down_port)
        mask_status(port.edp_port_status);
}

void mask_status(qnm_qnio_t& card) {
    mask_status(card.eio_substate);
}

template <typename Kind>
bool differs(const typename Kind::record& old_card, const typename Kind::record& new_card) {
    using record = typename Kind::record;
    if (qnm_config.update_evt_mask == 2) {
        record old_masked = old_card;
        record new_masked = new_card;
        mask_status(old_masked);
        mask_status(new_masked);
        return memcmp(&old_masked, &new_masked, sizeof(record)) != 0;
    }
    if (qnm_config.update_evt_mask != 1 &&
        _qnm_paced_may_write(QNM_PACED_EVT_MASK, k_names<Kind>.compare)) {
        qnm_log_warn("%s: Invalid config parameter. update_evt_mask=%u", k_names<Kind>.compare,
                     qnm_config.update_evt_mask);
    }
    return memcmp(&old_card, &new_card, sizeof(record)) != 0;
}

bool connection_differs(const qnm_qnsv_t& old_card, const qnm_qnsv_t& new_card) {
    const int ports = new_card.esv_com_dev.ecd_type != 0 ? 16 : 8;
    for (int k = 0; k < ports; k++) {
        if (has_qnio_behind(old_card.esv_down_port[k].edp_port_status) !=
            has_qnio_behind(new_card.esv_down_port[k].edp_port_status)) {
            return true;
        }
    }
    return false;
}

bool connection_differs(const qnm_qnio_t& old_card, const qnm_qnio_t& new_card) {
    return has_qnio_behind(old_card.eio_substate) != has_qnio_behind(new_card.eio_substate);
}

bool fault_differs(const qnm_qnsv_t&, const qnm_qnsv_t&) {
    return false;
}

bool fault_differs(const qnm_qnio_t& old_card, const qnm_qnio_t& new_card) {
    return old_card.eio_link0fault != new_card.eio_link0fault ||
           old_card.eio_link1fault != new_card.eio_link1fault;
}

template <typename Kind>
void raise_change_events(const update<Kind>& change) {
    const char* const func = k_names<Kind>.update;
    const uint64_t id = change.new_dev().ecd_id;
    if (connection_differs(change.old_card, change.new_card)) {
        _qnm_raise_event(func, QNM_EVT_CONNECTIONCHANGE, id);
    }
    if ((change.new_dev().ecd_int_vector & ~change.old_dev().ecd_int_vector) != 0) {
        _qnm_raise_event(func, QNM_EVT_MAJORMINORERROR, id);
    }
    if (fault_differs(change.old_card, change.new_card)) {
        _qnm_raise_event(func, QNM_EVT_PATHSTATECHANGE, id);
    }
    if (change.state_changed) _qnm_raise_event(func, QNM_EVT_CHANNELSTATECHANGE, id);
}

// Stores a known card as watched; false when that failed.
template <typename Kind>
bool store_watched(typename Kind::record& card, const arrival& from, const char* ignore_state)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    const uint64_t id = (card.*Kind::com_dev).ecd_id;
    const qnm_heard_t heard = from.heard();
    const int err = Kind::set_heard(id, &card, QNM_WATCH, 0, QNM_VALID_ALL, &heard);
    if (err == 0) return true;
    if (_qnm_paced_may_write(QNM_PACED_CARD_NOT_UPDATED, k_names<Kind>.update)) {
        qnm_log_error("%s: Failed to %s(). err=%d, id=0x%.12lx, ignore_state=%s",
                      k_names<Kind>.update, Kind::set_name, err, id, ignore_state);
    }
    return false;
}

// Carries the stored paths and times over into the new record and finds what the frame changes.
// The receive time is stamped last, so that it alone is no change.
template <typename Kind>
void _update_state(update<Kind>& change, const arrival& from) {
    const qnm_com_dev_t& old_dev = change.old_dev();
    qnm_com_dev_t& dev = change.new_dev();
    memcpy(dev.ecd_recvtime, old_dev.ecd_recvtime, sizeof dev.ecd_recvtime);
    memcpy(dev.ecd_state, old_dev.ecd_state, sizeof dev.ecd_state);
    dev.ecd_updatetime = old_dev.ecd_updatetime;
    if (dev.ecd_state[from.port][from.path] == 0) {
        dev.ecd_state[from.port][from.path] = 1;
        change.state_changed = true;
    }
    if (differs<Kind>(change.old_card, change.new_card)) {
        dev.ecd_updatetime = from.now;
        change.record_changed = true;
    }
    dev.ecd_recvtime[from.port][from.path] = from.now;
}

template <typename Kind>
void update_watched(update<Kind>& change, const arrival& from) QNM_REQUIRES(qnm_qn.eei_mutex) {
    const char* const func = k_names<Kind>.update;
    const qnm_com_dev_t& dev = change.new_dev();
    _update_state<Kind>(change, from);
    if (!store_watched<Kind>(change.new_card, from, "WATCH")) return;
    qnm_log_trace("%s: %s information is updated. id=0x%.12lx, ignore_state=WATCH", func,
                  Kind::name, dev.ecd_id);
    if (change.state_changed) _qnm_log_state_change(func, Kind::name, &dev, "connect.");
    if (change.record_changed) _qnm_raise_event(func, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    raise_change_events<Kind>(change);
}

// The first frame after monitoring was restarted: the record begins afresh.
template <typename Kind>
void update_restarted(update<Kind>& change, const arrival& from) QNM_REQUIRES(qnm_qn.eei_mutex) {
    const char* const func = k_names<Kind>.update;
    const qnm_com_dev_t& dev = change.new_dev();
    // The line of a failure names IGNORE although the card was restarted; log readers rely on it.
    if (!store_watched<Kind>(change.new_card, from, "IGNORE")) return;
    qnm_log_trace("%s: %s information is updated. id=0x%.12lx, ignore_state=WATCH_RESTART", func,
                  Kind::name, dev.ecd_id);
    _qnm_log_state_change(func, Kind::name, &dev, "connect. ignore_state=WATCH_RESTART,");
    _qnm_raise_event(func, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    change.state_changed = true;
    raise_change_events<Kind>(change);
}

template <typename Kind>
void update_card(const typename Kind::record& old_card, typename Kind::record& new_card,
                 uint32_t ignore_state, const arrival& from) QNM_REQUIRES(qnm_qn.eei_mutex) {
    update<Kind> change = {old_card, new_card, false, false};
    switch (ignore_state) {
        case QNM_WATCH:
            return update_watched<Kind>(change, from);
        case QNM_IGNORE:
            return;
        case QNM_WATCH_RESTART:
            return update_restarted<Kind>(change, from);
        default:
            if (!_qnm_paced_may_write(QNM_PACED_IGNORE_STATE, k_names<Kind>.update)) return;
            qnm_log_warn("%s: Unknown ignore_state. state=%u", k_names<Kind>.update, ignore_state);
    }
}

// Adds a card to the table unless its monitoring is stopped; whether it was added.
template <typename Kind>
bool add_unless_stopped(typename Kind::record& card, const arrival& from)
    QNM_REQUIRES(qnm_qn.eei_mutex) {
    const char* const func = k_names<Kind>.add;
    const qnm_com_dev_t& dev = card.*Kind::com_dev;
    const qnm::blacklist_guard lock;
    uint32_t stopped = 0;
    _qnm_get_monitor_state(dev.ecd_id, &stopped);
    if (stopped == 1) return false;
    const qnm_heard_t heard = from.heard();
    const int err = Kind::set_heard(dev.ecd_id, &card, QNM_WATCH, 0, QNM_VALID_ALL, &heard);
    if (err != 0) {
        if (_qnm_paced_may_write(QNM_PACED_CARD_NOT_ADDED, func)) {
            qnm_log_error("%s: Failed to %s(). err=%d, id=0x%.12lx", func, Kind::set_name, err,
                          dev.ecd_id);
        }
        return false;
    }
    const auto& state = dev.ecd_state;
    qnm_log_info("%s: %s information is added. id=0x%.12lx, P0M0: %s, P0M1: %s, P1M0: %s, P1M1: %s",
                 func, Kind::name, dev.ecd_id, connect_word(state[0][0]), connect_word(state[0][1]),
                 connect_word(state[1][0]), connect_word(state[1][1]));
    return true;
}

template <typename Kind>
void add_card(typename Kind::record& card, const arrival& from) QNM_REQUIRES(qnm_qn.eei_mutex) {
    const char* const func = k_names<Kind>.add;
    const qnm_com_dev_t& dev = card.*Kind::com_dev;
    if (_qnm_qn_has_room() == 0) {
        if (!_qnm_paced_may_write(QNM_PACED_CARD_REFUSED, func)) return;
        qnm_log_warn("%s: Too many cards. Drop DEVINFO Frame. max=%u, id=0x%.12lx", func,
                     qnm::k_cards_max, dev.ecd_id);
        return;
    }
    const int err = _qnm_create_reg_lock_node(dev.ecd_id);
    if (err != 0 && err != EEXIST) {
        if (!_qnm_paced_may_write(QNM_PACED_NO_WRITE_LOCK, func)) return;
        qnm_log_warn(
            "%s: Failed to _qnm_create_reg_lock_node(). Drop DEVINFO Frame. err=%d, id=0x%.12lx",
            func, err, dev.ecd_id);
        return;
    }
    if (!add_unless_stopped<Kind>(card, from)) return;
    _qnm_raise_event(func, QNM_EVT_NEWDEVINFO, dev.ecd_id);
    if (dev.ecd_int_vector != 0) _qnm_raise_event(func, QNM_EVT_MAJORMINORERROR, dev.ecd_id);
}

// Whether the cards of a port may be connected. A frame that was taken before its port went down
// can come here after the port's cards have been disconnected, and would connect its card again.
// The look at the link is for the time in which it is up and the watcher has not stored that yet.
bool may_connect(int port) QNM_REQUIRES(qnm_qn.eei_mutex) {
    return qnm::load(qnm_root.er_port_info[port].epi_link_state) == 1 || !_qnm_is_port_down(port);
}

template <typename Kind>
void set_devinfo(int port, const unsigned char* frame, uint8_t vlan_mode, uint64_t now) {
    const qnw_devinfo_com_s& message = view<qnw_devinfo_com_s>(frame);
    const arrival from = {port, message.com.ver != 0 ? message.header.smac[5] & 1 : 0, now,
                          _qnm_get_msec_monotonic()};
    typename Kind::record new_card = {};
    fill_com_dev(frame, vlan_mode, from, new_card.*Kind::com_dev);
    fill_own_part(frame, new_card);

    typename Kind::record old_card;
    uint32_t ignore_state = 0;
    const qnm::table_guard lock;
    if (!may_connect(port)) {
        qnm_log_trace("%s: Drop packet because the link is down. port_num=%d, id=0x%.12lx",
                      k_names<Kind>.lookup, port, (new_card.*Kind::com_dev).ecd_id);
        return;
    }
    const int err = Kind::get((new_card.*Kind::com_dev).ecd_id, &old_card, &ignore_state, nullptr,
                              QNM_VALID_RECORD | QNM_VALID_IGNORE_STATE);
    if (err == 0) {
        update_card<Kind>(old_card, new_card, ignore_state, from);
    } else if (err == ENOENT) {
        add_card<Kind>(new_card, from);
    } else if (_qnm_paced_may_write(QNM_PACED_CARD_NOT_READ, k_names<Kind>.lookup)) {
        qnm_log_warn("%s: Failed to %s(). err=%d", k_names<Kind>.lookup, Kind::get_name, err);
    }
}

// ---- Frame checks and dispatch ------------------------------------------------------------------

void take_devinfo(int port, const unsigned char* frame, uint8_t vlan_mode) {
    _qnm_recv_devinfo(port, frame, vlan_mode);
}

// Whether a Completion is for this host. Cards answer to the address of the port that asked, and a
// switch that does not know where that is floods the frame: it may be for another manager, whose
// tags are the same. An address of a group, or none, may be meant for anybody.
bool _check_destination(int port, const uint8_t (&dmac)[6]) {
    uint64_t destination = 0;
    _qnm_mac_to_uint64(dmac, &destination);
    const bool is_group = (dmac[0] & 1) != 0;
    if (is_group || destination == 0 || destination == qnm_root.er_port_info[port].epi_mac) {
        return true;
    }
    qnm_log_trace(
        "%s: Completion frame is received which is addressed to another port. dst=0x%.12lx, "
        "port_num=%d",
        __func__, destination, port);
    return false;
}

void take_completion(int port, const unsigned char* frame, uint8_t) {
    const qnw_completion_s& message = view<qnw_completion_s>(frame);
    if (!_check_destination(port, message.header.dmac)) return;
    uint64_t src_mac = 0;
    _qnm_mac_to_uint64(message.header.smac, &src_mac);
    _qnm_recv_comp(message.comp.tag, port, src_mac, host32(message.comp.data));
}

// A subtype that is taken in.
struct subtype_row {
    uint8_t subtype;
    const char* label;
    void (*take)(int port, const unsigned char* frame, uint8_t vlan_mode);
    qnm_stats_type_t counter;
    size_t server_size;   // of an announcement by a QNSV card; 0 for other messages
    bool only_version_0;  // others are cards that announce themselves by another subtype as well
};

constexpr subtype_row k_subtypes[] = {
    {qnm::k_devinfo, "1G/10G DEVINFO", take_devinfo, QNM_STATS_R_DEV, sizeof(qnw_devinfo_server_s),
     true},
    {qnm::k_notify, "1G/10G NOTIFY", take_devinfo, QNM_STATS_R_NOTI, sizeof(qnw_devinfo_server_s),
     true},
    {qnm::k_devinfo_40g, "40G DEVINFO", take_devinfo, QNM_STATS_R_DEV40,
     sizeof(qnw_devinfo_server_40g_s), false},
    {qnm::k_notify_40g, "40G NOTIFY", take_devinfo, QNM_STATS_R_NOTI40,
     sizeof(qnw_devinfo_server_40g_s), false},
    {qnm::k_completion, "Completion", take_completion, QNM_STATS_R_COMP, 0, false},
};

const subtype_row* find_subtype(uint8_t subtype) {
    for (const subtype_row& row : k_subtypes) {
        if (row.subtype == subtype) return &row;
    }
    return nullptr;
}

bool has_priority(uint8_t tci_high) {
    return (tci_high & qnm::k_priority_mask) == qnm::k_priority;
}

// The header in its ordinary arrangement.
bool check_header(const char* func, const quillnet_header_s& header) {
    if (!has_priority(header.tci[0])) {
        qnm_log_trace("%s: priority is not 100(bit). pri=0x%.2X", func, header.tci[0]);
        return false;
    }
    if (be16(header.type) != qnm_config.ether_type) {
        qnm_log_trace("%s: Ether type is mismatch. type=0x%.4X", func, be16(header.type));
        return false;
    }
    return true;
}

// The header in the arrangement of the VLAN-tag change mode.
bool check_header(const char* func, const vm_ether_header_s& header) {
    if (be16(header.type) != qnm_config.ether_type) {
        qnm_log_trace("%s: Ether type is mismatch.(VlanTag change mode) type=0x%.4X", func,
                      be16(header.type));
        return false;
    }
    if (be16(header.tpid) != qnm::k_vlan_tpid) {
        qnm_log_trace("%s: TPID type is mismatch.(VlanTag change mode) tpid=0x%.4X", func,
                      be16(header.tpid));
        return false;
    }
    if (!has_priority(header.tci[0])) {
        qnm_log_trace("%s: priority is not 100(bit).(VlanTag change mode) pri=0x%.2X", func,
                      header.tci[0]);
        return false;
    }
    return true;
}

// The least length of an announcement; hosts of unknown kind are dropped later.
size_t devinfo_size(const subtype_row& row, const qnet_com_devinfo_s& com) {
    if (com.host == qnm::k_host_qnsv) return row.server_size;
    if (com.host != qnm::k_host_qnio) return qnm::k_min_recv_size;
    return (com.sw_status[1] & qnm::k_version_mask) == qnm::k_version_mr
               ? sizeof(qnw_devinfo_mrio_s)
               : sizeof(qnw_devinfo_io_s);
}

bool check_message(const char* func, const unsigned char* frame, size_t length) {
    const qnet_com_devinfo_s& com = view<qnw_devinfo_com_s>(frame).com;
    const subtype_row* const row = find_subtype(com.subtype);
    if (row == nullptr) {
        qnm_log_trace("%s: Subtype is mismatch. subtype=0x%.2X", func, com.subtype);
        return false;
    }
    const size_t needed = row->server_size != 0 ? devinfo_size(*row, com) : 0;
    if (length < needed) {
        qnm_log_trace("%s: Recv size is not enough. subtype=0x%.2X, recv_size=%lu, msg_size=%lu",
                      func, com.subtype, length, needed);
        return false;
    }
    if (row->only_version_0 && com.ver != 0) {
        qnm_log_trace("%s: Drop %s to send from (ver=%u) QN card.", func, row->label, com.ver);
        return false;
    }
    return true;
}

// Whether a frame is to be dispatched, and its VLAN mode.
bool _check_frame(const unsigned char* frame, size_t length, uint8_t* vlan_mode) {
    if (length < qnm::k_min_recv_size) {
        qnm_log_trace("%s: Recv size is too short. len=%lu", __func__, length);
        return false;
    }
    const auto& header = view<quillnet_header_s>(frame);
    const bool ordinary = be16(header.tpid) == qnm::k_vlan_tpid;
    *vlan_mode = ordinary ? 0 : 1;
    const bool good = ordinary ? check_header(__func__, header)
                               : check_header(__func__, view<vm_ether_header_s>(frame));
    return good && check_message(__func__, frame, length);
}

void _dispatch_frame(int port, const unsigned char* frame, uint8_t vlan_mode) {
    const uint8_t subtype = view<quillnet_peb_s>(frame).subtype;
    const subtype_row* const row = find_subtype(subtype);
    if (row == nullptr) {
        qnm_log_trace("%s: Unknown frame is received. subtype=%.2X", __func__, subtype);
        return;
    }
    qnm_log_trace("%s: %s is received.", __func__, row->label);
    row->take(port, frame, vlan_mode);
    _qnm_stats_count_frame(port, row->counter);
    _qnm_stats_count_frame(port, QNM_STATS_R_TOTAL);
}

void take_frame(const char* func, int port, const unsigned char* frame, size_t length) {
    if (qnm::load(qnm_root.er_start_flag) == 1) {
        qnm_log_trace("%s: Drop packet because start flag is not set. port_num=%d", func, port);
        return;
    }
    uint8_t vlan_mode = 0;
    if (_check_frame(frame, length, &vlan_mode)) _dispatch_frame(port, frame, vlan_mode);
}

// How much of a frame there is to read: what was captured, where that is less than was on the wire.
// A port that was opened with a small MTU captures no more than that allowed for.
size_t captured_length(const struct pcap_pkthdr& header) {
    return header.caplen != 0 && header.caplen < header.len ? header.caplen : header.len;
}

int recv_frame(const char* func, int port) {
    const unsigned char* frame = nullptr;
    size_t length = 0;
    const int err = _qnm_recv_pcap(qnm_root.er_port_info[port].epi_pcap, &frame, &length);
    if (err == EPROTO) {
        qnm_log_error("%s: Failed to _qnm_recv_pcap(). port_num=%d", func, port);
        return -1;
    }
    if (err == ETIMEDOUT) {
        qnm_log_debug("%s: _qnm_recv_pcap() returned ETIMEDOUT. port_num=%d", func, port);
        return 0;
    }
    if (err != 0) {
        qnm_log_error("%s: Failed to _qnm_recv_pcap(). err=%d, port_num=%d", func, err, port);
        return 0;
    }
    take_frame(func, port, frame, length);
    return 0;
}

// ---- Frames that wait ---------------------------------------------------------------------------

bool takes_batches() {
    return qnm::load(g_log_level) < QNM_LOGLVL_DEBUG && pcap_dispatch != nullptr &&
           pcap_breakloop != nullptr;
}

bool is_stopping(int port) {
    struct pollfd pipe = {qnm_terminate_fd_recv[port][0], POLLIN, 0};
    return !qnm::is_running() || poll(&pipe, 1, 0) != 0;
}

void take_from_batch(unsigned char* arg, const struct pcap_pkthdr* header,
                     const unsigned char* frame) {
    const int port = *reinterpret_cast<const int*>(arg);
    take_frame("_qnm_recv_frame", port, frame, captured_length(*header));
    if (_qnm_untold_events() >= k_untold_max) _qnm_tell_events();
    if (is_stopping(port)) pcap_breakloop(qnm_root.er_port_info[port].epi_pcap);
}

// Takes frames until none waits; there is one. 0, or -1 when the port failed.
int _qnm_recv_batch(int port) {
    pcap_t* const pcap = qnm_root.er_port_info[port].epi_pcap;
    const int taken =
        pcap_dispatch(pcap, k_batch_max, take_from_batch, reinterpret_cast<unsigned char*>(&port));
    if (taken != PCAP_ERROR) return 0;
    qnm_log_fatal("%s: Failed to pcap_dispatch().", __func__);
    return -1;
}

// ---- Receive loop -------------------------------------------------------------------------------

// A pending socket error on the capture: survived when the interface is down, else fatal. A thread
// that sends by the same socket may have taken it since the poll; then nothing is pending, and a
// wait for it would have no end.
bool take_socket_error(int port, const struct pollfd& capture) {
    char buffer[k_drain_size];
    const unsigned revents = static_cast<unsigned>(capture.revents);
    errno = 0;
    const ssize_t got = recv(capture.fd, buffer, sizeof buffer, MSG_DONTWAIT);
    const int error = errno;
    if (got == -1 && error == EAGAIN) {
        qnm_log_debug(
            "%s: POLLERR event has occurred (in receive wait), but its error is gone. "
            "port_num=%d, revents=0x%x",
            k_loop_name, port, revents);
        return true;
    }
    if (got == -1) {
        qnm_log_error("%s: Failed to recv(). err=%d, errno=%d, port_num=%d", k_loop_name,
                      static_cast<int>(got), error, port);
    }
    if (error == ENETDOWN) {
        qnm_log_info(
            "%s: POLLERR event has occurred (in receive wait). Because interface is not up. "
            "port_num=%d, revents=0x%x",
            k_loop_name, port, revents);
        return true;
    }
    qnm_log_fatal("%s: POLLERR event has occurred (in receive wait). port_num=%d, revents=0x%x",
                  k_loop_name, port, revents);
    return false;
}

// What the poll found on the capture; false on a fatal error, which is logged.
bool serve_capture(int port, const struct pollfd& capture) {
    if ((capture.revents & (POLLHUP | POLLNVAL)) != 0) {
        qnm_log_fatal(
            "%s: poll error event has occurred (in receive wait). port_num=%d, revents=0x%x",
            k_loop_name, port, static_cast<unsigned>(capture.revents));
        return false;
    }
    if ((capture.revents & POLLERR) != 0) return take_socket_error(port, capture);
    if ((capture.revents & POLLIN) == 0) return true;
    qnm_log_trace("%s: poll() catch POLLIN. port_num=%d", k_loop_name, port);
    if ((takes_batches() ? _qnm_recv_batch(port) : _qnm_recv_frame(port)) != 0) {
        qnm_log_fatal("%s: Failed to _qnm_recv_frame(). port_num=%d", k_loop_name, port);
        return false;
    }
    return true;
}

// What the receive loop waits for, and how many frames it has taken one by one since it last woke
// the event thread.
struct waiting {
    struct pollfd fds[2];
    int frames = 0;
};

// The event thread may sleep on while another frame waits, but not for more than some. A batch has
// taken as many, or all that were there.
bool may_tell_later(waiting& wait) {
    const uint32_t untold = _qnm_untold_events();
    return !takes_batches() && untold != 0 && untold < k_untold_max && ++wait.frames < k_batch_max;
}

// Waits for the next frame, and before it sleeps wakes the event thread for what the last ones have
// raised.
int wait_for_frame(waiting& wait) {
    if (may_tell_later(wait)) {
        const int ready = poll(wait.fds, 2, 0);
        if (ready != 0) return ready;
    }
    wait.frames = 0;
    _qnm_tell_events();
    return poll(wait.fds, 2, k_poll_ms);
}

// One round of the loop; false when the thread must end.
bool receive_once(int port, waiting& wait) {
    const int ready = wait_for_frame(wait);
    if (ready == -1) {
        qnm_log_fatal("%s: poll() returned -1. errno=%d, port_num=%d", k_loop_name, errno, port);
        _qnm_fini_manager();
        return false;
    }
    if (ready == 0) {
        qnm_log_trace("%s: poll() returned 0(Timeout). port_num=%d", k_loop_name, port);
    }
    if (_qnm_terminate_event_check(k_loop_name, &wait.fds[1], k_drain_size, port) != 0)
        return false;
    if (serve_capture(port, wait.fds[0])) return true;
    _qnm_fini_manager();
    return false;
}

}  // namespace

extern "C" {

void* _qnm_recv_task(void* arg) {
    const int port = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    const qnm_port_info_t& info = qnm_root.er_port_info[port];
    qnm_log_info("%s: start. if_index=%d, mac=%.12lx", __func__, info.epi_if_index, info.epi_mac);
    _qnm_recv_lin(port);
    qnm_log_info("%s: end. if_index=%d, mac=%.12lx", __func__, info.epi_if_index, info.epi_mac);
    return nullptr;
}

void _qnm_recv_lin(int port) {
    const int capture = pcap_get_selectable_fd(qnm_root.er_port_info[port].epi_pcap);
    if (capture == -1) {
        // A poll would pass over it: the port would seem open and receive nothing.
        qnm_log_fatal("%s: Failed to pcap_get_selectable_fd(). port_num=%d", __func__, port);
        _qnm_fini_manager();
        return;
    }
    waiting wait = {{{capture, POLLIN, 0}, {qnm_terminate_fd_recv[port][0], POLLIN, 0}}};
    while (qnm::is_running() && receive_once(port, wait)) {
    }
}

int _qnm_recv_frame(int port) {
    qnm_log_trace("%s: start. port_num=%d, ret=%d", __func__, port, 0);
    const int ret = recv_frame(__func__, port);
    qnm_log_trace("%s: end. port_num=%d, ret=%d", __func__, port, ret);
    return ret;
}

int _qnm_recv_pcap(pcap_t* handle, const unsigned char** data_out, size_t* length_out) {
    struct pcap_pkthdr* header = nullptr;
    const int ret = pcap_next_ex(handle, &header, data_out);
    switch (ret) {
        case 1:
            *length_out = captured_length(*header);
            return 0;
        case 0:
            return ETIMEDOUT;
        case -1:
            qnm_log_fatal("%s: Failed to pcap_next_ex().", __func__);
            return EPROTO;
        default:
            qnm_log_error("%s: Failed to pcap_next_ex(). err = %d", __func__, ret);
            return EPROTO;
    }
}

int _qnm_recv_devinfo(int port, const unsigned char* recv_buf, uint8_t vlan_mode) {
    const uint64_t now = _qnm_get_msec_timenow();
    const uint8_t host = view<qnw_devinfo_com_s>(recv_buf).com.host;
    if (host == qnm::k_host_qnsv) {
        set_devinfo<qnm::qnsv_kind>(port, recv_buf, vlan_mode, now);
    } else if (host == qnm::k_host_qnio) {
        set_devinfo<qnm::qnio_kind>(port, recv_buf, vlan_mode, now);
    } else {
        qnm_log_trace("%s: Unknwon PEB. host=0x%.2X", __func__, host);
    }
    return 0;
}

}  // extern "C"
