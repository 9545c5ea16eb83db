// Captures in files: what was written is read again, and damage is reported.
#include "frames/capture_file.h"

#include <gtest/gtest.h>

#include <fstream>

#include "common/tests/temporary_dir.h"
#include "frames/frame_text.h"
#include "frames/pcapng.h"
#include "installation/config_file.h"
#include "output/text.h"

namespace qnmctl {
namespace {

const std::vector<std::uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

std::string sample(std::uint16_t link_type = 1) {
    return pcapng::section_block("Linux", "a test") +
           pcapng::interface_block({"eth1", "port 0", link_type, 1024, true}) +
           pcapng::interface_block({"eth2", "port 1", link_type, 1024, false}) +
           pcapng::packet_block({1, 1'000'000'000'123'456, bytes, 20, pcapng::direction::outbound,
                                 "why it is dropped"}) +
           pcapng::packet_block(
               {0, 1'000'000'001'123'456'789, bytes, 15, pcapng::direction::inbound, ""}) +
           pcapng::statistics_block({0, 1, 1, 2, 3, 4, 5});
}

struct CaptureFile : testing::Test {
    tools::temporary_dir dir;

    std::string write(const std::string& contents) const {
        const std::string name = dir.path() / "capture";
        std::ofstream(name, std::ios::binary) << contents;
        return name;
    }

    // The error that ends the reading.
    static std::string problem_of(const std::string& name, std::uint64_t& frames) {
        try {
            capture_file from(name);
            for (frames = 0; from.next(); ++frames) {
            }
        } catch (const error& e) {
            return e.what();
        }
        return {};
    }
};

TEST_F(CaptureFile, IsReadAsItWasWritten) {
    capture_file from(write(sample()));
    const auto first = from.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(1U, first->number);
    EXPECT_EQ("eth2", first->interface);
    EXPECT_EQ(1'000'000'000'123'456'000, first->nanoseconds);
    EXPECT_EQ(20U, first->bytes.length);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), first->bytes.captured.begin(),
                           first->bytes.captured.end()));
    const auto second = from.next();
    ASSERT_TRUE(second);
    EXPECT_EQ("eth1", second->interface);
    EXPECT_EQ(1'000'000'001'123'456'789, second->nanoseconds);
    EXPECT_FALSE(from.next());
}

// The writer of the file names the interface. Even so, a line stays a line, and a terminal gets no
// commands.
TEST_F(CaptureFile, HasNamesThatAreNotObeyed) {
    capture_file from(
        write(pcapng::section_block("Linux", "a test") +
              pcapng::interface_block({"\neth\x1b[2J", "port 0", 1, 1024, true}) +
              pcapng::packet_block({0, 1'000'000'000, bytes, 15, pcapng::direction::inbound, ""})));
    const auto frame = from.next();
    ASSERT_TRUE(frame.has_value());
    const std::string line = frame_line({*frame, read_frame(frame->bytes, {}), std::nullopt}, {});
    EXPECT_NE(std::string::npos, line.find(" \\x0aeth\\x1b[2J ")) << line;
    EXPECT_EQ(line.size() - 1, line.find('\n')) << line;
}

TEST_F(CaptureFile, IsReadUpToWhereItIsCut) {
    const std::string whole = sample();
    const std::size_t head = (pcapng::section_block("Linux", "a test") +
                              pcapng::interface_block({"eth1", "port 0", 1, 1024, true}) +
                              pcapng::interface_block({"eth2", "port 1", 1, 1024, false}))
                                 .size();
    for (std::size_t size = head + 1; size < whole.size(); ++size) {
        std::uint64_t frames = 0;
        const std::string name = write(whole.substr(0, size));
        const std::string problem = problem_of(name, frames);
        const bool at_block = pcapng::whole_blocks(whole, size) == size;
        EXPECT_EQ(at_block, problem.empty()) << size << ' ' << problem;
        if (!at_block) {
            EXPECT_NE(std::string::npos, problem.find("behind frame " + std::to_string(frames)))
                << problem;
        }
    }
}

TEST_F(CaptureFile, HasEthernetFrames) {
    std::uint64_t frames = 0;
    EXPECT_NE(std::string::npos,
              problem_of(write(sample(113)), frames).find("link type LINUX_SLL"));
    EXPECT_NE(std::string::npos, problem_of(write("no capture"), frames).find("cannot read "));
    EXPECT_NE(std::string::npos, problem_of(dir.path() / "nowhere", frames).find("No such file"));
    EXPECT_NE(std::string::npos, problem_of(dir.path(), frames).find("cannot read "));
}

// A pcap file by a host of either byte order.
std::string pcap_file(bool swapped) {
    const auto word = [&](std::uint32_t value) {
        std::string made;
        for (int byte = 0; byte < 4; ++byte)
            made += static_cast<char>(value >> (swapped ? 24 - 8 * byte : 8 * byte) & 0xFF);
        return made;
    };
    const std::string version = swapped ? std::string("\0\2\0\4", 4) : std::string("\2\0\4\0", 4);
    return word(0xA1B2C3D4) + version + word(0) + word(0) + word(65535) + word(1) + word(10) +
           word(7) + word(2) + word(60) + "ab";
}

TEST_F(CaptureFile, MayBeOfEitherByteOrder) {
    for (const bool swapped : {false, true}) {
        capture_file from(write(pcap_file(swapped)));
        const auto frame = from.next();
        ASSERT_TRUE(frame);
        EXPECT_EQ(10'000'007'000, frame->nanoseconds);
        EXPECT_EQ(60U, frame->bytes.length);
        EXPECT_EQ(2U, frame->bytes.captured.size());
        EXPECT_EQ("", frame->interface);
    }
}

TEST_F(CaptureFile, HasTheInterfacesOfEachSection) {
    const auto section = [](const char* name) {
        return pcapng::section_block("Linux", "a test") +
               pcapng::interface_block({name, "", 1, 1024, true}) +
               pcapng::packet_block({0, 1, bytes, 15, pcapng::direction::inbound, ""});
    };
    capture_file from(write(section("eth1") + section("eth2")));
    EXPECT_EQ("eth1", from.next()->interface);
    EXPECT_EQ("eth2", from.next()->interface);
    EXPECT_FALSE(from.next());
}

TEST_F(CaptureFile, MayHaveOtherBlocksInFrontOfItsInterfaces) {
    using namespace std::string_literals;
    const std::string other = "\xAD\x0B\0\0\x10\0\0\0....\x10\0\0\0"s;
    capture_file from(
        write(pcapng::section_block("Linux", "a test") + other +
              pcapng::interface_block({"eth1", "", 1, 1024, true}) + other +
              pcapng::packet_block({0, 1, bytes, 15, pcapng::direction::inbound, ""})));
    EXPECT_EQ("eth1", from.next()->interface);
    EXPECT_FALSE(from.next());
}

}  // namespace
}  // namespace qnmctl
