// Tests of a card's registers: memory, presets and special registers.
#include "device.h"

#include <gtest/gtest.h>

#include "refusal.h"

namespace {

using namespace cardsim;

struct Device : testing::Test {
    card owner = make_card("a", card_kind::qnio, card_speed::g1_10, 0x10);
    device behind;

    std::uint32_t read(std::uint32_t address) { return read_device(behind, owner, address); }
    void write(std::uint32_t address, std::uint32_t value) {
        write_device(behind, owner, address, value);
    }
    std::string refusal() const {
        return refusal_of([&] { check_device(owner); });
    }
};

TEST_F(Device, RegistersReadDefaultPresetOrWhatWasWritten) {
    EXPECT_EQ(read(0x1000), 0U);
    owner.device.register_default = 0xDEADBEEF;
    owner.device.registers = {{0x1000, 1}, {register_limit, 2}};
    EXPECT_EQ(read(0x1000), 1U);
    EXPECT_EQ(read(0x1004), 0xDEADBEEFU);
    EXPECT_EQ(read(register_limit), 2U);
    write(0x1000, 0x55);
    write(0x1004, 0);
    EXPECT_EQ(read(0x1000), 0x55U);
    EXPECT_EQ(read(0x1004), 0U);
    EXPECT_EQ(read(0x1008), 0xDEADBEEFU);
}

TEST_F(Device, ResetBringsThePresetsBackAndDropsTheLock) {
    owner.device.registers = {{0x1000, 1}};
    write(0x1000, 5);
    write(0x50F0, 4);
    write(0x5200, 8);
    behind.lock.others = 8;
    behind.lock.looks_left = 3;
    contents_of(behind.eeprom, owner.device)[0] = 0x77;
    behind.pages[3] = {};
    write(0x5014, 0x10);
    reset_device(behind, 0x5A);
    EXPECT_EQ(read(0x1000), 1U);
    for (const std::uint32_t address : {0x50F0, 0x5200, 0x5208, 0x5014})
        EXPECT_EQ(read(address), 0U) << address;
    EXPECT_EQ(behind.lock.others | behind.lock.looks_left, 0U);
    EXPECT_EQ(contents_of(behind.eeprom, owner.device)[0], 0x77);
    EXPECT_TRUE(behind.pages.contains(3));
    EXPECT_EQ(behind.resets.last_status, 0x5A);
    reset_device(behind, 1);
    EXPECT_EQ(behind.resets.count, 2U);
    EXPECT_EQ(behind.resets.last_status, 1);
}

struct eeprom_registers {
    card_speed speed;
    std::uint32_t control, address, read_data, write_data;
};

struct EepromRegisters : Device, testing::WithParamInterface<eeprom_registers> {
    EepromRegisters() {
        owner.speed = GetParam().speed;
        owner.device.eeprom_busy_polls = 0;
    }
};

INSTANTIATE_TEST_SUITE_P(
    BySpeed, EepromRegisters,
    testing::Values(eeprom_registers{card_speed::g1_10, 0x5010, 0x5014, 0x5018, 0x501C},
                    eeprom_registers{card_speed::g40, 0x40, 0x44, 0x48, 0x4C}));

TEST_P(EepromRegisters, WriteAndReadAWord) {
    const eeprom_registers& at = GetParam();
    EXPECT_EQ(read(at.control), 0x40000000U);
    write(at.address, 0x20);
    write(at.write_data, 0x0BADF00D);
    EXPECT_EQ(read(at.address), 0x20U);
    EXPECT_EQ(read(at.write_data), 0x0BADF00DU);
    write(at.control, 0x80000003);
    EXPECT_EQ(read(at.control), 0x10000000U);
    EXPECT_EQ(eeprom_word_at(*behind.eeprom.contents, 0x20), 0x0BADF00DU);
    write(at.control, 0);
    EXPECT_EQ(read(at.control), 0x40000000U);
    EXPECT_EQ(read(at.read_data), 0U);
    write(at.control, 0x80000001);
    EXPECT_EQ(read(at.control), 0x10000000U);
    EXPECT_EQ(read(at.read_data), 0x0BADF00DU);
    write(at.read_data, 1);
    EXPECT_EQ(read(at.read_data), 0x0BADF00DU) << "a register to read only";
    EXPECT_TRUE(behind.written.empty());
}

TEST_P(EepromRegisters, OnTheOtherSpeedTheyAreMemory) {
    const eeprom_registers& at = GetParam();
    owner.speed = at.speed == card_speed::g40 ? card_speed::g1_10 : card_speed::g40;
    write(at.control, 0x80000003);
    EXPECT_EQ(read(at.control), 0x80000003U);
    EXPECT_EQ(behind.eeprom.contents, nullptr);
}

TEST_F(Device, LockTypeShowsTheLockAndCannotBeWritten) {
    EXPECT_EQ(read(0x520C), 0U);
    owner.device.id_lock = true;
    EXPECT_EQ(read(0x520C), 1U);
    write(0x520C, 0);
    EXPECT_EQ(read(0x520C), 1U);
}

TEST_F(Device, BitLockRegister) {
    write(0x50F0, 0xC);
    EXPECT_EQ(read(0x50F0), 0xCU);
    EXPECT_EQ(behind.lock.held.bits, 0xCU);
}

TEST_F(Device, IdLockRegisters) {
    owner.device.id_lock = true;
    write(0x5200, 8);
    write(0x5200, 4);
    EXPECT_EQ(read(0x5200), 8U);
    EXPECT_EQ(read(0x5208), 0xCU);
    write(0x5208, 0);
    EXPECT_EQ(read(0x5208), 0xCU) << "a register to read only";
    write(0x5204, 8);
    EXPECT_EQ(read(0x5204), 0U);
    EXPECT_EQ(read(0x5208), 4U);
    EXPECT_EQ(read(0x5200), 4U);
}

TEST_F(Device, AddressesAreMultiplesOfFourOf22Bits) {
    EXPECT_NO_THROW(check_register_address(0));
    EXPECT_NO_THROW(check_register_address(0x3FFFFC));
    EXPECT_THROW(check_register_address(0x400000), error);
    EXPECT_THROW(check_register_address(0x1002), error);
}

TEST_F(Device, PresetsThatCannotBeAreRefused) {
    owner.device.registers = {{0x1002, 0}};
    EXPECT_EQ(refusal(),
              "register address 0x001002: an address is a multiple of 4, at most 0x3ffffc");
    owner.device.registers = {{0x5010, 0}};
    EXPECT_EQ(refusal(), "register 0x005010 belongs to the EEPROM and cannot be preset");
    owner.device.registers = {{0x40, 0}};
    EXPECT_EQ(refusal(), "accepted") << "memory on a 1G/10G card";
    owner.speed = card_speed::g40;
    EXPECT_EQ(refusal(), "register 0x000040 belongs to the EEPROM and cannot be preset");
    owner.device.registers.clear();
    owner.faults.silent_registers = {0x1001};
    EXPECT_EQ(refusal(),
              "register address 0x001001: an address is a multiple of 4, at most 0x3ffffc");
}

TEST_F(Device, EepromPresetsEndWithTheEeprom) {
    owner.device.eeprom = {{2046, "ab"}};
    EXPECT_EQ(refusal(), "accepted");
    owner.device.eeprom = {{2046, "abc"}};
    EXPECT_EQ(refusal(), "the EEPROM preset at 0x0007fe goes beyond its 2048 bytes");
    owner.device.eeprom = {{0xFFFFFFFF, "ab"}};
    EXPECT_EQ(refusal(), "the EEPROM preset at 0xffffffff goes beyond its 2048 bytes");
}

}  // namespace
