// Tests of the EEPROM: phases, address forms and files.
#include "eeprom.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <numeric>

#include "refusal.h"
#include "temporary_file.h"

namespace {

using namespace cardsim;

constexpr std::uint32_t read_word = 0x80000001;
constexpr std::uint32_t write_word = 0x80000003;
constexpr std::uint32_t ready = 0x40000000;
constexpr std::uint32_t busy = 0x00000001;
constexpr std::uint32_t complete = 0x10000000;
constexpr std::uint32_t refused = 0x30000000;

struct Eeprom : testing::Test {
    card owner = make_card("a", card_kind::qnio, card_speed::g1_10, 0x10);
    eeprom_state state;

    std::uint32_t poll() { return poll_eeprom(state, owner); }
    void command(std::uint32_t value) { command_eeprom(state, owner, value); }

    // The status in which a command at this address ends.
    std::uint32_t result(std::uint32_t value, std::uint32_t address) {
        state.address = address;
        command(value);
        std::uint32_t status = busy;
        for (int polls = 0; polls < 10 && status == busy; ++polls)
            status = poll();
        return status;
    }

    const eeprom_bytes& bytes() { return contents_of(state, owner.device); }
};

TEST_F(Eeprom, IsFilledAndPresetWhenFirstTouched) {
    owner.device.eeprom_fill = 0xA5;
    owner.device.eeprom = {{0, "ab"}, {2046, "yz"}};
    EXPECT_EQ(state.contents, nullptr);
    EXPECT_EQ(bytes()[0], 'a');
    EXPECT_EQ(bytes()[1], 'b');
    EXPECT_EQ(bytes()[2], 0xA5);
    EXPECT_EQ(bytes()[2045], 0xA5);
    EXPECT_EQ(bytes()[2047], 'z');
}

TEST_F(Eeprom, WordsLieLeastSignificantByteFirst) {
    eeprom_bytes raw{};
    put_eeprom_word(raw, 4, 0x01020304);
    EXPECT_EQ(raw[3], 0);
    EXPECT_EQ(raw[4], 4);
    EXPECT_EQ(raw[7], 1);
    EXPECT_EQ(raw[8], 0);
    EXPECT_EQ(eeprom_word_at(raw, 4), 0x01020304U);
}

TEST_F(Eeprom, ReadIsBusyThenCompleteThenReadyAgain) {
    owner.device.eeprom = {{8, std::string("\x78\x56\x34\x12")}};
    EXPECT_EQ(poll(), ready);
    state.address = 8;
    command(read_word);
    EXPECT_EQ(poll(), busy);
    EXPECT_EQ(state.read_data, 0U);
    EXPECT_EQ(poll(), complete);
    EXPECT_EQ(state.read_data, 0x12345678U);
    EXPECT_EQ(poll(), complete);
    command(0);
    EXPECT_EQ(poll(), ready);
    EXPECT_EQ(state.read_data, 0x12345678U);
}

TEST_F(Eeprom, IsBusyForAsManyPollsAsSet) {
    for (const std::uint32_t polls : {0U, 1U, 5U}) {
        owner.device.eeprom_busy_polls = polls;
        command(read_word);
        for (std::uint32_t k = 0; k < polls; ++k)
            EXPECT_EQ(poll(), busy) << polls;
        EXPECT_EQ(poll(), complete) << polls;
        command(0);
    }
}

TEST_F(Eeprom, WriteChangesTheWordWhenItCompletes) {
    state.write_data = 0xCAFE0001;
    state.address = 4;
    command(write_word);
    EXPECT_EQ(poll(), busy);
    EXPECT_EQ(eeprom_word_at(bytes(), 4), 0xFFFFFFFFU);
    EXPECT_FALSE(state.changed);
    EXPECT_EQ(poll(), complete);
    EXPECT_EQ(eeprom_word_at(bytes(), 4), 0xCAFE0001U);
    EXPECT_EQ(eeprom_word_at(bytes(), 0), 0xFFFFFFFFU);
    EXPECT_EQ(eeprom_word_at(bytes(), 8), 0xFFFFFFFFU);
    EXPECT_TRUE(state.changed);
}

TEST_F(Eeprom, WritingWhatIsThereChangesNothing) {
    state.write_data = 0xFFFFFFFF;
    EXPECT_EQ(result(write_word, 4), complete);
    EXPECT_FALSE(state.changed);
}

TEST_F(Eeprom, CommandInTheMiddleOfOneIsNotTaken) {
    state.write_data = 7;
    command(read_word);
    command(write_word);
    EXPECT_EQ(poll(), busy);
    EXPECT_EQ(poll(), complete);
    EXPECT_EQ(eeprom_word_at(bytes(), 0), 0xFFFFFFFFU);
}

TEST_F(Eeprom, IdleEndsACommandBeforeItsTime) {
    state.write_data = 7;
    command(write_word);
    command(0);
    EXPECT_EQ(poll(), ready);
    EXPECT_EQ(poll(), ready);
    EXPECT_EQ(eeprom_word_at(bytes(), 0), 0xFFFFFFFFU);
}

TEST_F(Eeprom, UnknownCommandsAreNotTaken) {
    for (const std::uint32_t unknown : {0x00000001U, 0x80000000U, 0x80000002U, 0x80000005U}) {
        command(unknown);
        EXPECT_EQ(poll(), ready) << unknown;
    }
}

// A manager tries the packed form and then, without idling, the raw one.
TEST_F(Eeprom, CommandAfterARefusalIsTaken) {
    owner.device.eeprom_packed = false;
    EXPECT_EQ(result(read_word, 0x00030010), refused);
    EXPECT_EQ(poll(), refused);
    EXPECT_EQ(result(read_word, 0x310), complete);
}

TEST_F(Eeprom, RefusesWhileSwitchedToThat) {
    owner.device.eeprom_refusing = true;
    state.write_data = 7;
    EXPECT_EQ(result(read_word, 0), refused);
    EXPECT_EQ(result(write_word, 0), refused);
    EXPECT_EQ(eeprom_word_at(bytes(), 0), 0xFFFFFFFFU);
    command(0);
    EXPECT_EQ(poll(), ready);
    owner.device.eeprom_refusing = false;
    EXPECT_EQ(result(read_word, 0), complete);
}

struct address_row {
    const char* what;
    card_speed speed;
    bool packed;  // device_settings::eeprom_packed
    std::uint32_t written;
    std::optional<std::uint32_t> reached;  // nothing: refused
};

void PrintTo(const address_row& row, std::ostream* out) {
    *out << row.what;
}

struct EepromAddress : Eeprom, testing::WithParamInterface<address_row> {};

TEST_P(EepromAddress, ReachesItsWordOrIsRefused) {
    owner.speed = GetParam().speed;
    owner.device.eeprom_packed = GetParam().packed;
    state.write_data = 0x11223344;
    EXPECT_EQ(result(write_word, GetParam().written), GetParam().reached ? complete : refused);
    for (std::uint32_t address = 0; address < eeprom_size; address += 4) {
        const bool here = GetParam().reached == address;
        EXPECT_EQ(eeprom_word_at(bytes(), address), here ? 0x11223344U : 0xFFFFFFFFU) << address;
    }
}

constexpr auto slow = card_speed::g1_10;
constexpr auto fast = card_speed::g40;

INSTANTIATE_TEST_SUITE_P(Forms, EepromAddress,
                         testing::Values(address_row{"PackedLow", slow, true, 0x000000FC, 0xFC},
                                         address_row{"PackedHigh", slow, true, 0x000700FC, 0x7FC},
                                         address_row{"PackedBeyond", slow, true, 0x00080000, {}},
                                         address_row{"PackedUneven", slow, true, 0x00010002, {}},
                                         address_row{"RawWherePacked", slow, true, 0x00000100, {}},
                                         address_row{"BitsAbovePacked", slow, true, 0x00100000, {}},
                                         address_row{"RawHigh", slow, false, 0x000007FC, 0x7FC},
                                         address_row{"RawBeyond", slow, false, 0x00000800, {}},
                                         address_row{"RawUneven", slow, false, 0x00000001, {}},
                                         address_row{"PackedWhereRaw", slow, false, 0x00010000, {}},
                                         address_row{"FastRaw", fast, true, 0x00000104, 0x104},
                                         address_row{"FastPacked", fast, true, 0x00010004, {}}),
                         testing::PrintToStringParamName());

TEST_F(Eeprom, ResetOfTheRegistersKeepsTheContents) {
    state.write_data = 7;
    EXPECT_EQ(result(write_word, 4), complete);
    command(read_word);
    reset_eeprom_registers(state);
    EXPECT_EQ(poll(), ready);
    EXPECT_EQ(state.address | state.write_data | state.read_data, 0U);
    EXPECT_EQ(eeprom_word_at(bytes(), 4), 7U);
    EXPECT_TRUE(state.changed);
}

// --------------------------------------------------------------------------------------------
// Files
// --------------------------------------------------------------------------------------------

struct EepromFile : Eeprom {
    temporary_file own;
    std::filesystem::path file = own.path;

    void write_file(std::size_t size) const { std::ofstream(file) << std::string(size, 'x'); }

    std::string load() {
        return refusal_of([&] { load_eeprom_file(state, owner.device, file); });
    }
    std::string save() {
        return refusal_of([&] { save_eeprom_file(state, owner.device, file); });
    }
    std::string named(const std::string& what, const std::string& why) const {
        return what + " the EEPROM file \"" + file.string() + "\": " + why;
    }
};

TEST_F(EepromFile, SavedContentsAreLoadedByAnother) {
    eeprom_bytes& written = contents_of(state, owner.device);
    std::iota(written.begin(), written.end(), std::uint8_t{3});
    const eeprom_bytes before = written;
    EXPECT_EQ(save(), "accepted");
    EXPECT_EQ(std::filesystem::file_size(file), eeprom_size);
    state = {};
    EXPECT_EQ(load(), "accepted");
    EXPECT_EQ(bytes(), before);
}

TEST_F(EepromFile, OnlyTheCardsOwnFileMakesItUnchanged) {
    write_file(eeprom_size);
    EXPECT_EQ(load(), "accepted");
    EXPECT_TRUE(state.changed);
    EXPECT_EQ(save(), "accepted");
    EXPECT_TRUE(state.changed);
    owner.device.eeprom_file = file.string();
    EXPECT_EQ(save(), "accepted");
    EXPECT_FALSE(state.changed);
    state.changed = true;
    EXPECT_EQ(load(), "accepted");
    EXPECT_FALSE(state.changed);
}

TEST_F(EepromFile, WrongSizeIsRefusedAndChangesNothing) {
    write_file(eeprom_size - 1);
    EXPECT_EQ(load(), named("cannot use", "it has 2047 bytes, an EEPROM has 2048"));
    write_file(eeprom_size + 1);
    EXPECT_EQ(load(), named("cannot use", "it has 2049 bytes and may have 2048"));
    write_file(0);
    EXPECT_EQ(load(), named("cannot use", "it has 0 bytes, an EEPROM has 2048"));
    EXPECT_EQ(bytes()[0], 0xFF);
    EXPECT_FALSE(state.changed);
}

TEST_F(EepromFile, MissingFileAndDirectoryAreNamed) {
    EXPECT_EQ(load(), named("cannot read", "No such file or directory"));
    file = testing::TempDir() + "/nowhere/eeprom";
    EXPECT_EQ(save(), named("cannot write", "No such file or directory"));
    file = "/dev";
    EXPECT_EQ(load(), named("cannot use", "it is a directory, not a regular file"));
    EXPECT_EQ(save(), named("cannot write", "it is a directory, not a regular file"));
}

// Limits the size of this process's files for its lifetime.
class file_size_limit {
  public:
    explicit file_size_limit(rlim_t size) {
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {size, before_.rlim_max};
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~file_size_limit() {
        setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    file_size_limit(const file_size_limit&) = delete;
    file_size_limit& operator=(const file_size_limit&) = delete;

  private:
    rlimit before_{};
    void (*handler_)(int);
};

TEST_F(EepromFile, SavingThatFailsLeavesTheOldOne) {
    write_file(eeprom_size);
    {
        const file_size_limit limit(100);
        EXPECT_EQ(save(), named("cannot write", "File too large"));
    }
    EXPECT_EQ(load(), "accepted");
    EXPECT_EQ(bytes()[0], 'x');
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".new"));
}

TEST_F(EepromFile, SavingKeepsALink) {
    write_file(1);
    file += "-link";
    std::filesystem::create_symlink(own.path, file);
    EXPECT_EQ(save(), "accepted");
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    EXPECT_EQ(std::filesystem::file_size(own.path), eeprom_size);
    std::filesystem::remove(file);
}

TEST_F(EepromFile, SavingThatFailsLeavesItChanged) {
    const file_size_limit limit(100);
    owner.device.eeprom_file = file.string();
    state.changed = true;
    EXPECT_EQ(save(), named("cannot write", "File too large"));
    EXPECT_TRUE(state.changed);
}

// No process has the other end of the FIFO open, so opening it would wait for ever.
TEST_F(EepromFile, IsNoFifoAndNoDevice) {
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    EXPECT_EQ(load(), named("cannot use", "it is a FIFO, not a regular file"));
    EXPECT_EQ(save(), named("cannot write", "it is a FIFO, not a regular file"));
    file = "/dev/full";
    EXPECT_EQ(load(), named("cannot use", "it is a device, not a regular file"));
    EXPECT_EQ(save(), named("cannot write", "it is a device, not a regular file"));
}

// A link with the name of the new file is removed and not followed.
TEST_F(EepromFile, SavingIsNotLedAstray) {
    const std::filesystem::path fresh = file.string() + ".new";
    ASSERT_EQ(0, mkfifo(fresh.c_str(), 0600));
    EXPECT_EQ(save(), "accepted");
    const std::filesystem::path other = file.string() + ".other";
    std::filesystem::create_symlink(other, fresh);
    EXPECT_EQ(save(), "accepted");
    EXPECT_FALSE(std::filesystem::exists(other));
    EXPECT_EQ(std::filesystem::file_size(file), eeprom_size);
}

}  // namespace
