// The command's accesses to cards: simulated ones, at the far ends of two cables in a network
// namespace that the test has to itself.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "cardsim.h"
#include "common/standard_files.h"
#include "installation/config_file.h"
#include "output/text.h"
#include "tests/program.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

using nlohmann::json;

constexpr char server[] = "0x020000001000";
constexpr char device[] = "0x020000002000";

constexpr std::uint32_t own_bit = 0x4;    // of the EEPROM lock
constexpr std::uint32_t other_bit = 0x8;  // another party's

void run_or_throw(const std::string& line) {
    if (std::system(line.c_str()) != 0) throw std::runtime_error("failed: " + line);
}

// Whether the condition came true within a limit that only a failure reaches.
template <class Condition>
bool comes_true(Condition condition) {
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > give_up) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct cables {
    cables() {
        for (const std::string number : {"0", "1"}) {
            run_or_throw("ip link add qnm" + number + " type veth peer name qsim" + number);
            run_or_throw("ip link set qnm" + number + " up && ip link set qsim" + number + " up");
        }
    }
};

std::vector<cardsim::port> far_ends() {
    std::vector<cardsim::port> ports;
    for (const char* const name : {"qsim0", "qsim1"})
        ports.push_back(cardsim::open_port(name));
    return ports;
}

// What a command did that has ended.
struct ended {
    int status;
    std::string out;
    std::string errors;
};

// Two cards: a server card in group 10, and a multi-root device card in group 20.
class Cards : public testing::Test {
  protected:
    void SetUp() override {
        add("sv", cardsim::card_kind::qnsv, cardsim::card_speed::g1_10, 0x020000001000, 10);
        add("io", cardsim::card_kind::qnio, cardsim::card_speed::g40, 0x020000002000, 20);
        cards.start();
    }

    void add(const char* name, cardsim::card_kind kind, cardsim::card_speed speed, std::uint64_t id,
             std::uint16_t group) {
        cardsim::card made = cardsim::make_card(name, kind, speed, id);
        made.vlan_id = group;
        made.interval_ms = 100;
        for (auto& port : made.heard)
            port[0] = true;
        made.version = 1;  // of a device card: that it is a multi-root one
        cards.add(made);
    }

    static words ctl(words arguments) {
        // Checking the lock twenty times takes most of the time of an access.
        words all = {"--ports", "qnm0,qnm1", "--set", "eeprom_verify_count=1"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return invocation(all);
    }
    static ended run(const words& arguments) {
        program started(ctl(arguments));
        const int status = started.end();
        return {status, started.read_all(), started.errors()};
    }
    static json records(words arguments, int status = 0) {
        arguments.emplace_back("--json");
        const ended result = run(arguments);
        EXPECT_EQ(status, result.status) << result.errors;
        return json::parse(result.out).at("records");
    }

    void fill_eeprom() {
        for (std::uint32_t at = 0; at < cardsim::eeprom_size; at += 4)
            cards.set_eeprom_word("sv", at, 0x01010101 * (at / 4 % 251) + at);
    }
    std::string eeprom() {
        const cardsim::frame_bytes bytes = cards.eeprom("sv");
        return {bytes.begin(), bytes.end()};
    }
    // Whether the manager holds the EEPROM lock of the server card.
    bool is_locked() {
        const cardsim::lock_holders held = cards.lock("sv");
        return (held.bits & own_bit) != 0 || (held.requests & own_bit) != 0 ||
               held.holder == own_bit;
    }
    std::string file(const char* name) const { return dir.path() / name; }
    bool can_mount() const {
        const std::string mount = "mount -t tmpfs none " + dir.path().string();
        return std::system(("unshare -m sh -c '" + mount + "' 2>/dev/null").c_str()) == 0;
    }
    std::size_t files() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()));
    }

    cables wires;
    cardsim::simulator cards{far_ends()};
    tools::temporary_dir dir;
};

// ---- Registers ----------------------------------------------------------------------------------

TEST_F(Cards, ReadsARegister) {
    cards.write_register("sv", 0x100, 0xBEEF);
    const ended result = run({"reg", "read", server, "0x100"});
    EXPECT_EQ("0x020000001000 register 0x00000100: 0x0000beef\n", result.out);
    EXPECT_EQ("", result.errors);
    EXPECT_EQ(0, result.status);
}

TEST_F(Cards, ReadsManyCardsInTheOrderAsked) {
    cards.write_register("sv", 0x100, 1);
    cards.write_register("io", 0x100, 2);
    EXPECT_EQ(
        "0x020000002000 register 0x00000100: 0x00000002\n"
        "0x020000001000 register 0x00000100: 0x00000001\n",
        run({"reg", "read", device, server, "0x100"}).out);
}

TEST_F(Cards, AreChosenByProperty) {
    EXPECT_EQ(2U, records({"reg", "read", "--all", "0"}).size());
    const json devices = records({"reg", "read", "--kind", "qnio", "0"});
    ASSERT_EQ(1U, devices.size());
    EXPECT_EQ(device, devices[0].at("id"));
    const json group = records({"reg", "read", "--group", "10", "0"});
    ASSERT_EQ(1U, group.size());
    EXPECT_EQ(server, group[0].at("id"));
}

TEST_F(Cards, ThatDoNotFitAreNotThere) {
    const ended result = run({"reg", "read", "--group", "11", "0", "--wait", "0.5"});
    EXPECT_EQ(code_status(QNM_API_ENOENT), result.status);
    EXPECT_TRUE(holds(result.errors, "no card that fits has been heard")) << result.errors;
}

TEST_F(Cards, ThatAreNotHeardAreNamed) {
    const ended one = run({"reg", "read", "0x020000009900", "0", "--wait", "0.5"});
    EXPECT_EQ(code_status(QNM_API_ENOENT), one.status);
    EXPECT_TRUE(holds(one.errors, "no card 0x020000009900 has been heard")) << one.errors;
    const ended two = run({"reg", "read", "0x020000009900", server, "0", "--wait", "3"});
    EXPECT_EQ(code_status(QNM_API_ENOENT), two.status);
    EXPECT_EQ("0x020000001000 register 0x00000000: 0x00000000\n", two.out);
    EXPECT_TRUE(
        holds(two.errors, "0x020000009900: qnm_read_register failed: QNM_API_ENOENT\n  No card"))
        << two.errors;
}

TEST_F(Cards, TakeVerifiedWritesAndChangesOfSomeBits) {
    EXPECT_EQ("0x020000001000 register 0x00000100: 0xcafe0000 verified\n",
              run({"reg", "write", server, "0x100", "0xCAFE0000", "--verify"}).out);
    EXPECT_EQ(0xCAFE0000U, cards.read_register("sv", 0x100));
    EXPECT_EQ("0x020000001000 register 0x00000100: 0xffffffff under mask 0x0000000f verified\n",
              run({"reg", "modify", server, "0x100", "0xFFFFFFFF", "0b1111", "--verify"}).out);
    EXPECT_EQ(0xCAFE000FU, cards.read_register("sv", 0x100));
}

TEST_F(Cards, TellJsonOfAWrite) {
    EXPECT_EQ(json::parse(R"([{"record": "result", "id": "0x020000001000", "addr": 256, "value": 7,
                              "verified": true, "result": "QNM_API_SUCCESS"}])"),
              records({"reg", "write", server, "0x100", "7", "--verify"}));
}

TEST_F(Cards, ThatDoNotAnswerFailWithCodeAndAdvice) {
    cards.update("sv", [](cardsim::card& changed) { changed.faults.silent_registers = {0x100}; });
    const ended result =
        run({"reg", "read", server, device, "0x100", "--retries", "1", "--interval", "20"});
    EXPECT_EQ(code_status(QNM_API_ETIMEDOUT), result.status);
    EXPECT_EQ("0x020000002000 register 0x00000100: 0x00000000\n", result.out);
    EXPECT_EQ(
        "qnmctl: 0x020000001000: qnm_read_register failed: QNM_API_ETIMEDOUT\n"
        "  The card did not answer, or what was written did not hold. Try more --retries or a "
        "longer --interval; not every address is a register that answers.\n",
        result.errors);
    EXPECT_EQ(2U, cards.count().silent);
}

TEST_F(Cards, AreReadThroughLoss) {
    cards.write_register("sv", 0x100, 0x12345678);
    cards.update("sv", [](cardsim::card& changed) {
        changed.faults.lose_requests = 300;
        changed.faults.lose_answers = 300;
    });
    const ended result =
        run({"reg", "dump", server, "0x100", "0x140", "--retries", "200", "--interval", "20"});
    ASSERT_EQ(0, result.status) << result.errors;
    EXPECT_EQ("0x00000100  12345678 00000000 00000000 00000000  |xV4.............|",
              split(result.out, "\n").front());
    const cardsim::counters counted = cards.count();
    EXPECT_GT(counted.lost_requests + counted.lost_answers, 0U);
}

TEST_F(Cards, DumpRegistersAsFarAsTheyAnswer) {
    cards.update("sv", [](cardsim::card& changed) { changed.faults.silent_registers = {0x108}; });
    const ended result =
        run({"reg", "dump", server, "0x100", "0x120", "--retries", "2", "--interval", "1000"});
    EXPECT_EQ(code_status(QNM_API_ETIMEDOUT), result.status);
    EXPECT_EQ("0x00000100  00000000 00000000                    |........|\n", result.out);
    EXPECT_TRUE(holds(result.errors, "Read up to 0x00000108, of 0x00000120.")) << result.errors;
}

TEST_F(Cards, NeedARangeThatIsNotEmpty) {
    const ended result = run({"reg", "dump", server, "0x100", "0x100"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("qnmctl: nothing to dump: START is not below END\n", result.errors);
}

// ---- EEPROM -------------------------------------------------------------------------------------

TEST_F(Cards, KeepAWordInTheEeprom) {
    for (const char* const kind_of_lock : {"false", "true"}) {
        cards.set("sv", "id_lock", kind_of_lock);
        cards.set_eeprom_word("sv", 8, 0);
        EXPECT_EQ("0x020000001000 EEPROM 0x0008: 0x64636261 verified\n",
                  run({"eeprom", "write", server, "8", "0x64636261", "--verify"}).out);
        EXPECT_EQ(0x64636261U, cards.eeprom_word("sv", 8));
        EXPECT_EQ("0x020000001000 EEPROM 0x0008: 0x64636261\n",
                  run({"eeprom", "read", server, "8"}).out);
        EXPECT_FALSE(is_locked());
    }
}

TEST_F(Cards, RefuseTheEepromThatAnotherPartyKeeps) {
    cards.take_lock("sv", other_bit);
    const ended refused = run({"--set", "eeprom_retry_count=2", "eeprom", "read", server, "8"});
    EXPECT_EQ(code_status(QNM_API_EBUSY), refused.status);
    EXPECT_TRUE(holds(refused.errors, "qnm_read_eeprom failed: QNM_API_EBUSY\n  Another party"))
        << refused.errors;
    EXPECT_TRUE(holds(refused.errors, "--force-lock"));
    const ended forced =
        run({"--set", "eeprom_retry_count=2", "eeprom", "read", server, "8", "--force-lock"});
    EXPECT_EQ(0, forced.status) << forced.errors;
}

TEST_F(Cards, ThatAPartyLeftLockedAreFreed) {
    cards.take_lock("sv", other_bit);
    EXPECT_EQ("0x020000001000 EEPROM lock is free\n", run({"eeprom", "unlock", server}).out);
    EXPECT_EQ(0U, cards.lock("sv").bits);
}

TEST_F(Cards, DumpTheEeprom) {
    fill_eeprom();
    cards.set_eeprom_word("sv", 0, 0x6D6E7171);
    const std::vector<std::string> lines = split(run({"eeprom", "dump", server}).out, "\n");
    ASSERT_EQ(128U, lines.size());
    EXPECT_EQ("0x00000000  6d6e7171 01010105 0202020a 0303030f  |qqnm............|", lines[0]);
    EXPECT_EQ("0x000007f0 ", lines[127].substr(0, 11));
}

TEST_F(Cards, DumpTheEepromIntoAFile) {
    fill_eeprom();
    const ended result = run({"eeprom", "dump", server, "--raw", file("image")});
    EXPECT_EQ("2048 bytes written to " + file("image") + "\n", result.out) << result.errors;
    EXPECT_TRUE(read_text(file("image")) == eeprom());
    EXPECT_EQ(1U, files());
}

TEST_F(Cards, DumpAPartAsJson) {
    fill_eeprom();
    const json dump = records({"eeprom", "dump", server, "0x10", "0x18"}).at(0);
    EXPECT_EQ(server, dump.at("id"));
    EXPECT_EQ(0x10, dump.at("addr"));
    EXPECT_EQ((json{cards.eeprom_word("sv", 0x10), cards.eeprom_word("sv", 0x14)}),
              dump.at("words"));
    EXPECT_EQ("QNM_API_SUCCESS", dump.at("result"));
}

TEST_F(Cards, AreNotAskedWhenTheFileCannotBeWritten) {
    const ended result = run({"eeprom", "dump", server, "--raw", file("missing/image")});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.errors, "cannot write " + file("missing/image"))) << result.errors;
    EXPECT_EQ(0U, cards.count().received);
}

// The file system is in a mount namespace of the command's own.
TEST_F(Cards, LoseNothingToAFullDisk) {
    const std::string prepare = "mount -t tmpfs -o size=4k none " + dir.path().string() +
                                " && printf old > " + file("image") +
                                " && head -c 8192 /dev/zero > " + file("filler") + " 2>/dev/null; ";
    const std::string finish = "; status=$?; cat " + file("image") + "; exit $status";
    if (!can_mount()) GTEST_SKIP() << "no file system can be mounted here";
    words all = {"/usr/bin/env", "unshare", "-m", "sh", "-c", prepare + "\"$@\"" + finish, "sh"};
    const words own = ctl({"eeprom", "dump", server, "0", "16", "--raw", file("image")});
    all.insert(all.end(), own.begin(), own.end());
    program run(all);
    EXPECT_EQ(1, run.end());
    EXPECT_EQ("0x00000000  ffffffff ffffffff ffffffff ffffffff  |................|\nold",
              run.read_all());
    EXPECT_EQ("qnmctl: cannot write " + file("image") +
                  ": No space left on device\n  Nothing was changed there.\n",
              run.errors());
}

// The state folder is on a small disk of the command's own; /tmp is not.
TEST_F(Cards, AreListedWithAFullDiskForTheState) {
    const std::string state = file("state");
    const std::string prepare =
        "mount -t tmpfs -o size=4k none " + state + " && printf x > " + state + "/filler; ";
    fs::create_directory(state);
    if (!can_mount()) GTEST_SKIP() << "no file system can be mounted here";
    words all = {"/usr/bin/env", "XDG_STATE_HOME=" + state, "unshare", "-m", "sh",
                 "-c",           prepare + "exec \"$@\"",   "sh"};
    const words own = ctl({"list", "--card", server});
    all.insert(all.end(), own.begin(), own.end());
    program run(all);
    EXPECT_EQ(0, run.end()) << run.errors();
    EXPECT_TRUE(holds(run.read_all(), server));
}

// ---- Restore ------------------------------------------------------------------------------------

class Restore : public Cards {
  protected:
    void SetUp() override {
        Cards::SetUp();
        fill_eeprom();
        image = eeprom();
        std::ofstream(file("image"), std::ios::binary) << image;
        cards.set_eeprom_word("sv", 0x10, 0x11111111);
        cards.set_eeprom_word("sv", 0x7FC, 0x22222222);
        changed = eeprom();
    }

    std::string image;
    std::string changed;
};

TEST_F(Restore, WritesTheWordsThatDiffer) {
    const ended result = run({"eeprom", "restore", server, file("image"), "--yes"});
    EXPECT_EQ(0, result.status) << result.errors;
    EXPECT_EQ(
        "0x00000010: 0x11111111 -> 0x04040414\n"
        "0x000007fc: 0x22222222 -> 0x09091105\n"
        "words written and verified: 2\n",
        result.out);
    EXPECT_TRUE(eeprom() == image);
    EXPECT_EQ("the EEPROM holds the image already\n",
              run({"eeprom", "restore", server, file("image"), "--yes"}).out);
}

TEST_F(Restore, TellsJson) {
    const json value = records({"eeprom", "restore", server, file("image"), "--yes"}).at(0);
    EXPECT_EQ(2U, value.at("differences").size());
    EXPECT_EQ(2, value.at("written"));
    EXPECT_EQ("QNM_API_SUCCESS", value.at("result"));
    EXPECT_TRUE(eeprom() == image);
}

TEST_F(Restore, OfAShortImageIsThatOfTheBeginning) {
    std::ofstream(file("short"), std::ios::binary) << image.substr(0, 0x14);
    EXPECT_EQ(0, run({"eeprom", "restore", server, file("short"), "--yes"}).status);
    EXPECT_TRUE(eeprom() == image.substr(0, 0x14) + changed.substr(0x14));
}

TEST_F(Restore, IsRefusedWhereNobodyCanBeAsked) {
    for (const words& options : {words{}, words{"--json"}}) {
        words arguments = {"eeprom", "restore", server, file("image")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const ended result = run(arguments);
        EXPECT_EQ(2, result.status);
        EXPECT_TRUE(holds(result.errors, "--yes")) << result.errors;
    }
    EXPECT_TRUE(eeprom() == changed);
    EXPECT_EQ(0U, cards.count().received);
}

TEST_F(Restore, AsksOnATerminal) {
    program refused(ctl({"eeprom", "restore", server, file("image")}), standard_files::terminal);
    EXPECT_TRUE(
        holds(refused.read_until("[y/N] "), "Write 2 words to the EEPROM of card 0x020000001000?"));
    refused.say("n");
    EXPECT_EQ(1, refused.end());
    EXPECT_TRUE(holds(refused.read_all(), "nothing was written"));
    EXPECT_TRUE(eeprom() == changed);
    program taken(ctl({"eeprom", "restore", server, file("image")}), standard_files::terminal);
    taken.read_until("[y/N] ");
    taken.say("y");
    EXPECT_EQ(0, taken.end());
    EXPECT_TRUE(eeprom() == image);
}

TEST_F(Restore, WritesNothingAfterASignalInsteadOfAnAnswer) {
    program run(ctl({"eeprom", "restore", server, file("image")}), standard_files::terminal);
    run.read_until("[y/N] ");
    run.signal(SIGINT);
    EXPECT_EQ(1, run.end());
    EXPECT_TRUE(eeprom() == changed);
}

TEST_F(Restore, TakesNoFileThatIsNoImage) {
    std::ofstream(file("odd"), std::ios::binary) << "abc";
    std::ofstream(file("long"), std::ios::binary) << image << "more";
    for (const char* const name : {"odd", "long", "missing"}) {
        const ended result = run({"eeprom", "restore", server, file(name), "--yes"});
        EXPECT_EQ(1, result.status);
        EXPECT_TRUE(holds(result.errors, file(name))) << result.errors;
    }
    EXPECT_EQ(0U, cards.count().received);
}

TEST_F(Restore, EndsAtTheFirstWordThatFails) {
    cards.set("sv", "eeprom_refusing", "true");
    const ended result = run({"eeprom", "restore", server, file("image"), "--yes"});
    EXPECT_EQ(code_status(QNM_API_EPROTO), result.status);
    EXPECT_TRUE(holds(result.errors, "QNM_API_EPROTO")) << result.errors;
    EXPECT_TRUE(holds(result.errors, "Nothing was written.")) << result.errors;
    EXPECT_TRUE(eeprom() == changed);
}

// ---- Signals and terminals ----------------------------------------------------------------------

class Interrupted : public Cards, public testing::WithParamInterface<const char*> {
  protected:
    void SetUp() override {
        Cards::SetUp();
        cards.set("sv", "id_lock", GetParam());
        fill_eeprom();
    }

    // Whether the EEPROM has been in use for a while.
    bool comes_into_use() {
        if (!comes_true([this] { return is_locked(); })) return false;
        const auto enough = cards.count().writes + 20;
        return comes_true([&] { return cards.count().writes >= enough; });
    }
};

TEST_P(Interrupted, DumpLeavesNoLockBehind) {
    for (const int number : {SIGINT, SIGTERM}) {
        std::ofstream(file("image")) << "old";
        program run(ctl({"eeprom", "dump", server, "--raw", file("image")}));
        ASSERT_TRUE(comes_into_use());
        run.signal(number);
        EXPECT_EQ(1, run.end());
        EXPECT_TRUE(holds(run.errors(), "ended by a signal\n  Read up to ")) << run.errors();
        EXPECT_TRUE(holds(run.errors(), "image is as it was before.")) << run.errors();
        EXPECT_FALSE(is_locked());
        EXPECT_FALSE(run.left_something());
        EXPECT_EQ("old", read_text(file("image")));
        EXPECT_EQ(1U, files());
    }
}

TEST_P(Interrupted, RestoreLeavesNoLockBehindAndIsTakenUpAgain) {
    const std::string wanted(cardsim::eeprom_size, 'x');
    std::ofstream(file("image"), std::ios::binary) << wanted;
    program run(ctl({"eeprom", "restore", server, file("image"), "--yes"}));
    ASSERT_TRUE(comes_true([this] { return eeprom().front() == 'x'; }));
    run.signal(SIGINT);
    EXPECT_EQ(1, run.end());
    EXPECT_FALSE(is_locked());
    const std::string now = eeprom();
    const std::size_t written = now.find_first_not_of('x') / 4;
    EXPECT_TRUE(
        holds(run.read_all(), "words written and verified: " + std::to_string(written) + '\n'));
    EXPECT_TRUE(holds(run.errors(), "Of 512 words " + std::to_string(written) + " were written."))
        << run.errors();
    EXPECT_EQ(0, Cards::run({"eeprom", "restore", server, file("image"), "--yes"}).status);
    EXPECT_TRUE(eeprom() == wanted);
}

INSTANTIATE_TEST_SUITE_P(Locks, Interrupted, testing::Values("false", "true"), [](const auto& of) {
    return of.param == std::string("true") ? "Id" : "Bit";
});

TEST_F(Cards, EndAtASignalWhileTheyAreWaitedFor) {
    program run(ctl({"reg", "read", "0x99", "0", "--wait", "600"}));
    ASSERT_TRUE(comes_true([&] { return run.left_something(); }));  // it runs
    run.signal(SIGINT);
    EXPECT_EQ(1, run.end());
    EXPECT_TRUE(holds(run.errors(), "no card was accessed")) << run.errors();
}

// The wait was cut short, so nothing is known about the card.
TEST_F(Cards, ThatWereNotWaitedForAreNotCalledUnheard) {
    program shown(ctl({"show", "0x99", "--for", "600"}));
    ASSERT_TRUE(comes_true([&] { return shown.left_something(); }));  // it runs
    shown.signal(SIGTERM);
    EXPECT_EQ(1, shown.end());
    EXPECT_EQ("qnmctl: ended by a signal; the card was not heard by then\n", shown.errors());

    program unread(ctl({"show", "0x99", "--for", "600"}));
    unread.close_output();
    EXPECT_EQ(tools::exit_output, unread.end());
    EXPECT_EQ("qnmctl: cannot write to standard output: its reader has gone\n", unread.errors());

    for (const words& access : {words{"reg", "write", "0x99", "0x100", "1", "--wait", "600"},
                                words{"reg", "read", "--all", "0x100", "--wait", "600"}}) {
        program written(ctl(access));
        written.close_output();
        EXPECT_EQ(1, written.end());
        EXPECT_EQ(
            "qnmctl: the reader of standard output has gone; no card was accessed\n"
            "qnmctl: cannot write to standard output: its reader has gone\n",
            written.errors());
    }
}

// Two different signals, because one that is already pending is not sent again.
TEST_F(Cards, AreGivenUpAtASecondSignal) {
    cards.update("sv", [](cardsim::card& changed) { changed.faults.silent_registers = {0x100}; });
    program run(ctl({"reg", "read", server, "0x100", "--retries", "1000000"}));
    ASSERT_TRUE(comes_true([&] { return cards.count().silent > 0; }));
    run.signal(SIGINT);
    run.signal(SIGTERM);
    EXPECT_EQ(code_status(QNM_API_ENOSYS), run.end());
    EXPECT_TRUE(holds(run.errors(), "qnm_read_register failed: QNM_API_ENOSYS")) << run.errors();
}

TEST_F(Cards, ShowProgressOnATerminal) {
    program run(ctl({"eeprom", "dump", server, "--raw", file("image")}), standard_files::terminal);
    EXPECT_EQ(0, run.end());
    EXPECT_TRUE(holds(run.read_all(), "\r\033[Keeprom dump ["));
    EXPECT_TRUE(holds(run.read_all(), "\r\033[K2048 bytes written to "));
}

// ---- Other commands -----------------------------------------------------------------------------

TEST_F(Cards, TakeAVlanId) {
    EXPECT_EQ("0x020000001000 VLAN ID 30 announced by the card\n",
              run({"vlan", server, "30", "--verify", "--retries", "100"}).out);
    EXPECT_EQ(30, cards.get("sv").vlan_id);
    EXPECT_EQ("0x020000001000 VLAN ID 31 sent\n0x020000002000 VLAN ID 31 sent\n",
              run({"vlan", "--all", "31", "--yes"}).out);
}

TEST_F(Cards, AreToldFromAddresses) {
    const std::vector<words> commands = {{"reg", "read", server, "0x1000", "0x100"},
                                         {"reg", "read", "--wait", "0.1", "0x1000", "0x100"}};
    for (const words& command : commands) {
        const ended result = run(command);
        EXPECT_EQ(code_status(QNM_API_ENOENT), result.status);
        EXPECT_TRUE(holds(result.errors, "0x1000 does not look like a card, but like an address"))
            << result.errors;
    }
}

TEST_F(Cards, AreNotChangedInNumbersWithoutAQuestion) {
    const std::vector<words> changes = {{"vlan", "--all", "31"},
                                        {"reset", server, device, "1"},
                                        {"eeprom", "write", "--kind", "qnsv", "0", "1"}};
    for (const words& change : changes) {
        const ended result = run(change);
        EXPECT_EQ(exit_usage, result.status) << change.front();
        EXPECT_TRUE(holds(result.errors, "there is no terminal to ask on\n  Add --yes"))
            << result.errors;
    }
    EXPECT_EQ(0, cards.resets("sv").count);
}

TEST_F(Cards, AreChangedInNumbersAfterAQuestion) {
    program refused(ctl({"reset", "--all", "1"}), standard_files::terminal);
    EXPECT_TRUE(holds(refused.read_until("[y/N] "), "reset: change 2 cards? [y/N] "));
    refused.say("n");
    EXPECT_EQ(1, refused.end());
    EXPECT_TRUE(holds(refused.read_all(), "no card was accessed"));
    EXPECT_EQ(0, cards.resets("sv").count);
    program taken(ctl({"reset", "--all", "1"}), standard_files::terminal);
    taken.read_until("[y/N] ");
    taken.say("y");
    EXPECT_EQ(0, taken.end());
    EXPECT_TRUE(comes_true([&] { return cards.resets("sv").count == 1; }));
}

// What is typed ahead was meant for something else, and so may be a word that begins with y.
TEST_F(Cards, AreChangedByAnAnswerToTheQuestionOnly) {
    program early(ctl({"reset", "--all", "1"}), standard_files::terminal);
    early.say("y");
    early.read_until("[y/N] ");
    early.say("yesterday");
    EXPECT_EQ(1, early.end());
    EXPECT_EQ(0, cards.resets("sv").count);
}

TEST_F(Cards, AreNotChangedInNumbersByALine) {
    program watch(ctl({"watch"}));
    for (const char* const line : {"reset --all 1", "reset --all 1 -y", "quit"})
        watch.say(line);
    EXPECT_EQ(0, watch.end());
    EXPECT_TRUE(holds(watch.errors(), "this would change more than one card\n  Add --yes"))
        << watch.errors();
}

TEST_F(Cards, ThatKeepTheirVlanIdAreTold) {
    cards.set("sv", "vlan_frozen", "true");
    const ended result =
        run({"vlan", server, "30", "--verify", "--retries", "1", "--interval", "50"});
    EXPECT_EQ(code_status(QNM_API_ETIMEDOUT), result.status);
    EXPECT_TRUE(holds(result.errors, "qnm_set_vlanid failed: QNM_API_ETIMEDOUT\n  The card did"))
        << result.errors;
}

TEST_F(Cards, AreReset) {
    EXPECT_EQ("0x020000001000 reset with status 0x81 sent\n", run({"reset", server, "0x81"}).out);
    EXPECT_TRUE(comes_true([&] { return cards.resets("sv").count == 1; }));
    EXPECT_EQ(0x81, cards.resets("sv").last_status);
    EXPECT_EQ(0U, cards.resets("io").count);
}

TEST_F(Cards, TakeAnMmsPage) {
    std::string page(128, '\0');
    for (std::size_t at = 0; at < page.size(); ++at)
        page[at] = static_cast<char>(at);
    std::ofstream(file("page"), std::ios::binary) << page;
    EXPECT_EQ("0x020000002000 MMS page 1023 sent\n",
              run({"mms", device, "1023", file("page")}).out);
    ASSERT_TRUE(comes_true([&] { return cards.mms_page("io", 1023).has_value(); }));
    EXPECT_EQ(0x03020100U, cards.mms_page("io", 1023)->front());
    EXPECT_EQ(0x7F7E7D7CU, cards.mms_page("io", 1023)->back());
    const ended server_card = run({"mms", server, "0", file("page")});
    EXPECT_EQ(code_status(QNM_API_ENOENT), server_card.status);
    EXPECT_TRUE(holds(server_card.errors, "QNM_API_ENOENT\n  No multi-root")) << server_card.errors;
}

TEST_F(Cards, TakeNoPageOfAnotherSize) {
    std::ofstream(file("page"), std::ios::binary) << std::string(127, 'x');
    const ended result = run({"mms", device, "0", file("page")});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(holds(result.errors, "is no MMS page: it has 127 bytes")) << result.errors;
    EXPECT_EQ(0U, cards.count().mms_writes);
}

TEST_F(Cards, AGroupIsWatchedUntilACardHasLeftIt) {
    program run(ctl({"watch", "--all", "--group", "10"}));
    run.read_until(std::string("QNSV ") + server);
    cards.set("sv", "vlan_id", "30");
    const std::string seen = run.read_until("VLAN ID 10 -> 30");
    EXPECT_FALSE(holds(seen, device));
    run.say("quit");
    EXPECT_EQ(0, run.end());
}

TEST_F(Cards, AreWatchedWhileALineIsAnswered) {
    const auto silence = [&](const std::vector<std::uint32_t>& registers) {
        cards.update("sv", [&](cardsim::card& card) { card.faults.silent_registers = registers; });
    };
    silence({0x100});
    program run(ctl({"watch", "--all"}));
    run.read_until(std::string("QNSV ") + server);
    run.say(std::string("reg read ") + server + " 0x100 --retries 100000 --interval 10");
    ASSERT_TRUE(comes_true([&] { return cards.count().silent > 0; }));
    cards.set("io", "vlan_id", "30");
    run.read_until("VLAN ID 20 -> 30");
    silence({});
    run.read_until("register 0x00000100");
    run.say("quit");
    EXPECT_EQ(0, run.end());
}

TEST_F(Cards, AreAccessedFromLinesOfAWatch) {
    program run(ctl({"watch", "--all"}));
    run.read_until(std::string("QNSV ") + server);
    run.say(std::string("reg write ") + server + " 0x100 7 --verify");
    run.read_until("0x00000007 verified");
    run.say(std::string("monitor stop ") + server);
    run.say(std::string("reg read ") + server + " 0x100");
    run.say(std::string("reg read ") + server + " 0x100 --livecheck");
    run.read_until("register 0x00000100: 0x00000007\n");
    run.say("loglevel debug");
    run.read_until("log level debug\n");
    run.say("quit");
    EXPECT_EQ(0, run.end());
    EXPECT_TRUE(holds(run.errors(), "qnm_read_register failed: QNM_API_ENOLINK\n  No path"))
        << run.errors();
}

// ---- Two processes ------------------------------------------------------------------------------

// A command that accesses cards and keeps running.
class Accessed : public Cards {
  protected:
    void SetUp() override {
        // Only the first port is used, so that all processes compete for that one.
        add("sv", cardsim::card_kind::qnsv, cardsim::card_speed::g1_10, 0x020000001000, 10);
        cards.silence("sv", 1, 0);
        cards.start();
        holder.read_until(std::string("QNSV ") + server);
        holder.say(std::string("reg read ") + server + " 0x100");
        holder.read_until("register 0x00000100");
    }

    // Its findings of one check.
    static json findings_of(const char* check, int status) {
        json found = json::array();
        for (const json& value : records({"doctor"}, status)) {
            if (value.at("record") == "finding" && value.at("check") == check)
                found.push_back(value);
        }
        return found;
    }

    program holder{ctl({"watch", "--all"})};
};

TEST_F(Accessed, AreRefusedToAnotherProcessUntilThatOneEnds) {
    const words accesses[] = {{"reg", "read", server, "0x100"},
                              {"reg", "write", server, "0x100", "1"},
                              {"reg", "dump", server, "0x100", "0x110"},
                              {"eeprom", "read", server, "8"},
                              {"eeprom", "unlock", server},
                              {"vlan", server, "30"},
                              {"reset", server, "1"}};
    for (const words& access : accesses) {
        const ended refused = run(access);
        EXPECT_EQ(code_status(QNM_API_EBUSY), refused.status) << refused.errors;
        EXPECT_TRUE(holds(refused.errors, "failed: QNM_API_EBUSY\n  Process ")) << refused.errors;
        EXPECT_TRUE(holds(refused.errors,
                          " (qnmctl) accesses cards by qnm0, and one process at a "
                          "time may."))
            << refused.errors;
        EXPECT_EQ("", refused.out);
    }
    holder.say("quit");
    EXPECT_EQ(0, holder.end());
    const ended taken = run(accesses[0]);
    EXPECT_EQ(0, taken.status) << taken.errors;
}

TEST_F(Accessed, AreListenedToByOthersBesideIt) {
    for (const words& listening :
         {words{"list", "--for", "1"}, words{"show", server}, words{"topology", "--for", "1"}}) {
        const ended listened = run(listening);
        EXPECT_EQ(0, listened.status) << listening[0] << ": " << listened.errors;
        EXPECT_TRUE(holds(listened.out, server)) << listening[0] << ": " << listened.out;
    }
    const ended captured = run({"capture", "--count", "1", file("one.pcapng")});
    EXPECT_EQ(0, captured.status) << captured.errors;
}

TEST_F(Accessed, HaveTheirProcessNamedByTheDoctor) {
    const json found = findings_of("access", 0);
    ASSERT_EQ(2U, found.size());
    EXPECT_EQ("qnm0", found[0].at("about"));
    EXPECT_EQ("note", found[0].at("severity"));
    EXPECT_TRUE(holds(found[0].at("text"), "(qnmctl) accesses cards by it")) << found;
    EXPECT_EQ("ok", found[1].at("severity"));
    EXPECT_EQ("no process accesses cards by it", found[1].at("text"));
}

// As after a driver has been reloaded: the name is the same, the interface is another one.
TEST_F(Accessed, HaveADeafProcessNamedByTheDoctor) {
    run_or_throw("ip link del qnm0");
    run_or_throw("ip link add qnm0 type veth peer name qsim2");
    run_or_throw("ip link set qnm0 up && ip link set qsim2 up");
    const json found = findings_of("access", 3);
    ASSERT_EQ(3U, found.size()) << found;
    EXPECT_EQ("ok", found[0].at("severity"));
    EXPECT_EQ("error", found[2].at("severity"));
    EXPECT_TRUE(holds(found[2].at("text"), "(qnmctl) works with an interface that has gone (index"))
        << found;
}

// The same for a manager that only listens, and has no lock.
TEST_F(Cards, HaveADeafListenerNamedByTheDoctor) {
    program listener(ctl({"watch", "--all"}));
    listener.read_until(std::string("QNSV ") + server);
    const auto named = [&](const char* severity, int status) {
        const std::string process = "process " + std::to_string(listener.pid()) + " (qnmctl) works";
        for (const json& value : records({"doctor"}, status)) {
            if (value.at("record") == "finding" && value.at("check") == "access" &&
                value.at("severity") == severity && holds(value.at("text"), process)) {
                return true;
            }
        }
        return false;
    };
    EXPECT_FALSE(named("error", 0));
    run_or_throw("ip link set qnm0 down && ip link set qnm0 name renamed0");
    EXPECT_TRUE(named("warning", 3));
    run_or_throw("ip link del renamed0");
    run_or_throw("ip link add qnm0 type veth peer name qsim2");
    run_or_throw("ip link set qnm0 up && ip link set qsim2 up");
    EXPECT_TRUE(named("error", 3));
}

// The simulated cards' own ports are root's, so another user cannot see whose they are.
TEST_F(Cards, BesideProcessesThatCannotBeLookedIntoAreNotCalledWell) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const auto unseen = [](const std::string& text) {
        return holds(text, "not all processes could be looked into");
    };
    EXPECT_FALSE(unseen(run({"doctor"}).out));
    fs::permissions(dir.path(), fs::perms(0755));
    fs::copy_file(invocation({})[0], file("qnmctl"));
    fs::copy_file(QNM_LIBRARY, file("libqnm.so.1"));
    program other({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "env",
                   "LD_LIBRARY_PATH=" + dir.path().string(), "XDG_STATE_HOME=", "TMPDIR=/tmp",
                   file("qnmctl"), "--ports", "qnm0,qnm1", "doctor"});
    EXPECT_EQ(3, other.end());
    const std::string& text = other.read_all();
    EXPECT_TRUE(unseen(text)) << text << other.errors();
    EXPECT_TRUE(holds(text, "Run it as root")) << text;
}

// ---- Lost paths ---------------------------------------------------------------------------------

// The library gives no reasons; watch derives them from the times in its records.

TEST_F(Cards, ThatFallSilentExpire) {
    cards.silence("sv", 1, 0);
    program run(ctl({"--set", "devinfo_expire_time=1000", "watch", "--all", "--card", server}));
    run.read_until("connected P0M0");
    cards.silence("sv", 0, 0);
    const std::string lost = "path P0M0 connected -> disconnected (expired after ";
    const std::string& text = run.read_until(lost);
    EXPECT_TRUE(holds(text, lost)) << text;
}

TEST_F(Cards, BehindACableThatIsPulledHaveNoLink) {
    cards.silence("sv", 0, 0);
    program run(ctl({"--set", "devinfo_expire_time=100000", "watch", "--all", "--card", server}));
    run.read_until("connected P1M0");
    run_or_throw("ip link set qsim1 down");
    const std::string lost = "path P1M0 connected -> disconnected (link down on port 1)";
    const std::string& text = run.read_until(lost);
    EXPECT_TRUE(holds(text, lost)) << text;
}

TEST_F(Cards, AreSummedUpByAWatch) {
    program run(ctl({"--set", "devinfo_expire_time=100000", "watch"}));
    const std::string start = run.read_until("; changes follow, \"list\" shows the cards\n");
    EXPECT_TRUE(start.starts_with("heard in 3 s: ")) << start;
    ASSERT_TRUE(comes_true([&] {
        run.say("list");
        return holds(run.read_until("QNSV, "), "  C    -    C");
    }));
    run_or_throw("ip link set qsim1 down");
    EXPECT_TRUE(holds(run.read_until(" port 1 (qnm1): link down, "), "link down, "));
    run_or_throw("ip link set qsim1 up");
    EXPECT_TRUE(holds(run.read_until(" port 1 (qnm1): link up, "), "link up, "));
    run.say("quit");
    EXPECT_EQ(0, run.end());
}

}  // namespace
}  // namespace qnmctl
