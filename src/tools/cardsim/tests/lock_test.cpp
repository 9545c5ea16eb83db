// Tests of the two EEPROM locks, state by state.
#include "lock.h"

#include <gtest/gtest.h>

namespace {

using namespace cardsim;

constexpr std::uint32_t mine = 0x4;  // the manager's bit
constexpr std::uint32_t theirs = 0x8;

struct Lock : testing::Test {
    eeprom_lock lock;
    device_settings settings;

    void free_by_force() {
        settings.id_lock
            ? release_lock(lock, settings, theirs)
            : write_lock_bits(lock, settings, read_lock_bits(lock, settings) & ~theirs);
    }
};

struct BitLock : Lock {};

struct IdLock : Lock {
    IdLock() { settings.id_lock = true; }

    void expect(std::uint32_t requests, std::uint32_t holder) {
        EXPECT_EQ(lock.held.requests, requests);
        EXPECT_EQ(lock.held.holder, holder);
    }
};

// A new lock that another holder has, stubborn or not.
struct StubbornLock : Lock, testing::WithParamInterface<bool> {
    StubbornLock() {
        settings.id_lock = GetParam();
        settings.lock_stubborn = true;
    }

    bool is_theirs() const {
        return settings.id_lock ? lock.held.holder == theirs : (lock.held.bits & theirs) != 0;
    }
    void look() {
        settings.id_lock ? read_lock_holder(lock, settings) : read_lock_bits(lock, settings);
    }
    void take_as_manager() {
        settings.id_lock ? request_lock(lock, mine)
                         : write_lock_bits(lock, settings, lock.held.bits | mine);
    }
    void release_as_manager() {
        settings.id_lock ? release_lock(lock, settings, mine)
                         : write_lock_bits(lock, settings, lock.held.bits & ~mine);
    }
};

INSTANTIATE_TEST_SUITE_P(BitsAndIds, StubbornLock, testing::Bool());

TEST_F(BitLock, IsPlainBits) {
    EXPECT_EQ(read_lock_bits(lock, settings), 0U);
    write_lock_bits(lock, settings, 0x80000004);
    EXPECT_EQ(read_lock_bits(lock, settings), 0x80000004U);
    write_lock_bits(lock, settings, 0);
    EXPECT_EQ(read_lock_bits(lock, settings), 0U);
}

TEST_F(BitLock, OthersTakeAndDropTheirBitsOnly) {
    write_lock_bits(lock, settings, mine);
    take_lock_by_others(lock, settings, theirs);
    take_lock_by_others(lock, settings, 0x10000);
    EXPECT_EQ(lock.held.bits, mine | theirs | 0x10000);
    drop_lock_of_others(lock);
    EXPECT_EQ(lock.held.bits, mine);
}

TEST_F(BitLock, BitsTakenAwayAreNotDroppedAgainLater) {
    take_lock_by_others(lock, settings, theirs);
    free_by_force();
    write_lock_bits(lock, settings, theirs);  // now somebody else's
    drop_lock_of_others(lock);
    EXPECT_EQ(lock.held.bits, theirs);
}

TEST_F(IdLock, FirstRequesterHoldsAndTheLowestWaitingFollows) {
    request_lock(lock, 0x40);
    expect(0x40, 0x40);
    request_lock(lock, 0x100);
    request_lock(lock, mine);
    expect(0x144, 0x40);
    release_lock(lock, settings, 0x40);
    expect(0x104, mine);
    release_lock(lock, settings, mine);
    expect(0x100, 0x100);
    release_lock(lock, settings, 0x100);
    expect(0, 0);
}

TEST_F(IdLock, OneThatWaitsLeavesWithoutMovingTheHolder) {
    request_lock(lock, theirs);
    request_lock(lock, 0x2);
    request_lock(lock, mine);
    release_lock(lock, settings, mine);
    expect(theirs | 0x2, theirs);
    release_lock(lock, settings, 0x10);  // of nobody
    expect(theirs | 0x2, theirs);
}

TEST_F(IdLock, AllAreReleasedAtOnce) {
    for (const std::uint32_t id : {1, 2, 0x8000})
        request_lock(lock, id);
    release_lock(lock, settings, 0xFFFF);
    expect(0, 0);
}

TEST_F(IdLock, OfSeveralIdsAtOnceTheLowestHolds) {
    request_lock(lock, 0x18);
    expect(0x18, 0x8);
}

TEST_F(IdLock, IdsBeyondSixteenBitsAreNone) {
    request_lock(lock, 0xFFFF0000);
    expect(0, 0);
}

TEST_F(IdLock, ReadsShowWhoAsksAndWhoHolds) {
    request_lock(lock, theirs);
    request_lock(lock, mine);
    EXPECT_EQ(read_lock_requests(lock, settings), mine | theirs);
    EXPECT_EQ(read_lock_holder(lock, settings), theirs);
}

TEST_F(IdLock, OthersWaitForTheManagerAndItForThem) {
    request_lock(lock, mine);
    take_lock_by_others(lock, settings, theirs);
    expect(mine | theirs, mine);
    release_lock(lock, settings, mine);
    expect(theirs, theirs);
    request_lock(lock, mine);
    drop_lock_of_others(lock);
    expect(mine, mine);
}

TEST_F(IdLock, WhatNoPartyHasCannotBeTaken) {
    EXPECT_THROW(take_lock_by_others(lock, settings, 0), error);
    EXPECT_THROW(take_lock_by_others(lock, settings, 0x10000), error);
    expect(0, 0);
    EXPECT_EQ(lock.others, 0U);
}

TEST_P(StubbornLock, OthersThatAreNotStubbornLetGo) {
    settings.lock_stubborn = false;
    take_lock_by_others(lock, settings, theirs);
    free_by_force();
    for (int looks = 0; looks < 5; ++looks)
        look();
    EXPECT_FALSE(is_theirs());
}

TEST_P(StubbornLock, IsTakenBackAtOnce) {
    settings.lock_retake_reads = 0;
    take_lock_by_others(lock, settings, theirs);
    free_by_force();
    EXPECT_TRUE(is_theirs());
}

TEST_P(StubbornLock, IsTakenBackAfterSomeLooks) {
    settings.lock_retake_reads = 2;
    take_lock_by_others(lock, settings, theirs);
    for (int round = 0; round < 3; ++round) {
        free_by_force();
        EXPECT_FALSE(is_theirs());
        look();
        EXPECT_FALSE(is_theirs());
        look();
        EXPECT_TRUE(is_theirs());
    }
}

TEST_P(StubbornLock, IsTheManagersWhenTheOthersDropIt) {
    take_lock_by_others(lock, settings, theirs);
    free_by_force();
    drop_lock_of_others(lock);
    take_as_manager();
    look();
    look();
    EXPECT_FALSE(is_theirs());
    EXPECT_EQ(settings.id_lock ? lock.held.holder : lock.held.bits, mine);
}

TEST_P(StubbornLock, ManagerThatLeavesIsNoReasonToWaitLonger) {
    settings.lock_retake_reads = 2;
    take_lock_by_others(lock, settings, theirs);
    take_as_manager();
    free_by_force();
    look();
    release_as_manager();
    EXPECT_FALSE(is_theirs());
    look();
    EXPECT_TRUE(is_theirs());
}

TEST_P(StubbornLock, TakenBackIdsPushTheManagerOut) {
    settings.lock_retake_reads = 0;
    take_lock_by_others(lock, settings, theirs);
    if (settings.id_lock) request_lock(lock, mine);
    free_by_force();
    EXPECT_TRUE(is_theirs());
    if (settings.id_lock) {
        EXPECT_EQ(read_lock_requests(lock, settings), mine | theirs);
    }
}

}  // namespace
