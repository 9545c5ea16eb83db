// Each check on invented systems: where it finds nothing wrong, and what it finds where something
// is.
#include "doctor/doctor.h"

#include <gtest/gtest.h>
#include <sys/timex.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "common/tests/temporary_dir.h"
#include "doctor/checks.h"
#include "doctor/findings_text.h"
#include "doctor/log_checks.h"
#include "installation/log_properties.h"
#include "tests/sample_system.h"

namespace qnmctl {
namespace {

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// What the check of this name finds.
findings found_by(const std::string& name, const inspected& system) {
    findings own;
    for (const finding& one : examine(all_checks(), system)) {
        if (name == one.check) own.push_back(one);
    }
    return own;
}

// The worst of its findings, which contains `text`.
testing::AssertionResult finds(const std::string& name, severity rank, const std::string& text,
                               const inspected& system) {
    const findings found = found_by(name, system);
    for (const finding& one : found) {
        const bool helped = one.rank != severity::error || !one.remedy.empty();
        if (one.rank == rank && holds(one.text, text) && helped) {
            return testing::AssertionSuccess();
        }
    }
    return testing::AssertionFailure() << findings_text(found, {});
}

// ---- As a whole ---------------------------------------------------------------------------------

TEST(Doctor, FindsNothingWrongWithAGoodSystem) {
    const findings all = examine(all_checks(), sample_system());
    EXPECT_EQ(all.size(), count(all, severity::ok)) << findings_text(all, {});
    std::set<std::string> made;
    for (const finding& one : all)
        made.insert(one.check);
    EXPECT_EQ(all_checks().size(), made.size());  // each of them has something to say
}

TEST(Doctor, SurvivesASystemThatTellsNothing) {
    const findings all = examine(all_checks(), inspected{});
    EXPECT_GT(count(all, severity::error), 0U);
}

TEST(Doctor, GoesOnBehindACheckThatFails) {
    const auto fail = [](const inspected&, findings& found) {
        found.push_back({.text = "so far"});
        throw std::runtime_error("no way");
    };
    const auto pass = [](const inspected&, findings& found) { found.push_back({.text = "fine"}); };
    const check checks[] = {{"first", fail}, {"second", pass}};
    const findings all = examine(checks, inspected{});
    ASSERT_EQ(3U, all.size());
    EXPECT_EQ("so far", all[0].text);
    EXPECT_EQ(severity::error, all[1].rank);
    EXPECT_TRUE(holds(all[1].text, "no way"));
    EXPECT_STREQ("second", all[2].check);
}

TEST(Doctor, NamesOfChecksAreThoseOfTheSchema) {
    std::ifstream file(QNMCTL_SCHEMA);
    const auto schema = nlohmann::json::parse(file);
    std::set<std::string> described;
    for (const auto& name : schema.at("/$defs/record_finding/properties/check/enum"_json_pointer))
        described.insert(name.get<std::string>());
    std::set<std::string> made;
    for (const check& one : all_checks())
        EXPECT_TRUE(made.insert(one.name).second) << one.name;
    EXPECT_EQ(described, made);
}

TEST(Doctor, TextHasALineForTheFindingAndOneForTheRemedy) {
    const finding one = {.rank = severity::error,
                         .about = "qnm.conf",
                         .line = 7,
                         .text = "is wrong",
                         .remedy = "Mend it.",
                         .check = "config_line"};
    EXPECT_EQ(
        "error    config_line  qnm.conf:7: is wrong\n"
        "                      Mend it.\n"
        "0 ok, 0 notes, 0 warnings, 1 error\n",
        findings_text({one}, {}));
    EXPECT_TRUE(holds(findings_text({one}, {.coloured = true}), "\033[31merror\033[0m "));
}

TEST(Doctor, TextFitsTheTerminal) {
    finding one = {.text = "one two three four five six seven", .check = "link"};
    EXPECT_EQ(
        "ok       link         one two three four\n"
        "                      five six seven\n"
        "1 ok, 0 notes, 0 warnings, 0 errors\n",
        findings_text({one}, {.width = 42}));
}

// ---- Library, privileges, directory -------------------------------------------------------------

TEST(CheckLibrary, WantsTheVersionOfTheCommand) {
    inspected system = sample_system();
    system.library.path = "/usr/local/lib/libqnm.so.0.9.0";
    EXPECT_TRUE(finds("library", severity::warning, "libqnm 0.9.0", system));
    system.library.path = "/somewhere/libqnm.a";
    EXPECT_TRUE(finds("library", severity::note, "does not tell its version", system));
}

TEST(CheckPrivileges, TellsWhatIsMissing) {
    inspected system = sample_system();
    privileges& of = system.privileges;
    of = {.socket_error = EPERM, .program = "/usr/bin/qnmctl"};
    EXPECT_TRUE(finds("privileges", severity::error, "no privilege for raw sockets", system));
    EXPECT_TRUE(holds(found_by("privileges", system)[0].remedy, "setcap cap_net_raw+ep /usr/bin"));
    of.attainable = false;
    EXPECT_TRUE(holds(found_by("privileges", system)[0].remedy, "container"));
    of = {.permitted = true, .socket_error = EPERM};
    EXPECT_TRUE(finds("privileges", severity::error, "permitted, but not effective", system));
    of = {.effective = true, .permitted = true, .socket_error = EAFNOSUPPORT};
    EXPECT_TRUE(finds("privileges", severity::error, std::strerror(EAFNOSUPPORT), system));
    of = {.root = true, .effective = true, .permitted = true};
    EXPECT_TRUE(finds("privileges", severity::note, "this is root", system));
    EXPECT_TRUE(finds("privileges", severity::ok, "effective", system));
}

TEST(CheckDirectory, TellsWhatIsWrongWithIt) {
    inspected system = sample_system();
    system.directory_problem = obstacle{"is not a directory", "Name another."};
    EXPECT_TRUE(finds("directory", severity::error, "is not a directory", system));
    system.temporary = true;  // then nobody has asked for it
    EXPECT_TRUE(found_by("directory", system).empty());
}

// ---- Interfaces ---------------------------------------------------------------------------------

class CheckInterface : public testing::Test {
  protected:
    inspected system = sample_system();
    interface_facts& first = system.interfaces[0];
};

TEST_F(CheckInterface, FindsOneThatIsMissing) {
    first = {.state = {.name = "eht1", .error = ENODEV}};
    EXPECT_TRUE(finds("interface", severity::error, "no such interface", system));
    EXPECT_TRUE(holds(found_by("interface", system)[0].remedy, "Is eth1 meant?"));
    EXPECT_EQ(1U, found_by("link", system).size());  // nothing more is told of it
    EXPECT_EQ(1U, found_by("mtu", system).size());
}

TEST_F(CheckInterface, FindsWhatCannotBeAPort) {
    first.state.up = false;
    EXPECT_TRUE(finds("interface", severity::error, "is down", system));
    first = sample_interface("a234567890123456");
    EXPECT_TRUE(finds("interface", severity::error, "name is too long", system));
    first = sample_interface("eth1");
    first.state.hardware = ARPHRD_NONE;
    EXPECT_TRUE(finds("interface", severity::error, "no Ethernet interface", system));
    first.state.hardware = ARPHRD_LOOPBACK;
    EXPECT_TRUE(finds("interface", severity::note, "loopback", system));
    first.state.error = EPERM;
    EXPECT_TRUE(finds("interface", severity::error, "cannot be looked at", system));
}

TEST_F(CheckInterface, FindsOneThatIsNamedTwice) {
    system.interfaces[1] = first;
    EXPECT_TRUE(finds("interface", severity::warning, "both ports", system));
}

TEST_F(CheckInterface, FindsAMissingLink) {
    first.link.up = false;
    EXPECT_TRUE(finds("link", severity::warning, "has no link", system));
    first.link.error = EOPNOTSUPP;
    EXPECT_TRUE(finds("link", severity::error, "does not tell its link", system));
}

TEST_F(CheckInterface, FindsAnMtuThatIsTooSmall) {
    first.state.mtu = 478;
    EXPECT_EQ(2U, count(found_by("mtu", system), severity::ok));
    first.state.mtu = 477;
    EXPECT_TRUE(finds("mtu", severity::warning, "MTU 477, too small", system));
}

TEST_F(CheckInterface, TellsWhatVlanSettingsMean) {
    EXPECT_TRUE(finds("vlan", severity::ok, "libpcap puts them back", system));
    first.vlan_offload->on = false;
    EXPECT_TRUE(finds("vlan", severity::ok, "tags stay in the frames", system));
    first.vlan_filter = feature{.on = true};
    EXPECT_TRUE(finds("vlan", severity::note, "rx-vlan-filter is on", system));
    EXPECT_TRUE(holds(found_by("vlan", system)[1].remedy, "ethtool -K eth1 rx-vlan-filter off"));
    first.vlan_filter->fixed = true;
    EXPECT_TRUE(holds(found_by("vlan", system)[1].remedy, "type vlan id"));
    first.vlan_offload.reset();
    first.vlan_filter.reset();
    EXPECT_TRUE(finds("vlan", severity::note, "does not tell", system));
    first.driver = "802.1Q VLAN Support";
    EXPECT_TRUE(finds("vlan", severity::warning, "without the tag", system));
}

TEST_F(CheckInterface, TellsHowFramesAreCaptured) {
    EXPECT_TRUE(finds("capture", severity::ok, "immediate mode", system));
    EXPECT_TRUE(finds("capture", severity::ok, "libpcap version", system));
    first.capture->immediate = false;
    EXPECT_TRUE(finds("capture", severity::warning, "by the block", system));
    first.capture->in_blocks = false;
    EXPECT_TRUE(finds("capture", severity::ok, "at once", system));
    first.capture->problem = "out of luck";
    EXPECT_TRUE(finds("capture", severity::error, "out of luck", system));
    first.capture.reset();
    EXPECT_TRUE(finds("capture", severity::note, "was not opened", system));
}

TEST_F(CheckInterface, TellsWhoAccessesCardsByIt) {
    EXPECT_TRUE(finds("access", severity::ok, "no process", system));
    first.user = port_user{.pid = 4711, .name = "host"};
    EXPECT_TRUE(
        finds("access", severity::note, "process 4711 (host) accesses cards by it", system));
    first.user->pid = 0;
    EXPECT_TRUE(finds("access", severity::note, "that cannot be seen from here accesses", system));
    first.user = port_user{.manager = false, .pid = 4711, .name = "sh"};
    EXPECT_TRUE(finds("access", severity::warning, "process 4711 (sh) is no manager", system));
    EXPECT_TRUE(finds("access", severity::warning, "whether one does cannot be told", system));
    first.user.reset();
    first.name_taken = true;
    EXPECT_TRUE(finds("access", severity::warning, "a process that does not answer has", system));
}

TEST_F(CheckInterface, TellsWhoWorksWithOneThatHasGone) {
    system.left = {{.if_index = 7, .user = {.pid = 4711, .name = "host"}}};
    EXPECT_TRUE(finds("access", severity::error,
                      "process 4711 (host) works with an interface that has gone (index 7)",
                      system));
    system.left[0].if_index = 0;
    EXPECT_TRUE(finds("access", severity::error, "an interface that has gone: it is deaf", system));
}

TEST_F(CheckInterface, TellsWhoWorksWithOneThatIsNoPortAndMayHaveBeenRenamed) {
    system.left = {{.if_index = 7, .name = "eth7", .user = {.pid = 4711, .name = "host"}}};
    EXPECT_TRUE(finds("access", severity::note,
                      "process 4711 (host) works with this interface, which is none", system));
    first.state.error = ENODEV;
    EXPECT_TRUE(finds("access", severity::warning, "works with this interface", system));
    EXPECT_TRUE(holds(found_by("access", system).back().remedy, "renamed"));
}

// ---- Clock --------------------------------------------------------------------------------------

TEST(ClockStep, IsToldOnlyWhereTheReadingsLeaveNoDoubt) {
    EXPECT_EQ(0, clock_step({}));
    EXPECT_EQ(0, clock_step({{0, 500, 10}, {100, 600, 110}}));
    EXPECT_EQ(0, clock_step({{0, 500, 90}, {1000, 1560, 1090}}));  // a slow machine: 60 in doubt
    EXPECT_EQ(990, clock_step({{0, 500, 10}, {100, 1600, 110}}));
    EXPECT_EQ(-990, clock_step({{0, 5000, 10}, {100, 4100, 110}}));
    EXPECT_EQ(-990, clock_step({{0, 5000, 10}, {100, 5110, 110}, {200, 4210, 210}}));
}

TEST(CheckClock, TellsASteppedClock) {
    inspected system = sample_system();
    system.clock.samples[1].wall += 7'000'000'000;
    EXPECT_TRUE(finds("clock_step", severity::warning, "forward by 6999 ms", system));
    system.clock.samples[1].wall -= 9'000'000'000;
    EXPECT_TRUE(finds("clock_step", severity::warning, "back by 1999 ms", system));
}

TEST(CheckClock, TellsOneThatIsNotKept) {
    inspected system = sample_system();
    system.clock.synchronised = false;
    EXPECT_TRUE(finds("clock_sync", severity::note, "not synchronised", system));
    system.clock = {.samples = {}, .adjustment = TIME_INS, .synchronised = true};
    EXPECT_TRUE(finds("clock_sync", severity::note, "leap second", system));
    system.clock.adjustment = -1;
    EXPECT_TRUE(finds("clock_sync", severity::note, "does not tell", system));
}

// ---- Properties and logs ------------------------------------------------------------------------

class CheckLogs : public testing::Test {
  protected:
    void set(const std::string& text) { system.properties = sample_file("properties", text); }

    inspected system = sample_system();
};

TEST_F(CheckLogs, WantAPropertiesFileThatCanBeRead) {
    system.properties = {.name = "properties"};
    EXPECT_TRUE(finds("properties", severity::error, "no such file", system));
    system.properties.state = file_state::no_file;
    EXPECT_TRUE(finds("properties", severity::error, "no regular file", system));
    system.properties.state = file_state::link;
    EXPECT_TRUE(finds("properties", severity::warning, "symbolic link", system));
    system.properties.state = file_state::unreadable;
    system.properties.problem = "go away";
    EXPECT_TRUE(finds("properties", severity::error, "go away", system));
    set(sample_properties);
    system.properties.size = std::uintmax_t{1} << 30;
    EXPECT_TRUE(finds("properties", severity::warning, "1073741824 bytes", system));
}

TEST_F(CheckLogs, TellOfALinkInThePlaceOfALog) {
    system.logs[0].link = true;
    EXPECT_TRUE(finds("log_file", severity::note, "a report does not follow", system));
    const tools::temporary_dir dir;
    const std::string log = dir.path() / "log";
    EXPECT_FALSE(look_at_log(log).link);
    std::filesystem::create_symlink("elsewhere", log);
    EXPECT_TRUE(look_at_log(log).link);
}

std::vector<std::string> files_in(const std::string& properties) {
    return log_files(read_log_properties(properties));
}

TEST_F(CheckLogs, FollowTheLoggersToTheirFiles) {
    EXPECT_EQ((std::vector<std::string>{"/var/log/qnm/qnm.log", "/var/log/qnm/qnm_stats.log"}),
              files_in(sample_properties));
    EXPECT_EQ((std::vector<std::string>{"/a b\\c"}),
              files_in("! log4j.logger.logfile=ALL,NONE\n"
                       "  log4j.logger.logfile : ALL ,A, CON\r\n"
                       "log4j.appender.A=org.apache.log4j.FileAppender\r\n"
                       "log4j.appender.A.File = /a b\\\\c\r\n"
                       "log4j.appender.CON=org.apache.log4j.ConsoleAppender\n"));
    EXPECT_TRUE(files_in("").empty());
    EXPECT_TRUE(files_in("=\n:\n\\").empty());
}

TEST_F(CheckLogs, FindLoggersThatWriteNowhere) {
    set("");
    EXPECT_TRUE(finds("properties", severity::warning, "logger logfile is not there", system));
    set("log4j.logger.logfile=ALL\n");
    EXPECT_TRUE(finds("properties", severity::warning, "logger logfile has no appender", system));
    set("log4j.logger.logfile=ALL,LOG\n");
    EXPECT_TRUE(finds("properties", severity::error, "LOG, which is not defined", system));
    set("log4j.logger.logfile=ALL,LOG\nlog4j.appender.LOG=org.apache.log4j.FileAppender\n");
    EXPECT_TRUE(finds("properties", severity::error, "LOG, which has no file", system));
}

// The library goes on without such an appender, and its lines are lost.
TEST_F(CheckLogs, FindAppendersThatTheLogWouldNotTake) {
    const auto with = [&](const std::string& kind, const std::string& layout) {
        set("log4j.logger.logfile=ALL,LOG\nlog4j.appender.LOG=" + kind +
            "\nlog4j.appender.LOG.File=/var/log/qnm/qnm.log\n" +
            (layout.empty() ? "" : "log4j.appender.LOG.layout=" + layout + '\n'));
        return system;
    };
    const std::string package = "org.apache.log4j.";
    const std::string pattern = package + "PatternLayout";
    const auto is_well = [](const inspected& of) {
        return found_by("properties", of).front().rank == severity::ok;
    };
    EXPECT_TRUE(is_well(with(package + "RollingFileAppender", pattern)));
    EXPECT_TRUE(is_well(with(package + "rolling.RollingFileAppender", pattern)));
    EXPECT_TRUE(is_well(with("fileappender", "simplelayout")));
    EXPECT_TRUE(is_well(with(package + "net.XMLSocketAppender", "")));
    EXPECT_TRUE(finds("properties", severity::warning,
                      "whose class RolingFileAppender is not known",
                      with(package + "RolingFileAppender", pattern)));
    EXPECT_TRUE(finds("properties", severity::error, "LOG, which has no layout",
                      with(package + "RollingFileAppender", "")));
    EXPECT_TRUE(finds("properties", severity::error, "LOG, which has no layout",
                      with(package + "ConsoleAppender", "")));
    EXPECT_TRUE(finds("properties", severity::warning, "whose layout PaternLayout is not known",
                      with(package + "RollingFileAppender", package + "PaternLayout")));
}

TEST_F(CheckLogs, FindALevelThatHidesLines) {
    set("log4j.logger.logfile=warn,LOG\n");
    EXPECT_TRUE(finds("properties", severity::note, "level WARN", system));
}

TEST_F(CheckLogs, FindFilesThatCannotBeWritten) {
    system.logs[0].problem = "is a folder";
    EXPECT_TRUE(finds("log_file", severity::error, "is a folder", system));
    system.logs[0] = sample_log("qnm.log");
    EXPECT_TRUE(finds("log_file", severity::warning, "working directory", system));
    system.logs[0] = sample_log("/var/log/qnm/qnm.log");
    system.logs[0].folder_writable = false;
    EXPECT_TRUE(finds("log_file", severity::warning, "not renamed", system));
    system.logs[0] = sample_log("${HOME}/qnm.log");
    EXPECT_TRUE(finds("log_file", severity::note, "variable", system));
}

// Both files of the sample grow to 60 MiB each.
TEST_F(CheckLogs, FindTooLittleSpace) {
    constexpr std::uintmax_t needed = std::uintmax_t{120} << 20;
    const auto with = [&](std::uintmax_t free) {
        for (log_place& place : system.logs)
            place.free_bytes = free;
        return system;
    };
    EXPECT_TRUE(finds("free_space", severity::ok, "120 MiB together", with(needed)));
    EXPECT_EQ(1U, found_by("free_space", system).size());  // of both files
    EXPECT_TRUE(finds("free_space", severity::warning, "only 119 MiB", with(needed - 1)));
    EXPECT_TRUE(finds("free_space", severity::error, "is full", with(1000)));
    system.logs[0].files_can_be_made = false;
    EXPECT_TRUE(finds("free_space", severity::error, "inodes", system));
}

TEST_F(CheckLogs, FindAFileThatGrowsWithoutLimit) {
    set("log4j.logger.logfile=ALL,LOG\nlog4j.appender.LOG=org.apache.log4j.FileAppender\n"
        "log4j.appender.LOG.File=/var/log/qnm/qnm.log\n");
    EXPECT_TRUE(finds("free_space", severity::note,
                      "1024 MiB are free; the logs there grow without limit", system));
    EXPECT_EQ("Use a RollingFileAppender.", found_by("free_space", system).front().remedy);
    system.logs[0].free_bytes = std::uintmax_t{2} << 20;
    EXPECT_TRUE(finds("free_space", severity::warning, "only 2 MiB are free", system));
}

TEST_F(CheckLogs, LeaveTheFilesOfTheCommandItselfAlone) {
    set("log4j.logger.logfile=warn\n");
    system.logs[0].problem = "is a folder";
    system.temporary = true;
    for (const char* const check : {"properties", "log_file", "free_space"})
        EXPECT_TRUE(found_by(check, system).empty()) << check;
}

// ---- The dissector ------------------------------------------------------------------------------

TEST(CheckDissector, TellsRootWhereItIsNotLoaded) {
    inspected system = sample_system();
    dissector_facts& of = system.dissector;
    of.for_all = false;
    for (const char* const version : {"4.2.0", "4.4.19", "4.10.1", "5.0"}) {
        of.version = version;
        EXPECT_TRUE(finds("dissector", severity::note, "root", system)) << version;
        EXPECT_TRUE(holds(found_by("dissector", system)[0].remedy, "an ordinary user"));
    }
    for (const char* const version : {"", "3.6.20", "4.0.17"}) {
        of.version = version;
        EXPECT_TRUE(found_by("dissector", system).empty()) << version;
    }
}

TEST(CheckDissector, SaysNothingWhereTsharkDoesNotTellItsFolders) {
    inspected system = sample_system();
    system.dissector = {.version = "4.4.19"};
    EXPECT_TRUE(found_by("dissector", system).empty());
}

TEST(LookAtDissector, TakesVersionAndFolderFromWhatTsharkTells) {
    const tools::temporary_dir dir;
    const std::string folder = (dir.path() / "lua plugins").string();
    const std::string answer =
        "TShark (Wireshark) 4.4.19.\n\nCopyright 1998-2026\n"
        "Global Plugins:      \t/usr/lib/plugins/4.4\n"
        "Global Lua Plugins:  \t" +
        folder + "\nPersonal Extcap path:\t/root\n";
    dissector_facts found = look_at_dissector(answer);
    EXPECT_EQ("4.4.19", found.version);
    EXPECT_EQ(folder, found.folder);
    EXPECT_FALSE(found.for_all);
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/quillnet.lua") << "--";
    EXPECT_TRUE(look_at_dissector(answer).for_all);
    found = look_at_dissector("TShark (Wireshark) 4.0.17 (Git v4.0.17 packaged as 4.0.17-0).\n");
    EXPECT_EQ("4.0.17", found.version);
    EXPECT_EQ("", found.folder);
    EXPECT_EQ("", look_at_dissector("").version);
}

}  // namespace
}  // namespace qnmctl
