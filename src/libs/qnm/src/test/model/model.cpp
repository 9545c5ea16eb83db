// model.cpp - see model.h.

#include "model.h"

#include <algorithm>
#include <cstring>

namespace model {
namespace {

// ---- Bytes --------------------------------------------------------------------------------------

uint16_t be16(const frame_t& frame, size_t at) {
    return static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]);
}

uint64_t mac(const frame_t& frame, size_t at) {
    uint64_t value = 0;
    for (size_t i = 0; i < 6; i++)
        value = value << 8 | frame[at + i];
    return value;
}

// A field that is kept as it lies on the wire.
template <typename Field>
void copy(Field& field, const frame_t& frame, size_t at) {
    memcpy(&field, &frame[at], sizeof field);
}

bool bit(unsigned byte, int number) {
    return (byte >> number & 1) != 0;
}

// ---- Checks of a frame --------------------------------------------------------------------------

constexpr uint16_t k_tpid = 0x8100;

bool in_change_mode(const frame_t& frame) {
    return be16(frame, 12) != k_tpid;
}

size_t tci_at(const frame_t& frame) {
    return in_change_mode(frame) ? 16 : 14;
}

bool is_announcement(uint8_t subtype) {
    return subtype == 0x10 || subtype == 0x11 || subtype == 0x18 || subtype == 0x19;
}

bool is_multi_root(const frame_t& frame) {
    return (frame[26] & 0x0F) == 1;
}

bool has_eight_ports(const frame_t& frame) {
    return frame[18] == 0x10 || frame[18] == 0x11;
}

size_t least_length(const frame_t& frame) {
    if (frame[23] == 0) return has_eight_ports(frame) ? 272 : 496;
    if (frame[23] == 1) return is_multi_root(frame) ? 46 : 44;
    return 28;
}

bool has_good_header(const frame_t& frame, uint16_t ether_type) {
    const bool changed = in_change_mode(frame);
    if (be16(frame, changed ? 12 : 16) != ether_type) return false;
    if (be16(frame, changed ? 14 : 12) != k_tpid) return false;
    return (frame[tci_at(frame)] & 0xE0) == 0x80;
}

bool is_taken(const state& s, const frame_t& frame) {
    if (s.manager.start == 1 || frame.size() < 28) return false;
    if (!has_good_header(frame, s.set.ether_type)) return false;
    if (frame[18] == 0x20) return true;
    if (!is_announcement(frame[18]) || frame.size() < least_length(frame)) return false;
    return !has_eight_ports(frame) || frame[21] == 0;
}

// ---- From a frame to a card ---------------------------------------------------------------------

qnm_com_dev_t& dev_of(kind which, card& it) {
    return which == k_server ? it.server.esv_com_dev : it.io.eio_com_dev;
}

int path_of(const frame_t& frame) {
    return frame[21] != 0 ? frame[11] & 1 : 0;
}

qnm_com_dev_t read_dev(const state& s, int port, const frame_t& frame) {
    qnm_com_dev_t dev = {};
    const bool two_paths = frame[21] != 0;
    copy(dev.ecd_macaddr, frame, 6);
    dev.ecd_id = mac(frame, 6);
    if (two_paths) {
        dev.ecd_macaddr[5] &= 0xFE;
        dev.ecd_id &= ~uint64_t{1};
    }
    dev.ecd_recvtime[port][path_of(frame)] = s.now;
    dev.ecd_state[port][path_of(frame)] = 1;
    dev.ecd_updatetime = s.now;
    dev.ecd_uidsw = bit(frame[22], 2);
    dev.ecd_power = bit(frame[22], 3);
    dev.ecd_port0_link = bit(frame[26], 5);
    dev.ecd_port1_link = bit(frame[26], 6);
    dev.ecd_vlan_id = be16(frame, tci_at(frame)) & 0x0FFF;
    copy(dev.ecd_swstatus, frame, 25);
    dev.ecd_int_vector = frame[27];
    dev.ecd_ver = frame[26] & 0x0F;
    dev.ecd_vlan_mode = in_change_mode(frame);
    dev.ecd_flowid = frame[20];
    dev.ecd_type = frame[21];
    dev.ecd_linkstatus = frame[24];
    return dev;
}

qnm_com_port_t read_port(const frame_t& frame, size_t at) {
    qnm_com_port_t port = {};
    port.ecp_pri_bus_num = frame[at];
    port.ecp_sec_bus_num = frame[at + 1];
    port.ecp_sub_bus_num = frame[at + 2];
    port.ecp_command = frame[at + 3];
    copy(port.ecp_memory_base, frame, at + 4);
    copy(port.ecp_memory_limit, frame, at + 6);
    copy(port.ecp_pre_memory_base, frame, at + 8);
    copy(port.ecp_pre_memory_limit, frame, at + 10);
    copy(port.ecp_pre_base_upper, frame, at + 12);
    copy(port.ecp_pre_limit_upper, frame, at + 16);
    return port;
}

void read_server(const frame_t& frame, qnm_qnsv_t& server) {
    server.esv_up_port = read_port(frame, 28);
    for (size_t k = 0; k < (has_eight_ports(frame) ? 8U : 16U); k++) {
        const size_t at = 48 + 28 * k;
        qnm_down_port_t& port = server.esv_down_port[k];
        copy(port.edp_port_status, frame, at);
        copy(port.edp_io_mac, frame, at + 2);
        if (bit(frame[at + 1], 1)) port.edp_com_port = read_port(frame, at + 8);
    }
}

void read_io(const frame_t& frame, qnm_qnio_t& io) {
    copy(io.eio_substate, frame, 28);
    copy(io.eio_sermacaddr, frame, 30);
    copy(io.eio_device_id, frame, 36);
    copy(io.eio_vendor_id, frame, 38);
    io.eio_class_code = frame[41] + 0x100U * frame[42] + 0x10000U * frame[43];
    io.eio_pcie_presence = bit(frame[26], 7);
    io.eio_link0fault = bit(frame[22], is_multi_root(frame) ? 1 : 0);
    io.eio_link1fault = bit(frame[22], is_multi_root(frame) ? 0 : 1);
    io.eio_mr_resource_num = is_multi_root(frame) ? be16(frame, 44) : 0;
}

card read_card(const state& s, kind which, int port, const frame_t& frame) {
    card made;
    dev_of(which, made) = read_dev(s, port, frame);
    if (which == k_server) {
        read_server(frame, made.server);
    } else {
        read_io(frame, made.io);
    }
    return made;
}

// ---- Memory and events --------------------------------------------------------------------------

// Whether the next allocation succeeds; it is counted then.
bool allocate(state& s, uint32_t& allocated) {
    if (s.failing_allocation != 0 && --s.failing_allocation == 0) {
        s.counters.est_alloc_err++;
        return false;
    }
    allocated++;
    return true;
}

void raise(state& s, qnm_evt_type_t type, uint64_t id) {
    if (!allocate(s, s.counters.est_evt_node_al)) return;
    s.queue.push_back({type, id});
    s.counters.est_evt[type]++;
}

uint32_t& freed(state& s, kind which) {
    return which == k_server ? s.counters.est_sv_node_fr : s.counters.est_io_node_fr;
}

// ---- From a card to the table -------------------------------------------------------------------

// A card has its write lock from when it is first heard, also while its monitoring is stopped.
bool make_write_lock(state& s, uint64_t id) {
    if (!allocate(s, s.counters.est_wreg_node_al)) return false;
    if (!s.write_locks.insert(id).second) s.counters.est_wreg_node_fr++;
    return true;
}

void learn(state& s, kind which, const card& fresh, int port, int path) {
    const qnm_com_dev_t& dev = dev_of(which, fresh);
    if (!make_write_lock(s, dev.ecd_id) || s.blacklist.contains(dev.ecd_id)) return;
    if (!allocate(s, which == k_server ? s.counters.est_sv_node_al : s.counters.est_io_node_al)) {
        return;
    }
    card& stored = s.tables[which][dev.ecd_id] = fresh;
    stored.heard[port][path] = s.uptime;
    raise(s, QNM_EVT_NEWDEVINFO, dev.ecd_id);
    if (dev.ecd_int_vector != 0) raise(s, QNM_EVT_MAJORMINORERROR, dev.ecd_id);
}

void clear_masked(uint8_t (&status)[2]) {
    status[0] &= 0xF8;
    status[1] &= 0xFE;
}

bool differ(const state& s, card a, card b) {
    if (s.set.update_evt_mask == 2) {
        for (card* it : {&a, &b}) {
            clear_masked(it->io.eio_substate);
            for (qnm_down_port_t& port : it->server.esv_down_port)
                clear_masked(port.edp_port_status);
        }
    }
    return memcmp(&a.server, &b.server, sizeof a.server) != 0 ||
           memcmp(&a.io, &b.io, sizeof a.io) != 0;
}

bool connection_changed(const card& before, const card& after) {
    if (bit(before.io.eio_substate[1], 1) != bit(after.io.eio_substate[1], 1)) return true;
    const int ports = after.server.esv_com_dev.ecd_type != 0 ? 16 : 8;
    for (int k = 0; k < ports; k++) {
        if (bit(before.server.esv_down_port[k].edp_port_status[1], 1) !=
            bit(after.server.esv_down_port[k].edp_port_status[1], 1)) {
            return true;
        }
    }
    return false;
}

void raise_changes(state& s, kind which, const card& before, const card& after, bool connected) {
    const uint64_t id = dev_of(which, after).ecd_id;
    const uint8_t old_vector = dev_of(which, before).ecd_int_vector;
    if (connection_changed(before, after)) raise(s, QNM_EVT_CONNECTIONCHANGE, id);
    if ((old_vector | dev_of(which, after).ecd_int_vector) != old_vector) {
        raise(s, QNM_EVT_MAJORMINORERROR, id);
    }
    if (before.io.eio_link0fault != after.io.eio_link0fault ||
        before.io.eio_link1fault != after.io.eio_link1fault) {
        raise(s, QNM_EVT_PATHSTATECHANGE, id);
    }
    if (connected) raise(s, QNM_EVT_CHANNELSTATECHANGE, id);
}

// Puts another record in the same place of the table. It is monitored, whatever it was before.
void replace(card& stored, const card& fresh) {
    stored.server = fresh.server;
    stored.io = fresh.io;
    stored.ignore_state = k_watch;
    stored.check_count = 0;
}

void restart(state& s, kind which, card& stored, const card& fresh) {
    const card before = stored;
    replace(stored, fresh);
    raise(s, QNM_EVT_UPDATEDEVINFO, dev_of(which, fresh).ecd_id);
    raise_changes(s, which, before, stored, true);
}

void update(state& s, kind which, card& stored, card fresh, int port, int path) {
    const card before = stored;
    const qnm_com_dev_t& old_dev = dev_of(which, before);
    qnm_com_dev_t& dev = dev_of(which, fresh);
    memcpy(dev.ecd_recvtime, old_dev.ecd_recvtime, sizeof dev.ecd_recvtime);
    memcpy(dev.ecd_state, old_dev.ecd_state, sizeof dev.ecd_state);
    dev.ecd_updatetime = old_dev.ecd_updatetime;
    const bool connected = old_dev.ecd_state[port][path] == 0;
    if (connected) dev.ecd_state[port][path] = 1;
    const bool changed = differ(s, before, fresh);
    if (changed) dev.ecd_updatetime = s.now;
    dev.ecd_recvtime[port][path] = s.now;
    replace(stored, fresh);
    if (changed) raise(s, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    raise_changes(s, which, before, stored, connected);
}

void take_announcement(state& s, int port, const frame_t& frame) {
    if (frame[23] > 1) return;
    if (!s.link_seen[port] && !s.link_up[port]) return;  // a port that is down connects no card
    const kind which = frame[23] == 0 ? k_server : k_io;
    const card fresh = read_card(s, which, port, frame);
    const auto known = s.tables[which].find(dev_of(which, fresh).ecd_id);
    const int path = path_of(frame);
    if (known == s.tables[which].end()) return learn(s, which, fresh, port, path);
    card& stored = known->second;
    if (stored.ignore_state == k_ignore) return;
    stored.heard[port][path] = s.uptime;
    if (stored.ignore_state == k_restart) return restart(s, which, stored, fresh);
    update(s, which, stored, fresh, port, path);
}

// ---- Loss ---------------------------------------------------------------------------------------

void report_loss(state& s, qnm_com_dev_t& dev) {
    dev.ecd_updatetime = s.now;
    raise(s, QNM_EVT_UPDATEDEVINFO, dev.ecd_id);
    raise(s, QNM_EVT_CHANNELSTATECHANGE, dev.ecd_id);
}

bool expire_paths(const state& s, qnm_com_dev_t& dev, const card& it) {
    bool changed = false;
    for (int port = 0; port < 2; port++) {
        for (int path = 0; path < 2; path++) {
            if (dev.ecd_state[port][path] == 0) continue;
            if (s.uptime < it.heard[port][path] + s.set.expire_time) continue;
            dev.ecd_state[port][path] = 0;
            changed = true;
        }
    }
    return changed;
}

bool end_restart(const state& s, qnm_com_dev_t& dev, card& it) {
    it.check_count++;
    if (it.check_count < s.set.expire_time / s.set.check_interval + 1) return false;
    it.ignore_state = k_watch;
    memset(dev.ecd_state, 0, sizeof dev.ecd_state);
    return true;
}

void check_all(state& s) {
    for (const kind which : k_kinds) {
        for (auto& [id, it] : s.tables[which]) {
            if (it.ignore_state == k_ignore) continue;
            qnm_com_dev_t& dev = dev_of(which, it);
            const bool changed =
                it.ignore_state == k_restart ? end_restart(s, dev, it) : expire_paths(s, dev, it);
            if (changed) report_loss(s, dev);
        }
    }
}

void disconnect_all(state& s, int port) {
    for (const kind which : k_kinds) {
        for (auto& [id, it] : s.tables[which]) {
            qnm_com_dev_t& dev = dev_of(which, it);
            if (it.ignore_state == k_ignore) continue;
            if (dev.ecd_state[port][0] == 0 && dev.ecd_state[port][1] == 0) continue;
            dev.ecd_state[port][0] = dev.ecd_state[port][1] = 0;
            report_loss(s, dev);
        }
    }
}

// ---- Public calls -------------------------------------------------------------------------------

outcome count(state& s, qnm_stats_func_t func, outcome done) {
    s.counters.est_api_code[done.result]++;
    s.counters.est_func_code[func][done.result]++;
    return done;
}

bool is_usable(const state& s) {
    return s.manager.init != 1 && s.manager.fini != 0;
}

bool is_wanted(const list_request& request, const qnm_com_dev_t& dev) {
    if (request.cards == wanted::updated) return dev.ecd_updatetime >= request.value;
    return request.cards == wanted::all || dev.ecd_vlan_id == request.value;
}

std::vector<uint64_t> wanted_ids(const state& s, const list_request& request) {
    std::vector<uint64_t> ids;
    for (const auto& [id, it] : s.tables[request.which]) {
        if (is_wanted(request, dev_of(request.which, it))) ids.push_back(id);
    }
    return ids;
}

outcome make_list(state& s, const list_request& request) {
    outcome done = {.num = request.num};
    const bool group_is_good =
        request.cards != wanted::group || (request.value >= 1 && request.value <= 4094);
    if (!is_usable(s)) {
        done.result = QNM_API_ENOSYS;
    } else if (request.null_list || request.null_num || !group_is_good) {
        done.result = QNM_API_EINVAL;
    } else if (std::vector<uint64_t> ids = wanted_ids(s, request); ids.empty()) {
        done.pointer = list::null;
        done.num = 0;
    } else if ((request.num != 0 ? request.num : s.set.id_list_upper_limit) < ids.size()) {
        done.result = QNM_API_ERANGE;
        done.num = static_cast<uint32_t>(ids.size());
    } else if (!allocate(s, s.counters.est_idlist_al)) {
        done.result = QNM_API_ENOMEM;
    } else {
        done.pointer = list::given;
        done.num = static_cast<uint32_t>(ids.size());
        done.ids = std::move(ids);
    }
    return done;
}

constexpr qnm_stats_func_t k_list_calls[2][3] = {
    {QNM_STATS_GET_QNSVIDS, QNM_STATS_GET_UPDATE_QNSVIDS, QNM_STATS_GET_GROUP_QNSVIDS},
    {QNM_STATS_GET_QNIOIDS, QNM_STATS_GET_UPDATE_QNIOIDS, QNM_STATS_GET_GROUP_QNIOIDS},
};

outcome copy_card(state& s, kind which, uint64_t id, bool null_record) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    if (null_record) return {.result = QNM_API_EINVAL};
    const auto known = s.tables[which].find(id);
    if (known == s.tables[which].end()) return {.result = QNM_API_ENOENT};
    const auto* const from = which == k_server
                                 ? reinterpret_cast<const unsigned char*>(&known->second.server)
                                 : reinterpret_cast<const unsigned char*>(&known->second.io);
    const size_t size = which == k_server ? sizeof(qnm_qnsv_t) : sizeof(qnm_qnio_t);
    return {.record = {from, from + size}};
}

outcome forget_card(state& s, kind which, uint64_t id) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    if (s.tables[which].erase(id) == 0) return {.result = QNM_API_ENOENT};
    freed(s, which)++;
    return {};
}

// Sets the ignore state of a card in whichever tables have it.
void set_ignore_state(state& s, uint64_t id, uint32_t ignore_state) {
    for (auto& table : s.tables) {
        const auto known = table.find(id);
        if (known == table.end()) continue;
        known->second.ignore_state = ignore_state;
        if (ignore_state == k_restart) known->second.check_count = 0;
    }
}

outcome stop(state& s, uint64_t id) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    if (!allocate(s, s.counters.est_bl_node_al)) return {.result = QNM_API_ENOMEM};
    if (!s.blacklist.insert(id).second) s.counters.est_bl_node_fr++;
    set_ignore_state(s, id, k_ignore);
    return {};
}

outcome restart_stopped(state& s, uint64_t id) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    s.counters.est_bl_node_fr += static_cast<uint32_t>(s.blacklist.erase(id));
    set_ignore_state(s, id, k_restart);
    return {};
}

outcome add_callback(state& s, int type, int number, bool null_argument) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    if (type < 0 || type >= QNM_EVT_MAX || null_argument) return {.result = QNM_API_EINVAL};
    if (!allocate(s, s.counters.est_cbinfo_al)) return {.result = QNM_API_ENOMEM};
    s.callbacks[type].push_back(number);
    return {};
}

outcome remove_callback(state& s, int type, int number) {
    if (!is_usable(s)) return {.result = QNM_API_ENOSYS};
    if (number == -1) return {.result = QNM_API_EINVAL};
    std::erase(s.callbacks[type], number);
    s.counters.est_cbinfo_fr++;
    return {};
}

// ---- Device access ------------------------------------------------------------------------------

struct path {
    int port;
    int number;
};

bool find_path(const qnm_com_dev_t& dev, path& found) {
    for (int port = 0; port < 2; port++) {
        for (int number = 0; number < 2; number++) {
            if (dev.ecd_state[port][number] != 1) continue;
            found = {port, number};
            return true;
        }
    }
    return false;
}

void put(frame_t& frame, size_t at, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++)
        frame[at + i] = static_cast<unsigned char>(value >> 8 * (bytes - 1 - i));
}

// A frame to the card, without its message.
frame_t address_card(const state& s, const qnm_com_dev_t& dev, const path& by, uint8_t subtype) {
    const bool changed = dev.ecd_vlan_mode != 0;
    frame_t frame(60);
    memcpy(frame.data(), dev.ecd_macaddr, 6);
    if (by.number == 1) frame[5] |= 1;
    put(frame, 6, s.set.port_mac[by.port], 6);
    put(frame, changed ? 14 : 12, k_tpid, 2);
    put(frame, changed ? 16 : 14, 0x8000U | dev.ecd_vlan_id, 2);
    put(frame, changed ? 12 : 16, s.set.ether_type, 2);
    frame[18] = subtype;
    frame[19] = frame[20] = 0xFF;
    return frame;
}

void count_frame(state& s, int port, qnm_stats_type_t type, qnm_stats_type_t total) {
    uint64_t* const counters = port == 0 ? s.counters.est_stats_p0 : s.counters.est_stats_p1;
    counters[type]++;
    counters[total]++;
}

void leave(state& s, outcome& done, int port, const frame_t& frame, qnm_stats_type_t type) {
    done.sent.push_back({port, frame});
    count_frame(s, port, type, QNM_STATS_T_TOTAL);
}

void put_register(frame_t& frame, uint32_t address) {
    put(frame, 24, (address & 0x3FF000) << 4 | (address & 0xFFF), 4);
}

// One Register Read. Its answer is a frame like any other.
int ask(state& s, const qnm_com_dev_t& dev, uint32_t address, uint32_t reach, outcome& done) {
    path by = {};
    if (!find_path(dev, by)) return QNM_API_ENOLINK;
    frame_t frame = address_card(s, dev, by, 0x91);
    put_register(frame, address);
    leave(s, done, by.port, frame, QNM_STATS_T_REGR);
    if ((reach >> (2 * by.port + (frame[5] & 1)) & 1) == 0) return QNM_API_ETIMEDOUT;
    if (s.manager.start == 1) return QNM_API_ETIMEDOUT;
    count_frame(s, by.port, QNM_STATS_R_COMP, QNM_STATS_R_TOTAL);
    return QNM_API_SUCCESS;
}

// Asks a card without a connected path by each path in turn until it answers.
int check_alive(state& s, qnm_com_dev_t& dev, uint32_t reach, outcome& done) {
    path known = {};
    if (find_path(dev, known)) return QNM_API_SUCCESS;
    for (int port = 0; port < (s.set.ports >= 2 ? 2 : 1); port++) {
        for (int number = 0; number < (dev.ecd_type != 0 ? 2 : 1); number++) {
            if (!s.link_seen[port]) continue;
            dev.ecd_state[port][number] = 1;
            if (ask(s, dev, 0, reach, done) == QNM_API_SUCCESS) return QNM_API_SUCCESS;
            dev.ecd_state[port][number] = 0;
        }
    }
    return QNM_API_ENOLINK;
}

int write(state& s, const qnm_com_dev_t& dev, const access& request, outcome& done) {
    path by = {};
    if (!find_path(dev, by)) return QNM_API_ENOLINK;
    frame_t frame = address_card(s, dev, by, 0x90);
    put_register(frame, request.argument);
    memcpy(&frame[28], &request.data, sizeof request.data);
    leave(s, done, by.port, frame, QNM_STATS_T_REGW);
    return QNM_API_SUCCESS;
}

int set_vlanid(state& s, const qnm_com_dev_t& dev, const access& request, outcome& done) {
    path by = {};
    if (!find_path(dev, by)) return QNM_API_ENOLINK;
    frame_t frame = address_card(s, dev, by, 0x80);
    put(frame, 24, request.argument, 2);
    leave(s, done, by.port, frame, QNM_STATS_T_VLANSET);
    return QNM_API_SUCCESS;
}

int reset(state& s, const qnm_com_dev_t& dev, const access& request, outcome& done) {
    path by = {};
    if (!find_path(dev, by)) return QNM_API_ENOLINK;
    frame_t frame = address_card(s, dev, by, 0x30);
    put(frame, 0, s.set.broadcast_mac, 6);
    frame[23] = static_cast<unsigned char>(request.argument);
    leave(s, done, by.port, frame, QNM_STATS_T_RESET);
    return QNM_API_SUCCESS;
}

int read(state& s, const qnm_com_dev_t& dev, const access& request, outcome& done) {
    const int result = ask(s, dev, request.argument, request.reach, done);
    if (result == QNM_API_SUCCESS) done.num = request.data;
    return result;
}

bool is_good(const access& request) {
    switch (request.call) {
        case access_call::read:
            return request.argument % 4 == 0 && !request.null_data;
        case access_call::write:
            return request.argument % 4 == 0;
        case access_call::set_vlanid:
            return request.argument >= 16 && request.argument <= 4094;
        default:
            return true;
    }
}

// A card of either kind. Of two with the same ID, the one that can be reached has precedence, then
// the QNSV card.
const card* find_card(const state& s, uint64_t id, kind& which) {
    const card* found = nullptr;
    for (const kind each : k_kinds) {
        const auto known = s.tables[each].find(id);
        if (known == s.tables[each].end()) continue;
        path by = {};
        const bool in_reach = find_path(dev_of(each, known->second), by);
        if (found != nullptr && (!in_reach || find_path(dev_of(which, *found), by))) continue;
        which = each;
        found = &known->second;
    }
    return found;
}

using work_t = int (*)(state& s, const qnm_com_dev_t& dev, const access& request, outcome& done);

int access_card(state& s, uint64_t id, const access& request, work_t work, outcome& done) {
    if (!is_usable(s)) return QNM_API_ENOSYS;
    if (!is_good(request)) return QNM_API_EINVAL;
    kind which = k_server;
    const card* const known = find_card(s, id, which);
    if (known == nullptr) return QNM_API_ENOENT;
    qnm_com_dev_t dev = dev_of(which, *known);
    const bool live_check = request.live_check && request.call != access_call::reset;
    if (known->ignore_state == k_ignore) {
        if (!live_check) return QNM_API_ENOLINK;
        memset(dev.ecd_state, 0, sizeof dev.ecd_state);
    }
    const int result = live_check ? check_alive(s, dev, request.reach, done) : QNM_API_SUCCESS;
    return result != QNM_API_SUCCESS ? result : work(s, dev, request, done);
}

struct access_row {
    qnm_stats_func_t func;
    work_t work;
};

constexpr access_row k_accesses[] = {
    {QNM_STATS_READ_REGISTER, read},
    {QNM_STATS_WRITE_REGISTER, write},
    {QNM_STATS_SET_VLANID, set_vlanid},
    {QNM_STATS_SEND_RESETFRAME, reset},
};

qnm_stats_type_t counter_of(uint8_t subtype) {
    switch (subtype) {
        case 0x10:
            return QNM_STATS_R_DEV;
        case 0x11:
            return QNM_STATS_R_NOTI;
        case 0x18:
            return QNM_STATS_R_DEV40;
        case 0x19:
            return QNM_STATS_R_NOTI40;
        default:
            return QNM_STATS_R_COMP;
    }
}

}  // namespace

const qnm_com_dev_t& dev_of(kind which, const card& it) {
    return which == k_server ? it.server.esv_com_dev : it.io.eio_com_dev;
}

int receive(state& s, int port, const frame_t& frame) {
    if (!is_taken(s, frame)) return 0;
    if (is_announcement(frame[18])) take_announcement(s, port, frame);
    count_frame(s, port, counter_of(frame[18]), QNM_STATS_R_TOTAL);
    return 0;
}

void run_keepalive(state& s, uint32_t sleeps, uint64_t standstill) {
    if (s.manager.fini != 1) return;
    uint32_t slept = 0;    // since the last check
    uint64_t judging = 0;  // from this uptime on
    for (uint32_t i = 0; i < sleeps; i++) {
        s.now += s.set.flag_interval;
        s.uptime += s.set.flag_interval;
        slept += s.set.flag_interval;
        if (i == 0) {
            s.now += standstill;
            s.uptime += standstill;
            if (standstill > s.set.expire_time / 2) judging = s.uptime + s.set.expire_time;
        }
        if (slept < s.set.check_interval) continue;
        if (s.uptime >= judging) check_all(s);
        slept = 0;
    }
}

void notify_link(state& s, bool query_fails) {
    if (s.manager.fini != 1 || query_fails) return;
    for (int port = 0; port < (s.set.ports >= 2 ? 2 : 1); port++) {
        if (s.link_up[port] == s.link_seen[port]) continue;
        s.link_seen[port] = s.link_up[port];
        if (s.link_up[port]) continue;
        (port == 0 ? s.counters.est_port0_down_total : s.counters.est_port1_down_total)++;
        disconnect_all(s, port);
    }
}

outcome list_ids(state& s, const list_request& request) {
    const qnm_stats_func_t func = k_list_calls[request.which][static_cast<int>(request.cards)];
    return count(s, func, make_list(s, request));
}

outcome free_list(state& s, bool null_list) {
    if (!null_list) s.counters.est_idlist_fr++;
    return count(s, QNM_STATS_FREE_IDLIST, {});
}

outcome get(state& s, kind which, uint64_t id, bool null_record) {
    return count(s, which == k_server ? QNM_STATS_GET_QNSV : QNM_STATS_GET_QNIO,
                 copy_card(s, which, id, null_record));
}

outcome forget(state& s, kind which, uint64_t id) {
    return count(s, which == k_server ? QNM_STATS_DELETE_QNSV : QNM_STATS_DELETE_QNIO,
                 forget_card(s, which, id));
}

outcome stop_monitor(state& s, uint64_t id) {
    return count(s, QNM_STATS_STOP_MONITOR, stop(s, id));
}

outcome restart_monitor(state& s, uint64_t id) {
    return count(s, QNM_STATS_RESTART_MONITOR, restart_stopped(s, id));
}

outcome use_card(state& s, uint64_t id, const access& request) {
    const access_row& row = k_accesses[static_cast<int>(request.call)];
    outcome done;
    done.result = access_card(s, id, request, row.work, done);
    return count(s, row.func, std::move(done));
}

outcome register_callback(state& s, int type, int number, bool null_argument) {
    return count(s, QNM_STATS_REGISTER_CALLBACK, add_callback(s, type, number, null_argument));
}

outcome unregister_callback(state& s, int type, int number) {
    return count(s, QNM_STATS_UNREGISTER_CALLBACK, remove_callback(s, type, number));
}

void finish(state& s) {
    for (const kind which : k_kinds) {
        freed(s, which) += static_cast<uint32_t>(s.tables[which].size());
        s.tables[which].clear();
    }
    for (std::vector<int>& registered : s.callbacks) {
        s.counters.est_cbinfo_fr += static_cast<uint32_t>(registered.size());
        registered.clear();
    }
    s.counters.est_bl_node_fr += static_cast<uint32_t>(s.blacklist.size());
    s.counters.est_wreg_node_fr += static_cast<uint32_t>(s.write_locks.size());
    s.counters.est_evt_node_fr += static_cast<uint32_t>(s.queue.size());
    s.blacklist.clear();
    s.write_locks.clear();
    s.queue.clear();
}

void begin(state& s) {
    s.counters = {};
    for (int port = 0; port < 2; port++)
        s.link_seen[port] = s.link_up[port];
}

}  // namespace model
