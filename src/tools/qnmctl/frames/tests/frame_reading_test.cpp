// The reading of frames: compared with the library's receive path on fake ports, and field by
// field.
#include "frames/frame_reading.h"

#include <pcap/pcap.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

#include "frames/answers.h"
#include "frames/card_choice.h"
#include "ports.h"
#include "qnm_frame.h"
#include "qnm_frame_check.h"

namespace qnmctl {
namespace {

using frames::announcement;
using frames::frame_t;

frame_reading read(const frame_t& frame) {
    return read_frame({frame, frame.size()}, {});
}

// "name=value ..." of one section.
std::string text_of(const frame_section& of) {
    std::string text;
    for (const frame_field& one : of.fields)
        text += std::string(one.name) + '=' + one.text + ' ';
    return text;
}

std::string value_of(const frame_reading& of, const std::string& name) {
    for (const frame_section& within : of.sections) {
        for (const frame_field& one : within.fields) {
            if (name == one.name) return one.text;
        }
    }
    return "(none)";
}

constexpr std::uint64_t manager = 0x0A0000000001;

void put_mac(frame_t& frame, std::size_t at, std::uint64_t mac) {
    for (std::size_t byte = 0; byte < 6; ++byte)
        frame[at + byte] = static_cast<unsigned char>(mac >> (40 - 8 * byte));
}

frame_t request(std::vector<unsigned char> message, bool change_mode = false,
                std::size_t size = 60) {
    announcement header = {.mac = manager, .vlan_change_mode = change_mode};
    frame_t frame = frames::build(header);
    frame.resize(18);
    put_mac(frame, 0, 0x020000001000);
    frame.insert(frame.end(), message.begin(), message.end());
    frame.resize(std::max(size, frame.size()));
    return frame;
}

// ---- What is dropped ----------------------------------------------------------------------------

struct FramesBesideTheLibrary : ports {
    // What the library says when it drops a frame; empty when it takes it.
    std::string drop_of(const frame_t& frame) {
        logs.clear();
        receive(frame);
        for (const std::string& line : logs.texts()) {
            for (const std::string start : {"_check_frame: ", "_qnm_recv_devinfo: "}) {
                if (line.starts_with(start)) return line.substr(start.size());
            }
        }
        return {};
    }

    void expect_the_same(const frame_t& frame) {
        const frame_reading made = read(frame);
        std::string drop = drop_of(frame);
        // A request is for cards: that is no fault, though managers drop it.
        const bool is_request = made.kind != nullptr && made.kind->goes == way::to_card;
        if (is_request && drop.starts_with("Subtype is mismatch.")) drop.clear();
        EXPECT_EQ(drop, made.dropped ? made.dropped->text : "");
        if (made.dropped) {
            EXPECT_STRNE("", drop_title(made.dropped->name)) << made.dropped->name;
            seen.insert(made.dropped->name);
        }
        taken += made.dropped || is_request ? 0 : 1;
    }

    std::set<std::string> seen = {};
    int taken = 0;
};

// Announcements of each kind that differ from good ones in the checked fields.
std::vector<frame_t> doubtful_frames() {
    std::vector<frame_t> made;
    for (const int subtype : {0x10, 0x11, 0x18, 0x19, 0x20, 0x21}) {
        for (const int host : {0, 1, 2}) {
            for (const int version : {0, 1}) {
                for (const bool change_mode : {false, true}) {
                    announcement it = {.subtype = static_cast<uint8_t>(subtype),
                                       .host = static_cast<uint8_t>(host)};
                    it.sw_status[1] = static_cast<uint8_t>(version);
                    it.vlan_change_mode = change_mode;
                    const frame_t good = frames::build(it);
                    made.push_back(good);
                    made.emplace_back(good.begin(), good.end() - 1);
                    made.emplace_back(good.begin(), good.begin() + 27);
                    for (const std::size_t at : {12U, 13U, 14U, 15U, 16U, 17U, 18U, 21U, 23U}) {
                        for (const int bit : {0, 5, 7}) {
                            made.push_back(good);
                            made.back()[at] ^= static_cast<unsigned char>(1 << bit);
                        }
                    }
                }
            }
        }
    }
    return made;
}

TEST_F(FramesBesideTheLibrary, AreDroppedForTheSameReasons) {
    for (const frame_t& frame : doubtful_frames())
        expect_the_same(frame);
    std::set<std::string> all;
    for (const qnm_frame_reason_row_t& row : qnm::frame_reasons())
        all.insert(row.name);
    EXPECT_EQ(all, seen);
    EXPECT_GT(taken, 20);
}

std::string source_text(const char* name) {
    std::ifstream file(std::filesystem::path(QNM_SOURCES) / name);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The dissector and the documents are written independently; a new reason must not be forgotten.
TEST(ReasonsOfTheLibrary, AreToldByTheSchemaTheDissectorAndTheDocuments) {
    const json schema = json::parse(source_text("src/tools/qnmctl/schema/qnmctl.schema.json"));
    const std::string dissector = source_text("src/tools/wireshark/quillnet.lua");
    for (const qnm_frame_reason_row_t& row : qnm::frame_reasons()) {
        const std::string name = row.name;
        const std::string in_documents = "`expert." + name + "`";
        EXPECT_THAT(schema["$defs"]["drop_reason"]["enum"], testing::Contains(name));
        EXPECT_THAT(dissector,
                    testing::HasSubstr("define_note(\"" + name + "\", \"" + row.title + "\""));
        EXPECT_THAT(source_text("docs/protocol.md"), testing::HasSubstr(in_documents));
        EXPECT_THAT(source_text("docs/wireshark.md"), testing::HasSubstr(in_documents));
    }
}

// One of each kind; neighbouring bytes after the header always differ.
std::vector<frame_t> good_frames() {
    std::vector<frame_t> made = {frames::build_completion({})};
    for (const unsigned char subtype : {0x10, 0x11, 0x18, 0x19}) {
        for (const unsigned char host : {0, 1}) {
            for (const bool change_mode : {false, true}) {
                made.push_back(frames::build(
                    {.subtype = subtype, .host = host, .vlan_change_mode = change_mode}));
            }
        }
    }
    for (const unsigned char subtype : {0x30, 0x80, 0x90, 0x91, 0x92})
        made.push_back(request({subtype}, false, 156));
    for (frame_t& frame : made) {
        for (std::size_t at = 24; at < frame.size(); ++at)
            frame[at] ^= static_cast<unsigned char>(at * 37);
    }
    return made;
}

// At that many bytes after an aligned address, as in a capture file, UndefinedBehaviorSanitizer
// finds a careless read of a number.
TEST(Frames, AreReadAlikeAtAnyAddress) {
    for (const frame_t& frame : good_frames()) {
        const json expected = fields_json(read(frame));
        for (std::size_t offset = 0; offset < 16; ++offset) {
            frame_t block(offset);
            block.insert(block.end(), frame.begin(), frame.end());
            const frame_reading made =
                read_frame({std::span(block).subspan(offset), frame.size()}, {});
            EXPECT_EQ(fields_json(made), expected) << offset;
        }
    }
}

TEST_F(FramesBesideTheLibrary, AreDroppedForTheSameReasonsWhateverTheySay) {
    std::mt19937 random(1);
    const std::vector<frame_t> starts = doubtful_frames();
    for (int round = 0; round < 2000; ++round) {
        frame_t frame = starts[random() % starts.size()];
        for (unsigned changes = random() % 4; changes > 0; --changes)
            frame[random() % std::min<std::size_t>(frame.size(), 32)] =
                static_cast<unsigned char>(random());
        frame.resize(random() % 4 == 0 ? 14 + random() % 500 : frame.size());
        expect_the_same(frame);
    }
}

TEST_F(FramesBesideTheLibrary, AnnounceTheSameCard) {
    for (const bool change_mode : {false, true}) {
        announcement it = {.subtype = 0x18,
                           .mac = 0x020000004001,
                           .host = 1,
                           .ver = 1,
                           .info = 0x0D,
                           .tci = 0x8123};
        it.sw_status[1] = 0x61;
        it.vlan_change_mode = change_mode;
        frame_t frame = frames::build(it);
        for (std::size_t at = 28; at < frame.size(); ++at)
            frame[at] = static_cast<unsigned char>(at);
        receive(frame);
        qnm_qnio_t card = {};
        ASSERT_EQ(QNM_API_SUCCESS, qnm_get_qnio(0x020000004000, &card));
        const frame_reading made = read(frame);
        EXPECT_EQ("0x020000004000", value_of(made, "card_id"));
        EXPECT_EQ("1", value_of(made, "path"));
        EXPECT_EQ(std::to_string(card.eio_com_dev.ecd_vlan_id), value_of(made, "vlan_id"));
        EXPECT_EQ(card.eio_link0fault != 0 ? "yes" : "no", value_of(made, "link0_fault"));
        EXPECT_EQ(card.eio_link1fault != 0 ? "yes" : "no", value_of(made, "link1_fault"));
        EXPECT_EQ(card.eio_com_dev.ecd_power != 0 ? "yes" : "no", value_of(made, "power"));
        EXPECT_EQ(card.eio_com_dev.ecd_port1_link != 0 ? "yes" : "no",
                  value_of(made, "port1_link"));
        EXPECT_EQ("0x2524", value_of(made, "device_id"));
        EXPECT_EQ(0x2524, card.eio_device_id);
        EXPECT_EQ("0x2b2a29", value_of(made, "class_code"));
        EXPECT_EQ(0x2B2A29U, card.eio_class_code);
        EXPECT_EQ(std::to_string(card.eio_mr_resource_num), value_of(made, "resource_id"));
        EXPECT_EQ(change_mode ? "VLAN-tag change mode" : "ordinary", value_of(made, "vlan_mode"));
    }
}

// ---- Fields -------------------------------------------------------------------------------------

TEST(FrameReading, HasThePortsOfAServer) {
    frame_t frame = frames::build({.subtype = 0x19, .ver = 1});
    frame[frames::down_port(15) + 1] = 0x02;
    frame[frames::down_port(15) + 7] = 0x77;
    frame[frames::down_port(15) + 8] = 5;
    const frame_reading made = read(frame);
    ASSERT_EQ(19U, made.sections.size());  // itself, upwards, 16 downwards, padding
    EXPECT_EQ(
        "port_status=00 02 connected=yes io_mac=00:00:00:00:00:77 pri_bus_num=5 sec_bus_num=0 "
        "sub_bus_num=0 command=0x00 memory_base=0x0000 memory_limit=0x0000 pre_memory_base=0x0000 "
        "pre_memory_limit=0x0000 pre_base_upper=0x00000000 pre_limit_upper=0x00000000 ",
        text_of(made.sections[17]));
    EXPECT_EQ(15, made.sections[17].index);
    const json fields = fields_json(made);
    EXPECT_EQ(16U, fields["down_port"].size());
    EXPECT_EQ(true, fields["down_port"][15]["connected"]);
    EXPECT_FALSE(made.cut);
}

struct request_row {
    const char* name;
    std::vector<unsigned char> message;
    std::size_t size;
    const char* words;
    const char* fields;  // behind those that all messages have
};

const request_row requests[] = {
    {"Register Read",
     {0x91, 0xFF, 0xFF, 0, 0, 7, 0x02, 0xBC, 0x0D, 0xEF},
     60,
     "tag 7 0x2bcdef",
     "ver=0 info=0x00 tag=7 wire_address=0x02bc0def address=0x2bcdef padding=32 bytes of zero "},
    {"Register Write",
     {0x90, 0xFF, 0xFF, 0, 0, 0, 0x00, 0x05, 0x00, 0xF0, 4, 3, 2, 1},
     60,
     "0x0050f0 (EEPROM bit lock) value 0x01020304",
     "ver=0 info=0x00 tag=0 wire_address=0x000500f0 address=0x0050f0 register=EEPROM bit lock "
     "data=0x01020304 padding=28 bytes of zero "},
    {"VLAN set",
     {0x80, 0xFF, 0xFF, 0, 0, 0, 0x0F, 0xA0},
     60,
     "to 4000",
     "ver=0 info=0x00 set_type=0 new_vlan_id=4000 reserved=00 00 padding=32 bytes of zero "},
    {"Reset",
     {0x30, 0xFF, 0xFF, 0, 0, 0x5A},
     60,
     "status 0x5a",
     "ver=0 info=0x00 status=0x5a padding=36 bytes of zero "},
};

TEST(FrameReading, HasTheFieldsOfRequests) {
    for (const request_row& of : requests) {
        for (const bool change_mode : {false, true}) {
            const frame_reading made = read(request(of.message, change_mode, of.size));
            ASSERT_NE(nullptr, made.kind) << of.name;
            EXPECT_STREQ(of.name, made.kind->name);
            EXPECT_EQ(of.words, made.words);
            EXPECT_FALSE(made.dropped) << of.name;
            const std::string text = text_of(made.sections.front());
            EXPECT_EQ(of.fields, text.substr(text.find("ver=")));
            const bool for_all = made.kind->subtype == qnm::k_reset;
            EXPECT_EQ(for_all ? std::nullopt : std::optional<std::uint64_t>(0x020000001000),
                      made.card);
        }
    }
}

TEST(FrameReading, HasTheWordsOfAPage) {
    std::vector<unsigned char> message = {0x92, 0xFF, 0xFF, 0, 0, 0, 0, 0, 1, 2};
    message.resize(138);
    message[10] = 9;
    const frame_reading made = read(request(message, true, 156));
    EXPECT_EQ("page 258", made.words);
    const json fields = fields_json(made);
    EXPECT_EQ(32U, fields["word"].size());
    EXPECT_EQ(9U, fields["word"][0]);
    EXPECT_FALSE(fields.contains("padding"));
}

TEST(FrameReading, TrustsWhatWasNotCaptured) {
    const frame_t frame = frames::build({});
    for (std::size_t size = 0; size <= frame.size(); ++size) {
        const frame_reading made = read_frame({std::span(frame).first(size), frame.size()}, {});
        EXPECT_FALSE(made.dropped) << size;
        EXPECT_EQ(size < frame.size(), made.cut) << size;
    }
}

TEST(FrameReading, TakesWhatTheConfigurationSays) {
    const frame_rules rules = configured_rules("ether_type=0x1234\ntag_max = 9\n");
    EXPECT_EQ(0x1234, rules.ether_type);
    EXPECT_EQ(0, rules.tag_min);
    EXPECT_EQ(9, rules.tag_max);
    const frame_t frame = frames::build({});
    const frame_reading made = read_frame({frame, frame.size()}, rules);
    ASSERT_TRUE(made.dropped);
    EXPECT_EQ("Ether type is mismatch. type=0x88B6", made.dropped->text);
    EXPECT_EQ(nullptr, made.kind);
}

// ---- Answers ------------------------------------------------------------------------------------

struct Answers : testing::Test {
    answers matched{{.tag_max = 99}};
    std::uint64_t number = 0;
    frame_reading last = {};

    std::optional<answered_read> take(const frame_t& frame) {
        last = read(frame);
        ++number;
        return matched.take(last, number, static_cast<std::int64_t>(1000 * number));
    }
    std::optional<answered_read> ask(unsigned char tag) {
        return take(request({0x91, 0xFF, 0xFF, 0, 0, tag, 0, 0, 0, 4}));
    }
    std::optional<answered_read> answer(unsigned char tag, std::uint64_t card = 0x020000001000) {
        frame_t frame = frames::build_completion({.tag = tag, .mac = card});
        put_mac(frame, 0, manager);
        return take(frame);
    }
    std::string reason() const { return last.dropped ? last.dropped->name : ""; }
};

TEST_F(Answers, BelongToTheReadOfTheirTag) {
    EXPECT_FALSE(ask(1));
    EXPECT_FALSE(ask(2));
    const auto found = answer(1);
    ASSERT_TRUE(found);
    EXPECT_EQ(1U, found->frame);
    EXPECT_EQ(2000, found->nanoseconds);
    EXPECT_EQ(4U, found->address);
    EXPECT_FALSE(answer(1));
    EXPECT_EQ("repeated", reason());
}

TEST_F(Answers, ComeFromTheCardThatWasAsked) {
    ask(1);
    EXPECT_FALSE(answer(1, 0x020000009999));
    EXPECT_EQ("mac", reason());
    EXPECT_TRUE(take(frames::build_completion({.tag = 1})));
}

TEST_F(Answers, AreForTheManagerThatAskedOrForAnybody) {
    ask(1);
    for (const std::uint64_t other : {manager + 1, manager ^ 0x100000000000}) {
        EXPECT_FALSE(take(frames::build_completion({.tag = 1, .destination = other})));
        EXPECT_EQ("", reason()) << "its question may be older than the capture";
    }
    EXPECT_TRUE(take(frames::build_completion({.tag = 1, .destination = 0})));
    ask(2);
    EXPECT_TRUE(take(frames::build_completion({.tag = 2, .destination = 0x01005E000001})));
}

TEST_F(Answers, HaveATagThatManagersUse) {
    EXPECT_FALSE(take(frames::build_completion({.tag = 100})));
    EXPECT_EQ("tag", reason());
}

TEST_F(Answers, MayBeToWhatWasSentBefore) {
    EXPECT_FALSE(take(frames::build_completion({.tag = 5})));
    EXPECT_EQ("", reason());
}

// ---- Choosing by card ---------------------------------------------------------------------------

constexpr std::uint64_t even = 0x020000001000;
constexpr std::uint64_t odd = even + 1;

frame_t completion_from(std::uint64_t mac) {
    frame_t frame = request({0x20, 0xFF, 0xFF, 0, 0, 7, 0, 0, 0, 1});
    put_mac(frame, 6, mac);
    return frame;
}

TEST(CardChoice, HasBothAddressesOfA40GCard) {
    card_choice cards({even});
    for (const std::uint64_t mac : {even, odd}) {
        EXPECT_TRUE(cards.take(read(frames::build({.subtype = 0x18, .mac = mac, .ver = 1}))));
        EXPECT_TRUE(cards.take(read(completion_from(mac)))) << mac;
    }
}

TEST(CardChoice, HasNoOtherCardThatAnnouncesItself) {
    card_choice cards({even});
    EXPECT_TRUE(cards.take(read(frames::build({.mac = even}))));
    EXPECT_FALSE(cards.take(read(frames::build({.mac = odd}))));
    EXPECT_FALSE(cards.take(read(completion_from(odd))));
    EXPECT_TRUE(cards.take(read(completion_from(even))));
    EXPECT_FALSE(cards.take(read(completion_from(even + 0x100))));
}

TEST(CardChoice, HasAllWhereNoneIsNamed) {
    card_choice cards({});
    EXPECT_TRUE(cards.take(read(completion_from(odd))));
    EXPECT_TRUE(cards.take(read(request({0x30, 0xFF, 0xFF, 0, 0, 0x5A}))));
}

}  // namespace
}  // namespace qnmctl
