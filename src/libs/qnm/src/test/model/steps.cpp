// steps.cpp - see steps.h.

#include "steps.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace steps {
namespace {

using model::frame_t;

// IDs in pairs that differ in the lowest bit, for cards with two paths; both ends of the range are
// included.
constexpr uint64_t k_macs[] = {
    0x000000000000, 0x000000000001, 0x0000000000FE, 0x0000000000FF, 0x020000001000,
    0x020000001001, 0x020000001002, 0x020000001003, 0x020000001004, 0x020000001005,
    0x020000002000, 0x020000002001, 0x123456789ABC, 0x123456789ABD, 0x7FFFFFFFFFFE,
    0x7FFFFFFFFFFF, 0x800000000000, 0x800000000001, 0xFFFFFFFFFFFE, 0xFFFFFFFFFFFF,
};

constexpr uint64_t k_groups[] = {0, 1, 2, 10, 4093, 4094, 4095};

template <typename Row, size_t Size>
const Row& pick(source& from, const Row (&rows)[Size]) {
    return rows[from.below(Size)];
}

// ---- What each kind of step draws ---------------------------------------------------------------

using draw_t = void (*)(source& from, const model::state& now, step& it);

void draw_frame(source& from, const model::state& now, step& it) {
    it.frame = from.any_frame(now.set.ether_type);
}

void draw_no_frame(source& from, const model::state&, step& it) {
    constexpr int k_results[] = {0, 0, -1, -2};
    it.number = static_cast<uint64_t>(int64_t{pick(from, k_results)});
}

void draw_time(source& from, const model::state& now, step& it) {
    const uint64_t round = 100 * from.below(now.set.expire_time / 100 + 2);
    const uint64_t amounts[] = {0, 1, round, round, round, from.below(now.set.expire_time)};
    it.number = pick(from, amounts);
}

void draw_set_clock(source& from, const model::state&, step& it) {
    constexpr uint64_t k_amounts[] = {1, 1000, 60'000, 3'600'000};
    it.number = pick(from, k_amounts);
    if (from.one_in(2)) it.number = -it.number;
}

void draw_keepalive(source& from, const model::state& now, step& it) {
    const uint32_t per_check =
        (now.set.check_interval + now.set.flag_interval - 1) / now.set.flag_interval;
    it.number = from.one_in(4) ? from.below(3 * per_check) : per_check;
    const uint32_t half = now.set.expire_time / 2;
    const uint32_t standstills[] = {half, half + 1, 2 * half, 60'000};
    if (!from.one_in(8)) return;
    it.num = pick(from, standstills);
    it.number += 2 * now.set.expire_time / now.set.flag_interval;
}

void draw_link(source& from, const model::state& now, step& it) {
    it.number = now.link_up[it.port] ? from.below(2) : !from.one_in(4);
    it.notify = !from.one_in(4);
    it.query_fails = from.one_in(8);
}

uint64_t list_value(source& from, const model::state& now, const step& it) {
    if (it.cards == model::wanted::group) {
        constexpr uint64_t k_odd[] = {4096, 65535};
        return from.one_in(10) ? pick(from, k_odd) : pick(from, k_groups);
    }
    const auto& table = now.tables[it.which];
    if (table.empty() || from.one_in(8)) return from.one_in(2) ? 0 : now.now + from.below(2);
    const auto card = std::next(table.begin(), static_cast<long>(from.below(table.size())));
    return dev_of(it.which, card->second).ecd_updatetime + from.below(3) - 1;
}

void draw_list(source& from, const model::state& now, step& it) {
    constexpr model::wanted k_wanted[] = {model::wanted::all, model::wanted::updated,
                                          model::wanted::group};
    it.cards = pick(from, k_wanted);
    it.number = list_value(from, now, it);
    it.num = from.one_in(3) ? 0 : static_cast<uint32_t>(from.below(16));
    it.null_argument = from.one_in(30);
    it.null_num = from.one_in(30);
}

// Arguments that are valid for one call and invalid for another.
void draw_access(source& from, const model::state&, step& it) {
    constexpr model::access_call k_calls[] = {
        model::access_call::read, model::access_call::read, model::access_call::write,
        model::access_call::set_vlanid, model::access_call::reset};
    constexpr uint32_t k_arguments[] = {0, 15, 16, 80, 4094, 4095, 0x1234, 0x3FFFFC, 0xFFFC, 0x61};
    constexpr uint32_t k_reaches[] = {0, 0xF, 0xF, 0x8, 0x3};
    it.access = {.call = pick(from, k_calls),
                 .argument = pick(from, k_arguments),
                 .data = static_cast<uint32_t>(from.below(uint64_t{1} << 32)),
                 .live_check = from.one_in(3),
                 .null_data = from.one_in(30),
                 .reach = pick(from, k_reaches)};
}

void draw_restart(source&, const model::state&, step& it) {
    it.manager = {};
    it.failing_allocation = 0;
}

void draw_nothing(source&, const model::state&, step&) {}

void draw_card(source& from, const model::state&, step& it) {
    it.null_argument = from.one_in(30);
}

void draw_callback(source& from, const model::state&, step& it) {
    it.number = from.below(k_registrations);
}

void draw_wrong_callback(source& from, const model::state&, step& it) {
    constexpr int k_types[] = {QNM_EVT_MAX, -1, 1000, 0, 5};
    it.number = static_cast<uint64_t>(int64_t{pick(from, k_types)});
    it.null_argument = true;
}

struct row {
    steps::what what;
    const char* name;
    uint32_t weight;
    draw_t draw;
};

constexpr row k_rows[] = {
    {what::frame, "frame", 600, draw_frame},
    {what::no_frame, "no frame", 5, draw_no_frame},
    {what::time, "time", 80, draw_time},
    {what::set_clock, "set clock", 3, draw_set_clock},
    {what::keepalive, "keepalive", 60, draw_keepalive},
    {what::link, "link", 20, draw_link},
    {what::list, "list", 80, draw_list},
    {what::free_list, "free list", 5, draw_nothing},
    {what::get, "get", 20, draw_card},
    {what::forget, "delete", 25, draw_card},
    {what::stop_monitor, "stop monitor", 12, draw_card},
    {what::restart_monitor, "restart monitor", 50, draw_card},
    {what::callback, "callback", 20, draw_callback},
    {what::wrong_callback, "wrong callback", 5, draw_wrong_callback},
    {what::access, "access", 60, draw_access},
    {what::restart, "restart", 1, draw_restart},
};

constexpr uint32_t total_weight() {
    uint32_t total = 0;
    for (const row& it : k_rows)
        total += it.weight;
    return total;
}

const row& any_row(source& from) {
    uint64_t left = from.below(total_weight());
    const row* it = k_rows;
    for (; left >= it->weight; it++)
        left -= it->weight;
    return *it;
}

// ---- Frames -------------------------------------------------------------------------------------

constexpr uint8_t k_subtypes[] = {0x10, 0x11, 0x18, 0x19};

// The bytes that decide how a frame is handled.
constexpr size_t k_telling[] = {20, 22, 22, 24, 25, 26, 26, 27, 27, 28, 29, 29, 40, 44};

size_t telling_byte(source& from, const frame_t& frame) {
    const bool in_change_mode = frame[12] != 0x81 || frame[13] != 0x00;
    if (from.one_in(8)) return in_change_mode ? 17 : 15;  // the VLAN ID
    if (from.one_in(16) && frame[18] >= 0x18) return 21;  // one path or two
    if (frame[23] == 0 && from.one_in(2)) {
        const uint64_t byte = from.below(2);  // of its status
        return frames::down_port(from.below(frame[18] >= 0x18 ? 16 : 8)) + byte;
    }
    return pick(from, k_telling);
}

}  // namespace

source::source(uint64_t seed) : random_(seed) {}

model::settings source::draw_settings() {
    constexpr uint32_t k_flag_intervals[] = {100, 300, 1000, 2500};
    constexpr uint32_t k_check_intervals[] = {1000, 1100, 2000};
    constexpr uint32_t k_expire_times[] = {1000, 3000, 5000};
    constexpr uint32_t k_masks[] = {1, 2, 2, 2, 3};
    constexpr uint64_t k_broadcasts[] = {0x0300FFFFFFFF, 0xFFFFFFFFFFFF};
    constexpr uint32_t k_limits[] = {0xFFFFFFFF, 0xFFFFFFFF, 8, 0};
    return {
        .check_interval = pick(*this, k_check_intervals),
        .expire_time = pick(*this, k_expire_times),
        .flag_interval = pick(*this, k_flag_intervals),
        .update_evt_mask = pick(*this, k_masks),
        .id_list_upper_limit = pick(*this, k_limits),
        .ports = one_in(4) ? 1U : 2U,
        .ether_type = static_cast<uint16_t>(one_in(2) ? 0x88B6 : 0x1234),
        .broadcast_mac = pick(*this, k_broadcasts),
        .port_mac = {},
    };
}

uint64_t source::mac() {
    return pick(*this, k_macs);
}

uint64_t source::any_id() {
    if (one_in(50)) return mac() | uint64_t{1} << 48;  // no card has such an ID
    return mac();
}

// A frame that is accepted: a good header, the right size, any contents.
frame_t source::fresh_frame(uint64_t mac, uint8_t host, uint16_t ether_type) {
    frames::announcement it = {.mac = mac, .host = host};
    it.subtype = pick(*this, k_subtypes);
    if (it.subtype >= 0x18) it.ver = one_in(6) ? 0 : static_cast<uint8_t>(1 + below(2));
    it.tci = static_cast<uint16_t>(0x8000 | pick(*this, k_groups));
    if (one_in(2)) it.tci |= 0x1000;  // a bit beside the VLAN ID
    it.info = static_cast<uint8_t>(below(256));
    it.sw_status[1] = static_cast<uint8_t>(below(256));
    if (one_in(2)) it.sw_status[1] &= 0xE1;  // of version 0 or 1
    it.sw_status[2] = static_cast<uint8_t>(one_in(2) ? 0 : below(256));
    it.vlan_change_mode = one_in(2);
    if (host == 1 && one_in(2)) it.length = 46;  // room for what a multi-root card adds
    frame_t frame = build(it);
    const size_t type = it.vlan_change_mode ? 12 : 16;
    frame[type] = static_cast<unsigned char>(ether_type >> 8);
    frame[type + 1] = static_cast<unsigned char>(ether_type);
    for (size_t at = 28; at < frame.size(); at++)
        frame[at] = static_cast<unsigned char>(random_() >> 56);
    return frame;
}

// The same card announces a change: one bit or one byte.
void source::change(frame_t& frame) {
    const size_t at = one_in(4) ? 24 + below(frame.size() - 24) : telling_byte(*this, frame);
    if (at >= frame.size()) return;
    if (one_in(4)) {
        frame[at] = static_cast<unsigned char>(random_() >> 56);
    } else {
        frame[at] = static_cast<unsigned char>(frame[at] ^ 1U << below(8));
    }
}

// A frame that is likely to be dropped, or is no announcement.
void source::damage(frame_t& frame) {
    constexpr size_t k_lengths[] = {0,  17,  18,  27,  28,  43,  44, 45,
                                    46, 271, 272, 273, 495, 496, 497};
    switch (below(4)) {
        case 0:
            frame.resize(pick(*this, k_lengths));
            break;
        case 1:
            frame[18] = static_cast<unsigned char>(one_in(2) ? 0x20 : below(256));
            break;
        case 2:
            frame[12 + below(6)] = static_cast<unsigned char>(random_() >> 56);
            break;
        default:
            frame[12 + below(10)] ^= static_cast<unsigned char>(1U << below(8));
    }
}

frame_t source::any_frame(uint16_t ether_type) {
    const uint64_t from = mac();
    const auto host = static_cast<uint8_t>(one_in(20) ? 2 + below(254) : below(2));
    frame_t& last = last_[{from & ~uint64_t{1}, host}];
    if (last.empty() || one_in(20)) last = fresh_frame(from, host, ether_type);
    last[11] = static_cast<unsigned char>(from);
    const uint64_t changes = one_in(2) ? 0 : 1 + below(3);
    for (uint64_t i = 0; i < changes; i++)
        change(last);
    frame_t frame = last;
    if (!one_in(12)) return frame;
    damage(frame);
    return frame;
}

step source::next(const model::state& now) {
    const row& drawn = any_row(*this);
    step it = {.what = drawn.what, .delivers = !one_in(4)};
    if (one_in(50)) it.failing_allocation = static_cast<uint32_t>(1 + below(4));
    if (one_in(100)) it.manager.init = 1;
    if (one_in(100)) it.manager.start = 1;
    if (one_in(100)) it.manager.fini = 0;
    it.port = static_cast<int>(below(2));
    it.which = one_in(2) ? model::k_server : model::k_io;
    it.id = any_id();
    drawn.draw(*this, now, it);
    return it;
}

step source::list(const model::state& now, model::kind which, model::wanted cards) {
    step it = {.what = what::list, .which = which, .cards = cards};
    it.number = list_value(*this, now, it);
    return it;
}

step reaction(int registration, uint64_t id) {
    constexpr what k_reactions[] = {what::get,          what::forget,
                                    what::stop_monitor, what::restart_monitor,
                                    what::callback,     what::list};
    // Most only look up the card; otherwise few cards would stay in the tables.
    const bool looks = registration >= 12 || (id & 2) == 0;
    step it = {.what = looks ? what::get : k_reactions[registration / 2], .id = id};
    it.which = registration % 2 == 0 ? model::k_server : model::k_io;
    // A registration for another type; for its own it would deadlock.
    it.number = static_cast<uint64_t>(12 + (registration + 3) % QNM_EVT_MAX);
    return it;
}

std::string describe(const step& it) {
    const row* const found = std::find_if(std::begin(k_rows), std::end(k_rows),
                                          [&](const row& each) { return each.what == it.what; });
    std::ostringstream out;
    out << found->name << ": port " << it.port << (it.which == model::k_server ? " QNSV" : " QNIO")
        << " cards " << static_cast<int>(it.cards) << std::hex << " id 0x" << it.id << std::dec
        << " number " << static_cast<int64_t>(it.number) << " num " << it.num;
    if (it.null_argument) out << ", null argument";
    if (it.null_num) out << ", null num";
    if (it.notify) out << ", notify";
    if (it.query_fails) out << ", query fails";
    if (it.delivers) out << ", delivers";
    if (it.failing_allocation != 0) out << ", allocation " << it.failing_allocation << " fails";
    out << ", flags " << it.manager.init << it.manager.start << it.manager.fini;
    if (it.what == what::access) {
        out << ", call " << static_cast<int>(it.access.call) << " argument " << it.access.argument
            << " data " << it.access.data << " reach " << it.access.reach
            << (it.access.live_check ? ", live check" : "")
            << (it.access.null_data ? ", null data" : "");
    }
    if (!it.frame.empty()) out << ", " << it.frame.size() << " bytes:" << std::hex;
    for (size_t at = 0; at < it.frame.size(); at++)
        out << (at % 4 == 0 ? " " : "") << (it.frame[at] < 16 ? "0" : "") << unsigned{it.frame[at]};
    return out.str();
}

std::vector<uint64_t> known_ids() {
    return {std::begin(k_macs), std::end(k_macs)};
}

}  // namespace steps
