// forgeries.cpp - makes false frames, each kind as often as the table says.

#include "troubles/forgeries.h"

#include <numeric>
#include <span>
#include <string>

#include "rig.h"

namespace soak {

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::frame_bytes;
using cardsim::message;

constexpr std::chrono::milliseconds k_between{10};
constexpr uint64_t k_another_host = 0x02FD00000001;
constexpr size_t k_header = 18;
constexpr size_t k_io_announcement = 44;  // bytes that one of an I/O card has at least
constexpr size_t k_longest_frame = 1500;

// With the link down, a frame is as good as lost.
void send(scene& at, size_t port, cardsim::frame_view frame) {
    try {
        at.cards.send_raw(port, frame);
    } catch (const cardsim::error&) {
    }
}

void announce(scene& at, std::mt19937& random, const card& forged) {
    const size_t path = random() % cardsim::path_count(forged.speed);
    const message kind = random() % 4 == 0 ? message::notify : message::devinfo;
    send(at, random() % 2, cardsim::encode(forged, kind, path));
}

card lasting(scene& at, std::mt19937& random) {
    return at.cards.get(card_id(random() % k_lasting));
}

card invent(std::mt19937& random, uint64_t id, bool server) {
    card made = e2e::lively(server ? card_kind::qnsv : card_kind::qnio,
                            random() % 2 == 0 ? card_speed::g1_10 : card_speed::g40, id);
    made.vlan_id = static_cast<uint16_t>(k_first_vlan + random() % k_vlans);
    return made;
}

// ---- Announcements -----------------------------------------------------------------------------

void announce_stranger(scene& at, std::mt19937& random) {
    const size_t number = at.shared.strangers % k_strangers;
    announce(at, random, invent(random, stranger_id(number), number % 2 == 0));
}

void announce_false_record(scene& at, std::mt19937& random) {
    card forged = lasting(at, random);
    const uint32_t bits = random();
    forged.uid_switch = (bits & 1) != 0;
    forged.power = (bits & 2) != 0;
    forged.link0_fault = (bits & 4) != 0;
    forged.link1_fault = (bits & 8) != 0;
    forged.port0_link = (bits & 16) != 0;
    forged.vlan_change_mode = (bits & 32) != 0;
    forged.flow_id = static_cast<uint8_t>(bits >> 8);
    forged.int_vector = static_cast<uint8_t>(bits >> 16);
    forged.io_substate[1] = static_cast<uint8_t>(bits >> 24);
    forged.down_ports[bits >> 6 & 3].port_status[1] = static_cast<uint8_t>(bits >> 24);
    announce(at, random, forged);
}

void announce_false_kind(scene& at, std::mt19937& random) {
    card forged = lasting(at, random);
    forged.kind = forged.kind == card_kind::qnsv ? card_kind::qnio : card_kind::qnsv;
    announce(at, random, forged);
}

// A complete announcement with one field that no announcement may have.
void announce_nobody(scene& at, std::mt19937& random) {
    const size_t number = random() % k_nobodies;
    card forged = invent(random, nobody_id(number), number % 2 == 0);
    switch (random() % 4) {
        case 0: {
            const frame_bytes whole = cardsim::encode(forged, message::devinfo, 0);
            const size_t needed = forged.kind == card_kind::qnsv ? whole.size() : k_io_announcement;
            const size_t kept = k_header + random() % (needed - k_header);
            return send(at, random() % 2, std::span(whole).first(kept));
        }
        case 1:
            forged.priority = static_cast<uint8_t>(random() % 4);
            break;
        case 2:
            forged.ether_type++;
            break;
        default:
            forged.speed = card_speed::g1_10;
            forged.ver = 1;  // which only 40G cards have
    }
    announce(at, random, forged);
}

void announce_at_length(scene& at, std::mt19937& random) {
    const card source = lasting(at, random);
    const size_t port = source.heard[0][0] ? 0 : 1;
    frame_bytes frame = cardsim::encode(source, message::devinfo, 0);
    const size_t length = frame.size() + random() % (k_longest_frame - frame.size());
    while (frame.size() < length)
        frame.push_back(static_cast<uint8_t>(random()));
    send(at, port, frame);
}

// ---- Answers -----------------------------------------------------------------------------------

void answer_with_bad_tag(scene& at, std::mt19937& random) {
    const card source = lasting(at, random);
    constexpr uint32_t bad_tags = 0xFF - k_highest_tag;
    const cardsim::completion answer{
        .source = source.id,
        .destination = cardsim::broadcast_mac,
        .tag = static_cast<uint8_t>(k_highest_tag + 1 + random() % bad_tags),
        .value = static_cast<uint32_t>(random())};
    frame_bytes frame;
    cardsim::encode(source, answer, frame);
    send(at, random() % 2, frame);
}

struct forgery {
    unsigned weight;
    std::atomic<uint64_t> stage::*counter;
    void (*send)(scene&, std::mt19937&);
};

constexpr forgery k_forgeries[] = {
    {50, &stage::strangers, announce_stranger},
    {10, &stage::false_records, announce_false_record},
    {4, &stage::false_kinds, announce_false_kind},
    {20, &stage::broken_announcements, announce_nobody},
    {10, &stage::long_announcements, announce_at_length},
    {20, &stage::bad_tags, answer_with_bad_tag},
};

}  // namespace

void forge(scene& at, std::mt19937& random) {
    pause(at, k_between);
    const auto step = begin_step(at);
    static const unsigned total =
        std::accumulate(std::begin(k_forgeries), std::end(k_forgeries), 0U,
                        [](unsigned sum, const forgery& it) { return sum + it.weight; });
    auto drawn = static_cast<unsigned>(random() % total);
    const forgery* it = k_forgeries;
    for (; drawn >= it->weight; it++)
        drawn -= it->weight;
    it->send(at, random);
    (at.shared.*it->counter)++;
}

void mislead(scene& at, size_t port, const cardsim::request& received) {
    const auto* const read = std::get_if<cardsim::register_read>(&received.body);
    if (read == nullptr || at.shared.reads_seen++ % 8 != 0) return;
    card pretender =
        cardsim::make_card("pretender", card_kind::qnsv, card_speed::g1_10, received.destination);
    pretender.vlan_id = received.tci & 0xFFF;
    pretender.vlan_change_mode = received.vlan_change_mode;
    const cardsim::completion answer{.source = received.destination,
                                     .destination = k_another_host,
                                     .tag = read->tag,
                                     .value = 0xBADBADBA};
    frame_bytes frame;
    cardsim::encode(pretender, answer, frame);
    send(at, port, frame);
    at.shared.misled_answers++;
}

}  // namespace soak
