// The dissector as a whole: every byte has a name and every name a description, summaries tell what
// happened, and captures need no Ethernet headers.
#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "capture.h"
#include "frame_kinds.h"
#include "tshark.h"

namespace {

using frames::frame_t;
using testing::ElementsAre;
using tshark::row;
using tshark::words;

constexpr std::size_t k_message = 18;

frame_t request(uint8_t subtype, bool vlan_change_mode) {
    frame_t frame(subtype == 0x92 ? 156 : 60);
    frames::put_header(frame, {.mac = 0x0A0000000001, .vlan_change_mode = vlan_change_mode});
    const uint8_t start[] = {subtype, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0x12, 0x34};
    std::copy(std::begin(start), std::end(start), frame.begin() + k_message);
    return frame;
}

// One of every message, in both arrangements.
std::vector<frame_t> every_message() {
    std::vector<frame_t> all;
    for (const frame_kind& one : all_kinds()) {
        all.push_back(frames::build(one.announcement));
        all.back().resize(std::max<std::size_t>(all.back().size(), 60));
    }
    for (const bool vlan_change_mode : {false, true}) {
        all.push_back(frames::build_completion({.vlan_change_mode = vlan_change_mode}));
        for (const uint8_t subtype : {0x30, 0x80, 0x90, 0x91, 0x92, 0x77})
            all.push_back(request(subtype, vlan_change_mode));
    }
    return all;
}

std::stringstream printed(const capture& taken, const words& options) {
    const scratch_directory own;
    const std::string file = own.path() / "capture.pcap";
    taken.write(file);
    share(file);
    words arguments = {"-r", file, "-n"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return std::stringstream(tshark::run(arguments));
}

words lines_from(std::istream& in) {
    words lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The summary in the packet list.
words summaries(const capture& taken) {
    std::stringstream out = printed(taken, {"-T", "fields", "-e", "_ws.col.Info"});
    return lines_from(out);
}

// ---- Bytes --------------------------------------------------------------------------------------

std::size_t attribute(const std::string& line, const std::string& name) {
    const std::size_t at = line.find(" " + name + "=\"");
    return std::stoul(line.substr(at + name.size() + 3));
}

// Offsets of the bytes that fields cover, apart from fields that only contain others; one set per
// frame.
std::vector<std::set<std::size_t>> named_bytes(const capture& taken) {
    std::stringstream pdml = printed(taken, {"-T", "pdml", "-J", "quillnet"});
    std::vector<std::set<std::size_t>> all;
    for (std::string line; std::getline(pdml, line);) {
        if (line.find("<packet>") != std::string::npos) all.emplace_back();
        const std::size_t at = line.find("<field name=\"quillnet.");
        if (at == std::string::npos) continue;
        const std::string name = line.substr(at + 22, line.find('"', at + 22) - at - 22);
        if (name == "up_port" || name == "down_port" || name == "words") continue;
        const std::size_t start = attribute(line, "pos");
        for (std::size_t i = 0; i < attribute(line, "size"); i++)
            all.back().insert(start + i);
    }
    return all;
}

TEST(plugin, leaves_no_byte_of_a_message_without_a_name) {
    capture taken;
    for (const frame_t& frame : every_message())
        taken.add(frame);
    const std::vector<std::set<std::size_t>> named = named_bytes(taken);
    ASSERT_EQ(named.size(), taken.count());
    for (std::size_t i = 0; i < named.size(); i++) {
        const frame_t& frame = taken.frame(i + 1);
        const bool vlan_change_mode = frame[12] == 0x88;
        for (std::size_t at = vlan_change_mode ? 14 : k_message; at < frame.size(); at++)
            EXPECT_TRUE(named[i].contains(at)) << "byte " << at << " of frame " << i + 1;
    }
}

// ---- Descriptions -------------------------------------------------------------------------------

words lines_of(const std::string& document) {
    std::ifstream in(std::string(QNM_DOCS "/") + document);
    words lines = lines_from(in);
    EXPECT_FALSE(lines.empty()) << document;
    return lines;
}

std::string text_of(const words& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

TEST(plugin, has_every_field_and_note_described) {
    const std::string text = text_of(lines_of("protocol.md")) + text_of(lines_of("wireshark.md"));
    EXPECT_GT(tshark::names().size(), 80U);
    for (const std::string& name : tshark::names()) {
        // One table has the bridge settings of all ports.
        const std::size_t dot = name.find("_port.");
        const bool is_described =
            text.find("`" + name + "`") != std::string::npos ||
            (dot != std::string::npos &&
             text.find("`" + name.substr(dot + 6) + "`") != std::string::npos);
        EXPECT_TRUE(is_described) << name;
    }
}

// A line of a dump; empty when it is none.
frame_t dumped_bytes(const std::string& line) {
    constexpr std::size_t first = 7;  // behind the offset
    frame_t bytes;
    if (line.size() < first || line.compare(4, 3, "   ") != 0) return bytes;
    std::stringstream rest(line.substr(first));
    for (unsigned byte = 0; rest >> std::hex >> byte;)
        bytes.push_back(static_cast<unsigned char>(byte));
    return bytes;
}

TEST(plugin, reads_the_documented_examples_as_documented) {
    constexpr char mark[] = "Example: `";
    words expected;
    std::vector<frame_t> examples;
    for (const std::string& line : lines_of("protocol.md")) {
        if (line.starts_with(mark)) {
            expected.push_back(line.substr(sizeof mark - 1, line.size() - sizeof mark));
            examples.emplace_back();
        } else if (!examples.empty()) {
            const frame_t bytes = dumped_bytes(line);
            examples.back().insert(examples.back().end(), bytes.begin(), bytes.end());
        }
    }
    EXPECT_EQ(examples.size(), 8U);
    capture taken;
    for (const frame_t& example : examples)
        taken.add(example);
    EXPECT_EQ(summaries(taken), expected);
    for (const row& frame : tshark::read(taken)) {
        EXPECT_FALSE(frame.contains("dropped"));
        EXPECT_FALSE(frame.contains("expert.fault"));
    }
}

// By what they check, up to the first comma.
std::map<std::string, std::string> documented_filters() {
    std::map<std::string, std::string> filters;
    for (const std::string& line : lines_of("wireshark.md")) {
        const std::size_t start = line.find(" | `quillnet");
        if (start == std::string::npos) continue;
        const std::string filter = line.substr(start + 4, line.rfind('`') - start - 4);
        filters[line.substr(2, std::min(start, line.find(',')) - 2)] = filter;
    }
    return filters;
}

TEST(plugin, knows_the_documented_filters) {
    std::string all;
    for (const auto& [what, filter] : documented_filters())
        all += (all.empty() ? "(" : " or (") + filter + ")";
    EXPECT_GE(documented_filters().size(), 8U);
    capture taken;
    taken.add(frames::build({}));
    EXPECT_NO_THROW(printed(taken, {"-Y", all})) << all;
}

words numbers_of_matches(const capture& taken, const std::string& filter) {
    std::stringstream out = printed(taken, {"-Y", filter, "-T", "fields", "-e", "frame.number"});
    return lines_from(out);
}

TEST(plugin, has_documented_filters_that_tell_neighbours_apart) {
    capture taken;
    for (const uint64_t mac : {0x020000000FFF, 0x020000001000, 0x020000001001, 0x020000001002}) {
        const frame_t announced = frames::build({.subtype = 0x18, .mac = mac, .ver = 1});
        taken.add(announced);
        frame_t asked = request(0x91, false);
        std::copy_n(announced.begin() + 6, 6, asked.begin());
        taken.add(asked);
    }
    const std::map<std::string, std::string> filters = documented_filters();
    EXPECT_THAT(numbers_of_matches(taken, filters.at("one card's announcements")),
                ElementsAre("3", "5"));
    EXPECT_THAT(numbers_of_matches(taken, filters.at("one card's frames")),
                ElementsAre("3", "4", "5", "6"));
}

// ---- Summaries ----------------------------------------------------------------------------------

TEST(plugin, summarises_every_message) {
    capture taken;
    taken.add(frames::build({.subtype = 0x19, .mac = 0x020000001011, .ver = 1}));
    taken.add(frames::build({.subtype = 0x10, .host = 1, .tci = 0x600A}));
    taken.add(frames::build({.subtype = 0x11, .host = 7}));
    for (const uint8_t subtype : {0x30, 0x80, 0x90, 0x91, 0x92, 0x77})
        taken.add(request(subtype, false));
    taken.add(frames::build_completion({.tag = 0, .mac = 0xFFFFFFFFFFFF, .data = {1, 2, 3, 4}}));
    EXPECT_EQ(text_of(summaries(taken)),
              "40G NOTIFY QNSV 0x020000001010 path 1\n"
              "1G/10G DEVINFO QNIO 0x020000001000 path 0 [priority is not 100(bit). pri=0x60]\n"
              "1G/10G NOTIFY of unknown kind 0x020000001000 path 0 [Unknwon PEB. host=0x07]\n"
              "Reset status 0x00\n"
              "VLAN set to 0\n"
              "Register Write 0x000234 value 0x00000000\n"
              "Register Read tag 0 0x000234\n"
              "MMS write page 4660\n"
              "Subtype 0x77 [Subtype is mismatch. subtype=0x77]\n"
              "Completion tag 0 value 0x04030201 of 0x000234\n");
}

// ---- Cut and headless captures ------------------------------------------------------------------

frame_t cooked(const frame_t& frame) {
    frame_t made = {0, 0, 0, 1, 0, 6};  // to us, by Ethernet, an address of six bytes
    made.insert(made.end(), frame.begin() + 6, frame.begin() + 12);
    made.resize(14);
    made.insert(made.end(), frame.begin() + 12, frame.end());
    return made;
}

// All fields except those that are in the header or derived from it.
row without_header(row frame) {
    for (const char* const name :
         {"vlan_mode", "type", "tpid", "tci", "priority", "cfi", "vlan_id", "card_id", "path",
          "response_in", "response_to", "response_time", "resend_of", "expert.resent", "address",
          "register", "expert.unasked", tshark::k_note}) {
        frame.erase(name);
    }
    return frame;
}

TEST(plugin, finds_no_fault_with_bytes_that_were_not_captured) {
    capture taken;
    for (const uint8_t subtype : {0x30, 0x80, 0x90, 0x91, 0x92}) {
        frame_t frame = request(subtype, false);
        const std::size_t length = frame.size();
        for (const std::size_t captured : {19, 20, 22, 25}) {
            frame.resize(captured);
            taken.add(frame, length);
            frame = request(subtype, false);
        }
    }
    for (const row& frame : tshark::read(taken)) {
        EXPECT_FALSE(frame.contains("expert.fault"));
        EXPECT_TRUE(frame.contains("expert.cut"));
    }
}

TEST(plugin, reads_messages_also_from_the_any_interface) {
    capture whole, headless{capture::link::cooked};
    for (const frame_t& frame : every_message()) {
        whole.add(frame);
        headless.add(cooked(frame));
    }
    const std::vector<row> expected = tshark::read(whole), found = tshark::read(headless);
    for (std::size_t i = 0; i < expected.size(); i++)
        EXPECT_EQ(without_header(found[i]), without_header(expected[i])) << "frame " << i + 1;
}

}  // namespace
