// Tests of what tests and line commands can see and change behind a card's registers.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "cardsim.h"
#include "fake_port.h"
#include "refusal.h"
#include "temporary_file.h"

namespace {

using namespace cardsim;

card named(const std::string& name, std::uint64_t id) {
    card result = make_card(name, card_kind::qnio, card_speed::g1_10, id);
    result.interval_ms = 0;
    return result;
}

frame_bytes content_of(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Access : testing::Test {
    cable out;
    simulator sim{{out.port("p0")}};

    void SetUp() override { sim.add(named("a", 0x10)); }
};

TEST_F(Access, RegistersOfEachCardAreItsOwn) {
    sim.add(named("b", 0x12));
    sim.write_register("a", 0x1000, 5);
    EXPECT_EQ(sim.read_register(0x10, 0x1000), 5U);
    EXPECT_EQ(sim.read_register("b", 0x1000), 0U);
    EXPECT_EQ(refusal_of([&] { sim.read_register("a", 0x1001); }),
              "register address 0x001001: an address is a multiple of 4, at most 0x3ffffc");
    EXPECT_EQ(refusal_of([&] { sim.write_register("a", 0x400000, 1); }),
              "register address 0x400000: an address is a multiple of 4, at most 0x3ffffc");
    EXPECT_EQ(refusal_of([&] { sim.read_register("c", 0); }), "no card \"c\"");
}

TEST_F(Access, NewDefaultsShowAtOnceAndWrittenValuesStay) {
    sim.write_register("a", 0x1000, 5);
    sim.set("a", "register_default", "0xFFFFFFFF");
    EXPECT_EQ(sim.read_register("a", 0x1000), 5U);
    EXPECT_EQ(sim.read_register("a", 0x1004), 0xFFFFFFFFU);
}

TEST_F(Access, EepromAsBytesAndWords) {
    frame_bytes bytes(eeprom_size);
    bytes[4] = 0x44;
    bytes[7] = 0x77;
    bytes[2047] = 0xEE;
    sim.set_eeprom("a", bytes);
    EXPECT_EQ(sim.eeprom("a"), bytes);
    EXPECT_EQ(sim.eeprom_word("a", 4), 0x77000044U);
    sim.set_eeprom_word("a", 2044, 0x01020304);
    EXPECT_EQ(sim.eeprom("a")[2047], 1);
    EXPECT_EQ(sim.eeprom("a")[2043], 0);
    EXPECT_EQ(refusal_of([&] { sim.set_eeprom("a", frame_bytes(2047)); }),
              "an EEPROM has 2048 bytes, not 2047");
    for (const std::uint32_t address : {2U, 2048U}) {
        EXPECT_EQ(refusal_of([&] { sim.eeprom_word("a", address); }),
                  "an EEPROM address is a multiple of 4, at most 2044");
        EXPECT_EQ(refusal_of([&] { sim.set_eeprom_word("a", address, 0); }),
                  "an EEPROM address is a multiple of 4, at most 2044");
    }
}

TEST_F(Access, LockOfOtherHoldersFollowsTheKindOfLock) {
    sim.take_lock("a", 8);
    EXPECT_EQ(sim.lock("a").bits, 8U);
    EXPECT_EQ(sim.lock("a").requests, 0U);
    sim.drop_lock("a");
    EXPECT_EQ(sim.lock("a").bits, 0U);
    sim.set("a", "id_lock", "true");
    sim.take_lock("a", 8);
    EXPECT_EQ(sim.lock("a").bits, 0U);
    EXPECT_EQ(sim.lock("a").requests, 8U);
    EXPECT_EQ(sim.lock("a").holder, 8U);
    EXPECT_THROW(sim.take_lock("a", 0), error);
}

TEST_F(Access, NothingHasHappenedToANewCard) {
    EXPECT_EQ(sim.resets("a").count, 0U);
    EXPECT_EQ(sim.mms_page("a", 0), std::nullopt);
    EXPECT_EQ(sim.eeprom("a"), frame_bytes(eeprom_size, 0xFF));
}

TEST_F(Access, CardAddedAgainIsNew) {
    sim.write_register("a", 0x1000, 5);
    sim.remove("a");
    EXPECT_THROW(sim.read_register("a", 0x1000), error);
    sim.add(named("a", 0x10));
    EXPECT_EQ(sim.read_register("a", 0x1000), 0U);
}

// --------------------------------------------------------------------------------------------
// Files
// --------------------------------------------------------------------------------------------

struct AccessFile : Access {
    temporary_file own;

    card kept(const std::string& name, std::uint64_t id) const {
        card result = named(name, id);
        result.device.eeprom_file = own.path.string();
        return result;
    }
    void write_file(std::size_t size) const { std::ofstream(own.path) << std::string(size, 'x'); }
};

TEST_F(AccessFile, IsLoadedWhenTheCardIsAdded) {
    write_file(eeprom_size);
    sim.add(kept("kept", 0x12));
    EXPECT_EQ(sim.eeprom("kept"), frame_bytes(eeprom_size, 'x'));
}

TEST_F(AccessFile, ThatIsMissingIsNoErrorAndMadeAtTheEnd) {
    sim.add(kept("kept", 0x12));
    EXPECT_FALSE(std::filesystem::exists(own.path));
    sim.set_eeprom_word("kept", 0, 0x01020304);
    sim.save_eeproms();
    EXPECT_EQ(content_of(own.path), sim.eeprom("kept"));
}

TEST_F(AccessFile, IsLeftAloneWhenNothingHasChanged) {
    sim.add(kept("kept", 0x12));
    sim.eeprom("kept");
    sim.save_eeproms();
    EXPECT_FALSE(std::filesystem::exists(own.path));
    sim.set_eeprom_word("kept", 0, 1);
    sim.save_eeproms();
    std::filesystem::remove(own.path);
    sim.save_eeproms();
    EXPECT_FALSE(std::filesystem::exists(own.path));
}

TEST_F(AccessFile, TakesWhatAManagerWrote) {
    sim.add(kept("kept", 0x12));
    sim.write_register("kept", 0x501C, 0xCAFE0001);
    sim.write_register("kept", 0x5010, 0x80000003);
    for (int polls = 0; polls < 2; ++polls)
        sim.read_register("kept", 0x5010);
    sim.save_eeproms();
    const frame_bytes saved = content_of(own.path);
    ASSERT_EQ(saved.size(), eeprom_size);
    EXPECT_EQ(frame_bytes(saved.begin(), saved.begin() + 4), (frame_bytes{0x01, 0x00, 0xFE, 0xCA}));
}

TEST_F(AccessFile, IsSavedWhenTheCardIsRemoved) {
    sim.add(kept("kept", 0x12));
    sim.set_eeprom_word("kept", 0, 1);
    sim.remove("kept");
    EXPECT_EQ(content_of(own.path).size(), eeprom_size);
}

TEST_F(AccessFile, OfTheWrongSizeKeepsTheCardOut) {
    write_file(100);
    EXPECT_EQ(refusal_of([&] { sim.add(kept("kept", 0x12)); }),
              "cannot use the EEPROM file \"" + own.path.string() +
                  "\": it has 100 bytes, an EEPROM has 2048");
    EXPECT_THROW(sim.get("kept"), error);
}

TEST_F(AccessFile, CannotBeChangedOnALivingCard) {
    EXPECT_EQ(refusal_of([&] { sim.update("a", [](card& c) { c.device.eeprom_file = "x"; }); }),
              "card \"a\": id, name, kind, speed and eeprom_file stay; add another card");
}

TEST_F(AccessFile, OneThatFailsDoesNotKeepTheOthersFromBeingSaved) {
    card lost = named("lost", 0x0F);  // comes first
    lost.device.eeprom_file = testing::TempDir() + "/nowhere/eeprom";
    sim.add(lost);
    sim.add(kept("kept", 0x12));
    sim.set_eeprom_word("lost", 0, 1);
    sim.set_eeprom_word("kept", 0, 1);
    EXPECT_EQ(refusal_of([&] { sim.save_eeproms(); }), "cannot write the EEPROM file \"" +
                                                           lost.device.eeprom_file +
                                                           "\": No such file or directory");
    EXPECT_EQ(content_of(own.path).size(), eeprom_size);
}

TEST_F(AccessFile, ByCommandGoesToAnyFile) {
    sim.set_eeprom("a", frame_bytes(eeprom_size, 7));
    sim.save_eeprom("a", own.path);
    sim.set_eeprom("a", frame_bytes(eeprom_size, 8));
    sim.load_eeprom("a", own.path);
    EXPECT_EQ(sim.eeprom("a"), frame_bytes(eeprom_size, 7));
}

}  // namespace
