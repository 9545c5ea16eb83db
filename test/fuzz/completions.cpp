// completions.cpp - any Completions against register reads in flight.
//
// A read sends its frame. Before it waits, the input decides what arrives: answers from the right
// or another card, by either port, with its own tag or another's, damaged, late or more than once,
// or another read that starts meanwhile. A model of nothing but the matching rules knows which
// value a read has to return.

#include <cerrno>
#include <optional>
#include <vector>

#include "library.h"
#include "qnm_reg_send.h"
#include "qnm_util.h"

namespace {

using fuzz::reader;
using fuzz::require;

constexpr std::size_t k_most_flights = 4;
constexpr std::size_t k_most_reads = 64;

// A read in flight as the matching rules see it.
struct flight {
    int tag = -1;  // not known before its first frame
    int port = 0;
    std::uint64_t mac = 0;
    std::optional<std::uint32_t> answer;
};

struct traffic : fuzz::library {
    reader& in;
    std::vector<flight> flights;  // the last one is the one that runs
    std::size_t reads = 0;
    bool stopped = false;

    explicit traffic(reader& input) : library(QNM_LOGLVL_TRACE), in(input) {
        for (int port = 0; port < 2; port++) {
            fake_pcap::on_send(name(port), [this, port](const fake_pcap::frame_t& frame) {
                on_read_frame(port, frame);
            });
        }
        // No time passes while a read waits.
        fail::on(fail::call::pthread_cond_timedwait, [this](std::uint64_t) {
            require(!flights.back().answer, "nobody waits for an answer that is there");
            require(!stopped, "nobody waits after the stop");
            return fail::outcome(ETIMEDOUT);
        });
    }

    void on_read_frame(int port, const fake_pcap::frame_t& frame);
    void read();
};

std::uint64_t mac_of(const fake_pcap::frame_t& frame) {
    std::uint64_t mac = 0;
    _qnm_mac_to_uint64(frame.data(), &mac);
    return mac;
}

// ---- Answers ------------------------------------------------------------------------------------

enum damage { none, cut, no_priority, no_type, other_subtype, k_damages };

void spoil(frames::frame_t& frame, damage how) {
    switch (how) {
        case cut:
            return frame.resize(27);
        case no_priority:
            frame[14] ^= 0x20;
            frame[16] ^= 0x20;
            return;
        case no_type:
            frame[16] ^= 0x10;
            frame[12] ^= 0x10;
            return;
        case other_subtype:
            frame[18] ^= 0x01;
            return;
        default:
            return;
    }
}

void take_answer(std::vector<flight>& flights, int port, const frames::completion& it,
                 std::uint32_t value) {
    for (flight& of : flights) {
        if (of.tag != it.tag || of.port != port || of.mac != it.mac || of.answer) continue;
        of.answer = value;
    }
}

// One frame, most often for the read that runs.
void answer(traffic& all) {
    reader& in = all.in;
    const flight& aimed = all.flights[all.flights.size() - 1 - in.below(all.flights.size())];
    const std::uint8_t wrong = in.u8();
    frames::completion it;
    it.tag = static_cast<std::uint8_t>((wrong & 1) != 0 ? in.u8() : aimed.tag);
    it.mac = aimed.mac ^ ((wrong & 2) != 0 ? in.u8() : 0);
    const int port = (wrong & 4) != 0 ? 1 - aimed.port : aimed.port;
    it.vlan_change_mode = (wrong & 8) != 0;
    const damage how = (wrong & 16) != 0 ? static_cast<damage>(in.below(k_damages)) : none;
    const std::uint32_t value = in.u32();
    memcpy(it.data, &value, sizeof value);
    frames::frame_t frame = frames::build_completion(it);
    spoil(frame, how);
    if (how == none) take_answer(all.flights, port, it, value);
    require(all.receive(frame, port) == 0, "no frame ends the port");
}

// ---- Reads --------------------------------------------------------------------------------------

void traffic::on_read_frame(int port, const fake_pcap::frame_t& frame) {
    flight& sender = flights.back();
    const int tag = frame[23];
    require(sender.tag == -1 || sender.tag == tag, "a read keeps its tag");
    for (const flight& other : flights)
        require(&other == &sender || other.tag != tag, "a tag has one owner");
    sender.tag = tag;
    sender.port = port;
    sender.mac = mac_of(frame);
    for (std::size_t n = in.below(4); n != 0; n--)
        answer(*this);
    while (flights.size() < k_most_flights && in.below(4) == 1)
        read();
    for (std::size_t n = in.below(3); n != 0; n--)
        answer(*this);
    if (in.u8() != 0xFF) return;
    stopped = true;
    qnm::store(qnm_root.er_fini_flag, 0U);
    _qnm_cmp_wake();
}

qnm_com_dev_t read_card(reader& in) {
    const std::uint8_t choice = in.u8();
    qnm_com_dev_t dev = card_units::record(2, 0x020000001000 | (choice & 6));
    dev.ecd_type = 1;
    dev.ecd_vlan_mode = choice >> 3 & 1;
    dev.ecd_state[0][0] = 0;
    dev.ecd_state[choice >> 4 & 1][choice >> 5 & 1] = 1;
    return dev;
}

// The result that the model expects; span is the number of tags.
int expected_result(const flight& of, bool stopped, std::size_t in_flight) {
    const std::size_t span = qnm_config.tag_max - qnm_config.tag_min + 1;
    if (of.tag == -1) {
        require(in_flight > span, "a tag is free");
        return EPROTO;
    }
    if (stopped) return ENOSYS;
    return of.answer ? 0 : ETIMEDOUT;
}

void traffic::read() {
    const qnm_com_dev_t dev = read_card(in);
    const std::uint32_t retries = in.u8() & 3;
    std::uint32_t value = 0xDEADBEEF;
    flights.emplace_back();
    if (++reads > k_most_reads) in.take(in.size());  // answers may not go on for ever either
    const int ret = _qnm_read_register(&dev, 0x1000, &value, 1, retries);
    const flight done = flights.back();
    require(ret == expected_result(done, stopped, flights.size()), "a read ends as it has to");
    require(value == (ret == 0 ? *done.answer : 0xDEADBEEF), "a read brings its own value only");
    flights.pop_back();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    reader in({data, size});
    traffic all(in);
    qnm_config.tag_min = in.u8();
    qnm_config.tag_max = std::min(255U, qnm_config.tag_min + in.u8() % 6);
    while (!in.is_empty() && !all.stopped)
        all.read();
    set_running();
    return 0;
}
