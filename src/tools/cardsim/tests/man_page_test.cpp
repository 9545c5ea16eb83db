// Tests of the manual page: it describes each key of a scenario and each command.
#include "man_page.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "cardsim.h"
#include "fields.h"

namespace cardsim {
namespace {

using names = std::vector<std::string_view>;

// Checks that the keys and the texts match one to one.
void expect_texts_of(names known, std::span<const key_text> texts) {
    names described;
    for (const key_text& row : texts) {
        described.push_back(row.name);
        EXPECT_EQ('.', row.help.empty() ? ' ' : row.help.back()) << row.name;
    }
    std::sort(known.begin(), known.end());
    known.erase(std::unique(known.begin(), known.end()), known.end());
    std::sort(described.begin(), described.end());
    EXPECT_EQ(known, described);
}

TEST(ManPage, TellsEveryKeyOfACard) {
    names known = settable_field_names();
    const names making = making_key_names();
    known.insert(known.end(), making.begin(), making.end());
    expect_texts_of(known, card_key_texts());
}

TEST(ManPage, TellsEveryKeyOfTheRecordsInside) {
    expect_texts_of(bridge_field_names(), bridge_key_texts());
    names known = bridge_field_names();
    for (const key_text& row : down_port_key_texts())
        known.push_back(row.name);
    names all = down_port_field_names();
    std::sort(known.begin(), known.end());
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, known);
}

TEST(ManPage, TellsEveryCommandAndOption) {
    const std::string page = man_page(std::vector<option_text>{{"--some", "What for"}}, "1.2.3");
    EXPECT_NE(std::string::npos, page.find("\\-\\-some"));
    EXPECT_NE(std::string::npos, page.find("What for."));
    ASSERT_FALSE(command_texts().empty());
    for (const command_text& command : command_texts()) {
        EXPECT_FALSE(command.help.empty()) << command.name;
        EXPECT_NE(std::string::npos, page.find(std::string(command.help))) << command.name;
    }
}

}  // namespace
}  // namespace cardsim
