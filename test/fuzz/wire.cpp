// wire.cpp - any frames to simulated cards, as from a manager that has gone mad.
//
// Only requests without a fault are obeyed, only Register Reads are answered, and an answer goes to
// the manager that asked.

#include <string>
#include <vector>

#include "cardsim.h"
#include "fuzz.h"

namespace {

using cardsim::frame_bytes;
using fuzz::reader;
using fuzz::require;

constexpr std::uint64_t k_manager = 0x0A0000000000;
constexpr std::size_t k_most_frames = 200;

struct card_row {
    const char* name;
    cardsim::card_kind kind;
    cardsim::card_speed speed;
    std::uint64_t id;
};

constexpr card_row k_cards[] = {
    {"server", cardsim::card_kind::qnsv, cardsim::card_speed::g1_10, 0x020000000010},
    {"fast-server", cardsim::card_kind::qnsv, cardsim::card_speed::g40, 0x020000000020},
    {"device", cardsim::card_kind::qnio, cardsim::card_speed::g1_10, 0x020000000030},
    {"changing", cardsim::card_kind::qnio, cardsim::card_speed::g40, 0x020000000040},
};

// Every fault that takes no time.
void make_unreliable(cardsim::card& made) {
    made.vlan_change_mode = true;
    made.faults.lose_requests = 100;
    made.faults.lose_answers = 100;
    made.faults.duplicate_answers = 300;
    made.faults.reorder_answers = 300;
    made.faults.silent_registers = {0x14};
    made.device.id_lock = true;
    made.device.lock_stubborn = true;
}

struct rack {
    std::vector<frame_bytes> answers;
    cardsim::simulator cards;

    rack() : cards({port("p0"), port("p1")}) {
        for (const card_row& row : k_cards) {
            cardsim::card made = cardsim::make_card(row.name, row.kind, row.speed, row.id);
            for (std::size_t port = 0; port < cardsim::port_limit; port++) {
                for (std::size_t path = 0; path < cardsim::path_count(row.speed); path++)
                    made.heard[port][path] = true;
            }
            if (&row == std::end(k_cards) - 1) make_unreliable(made);
            cards.add(made);
        }
    }

  private:
    cardsim::port port(const char* name) {
        const auto send = [this](cardsim::frame_view frame) {
            answers.emplace_back(frame.begin(), frame.end());
            return cardsim::send_report{};
        };
        return {.name = name, .send = send, .receive = [] { return std::nullopt; }};
    }
};

// ---- Frames -------------------------------------------------------------------------------------

void put(frame_bytes& frame, std::size_t at, std::uint64_t value, std::size_t size) {
    for (std::size_t n = 0; n < size; n++)
        frame[at + n] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - n)));
}

// A valid request, apart from what the input changes.
frame_bytes read_request(reader& in) {
    constexpr std::uint8_t subtypes[] = {0x91, 0x90, 0x30, 0x80, 0x92};
    constexpr std::uint32_t registers[] = {0x5010, 0x5014, 0x5018, 0x501C, 0x40,   0x44,
                                           0x48,   0x4C,   0x50F0, 0x5200, 0x5204, 0x5208};
    const std::uint8_t subtype = subtypes[in.below(std::size(subtypes))];
    const card_row& to = k_cards[in.below(std::size(k_cards))];
    frame_bytes frame(subtype == 0x92 ? 156 : 60);
    const std::uint8_t how = in.u8();
    const bool changing = to.id == k_cards[3].id;
    put(frame, 0, (how & 1) != 0 ? 0x0300FFFFFFFF : to.id | (how >> 1 & 1), 6);
    put(frame, 6, k_manager, 6);
    put(frame, 12, changing ? 0x88B681008001 : 0x8100800188B6, 6);
    put(frame, 18, subtype << 16 | 0xFFFF, 3);
    if (subtype == 0x91) frame[23] = in.u8();
    const std::uint32_t address = (how & 4) != 0 ? in.u32() : registers[in.below(12)];
    put(frame, 24, (address & 0x3FF000) << 4 | (address & 0xFFF), 4);
    if (subtype == 0x90) put(frame, 28, in.u32(), 4);
    for (std::size_t n = how >> 6; n != 0; n--)
        frame[in.below(frame.size())] = in.u8();
    return frame;
}

frame_bytes read_raw(reader& in) {
    const std::size_t size = in.u8();
    const fuzz::bytes contents = in.take(size);
    return {contents.begin(), contents.end()};
}

// ---- What has to hold ---------------------------------------------------------------------------

void check_decoded(const cardsim::request& received, const frame_bytes& frame) {
    const bool understood = received.body.index() != 0;
    require(received.length == frame.size(), "the length is that of the frame");
    require(received.subtype == frame[18], "the subtype is that of the frame");
    require(understood || !received.fault.empty(), "what is not understood has a fault");
    if (received.fault.empty()) require(received.tci >> 13 == 4, "the priority is 4");
    const std::string text = cardsim::describe(received);
    require(text.find('\n') == std::string::npos, "a request is one line");
}

void check_answer(const frame_bytes& answer, const cardsim::request& asked) {
    const std::size_t size = answer.size();
    require(size == 60 && answer[18] == 0x20, "an answer is a Completion");
    std::uint64_t to = 0;
    for (std::size_t n = 0; n < 6; n++)
        to = to << 8 | answer[n];
    // An answer that was held back goes to the manager that asked then.
    require(to == asked.source || asked.destination >> 1 == k_cards[3].id >> 1,
            "an answer goes to who has asked");
}

void deliver(rack& all, reader& in) {
    const std::size_t port = in.below(2);
    const frame_bytes frame = in.flag() ? read_raw(in) : read_request(in);
    all.answers.clear();
    const cardsim::counters before = all.cards.count();
    all.cards.deliver(port, frame);
    const auto received = cardsim::decode(frame);
    if (received) check_decoded(*received, frame);
    const cardsim::counters after = all.cards.count();
    require(after.received - before.received == (received ? 1 : 0), "a frame counts once");
    const bool faulty = received && !received->fault.empty();
    require(after.faulty - before.faulty == (faulty ? 1 : 0), "faults are counted");
    const bool asked =
        received && !faulty && std::holds_alternative<cardsim::register_read>(received->body);
    require(asked || all.answers.empty(), "only reads are answered");
    for (const frame_bytes& answer : all.answers)
        check_answer(answer, *received);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    reader in({data, size});
    rack all;
    for (std::size_t n = 0; n < k_most_frames && !in.is_empty(); n++)
        deliver(all, in);
    for (const card_row& row : k_cards)
        require(all.cards.eeprom(row.name).size() == cardsim::eeprom_size,
                "EEPROMs keep their size");
    return 0;
}
