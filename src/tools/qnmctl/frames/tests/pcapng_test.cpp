// Blocks as they are written and read again: in either byte order, and from files that contradict
// themselves.
#include "frames/pcapng.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qnmctl {
namespace {

using pcapng::block_type;

TEST(Pcapng, BlocksAreAsTheFormatSays) {
    const std::uint8_t bytes[] = {1, 2, 3, 4, 5};
    const std::string block =
        pcapng::packet_block({2, 0x100000005, bytes, 9, pcapng::direction::inbound, "abc"});
    const unsigned char wanted[] = {6, 0, 0, 0, 60,  0,   0,   0,              // type, length
                                    2, 0, 0, 0, 1,   0,   0,   0, 5, 0, 0, 0,  // interface, time
                                    5, 0, 0, 0, 9,   0,   0,   0,              // lengths
                                    1, 2, 3, 4, 5,   0,   0,   0,              // bytes
                                    1, 0, 3, 0, 'a', 'b', 'c', 0,              // comment
                                    2, 0, 4, 0, 1,   0,   0,   0,              // flags
                                    0, 0, 0, 0, 60,  0,   0,   0};
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(wanted), sizeof wanted), block);
    EXPECT_EQ(sizeof wanted, block.size());
    EXPECT_EQ(sizeof wanted, pcapng::whole_blocks(block + "1234567", block.size() + 7));
    EXPECT_EQ(0U, pcapng::whole_blocks(block, block.size() - 1));
}

// A number as a host of the other byte order would have written it.
std::string number(std::uint32_t value, bool swapped, std::size_t size = 4) {
    std::string made;
    for (std::size_t n = 0; n < size; ++n)
        made += static_cast<char>(value >> 8 * n & 0xFF);
    if (swapped) std::ranges::reverse(made);
    return made;
}

std::string block(std::uint32_t type, const std::string& body, bool swapped) {
    const auto length = static_cast<std::uint32_t>(body.size() + 12);
    return number(type, swapped) + number(length, swapped) + body + number(length, swapped);
}

std::string section(bool swapped) {
    return block(0x0A0D0D0A,
                 number(0x1A2B3C4D, swapped) + number(1, swapped, 2) + number(0, swapped, 2) +
                     std::string(8, '\xFF'),
                 swapped);
}

std::string packet(std::uint32_t interface, std::uint32_t captured, const std::string& bytes,
                   bool swapped) {
    return block(6,
                 number(interface, swapped) + std::string(8, '\0') + number(captured, swapped) +
                     number(captured, swapped) + bytes,
                 swapped);
}

class EitherByteOrder : public testing::TestWithParam<bool> {
  protected:
    EitherByteOrder() { head(section(swapped)); }

    std::optional<pcapng::block_head> head(const std::string& of) {
        return pcapng::read_head(of, order);
    }

    bool swapped = GetParam();
    pcapng::byte_order order;
};

TEST_P(EitherByteOrder, IsThatOfTheSection) {
    EXPECT_EQ(swapped, order.swapped);
    const auto found = head(section(!swapped));
    EXPECT_EQ(block_type::section_header, found->type);
    EXPECT_EQ(28U, found->length);
    EXPECT_EQ(!swapped, order.swapped);
}

TEST_P(EitherByteOrder, HasPacketsWithTheirInterfaces) {
    const std::string of = packet(3, 5, std::string("12345\0\0\0rest", 12), swapped);
    const auto found = head(of);
    EXPECT_EQ(block_type::enhanced_packet, found->type);
    EXPECT_EQ(of.size(), found->length);
    EXPECT_EQ(3U, found->interface);
    const auto parts = pcapng::parts_of(of, order).value();
    EXPECT_EQ("12345", of.substr(parts.frame, parts.frame_end - parts.frame));
    EXPECT_EQ("rest", of.substr(parts.rest, parts.rest_end - parts.rest));
}

TEST_P(EitherByteOrder, HasTheOldBlocksOfPackets) {
    const std::string old = block(2,
                                  number(7, swapped, 2) + std::string(10, '\1') +
                                      number(2, swapped) + number(2, swapped) + "ab..",
                                  swapped);
    EXPECT_EQ(7U, head(old)->interface);
    const auto parts = pcapng::parts_of(old, order).value();
    EXPECT_EQ("ab", old.substr(parts.frame, parts.frame_end - parts.frame));
    const std::string simple = block(3, number(4, swapped) + "abcd", swapped);
    EXPECT_EQ(0U, head(simple)->interface);
    const auto all = pcapng::parts_of(simple, order).value();
    EXPECT_EQ("abcd", simple.substr(all.frame, all.frame_end - all.frame));
}

TEST_P(EitherByteOrder, HasNamesOfInterfaces) {
    const std::string start = number(1, swapped, 2) + std::string(2, '\0') + number(96, swapped);
    const std::string name =
        number(2, swapped, 2) + number(5, swapped, 2) + std::string("eth10\0\0\0", 8);
    const std::string text = number(3, swapped, 2) + number(4, swapped, 2) + "text";
    using namespace std::string_literals;
    EXPECT_EQ("eth10",
              pcapng::interface_name_of(block(1, start + text + name + "\0\0\0"s, swapped), order));
    EXPECT_EQ("", pcapng::interface_name_of(block(1, start + text, swapped), order));
    const std::string longer = number(2, swapped, 2) + number(99, swapped, 2) + "eth1";
    EXPECT_EQ("", pcapng::interface_name_of(block(1, start + longer, swapped), order));
    EXPECT_EQ("", pcapng::interface_name_of("", order));
}

TEST_P(EitherByteOrder, KnowsNothingOfOtherBlocksButTheirLength) {
    const std::string of = block(0x0BAD, "what it holds...", swapped);
    EXPECT_EQ(of.size(), head(of)->length);
    const auto parts = pcapng::parts_of(of, order).value();
    EXPECT_EQ(parts.frame, parts.frame_end);
    EXPECT_EQ("what it holds...", of.substr(parts.rest, parts.rest_end - parts.rest));
}

TEST_P(EitherByteOrder, RefusesLengthsThatLie) {
    for (const std::uint32_t length : {0U, 4U, 8U, 11U, 13U, 14U, 0xFFFFFFFFU})
        EXPECT_FALSE(head(number(6, swapped) + number(length, swapped) + "abcd")) << length;
    EXPECT_FALSE(pcapng::parts_of(packet(0, 5, "1234", swapped), order));
    EXPECT_FALSE(pcapng::parts_of(packet(0, 0xFFFFFFFF, "1234", swapped), order));
    for (std::size_t size = 0; size < 32; size += 4)
        EXPECT_FALSE(pcapng::parts_of(packet(0, 0, "", swapped).substr(0, size), order)) << size;
}

TEST_P(EitherByteOrder, RefusesWhatIsCutShort) {
    const std::string whole = section(swapped);
    for (std::size_t size = 0; size < 12; ++size)
        EXPECT_FALSE(head(whole.substr(0, size))) << size;
    std::string other = whole;
    other[8] = 'x';  // of the magic number
    EXPECT_FALSE(head(other));
}

INSTANTIATE_TEST_SUITE_P(Pcapng, EitherByteOrder, testing::Bool(),
                         [](const auto& of) { return std::string(of.param ? "Swapped" : "Own"); });

}  // namespace
}  // namespace qnmctl
