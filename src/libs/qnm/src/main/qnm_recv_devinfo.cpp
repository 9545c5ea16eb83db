// qnm_recv_devinfo.cpp - from an announcement to the card tables and events.
//
// An announcement (DEVINFO or NOTIFY, which are treated alike) becomes a fresh card record before
// any lock is taken. The stored record is then read, compared and replaced in one step under the
// table lock, because both receive threads may have frames of the same card. Events are queued
// under the lock and delivered by the event thread. Code for QNSV and QNIO cards is one template
// over a kind.

#include "qnm_recv_devinfo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "qnm.h"
#include "qnm_blacklist.h"
#include "qnm_config.h"
#include "qnm_event_cb.h"
#include "qnm_frame.h"
#include "qnm_frame_check.h"
#include "qnm_limits.h"
#include "qnm_log4cxxif.h"
#include "qnm_paced_log.h"
#include "qnm_qn_info.h"
#include "qnm_root.h"
#include "qnm_socket.h"
#include "qnm_util.h"
#include "qnm_write_lock.h"

namespace {

using qnm::be16;
using qnm::connect_word;
using qnm::host16;
using qnm::host32;
using qnm::view;

// ---- Announcement to record ---------------------------------------------------------------------

// Where and when a frame arrived: wall-clock time for the record, monotonic time for the keepalive
// check.
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

// Fills the part of the record that both kinds have. Only the frame's own path is connected.
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
    // A 1G/10G frame has the layout of a 40G frame but ends after the eighth port.
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

// Copies the stored paths and times into the new record and finds what the frame changes. The
// receive time is set last: by itself it is not a change.
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

// The first frame after monitoring was restarted: the record starts anew.
template <typename Kind>
void update_restarted(update<Kind>& change, const arrival& from) QNM_REQUIRES(qnm_qn.eei_mutex) {
    const char* const func = k_names<Kind>.update;
    const qnm_com_dev_t& dev = change.new_dev();
    // The line of a failure says IGNORE although monitoring was restarted; log readers rely on it.
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

// Adds a card to the table unless its monitoring is stopped; returns whether it was added.
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

// Whether the cards of a port may be connected. A frame that was received before its port went down
// may get here after the port's cards have been disconnected, and would connect its card again. The
// link itself is checked too, because the watcher may not have stored yet that it is up.
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

}  // namespace

extern "C" {

int _qnm_recv_devinfo(int port, const unsigned char* recv_buf, uint8_t vlan_mode) {
    const uint64_t now = _qnm_get_msec_timenow();
    const uint8_t host = view<qnw_devinfo_com_s>(recv_buf).com.host;
    if (host == qnm::k_host_qnsv) {
        set_devinfo<qnm::qnsv_kind>(port, recv_buf, vlan_mode, now);
    } else if (host == qnm::k_host_qnio) {
        set_devinfo<qnm::qnio_kind>(port, recv_buf, vlan_mode, now);
    } else {
        qnm_frame_verdict_t unknown = {};
        unknown.reason = QNM_FRAME_HOST;
        unknown.value = host;
        char text[QNM_FRAME_TEXT_SIZE];
        _qnm_frame_reason_text(&unknown, text);
        qnm_log_trace("%s: %s", __func__, text);
    }
    return 0;
}

}  // extern "C"
