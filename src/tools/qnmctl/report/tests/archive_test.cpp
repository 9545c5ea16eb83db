// The archive of a report without a manager: the mask, the names, parts that fail, the file.
#include "report/archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>

#include "access/image.h"
#include "common/tests/temporary_dir.h"
#include "installation/config_file.h"
#include "installation/installation.h"
#include "report/parts.h"
#include "report/spelling.h"
#include "report/system.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t one = 0x02AB00001C00;
constexpr std::uint64_t other = 0x02AB00002C00;

// These get the first two pseudonyms, in this order.
known_addresses two_known() {
    known_addresses known;
    known.learn(one);
    known.learn(other);
    return known;
}

std::string masked(const std::string& text) {
    return id_mask(two_known()).text(text);
}

// ---- Texts --------------------------------------------------------------------------------------

struct spelt {
    const char* name;
    const char* clear;
    const char* masked;
};

constexpr spelt spellings[] = {
    {"Number", "id=0x02ab00001c00,", "id=0xfafafa000002,"},
    {"UpperCase", "0x02AB00001C00", "0xFAFAFA000002"},
    {"WithoutZeros", "id=0x2ab00001c00 end", "id=0xfafafa000002 end"},
    {"WithMoreZeros", "0x000002ab00001c00", "0xfafafa000002"},
    {"Bare", "card-02ab00001c00.log", "card-fafafa000002.log"},
    {"Decimal", "id 2933462670336", "id 275955843072002"},
    {"Mac", "02:ab:00:00:1c:00", "fa:fa:fa:00:00:02"},
    {"MacUpperCase", "02:AB:00:00:1C:00", "FA:FA:FA:00:00:02"},
    {"MacWithHyphens", "02-ab-00-00-1c-00", "fa-fa-fa-00-00-02"},
    {"SecondPath", "02:ab:00:00:1c:01", "fa:fa:fa:00:00:03"},
    {"Groups", "02ab.0000.1c00", "fafa.fa00.0002"},
    {"Bytes", "00 11 02 ab 00 00 1c 00 22", "00 11 fa fa fa 00 00 02 22"},
    {"BytesReversed", "00 1c 00 00 ab 02", "02 00 00 fa fa fa"},
    {"NumberReversed", "0x001c0000ab02", "0x020000fafafa"},
    {"InADump", "001102ab00001c0022", "0011fafafa00000222"},
    {"AtAnOddPlace", "f02ab00001c00f", "ffafafa000002f"},
    {"Other", "02:ab:00:00:2c:00 02:ab:00:00:1c:00", "fa:fa:fa:00:00:04 fa:fa:fa:00:00:02"},
    {"Broadcast", "ff:ff:ff:ff:ff:ff", "ff:ff:ff:ff:ff:ff"},
    {"Nothing", "2026-03-01 14:03:21,123 INFO  0x1f 4096",
     "2026-03-01 14:03:21,123 INFO  0x1f 4096"},
    {"Empty", "", ""},
};

class Spellings : public testing::TestWithParam<spelt> {};

TEST_P(Spellings, AreMasked) {
    EXPECT_EQ(GetParam().masked, masked(GetParam().clear));
}

TEST_P(Spellings, ShowTheAddressUntilTheyAre) {
    const id_mask mask(two_known());
    EXPECT_EQ(std::strcmp(GetParam().clear, GetParam().masked) != 0,
              mask.shows_in(GetParam().clear));
    EXPECT_FALSE(mask.shows_in(GetParam().masked));
}

INSTANTIATE_TEST_SUITE_P(All, Spellings, testing::ValuesIn(spellings),
                         [](const auto& of) { return std::string(of.param.name); });

TEST(ReportMask, LearnsWhatIsUnmistakable) {
    known_addresses known;
    known.learn_from_text(
        "0x02ab00001c00 02:ab:00:00:2c:00 02-ab-00-00-3c-00 "
        "02ab00004c00 02 ab 00 00 5c 00 ff:ff:ff:ff:ff:ff 01:00:5e:00:00:01 00:00:00:00:00:00 "
        "0x02ab00001c01");
    EXPECT_EQ((std::vector<std::uint64_t>{one, other, 0x02AB00003C00}), known.in_order());
}

TEST(ReportMask, TakesNoAddressForAPseudonymThatIsOne) {
    known_addresses known;
    known.learn(one);
    known.learn(0xFAFAFA000002);
    const id_mask mask(known);
    EXPECT_EQ("0xfafafa000004 0xfafafa000006", mask.text("0x02ab00001c00 0xfafafa000002"));
}

TEST(ReportMask, LeavesShortNumbersAlone) {
    known_addresses known;
    known.learn(0x10);
    EXPECT_EQ("0x10 16 0xfafafa000002", id_mask(known).text("0x10 16 0x000000000010"));
}

// ---- Captures -----------------------------------------------------------------------------------

void put(std::string& to, std::uint32_t value, std::size_t bytes = 4) {
    to.append(reinterpret_cast<const char*>(&value), bytes);  // this machine's order
}

std::string block(std::uint32_t type, std::string body) {
    std::string made;
    body.resize((body.size() + 3) / 4 * 4);
    put(made, type);
    put(made, static_cast<std::uint32_t>(body.size() + 12));
    made += body;
    put(made, static_cast<std::uint32_t>(body.size() + 12));
    return made;
}

std::string section() {
    std::string body;
    put(body, 0x1A2B3C4D);
    put(body, 1);
    body.append(8, '\xff');
    return block(0x0A0D0D0A, body) + block(1, std::string("\1\0\0\0\0\0\0\0", 8));
}

// A frame in a block of its own, with a comment.
std::string packet(const std::string& frame, const std::string& comment = "") {
    std::string body(12, '\0');
    put(body, static_cast<std::uint32_t>(frame.size()));
    put(body, static_cast<std::uint32_t>(frame.size()));
    body += frame;
    body.resize((body.size() + 3) / 4 * 4);
    put(body, 1, 2);
    put(body, static_cast<std::uint32_t>(comment.size()), 2);
    body += comment;
    return block(6, body);
}

std::string bytes_of(std::uint64_t address) {
    std::string bytes;
    for (int shift = 40; shift >= 0; shift -= 8)
        bytes += static_cast<char>(address >> shift);
    return bytes;
}

std::string reversed(std::string bytes) {
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

constexpr std::uint64_t broadcast = 0xFFFFFFFFFFFF;

std::string frame(const std::string& payload) {
    return bytes_of(broadcast) + bytes_of(one) + payload;
}

TEST(ReportMask, MasksBytesOfACapture) {
    const std::string clear = section() + packet(frame("ab" + bytes_of(other | 1) + "c")) +
                              packet(frame(reversed(bytes_of(other))), "from 0x02ab00001c00");
    const std::string wanted =
        section() +
        packet(bytes_of(broadcast) + bytes_of(0xFAFAFA000002) + "ab" + bytes_of(0xFAFAFA000005) +
               "c") +
        packet(bytes_of(broadcast) + bytes_of(0xFAFAFA000002) + reversed(bytes_of(0xFAFAFA000004)),
               "from 0xfafafa000002");
    EXPECT_EQ(wanted, id_mask(two_known()).capture(clear));
}

TEST(ReportMask, MasksACaptureOfTheOtherByteOrder) {
    const auto word = [](std::uint32_t value) {
        std::string bytes;
        put(bytes, value);
        return reversed(bytes);
    };
    const auto capture = [&](const std::string& frame) {
        const auto size = static_cast<std::uint32_t>(frame.size());
        return word(0x0A0D0D0A) + word(28) + word(0x1A2B3C4D) + word(0x00010000) +
               std::string(8, '\xff') + word(28) + word(6) + word(32 + size) +
               std::string(12, '\0') + word(size) + word(size) + frame + word(32 + size);
    };
    const std::string clear = capture(frame("ab" + bytes_of(other)));
    EXPECT_EQ(
        capture(bytes_of(broadcast) + bytes_of(0xFAFAFA000002) + "ab" + bytes_of(0xFAFAFA000004)),
        id_mask(two_known()).capture(clear));
    known_addresses known;
    known.learn_from_capture(clear);
    EXPECT_EQ(std::vector<std::uint64_t>{one}, known.in_order());
}

TEST(ReportMask, LearnsAddressesFromHeadersAndAnnouncements) {
    const std::string head("\x80\0\0\0\0\0", 6);
    const std::string server = std::string("\x10\0\0\0\0\0\0\0\0\0", 10) + std::string(22, '\0') +
                               bytes_of(other) + std::string(22, '\0') + bytes_of(0x02AB00003C00) +
                               std::string(20, '\0');
    const std::string device = std::string("\x18\0\0\0\0\1\0\0\0\0\0\0", 12) +
                               bytes_of(0x02AB00004C00) + std::string(8, '\0');
    known_addresses known;
    known.learn_from_capture(section() + packet(frame(head + server)) +
                             packet(frame(head + device), "02:ab:00:00:5c:00"));
    EXPECT_EQ(
        (std::vector<std::uint64_t>{one, other, 0x02AB00003C00, 0x02AB00004C00, 0x02AB00005C00}),
        known.in_order());
}

TEST(ReportMask, RefusesADamagedCapture) {
    const id_mask mask(two_known());
    const std::string whole = section() + packet(frame("payload"));
    EXPECT_TRUE(mask.capture(whole));
    EXPECT_FALSE(mask.capture(whole.substr(0, whole.size() - 1)));
    EXPECT_FALSE(mask.capture("no capture at all"));
    std::string long_frame = whole;
    long_frame[section().size() + 20] = '\x7f';  // of the captured length
    EXPECT_FALSE(mask.capture(long_frame));
}

// Its decimal pseudonym is longer than the number.
TEST(ReportMask, RefusesACaptureWhoseTextWouldBeLonger) {
    EXPECT_FALSE(id_mask(two_known()).capture(section() + packet(frame(""), "id 2933462670336")));
}

// ---- Contents -----------------------------------------------------------------------------------

report_contents sample() {
    report_contents contents;
    contents.members = {
        {"conf/qnm.conf", "ether_port=eth1\n", "configuration"},
        {"logs/02ab00001c00.log", "id=0x02ab00001c00\n", "logs"},
        {"capture.pcapng", section() + packet(frame("x")), "capture", member_form::capture}};
    contents.missing = {{"cards", "card 0x02ab00001c00 is in the way\nRemove it."}};
    contents.when = from_milliseconds(1'700'000'000'000);
    return contents;
}

TEST(ReportArchive, IsMaskedInNamesMembersAndReasons) {
    report_contents contents = sample();
    mask_report(contents);
    EXPECT_TRUE(contents.masked);
    ASSERT_EQ(3U, contents.members.size());
    EXPECT_EQ("ether_port=eth1\n", contents.members[0].bytes);
    EXPECT_EQ("logs/fafafa000002.log", contents.members[1].name);
    EXPECT_EQ("id=0xfafafa000002\n", contents.members[1].bytes);
    EXPECT_EQ(std::string::npos, contents.members[2].bytes.find(bytes_of(one)));
    EXPECT_EQ("card 0xfafafa000002 is in the way\nRemove it.", contents.missing[0].reason);
}

TEST(ReportArchive, GoesWithoutACaptureThatCannotBeMasked) {
    report_contents contents = sample();
    contents.members[2].bytes += "?";
    mask_report(contents);
    EXPECT_EQ(2U, contents.members.size());
    ASSERT_EQ(2U, contents.missing.size());
    EXPECT_EQ("capture", contents.missing[1].part);
}

TEST(ReportArchive, SaysWhatIsMissing) {
    report_contents contents = sample();
    add_manifest(contents);
    ASSERT_EQ(5U, contents.members.size());
    EXPECT_EQ("problems.txt", contents.members[3].name);
    EXPECT_EQ("cards: card 0x02ab00001c00 is in the way\n  Remove it.\n",
              contents.members[3].bytes);
    const json manifest = json::parse(contents.members[4].bytes);
    EXPECT_EQ(false, manifest.at("masked"));
    EXPECT_EQ(4U, manifest.at("members").size());
    EXPECT_EQ("cards", manifest.at("missing").at(0).at("part"));
}

TEST(ReportArchive, SaysThatNothingIsMissing) {
    report_contents contents;
    add_manifest(contents);
    EXPECT_EQ("Nothing is missing.\n", contents.members.front().bytes);
}

TEST(ReportArchive, IsNamedByLocalTime) {
    setenv("TZ", "UTC-1", 1);
    tzset();
    EXPECT_EQ("qnm-report-20231114-231320", report_name(from_milliseconds(1'700'000'000'000)));
}

using unpacked_files = std::map<std::string, std::string>;

unpacked_files unpacked(const std::string& bytes) {
    unpacked_files files;
    archive* const from = archive_read_new();
    archive_read_support_filter_gzip(from);
    archive_read_support_format_tar(from);
    EXPECT_EQ(ARCHIVE_OK, archive_read_open_memory(from, bytes.data(), bytes.size()));
    archive_entry* entry = nullptr;
    while (archive_read_next_header(from, &entry) == ARCHIVE_OK) {
        std::string contents(static_cast<std::size_t>(archive_entry_size(entry)), '\0');
        EXPECT_EQ(static_cast<la_ssize_t>(contents.size()),
                  archive_read_data(from, contents.data(), contents.size()));
        files[archive_entry_pathname(entry)] = contents;
    }
    archive_read_free(from);
    return files;
}

TEST(ReportArchive, HoldsEveryMemberInItsFolder) {
    const report_contents contents = sample();
    const unpacked_files files = unpacked(archive_bytes(contents));
    EXPECT_EQ(contents.members.size(), files.size());
    for (const report_member& member : contents.members)
        EXPECT_EQ(member.bytes, files.at(report_name(contents.when) + '/' + member.name));
}

// ---- Parts --------------------------------------------------------------------------------------

void add_one(const report_sources&, const char* part, report_contents& to) {
    to.members.push_back({"one", "1", part});
}
void add_half(const report_sources&, const char* part, report_contents& to) {
    to.members.push_back({"half", "0.5", part});
    throw error("the other half is away");
}
void add_surprise(const report_sources&, const char*, report_contents&) {
    throw fs::filesystem_error("odd", std::error_code());
}

TEST(ReportParts, FailWithoutTheOthers) {
    constexpr report_part parts[] = {{"a", add_half}, {"b", add_surprise}, {"c", add_one}};
    const installation where;
    const report_contents found = collect_report(parts, {.where = where});
    ASSERT_EQ(2U, found.members.size());
    EXPECT_EQ("half", found.members[0].name);
    EXPECT_EQ("c", found.members[1].part);
    ASSERT_EQ(2U, found.missing.size());
    EXPECT_EQ("the other half is away", found.missing[0].reason);
    EXPECT_EQ("b", found.missing[1].part);
}

// Where there is neither an installation nor a manager, each part that needs one says so.
TEST(ReportParts, SayWhyTheyAreNotThere) {
    const tools::temporary_dir empty;
    const installation where{.temporary = {}, .dir = empty.path(), .log = {}, .stats = {}};
    const report_contents found =
        collect_report(report_parts(), {.where = where, .why_not_running = "no privilege"});
    std::map<std::string, std::string> reasons;
    for (const missing_part& part : found.missing)
        reasons[part.part] = part.reason;
    for (const char* const part : {"cards", "statistics", "events", "log of this report"})
        EXPECT_EQ("no privilege", reasons[part]) << part;
    EXPECT_EQ("there is no file " + where.properties().string(), reasons["properties"]);
    EXPECT_EQ(reasons["properties"], reasons["logs"]);
    EXPECT_EQ("there is no file " + where.config().string() + ", so the defaults hold",
              reasons["configuration"]);
    EXPECT_EQ("versions.json", found.members.front().name);
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Lines of a properties file.
std::string appender(const std::string& logger, const fs::path& file) {
    const std::string key = "log4j.appender." + logger;
    return "log4j.logger." + logger + "=ALL, " + logger + '\n' + key +
           "=org.apache.log4j.FileAppender\n" + key + ".File=" + file.string() + '\n';
}

TEST(ReportParts, TakeOneLogWithoutTheOther) {
    const tools::temporary_dir dir;
    fs::create_directory(dir.path() / "conf");
    std::ofstream(dir.path() / "qnm.log") << "a line\n";
    std::ofstream(dir.path() / properties_name) << appender("logfile", dir.path() / "qnm.log")
                                                << appender("syslogfile", dir.path() / "none.log");
    const installation where{.temporary = {}, .dir = dir.path(), .log = {}, .stats = {}};
    const report_contents found = collect_report(report_parts(), {.where = where});
    const auto log = std::find_if(found.members.begin(), found.members.end(),
                                  [](const report_member& of) { return of.part == "logs"; });
    ASSERT_NE(found.members.end(), log);
    EXPECT_EQ("logs/qnm.log", log->name);
    EXPECT_EQ("a line\n", log->bytes);
    std::string reasons;
    for (const missing_part& part : found.missing)
        if (part.part == "logs") reasons += part.reason + '\n';
    EXPECT_EQ("there is no file " + (dir.path() / "none.log").string() + '\n' +
                  where.properties().string() + " names no file for the logger statslogfile\n",
              reasons);
}

TEST(ReportParts, HaveNamesOfTheirOwn) {
    const tools::temporary_dir dir;
    fs::create_directory(dir.path() / "conf");
    for (const char* const folder : {"a", "b"}) {
        fs::create_directory(dir.path() / folder);
        std::ofstream(dir.path() / folder / "report.log") << folder;
    }
    std::ofstream(dir.path() / "log") << "own";
    std::ofstream(dir.path() / properties_name)
        << appender("logfile", dir.path() / "a" / "report.log")
        << appender("syslogfile", dir.path() / "b" / "report.log");
    const installation where{.temporary = {}, .dir = dir.path(), .log = {}, .stats = {}};
    const installation running{
        .temporary = {}, .dir = dir.path(), .log = dir.path() / "log", .stats = {}};
    report_contents found;
    for (const report_part& part : report_parts()) {
        if (part.name == std::string("logs") || part.name == std::string("log of this report"))
            part.add({.where = where, .running = &running}, part.name, found);
    }
    std::map<std::string, std::string> logs;
    for (const report_member& member : found.members)
        logs[member.name] = member.bytes;
    const std::map<std::string, std::string> wanted = {
        {"logs/report.log", "a"}, {"logs/report-2.log", "b"}, {"logs/report-3.log", "own"}};
    EXPECT_EQ(wanted, logs);
}

// An installation whose log is whatever a test puts in its place.
class ReportLogs : public testing::Test {
  protected:
    ReportLogs() {
        fs::create_directory(dir.path() / "conf");
        std::ofstream(dir.path() / properties_name) << appender("logfile", log);
        where.dir = dir.path();
    }

    // The logs, and why any is missing.
    std::map<std::string, std::string> taken(std::string& reasons) const {
        const report_contents found = collect_report(report_parts(), {.where = where});
        std::map<std::string, std::string> logs;
        for (const report_member& member : found.members)
            if (member.part == "logs") logs[member.name] = member.bytes;
        for (const missing_part& part : found.missing)
            if (part.part == "logs") reasons += part.reason + '\n';
        return logs;
    }
    void leaves_out(const std::string& why) const {
        std::string reasons;
        EXPECT_TRUE(taken(reasons).empty());
        EXPECT_TRUE(holds(reasons, log + why + '\n')) << reasons;
    }

    tools::temporary_dir dir;
    std::string log = dir.path() / "qnm.log";
    installation where;
};

TEST_F(ReportLogs, AreRegularFilesAlone) {
    std::ofstream(dir.path() / "secret") << "a secret\n";
    fs::create_symlink(dir.path() / "secret", log);
    leaves_out(" is a symbolic link, which is not followed");
    fs::remove(log);
    ASSERT_EQ(0, mkfifo(log.c_str(), 0600));
    leaves_out(" is a FIFO, not a regular file");
}

TEST_F(ReportLogs, HaveTheOneThatWasRotatedLastBesideThem) {
    std::ofstream(log) << "new\n";
    std::ofstream(log + ".1") << "old\n";
    std::ofstream(log + ".2") << "older\n";
    std::string reasons;
    const std::map<std::string, std::string> wanted = {{"logs/qnm.log", "new\n"},
                                                       {"logs/qnm.log.1", "old\n"}};
    EXPECT_EQ(wanted, taken(reasons));
    fs::remove(log + ".1");
    fs::create_symlink(log, log + ".1");
    EXPECT_EQ(1U, taken(reasons).size());
    EXPECT_TRUE(holds(reasons, log + ".1 is a symbolic link")) << reasons;
}

TEST_F(ReportLogs, TellWhatWasCutOff) {
    std::ofstream(log) << std::string(300000, 'x') << "\nthe end\n";
    std::string reasons;
    EXPECT_EQ("the end\n", taken(reasons)["logs/qnm.log"]);
    EXPECT_TRUE(holds(reasons, log + " has 300009 bytes; the archive has the last 8 of them\n"))
        << reasons;
}

// Anyone who can change that file could name any file in it.
TEST_F(ReportLogs, AreNotTakenOnAnothersWord) {
    std::ofstream(log) << "a secret\n";
    fs::permissions(where.properties(), fs::perms::all);
    leaves_out(
        " belongs to another user than " + where.properties().string() +
        ", which others can change\nGive that one to root, or have its owner make the report.");
    fs::permissions(where.properties(), fs::perms::owner_all);
    std::string reasons;
    EXPECT_EQ("a secret\n", taken(reasons)["logs/qnm.log"]);
}

TEST_F(ReportLogs, AreNotTakenByAFurtherNameThatOthersCouldHaveGiven) {
    std::ofstream(dir.path() / "secret") << "a secret\n";
    fs::create_hard_link(dir.path() / "secret", log);
    std::string reasons;
    EXPECT_EQ("a secret\n", taken(reasons)["logs/qnm.log"]);
    fs::permissions(dir.path(), fs::perms::all);
    leaves_out(" has other names, too, and others can change its folder");
}

TEST(ReportParts, TakeTheEndOfALogFromALinesStart) {
    EXPECT_EQ("three\n", last_part("one\ntwo\nthree\n", 7));
    EXPECT_EQ("two\nthree\n", last_part("one\ntwo\nthree\n", 10));
    EXPECT_EQ("one\n", last_part("one\n", 4));
    EXPECT_EQ("ne", last_part("one", 2));
    const tools::temporary_dir dir;
    const std::string name = dir.path() / "log";
    std::ofstream(name) << "one\ntwo\nthree\n";
    EXPECT_EQ("two\nthree\n", read_file_end(name, 10).text);
    EXPECT_EQ("three\n", read_file_end(name, 9).text);
    EXPECT_EQ("one\ntwo\nthree\n", read_file_end(name, 100).text);
    EXPECT_EQ(14U, read_file_end(name, 9).size);
    EXPECT_THROW(read_file_end(dir.path(), 10), error);
}

// ---- System -------------------------------------------------------------------------------------

TEST(ReportSystem, TellsOfThePortsInterface) {
    const json port = port_json(1, "lo").value();
    EXPECT_EQ(1, port.at("port"));
    EXPECT_EQ("00:00:00:00:00:00", port.at("mac"));
    EXPECT_EQ(16U, port.at("counters").size());
    EXPECT_TRUE(port.at("counters").at("rx_bytes").is_number());
    EXPECT_FALSE(port_json(0, "qnmctl-none"));
}

TEST(ReportSystem, KnowsTheDistribution) {
    EXPECT_EQ("Some System 12", distribution_name("ID=x\nPRETTY_NAME=\"Some System 12\"\n"));
    EXPECT_EQ("", distribution_name("ID=x\n"));
}

TEST(ReportSystem, KnowsVersions) {
    const json versions = versions_json();
    EXPECT_EQ(versions.at("qnmctl"), versions.at("libqnm").at("version"));
    const std::string file = versions.at("libarchive").at("file");
    EXPECT_NE(std::string::npos, file.find("libarchive.so"));
    EXPECT_FALSE(versions.at("kernel").at("release").get<std::string>().empty());
}

TEST(ReportSystem, KnowsInterfaces) {
    const auto loopback = port_json(0, "lo");
    ASSERT_TRUE(loopback);
    EXPECT_EQ("00:00:00:00:00:00", loopback->at("mac"));
    EXPECT_TRUE(loopback->at("counters").contains("rx_bytes"));
    EXPECT_FALSE(port_json(0, "no-such-port"));
    EXPECT_FALSE(port_json(0, "a-name-that-is-too-long"));
}

// ---- The file -----------------------------------------------------------------------------------

class ReportFile : public testing::Test {
  protected:
    std::string file() const { return dir.path() / "report.tar.gz"; }
    std::size_t files() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()));
    }

    tools::temporary_dir dir;
};

TEST_F(ReportFile, IsForItsOwnerAlone) {
    new_file made(file(), {.mode = 0600, .replaces = false});
    made.commit("contents");
    EXPECT_EQ("contents", read_text(file()));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file()).permissions());
    EXPECT_EQ(1U, files());
}

TEST_F(ReportFile, ReplacesAnotherOnRequestAlone) {
    std::ofstream(file()) << "old";
    fs::permissions(file(), fs::perms::all);
    EXPECT_THROW(new_file(file(), {.mode = 0600, .replaces = false}), error);
    EXPECT_EQ("old", read_text(file()));
    new_file(file(), {.mode = 0600}).commit("new");
    EXPECT_EQ("new", read_text(file()));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file()).permissions());
    EXPECT_EQ(1U, files());
}

TEST_F(ReportFile, ReplacesNoneThatCameMeanwhile) {
    new_file made(file(), {.mode = 0600, .replaces = false});
    std::ofstream(file()) << "came meanwhile";
    EXPECT_THROW(made.commit("contents"), error);
    EXPECT_EQ("came meanwhile", read_text(file()));
}

// A limit on the size of files stands for a disk that is full.
TEST_F(ReportFile, LeavesNothingBehindWhenThereIsNoSpace) {
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{.rlim_cur = 4096, .rlim_max = old.rlim_max};
    std::string said;
    try {
        new_file made(file(), {.mode = 0600, .replaces = false});
        setrlimit(RLIMIT_FSIZE, &small);
        made.commit(std::string(8192, 'x'));
    } catch (const error& e) {
        said = e.what();
    }
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_TRUE(said.starts_with("cannot write " + file())) << said;
    EXPECT_EQ(0U, files());
}

}  // namespace
}  // namespace qnmctl
