// Tests of the announcing thread, timers and counters, on ports without a network.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <thread>

#include "cardsim.h"
#include "fake_port.h"

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using cardsim::frame_bytes;
using cardsim::make_card;

using frames = std::vector<frame_bytes>;

card io_card(std::string name, std::uint64_t id, std::uint32_t interval_ms) {
    card result = make_card(std::move(name), card_kind::qnio, card_speed::g1_10, id);
    result.interval_ms = interval_ms;
    return result;
}

long count_of(const frames& sent, std::uint8_t last_byte_of_source) {
    return std::count_if(sent.begin(), sent.end(),
                         [&](const frame_bytes& f) { return f[11] == last_byte_of_source; });
}

TEST(Simulator, AnnouncesAgainAndAgainAndStops) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 1));
    sim.add(io_card("b", 0x12, 2));
    sim.start();
    EXPECT_TRUE(out.wait([](const frames& f) { return count_of(f, 0x10) >= 5; }));
    EXPECT_TRUE(out.wait([](const frames& f) { return count_of(f, 0x12) >= 5; }));
    sim.stop();
    sim.wait();
    EXPECT_EQ(sim.count().devinfo, out.size());
}

TEST(Simulator, RunsAgainAfterAStop) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 1));
    for (int round = 1; round <= 3; ++round) {
        const std::size_t before = out.size();
        sim.start();
        EXPECT_THROW(sim.start(), cardsim::error);
        EXPECT_TRUE(out.wait([&](const frames& f) { return f.size() > before + 2; }));
        sim.stop();
        sim.wait();
    }
}

TEST(Simulator, RunEndsWhenStopCameFirst) {
    cardsim::simulator sim({});
    sim.stop();
    sim.run();
    SUCCEED();
}

TEST(Simulator, SilencedPathIsNotHeardAgainUntilWoken) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 1));
    sim.add(io_card("b", 0x12, 1));
    sim.start();
    ASSERT_TRUE(out.wait([](const frames& f) { return count_of(f, 0x10) >= 2; }));
    sim.silence("a", 0, 0);
    const std::size_t mark = out.size();
    const auto later = [&](const frames& f) {
        return frames(f.begin() + static_cast<std::ptrdiff_t>(mark), f.end());
    };
    // Card b announces at the same pace, which shows that time has passed.
    ASSERT_TRUE(out.wait([&](const frames& f) { return count_of(later(f), 0x12) >= 20; }));
    EXPECT_TRUE(out.wait([&](const frames& f) { return count_of(later(f), 0x10) == 0; }));
    sim.wake("a", 0, 0);
    EXPECT_TRUE(out.wait([&](const frames& f) { return count_of(later(f), 0x10) >= 2; }));
}

TEST(Simulator, CardsComeGoAndChangeWhileItRuns) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.start();
    sim.add(io_card("late", 0x10, 3'600'000));
    EXPECT_TRUE(out.wait([](const frames& f) { return f.size() == 1; }));
    sim.set("late", "interval_ms", "1");
    EXPECT_TRUE(out.wait([](const frames& f) { return f.size() >= 5; }));
    sim.set("late", "vlan_id", "0x123");
    EXPECT_TRUE(out.wait([](const frames& f) { return f.back()[15] == 0x23; }));
    sim.remove("late");
    EXPECT_THROW(sim.get("late"), cardsim::error);
    const std::size_t before = out.size();
    sim.add(io_card("next", 0x12, 1));
    EXPECT_TRUE(out.wait(
        [&](const frames& f) { return f.size() >= before + 10 && count_of(f, 0x12) >= 10; }));
    sim.stop();
    sim.wait();
    EXPECT_EQ(static_cast<std::size_t>(count_of(out.frames, 0x12)) + before, out.size());
}

TEST(Simulator, CardWithoutIntervalWaitsToBeTold) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("quiet", 0x10, 0));
    sim.add(io_card("pace", 0x12, 1));
    sim.start();
    ASSERT_TRUE(out.wait([](const frames& f) { return count_of(f, 0x12) >= 20; }));
    sim.stop();
    sim.wait();
    EXPECT_EQ(count_of(out.frames, 0x10), 0);
    EXPECT_EQ(sim.devinfo("quiet"), 1U);
    EXPECT_EQ(count_of(out.frames, 0x10), 1);
}

TEST(Simulator, ThousandsOfCardsAreAllHeard) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    for (const card& added :
         cardsim::parse_scenario("[[card]]\nname=\"r\"\nkind=\"qnio\"\nspeed=\"1g10g\"\n"
                                 "id=0x020000000000\ncount=3000\ninterval_ms=200\n",
                                 "x")
             .cards) {
        sim.add(added);
    }
    EXPECT_EQ(sim.announce_all(), 3000U);
    const auto sources = [](auto first, auto last) {
        std::set<frame_bytes> seen;
        for (; first != last; ++first)
            seen.emplace(first->begin() + 6, first->begin() + 12);
        return seen.size();
    };
    EXPECT_EQ(sources(out.frames.begin(), out.frames.end()), 3000U);
    sim.start();
    EXPECT_TRUE(out.wait([&](const frames& f) {
        return f.size() >= 9000 && sources(f.begin() + 3000, f.end()) == 3000;
    }));
}

TEST(Simulator, FailedSendsAreCountedAndSurvived) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 0));
    using cardsim::send_status;
    out.fail_with({.status = send_status::link_down, .code = ENETDOWN});
    EXPECT_EQ(sim.devinfo("a"), 0U);
    out.fail_with({.status = send_status::no_room, .retries = 9, .code = ENOBUFS});
    EXPECT_EQ(sim.devinfo("a"), 0U);
    out.fail_with({.status = send_status::failed, .code = ENXIO});
    EXPECT_EQ(sim.notify("a"), 0U);
    out.fail_with({});
    EXPECT_EQ(sim.devinfo("a"), 1U);
    const cardsim::counters counted = sim.count();
    EXPECT_EQ(counted.devinfo, 1U);
    EXPECT_EQ(counted.notify, 0U);
    EXPECT_EQ(counted.link_down, 1U);
    EXPECT_EQ(counted.lost, 1U);
    EXPECT_EQ(counted.retries, 9U);
    EXPECT_EQ(counted.failed, 1U);
}

TEST(Simulator, SameNameOrIdIsRefused) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 0));
    EXPECT_THROW(sim.add(io_card("a", 0x12, 0)), cardsim::error);
    EXPECT_THROW(sim.add(io_card("b", 0x10, 0)), cardsim::error);
    EXPECT_EQ(sim.cards().size(), 1U);
    EXPECT_EQ(sim.get(0x10).name, "a");
}

TEST(Simulator, UpdateIsAllOrNothing) {
    cable out;
    cardsim::simulator sim({out.port("p0")});
    sim.add(io_card("a", 0x10, 0));
    EXPECT_THROW(sim.update("a", [](card& c) { c.vlan_id = 9, c.heard[1][0] = true; }),
                 cardsim::error);
    EXPECT_THROW(sim.update("a", [](card& c) { c.vlan_id = 9, c.id = 0x12; }), cardsim::error);
    EXPECT_EQ(sim.get("a").vlan_id, 1);
    sim.update("a", [](card& c) { c.vlan_id = 9; });
    EXPECT_EQ(sim.get("a").vlan_id, 9);
}

// A pipe stands for the socket: one byte waiting is one frame waiting.
TEST(Simulator, ReceivedRequestsReachTheObserver) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    frame_bytes reset = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0A, 0,    0,    0, 0, 1,
                         0x81, 0x00, 0x80, 0x01, 0x88, 0xB6, 0x30, 0xFF, 0xFF, 0, 0, 7};
    reset.resize(60);
    cable out, seen;
    cardsim::port in = out.port("p0");
    in.fd = ends[0];
    in.receive = [&]() -> std::optional<frame_bytes> {
        char byte;
        if (read(ends[0], &byte, 1) != 1) return std::nullopt;
        frame_bytes frame = reset;
        if (byte == 'f') frame[19] = 0;     // a fault
        if (byte == 'o') frame[17] = 0x00;  // another protocol
        return frame;
    };
    const auto send_seen = seen.port("seen").send;
    cardsim::simulator sim({in}, cardsim::default_ether_type,
                           [&](std::size_t, const cardsim::request& r) {
                               send_seen(frame_bytes{std::get<cardsim::reset>(r.body).status});
                           });
    sim.start();
    ASSERT_EQ(write(ends[1], "ofg", 3), 3);
    EXPECT_TRUE(seen.wait([](const frames& f) { return f.size() == 2; }));
    EXPECT_EQ(seen.frames[0], frame_bytes{7});
    EXPECT_EQ(sim.count().received, 2U);
    EXPECT_EQ(sim.count().faulty, 1U);
    sim.stop();
    sim.wait();
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
