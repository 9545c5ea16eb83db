// Frames that the receive path drops, and similar ones that it accepts: for every check and on both
// sides of every limit, the dissector notes the same, in the words of the library's log.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

#include "capture.h"
#include "frame_kinds.h"
#include "ports.h"
#include "tshark.h"

namespace fs = std::filesystem;

namespace {

using frames::announcement;
using frames::frame_t;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using tshark::row;
using tshark::words;

constexpr std::size_t k_ethernet_type = 12;

// Wireshark calls the dissector for frames with the Ethernet type in either place, and no others.
constexpr std::size_t least_length(bool vlan_change_mode) {
    return vlan_change_mode ? 14 : 18;
}

std::vector<announcement> every_kind() {
    std::vector<announcement> all;
    for (const frame_kind& one : all_kinds())
        all.push_back(one.announcement);
    return all;
}

struct drops : ports {
    capture taken;
    words expected;  // what the library logs; empty for a frame that it takes

    // The reason, without the function that logs it.
    std::string drop_reason() const {
        for (const std::string& text : logs.texts("logfile", k_trace)) {
            for (const std::string func : {"_check_frame: ", "_qnm_recv_devinfo: "}) {
                if (text.starts_with(func)) return text.substr(func.size());
            }
        }
        return "";
    }

    // The library always has the whole frame, Wireshark as much as was captured.
    void hear(const frame_t& frame, std::size_t captured = SIZE_MAX) {
        logs.clear();
        fake_pcap::push_frame(name(0), frame, static_cast<uint32_t>(frame.size()));
        EXPECT_EQ(_qnm_recv_frame(0), 0);
        expected.push_back(drop_reason());
        frame_t shown = frame;
        shown.resize(std::min(captured, frame.size()));
        taken.add(shown, frame.size());
    }

    void hear(const announcement& it) { hear(frames::build(it)); }

    // The texts of the dissector are those of the library; returns which notes there were.
    std::set<std::string> expect_same_reasons(const words& options = {}) const {
        std::set<std::string> notes;
        const std::vector<row> all = tshark::read(taken, options);
        for (std::size_t i = 0; i < all.size(); i++) {
            row frame = all[i];
            for (const auto& [key, ignored] : frame) {
                if (key.starts_with("expert.")) notes.insert(key.substr(7));
            }
            // The note on a request is a remark.
            const char* const where =
                frame.contains("expert.for_cards") ? tshark::k_note : "dropped";
            const words found = frame[where];
            const std::string reason = found.empty() ? "" : found.front();
            EXPECT_EQ(reason, expected[i]) << "frame " << i + 1;
        }
        return notes;
    }
};

TEST_F(drops, every_length) {
    for (const announcement& kind : every_kind()) {
        const std::size_t enough = frames::least_length(kind);
        for (std::size_t length = least_length(kind.vlan_change_mode); length <= enough + 2;
             length++) {
            if (length > 50 && length < enough - 2) continue;
            announcement it = kind;
            it.length = length;
            hear(it);
        }
    }
    frame_t completion = frames::build_completion({});
    for (const std::size_t length : {27, 28, 29}) {
        completion.resize(length);
        hear(completion);
    }
    EXPECT_THAT(expect_same_reasons(), IsSupersetOf({"too_short", "size"}));
}

TEST_F(drops, every_tag) {
    for (announcement it : every_kind()) {
        for (unsigned high = 0; high < 16; high++) {
            it.tci = static_cast<uint16_t>(high << 12 | 0xA);
            hear(it);
        }
    }
    EXPECT_THAT(expect_same_reasons(), ElementsAre("priority"));
}

TEST_F(drops, every_subtype) {
    for (const bool vlan_change_mode : {false, true}) {
        for (unsigned subtype = 0; subtype < 256; subtype++) {
            announcement it;
            it.subtype = static_cast<uint8_t>(subtype);
            it.vlan_change_mode = vlan_change_mode;
            it.length = 496;
            hear(it);
        }
    }
    EXPECT_THAT(expect_same_reasons(), IsSupersetOf({"subtype", "for_cards"}));
}

TEST_F(drops, every_version_and_kind_of_card) {
    for (announcement it : every_kind()) {
        for (const unsigned ver : {0, 1, 2, 255}) {
            for (const unsigned host : {0, 1, 2, 255}) {
                it.ver = static_cast<uint8_t>(ver);
                it.host = static_cast<uint8_t>(host);
                hear(it);
            }
        }
    }
    EXPECT_THAT(expect_same_reasons(), ElementsAre("host", "ver"));
}

// The minimum length depends on the card's version and on nothing else.
TEST_F(drops, every_status_of_an_io_card) {
    for (unsigned status = 0; status < 256; status++) {
        announcement it = {.host = 1, .sw_status = {0xFF, static_cast<uint8_t>(status), 0xFF}};
        for (const std::size_t length : {43, 44, 45, 46}) {
            it.length = length;
            hear(it);
        }
    }
    EXPECT_THAT(expect_same_reasons(), ElementsAre("size"));
}

// Bytes between the addresses and a frame's Ethernet type.
frame_t with_tags(const frame_t& frame, const frame_t& tags) {
    frame_t made(frame.begin(), frame.begin() + k_ethernet_type);
    made.insert(made.end(), tags.begin(), tags.end());
    made.insert(made.end(), frame.begin() + 16, frame.end());
    return made;
}

TEST_F(drops, other_tags_than_one) {
    const frame_t frame = frames::build({.host = 1});
    hear(with_tags(frame, {}));
    hear(with_tags(frame, {0x81, 0x00, 0x80, 0x0A, 0x81, 0x00, 0x80, 0x0A}));
    hear(with_tags(frame, {0x88, 0xA8, 0x80, 0x0A, 0x81, 0x00, 0x80, 0x0A}));
    frame_t changed = frames::build({.host = 1, .vlan_change_mode = true});
    for (const uint8_t high : {0x10, 0x80, 0x88}) {
        for (const uint8_t low : {0x01, 0xA8}) {
            changed[14] = high;
            changed[15] = low;
            hear(changed);
        }
    }
    EXPECT_THAT(expect_same_reasons(), ElementsAre("ether_type", "tpid"));
}

TEST_F(drops, the_length_on_the_wire_counts) {
    for (const announcement& kind : every_kind())
        hear(frames::build(kind), 40);
    EXPECT_THAT(expect_same_reasons(), ElementsAre("cut"));
}

TEST_F(drops, the_ether_type_is_a_preference) {
    qnm_config.ether_type = 0x1234;
    for (announcement it : every_kind()) {
        frame_t frame = frames::build(it);
        const std::size_t at = it.vlan_change_mode ? 12 : 16;
        frame[at] = 0x12;
        frame[at + 1] = 0x34;
        hear(frame);
        it.tci = 0xA00A;
        frame_t dropped = frames::build(it);
        dropped[at] = 0x12;
        dropped[at + 1] = 0x34;
        hear(dropped);
    }
    EXPECT_THAT(expect_same_reasons({"-o", "quillnet.ether_type:4660"}), ElementsAre("priority"));
}

TEST_F(drops, frames_of_another_ether_type_are_left_to_others) {
    qnm_config.ether_type = 0x1234;
    for (const announcement& it : every_kind())
        hear(it);
    EXPECT_THAT(expected, Each(HasSubstr("Ether type is mismatch")));
    for (const row& frame : tshark::read(taken, {"-o", "quillnet.ether_type:4660"}))
        EXPECT_EQ(frame, row());
}

// ---- Whatever arrives ---------------------------------------------------------------------------

// The dissector reads what was captured, however little that is.
struct whatever : testing::Test {
    capture taken;

    void expect_no_failure() const {
        for (const words& options : {words(), words{"-2"}})
            EXPECT_NO_THROW(tshark::read(taken, options));
    }
};

constexpr uint8_t k_subtypes[] = {0x10, 0x11, 0x18, 0x19, 0x20, 0x30, 0x80, 0x90, 0x91, 0x92};

TEST_F(whatever, random_messages) {
    std::mt19937 random(7);
    for (int i = 0; i < 400; i++) {
        const bool vlan_change_mode = random() % 2 == 1;
        frame_t frame(least_length(vlan_change_mode) + random() % 600);
        for (unsigned char& byte : frame)
            byte = static_cast<unsigned char>(random());
        frame_t header(18);
        frames::put_header(header, {.vlan_change_mode = vlan_change_mode});
        std::copy_n(header.begin() + k_ethernet_type, std::min<std::size_t>(6, frame.size() - 12),
                    frame.begin() + k_ethernet_type);
        if (frame.size() > 18) frame[18] = k_subtypes[random() % std::size(k_subtypes)];
        const std::size_t length = frame.size();
        if (random() % 2 == 0) frame.resize(least_length(vlan_change_mode) + random() % 60);
        taken.add(frame, std::max(length, frame.size()));
    }
    expect_no_failure();
}

// The inputs of fuzzers for the receive path and for the cards, as they are, and as messages of
// which every second one is cut.
TEST_F(whatever, inputs_of_the_fuzzers) {
    std::mt19937 random(8);
    for (const char* const target : {"/frames", "/wire"}) {
        const fs::directory_iterator found(std::string(FUZZ_CORPUS) + target);
        for (const fs::path& file : std::set<fs::path>(begin(found), end(found))) {
            std::ifstream in(file, std::ios::binary);
            const frame_t input{std::istreambuf_iterator<char>(in), {}};
            taken.add(input);
            for (const uint8_t subtype : k_subtypes) {
                const bool is_whole = random() % 2 == 1;
                frame_t frame(18);
                frames::put_header(frame, {.vlan_change_mode = random() % 2 == 1});
                frame.push_back(subtype);
                frame.insert(frame.end(), input.begin(), input.end());
                const std::size_t length = frame.size();
                if (!is_whole) frame.resize(std::min<std::size_t>(length, 14 + random() % 60));
                taken.add(frame, length);
            }
        }
    }
    EXPECT_GT(taken.count(), 500U);
    expect_no_failure();
}

}  // namespace
