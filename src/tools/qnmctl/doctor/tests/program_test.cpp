// The doctor as a program, on cables of a private network namespace and on files of every sort.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "doctor/doctor.h"
#include "output/text.h"
#include "tests/program.h"

namespace qnmctl {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// An installation directory without any fault; a shell lays out the cables.
class DoctorProgram : public NamespaceTest {
  protected:
    void SetUp() override {
        NamespaceTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        fs::create_directory(dir.path() / "conf");
        chmod(dir.path().c_str(), 0755);
        write(config, "ether_port = qnm0,qnm1\n");
        const std::string log = (dir.path() / "qnm.log").string();
        std::string text;
        for (const std::string name : {"logfile", "syslogfile", "statslogfile"})
            text += "log4j.logger." + name + "=ALL, LOG\n";
        write(properties, text + "log4j.appender.LOG=org.apache.log4j.FileAppender\n" +
                              "log4j.appender.LOG.File=" + log +
                              "\nlog4j.appender.LOG.layout=org.apache.log4j.SimpleLayout\n");
    }

    static void write(const fs::path& file, const std::string& text) {
        std::ofstream(file, std::ios::binary) << text;
    }

    // What the doctor prints, run by words that end with the command; `status` is checked.
    json examine_by(words by, int status) {
        words all = {QNM_IN_NETNS, "/bin/sh", "-c",
                     "for port in 0 1; do"
                     "  ip link add qnm$port type veth peer name qsim$port &&"
                     "  ip link set qnm$port up && ip link set qsim$port up || exit 1;"
                     "done; " +
                         cables + " exec \"$@\"",
                     "sh"};
        for (const char* const word : {"--dir", dir.path().c_str(), "doctor", "-o", "json"})
            by.emplace_back(word);
        all.insert(all.end(), by.begin(), by.end());
        program run(all);
        const std::string printed = run.read_all();
        EXPECT_EQ(status, run.end()) << printed << run.errors();
        const json document = json::parse(printed, nullptr, false);
        EXPECT_TRUE(document.is_object()) << printed << run.errors();
        return document.is_object() ? document.at("records") : json::array();
    }
    json examine_here(int status) { return examine_by(invocation({}), status); }

    // Whether a finding of this check and severity has the text.
    static testing::AssertionResult finds(const json& records, const std::string& check,
                                          const std::string& severity, const std::string& text) {
        for (const json& one : records) {
            if (one.at("record") == "finding" && one.at("check") == check &&
                one.at("severity") == severity && holds(one.at("text"), text)) {
                return testing::AssertionSuccess();
            }
        }
        return testing::AssertionFailure() << records.dump(1);
    }

    tools::temporary_dir dir;
    fs::path config = dir.path() / "conf/qnm.conf";
    fs::path properties = dir.path() / "conf/qnm_log4c.properties";
    std::string cables = {};  // a shell's command, with a semicolon behind it
};

TEST_F(DoctorProgram, FindsAWorkingSystemWell) {
    const json records = examine_here(exit_ok);
    EXPECT_TRUE(finds(records, "library", "ok", "libqnm"));
    EXPECT_TRUE(finds(records, "privileges", "ok", "CAP_NET_RAW"));
    EXPECT_TRUE(finds(records, "config_line", "ok", "ether_port = qnm0,qnm1"));
    EXPECT_TRUE(finds(records, "interface", "ok", "Ethernet"));
    EXPECT_TRUE(finds(records, "link", "ok", "has a link"));
    EXPECT_TRUE(finds(records, "vlan", "ok", "rx-vlan-offload"));
    EXPECT_TRUE(finds(records, "capture", "ok", "delivers frames at once"));
    EXPECT_TRUE(finds(records, "log_file", "ok", "can be written"));
    EXPECT_EQ("summary", records.back().at("record"));
    EXPECT_FALSE(fs::exists(dir.path() / "qnm.log"));  // looking makes none
}

TEST_F(DoctorProgram, FindsAnInterfaceThatIsDownAndOneThatIsMissing) {
    cables = "ip link set qnm0 down;";
    write(config, "ether_port = qnm0,qmn1\n");
    const json records = examine_here(exit_unwell);
    EXPECT_TRUE(finds(records, "interface", "error", "is down"));
    EXPECT_TRUE(finds(records, "interface", "error", "no such interface"));
    EXPECT_TRUE(finds(records, "capture", "note", "was not opened"));
}

TEST_F(DoctorProgram, FindsAMissingLinkAndASmallMtu) {
    cables = "ip link set qsim0 down && ip link set qnm1 mtu 400 || exit 1;";
    const json records = examine_here(exit_ok);
    EXPECT_TRUE(finds(records, "link", "warning", "has no link"));
    EXPECT_TRUE(finds(records, "mtu", "warning", "MTU 400"));
}

TEST_F(DoctorProgram, NamesTheKeyThatIsMeant) {
    write(config, "ether_port = qnm0,qnm1\n\n  # note\ntag_mxa = 7\n");
    const json records = examine_here(exit_unwell);
    for (const json& one : records) {
        if (one.at("record") != "finding" || one.at("severity") != "error") continue;
        EXPECT_EQ("config_line", one.at("check"));
        EXPECT_EQ(config.string(), one.at("about").get<std::string>());
        EXPECT_TRUE(one.at("line") == 3 || one.at("line") == 4);
    }
    EXPECT_EQ(2, records.back().at("errors"));
    EXPECT_TRUE(holds(records.dump(), "Is tag_max meant?"));
}

// The programs are where the user can reach them, wherever the build tree is.
TEST_F(DoctorProgram, TellsAUserWithoutPrivilegesWhatIsMissing) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const std::string own = dir.path() / "qnmctl";
    fs::copy_file(invocation({})[0], own);
    fs::copy_file(QNM_LIBRARY, dir.path() / "libqnm.so.1");
    chmod(properties.c_str(), 0600);
    const std::string env = "LD_LIBRARY_PATH=" + dir.path().string();
    const words user = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    words by = user;
    by.insert(by.end(),
              {"--no-new-privs", "--inh-caps=-all", "--bounding-set=-all", "env", env, own});
    const json records = examine_by(by, exit_unwell);
    EXPECT_TRUE(finds(records, "privileges", "error", "no privilege for raw sockets"));
    EXPECT_TRUE(finds(records, "properties", "error", "cannot be read"));
    EXPECT_TRUE(finds(records, "config_file", "ok", "can be read"));
    EXPECT_TRUE(finds(records, "interface", "ok", "Ethernet"));
    chmod(properties.c_str(), 0644);
    EXPECT_TRUE(finds(examine_by(by, exit_unwell), "log_file", "error", "cannot be made"));
}

// In the namespace it is root. The program that stands for tshark answers as one that is installed.
TEST_F(DoctorProgram, TellsRootThatTsharkLeavesTheDissectorOut) {
    fs::create_directory(dir.path() / "bin");
    const fs::path tshark = dir.path() / "bin/tshark";
    write(tshark,
          "#!/bin/sh\n[ \"$1\" = --version ] && echo 'TShark (Wireshark) 4.4.19.' ||"
          " echo 'Global Lua Plugins: " +
              dir.path().string() + "'\n");
    chmod(tshark.c_str(), 0755);
    cables = "PATH=" + (dir.path() / "bin").string() + ":$PATH;";
    EXPECT_TRUE(finds(examine_here(exit_ok), "dissector", "note", "tshark 4.4.19"));
    write(dir.path() / "quillnet.lua", "--\n");
    EXPECT_TRUE(finds(examine_here(exit_ok), "dissector", "ok", dir.path().string()));
}

// ---- Files of every sort ------------------------------------------------------------------------

TEST_F(DoctorProgram, SurvivesDirectoriesInPlaceOfFiles) {
    for (const fs::path& file : {config, properties}) {
        fs::remove(file);
        fs::create_directory(file);
    }
    const json records = examine_here(exit_unwell);
    EXPECT_TRUE(finds(records, "config_file", "error", "no regular file"));
    EXPECT_TRUE(finds(records, "properties", "error", "no regular file"));
}

TEST_F(DoctorProgram, SurvivesPipesThatNobodyWritesTo) {
    for (const fs::path& file : {config, properties}) {
        fs::remove(file);
        ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    }
    EXPECT_TRUE(finds(examine_here(exit_unwell), "config_file", "error", "no regular file"));
}

TEST_F(DoctorProgram, SurvivesFilesThatAreNoText) {
    const std::string program = invocation({})[0];
    for (const fs::path& file : {config, properties})
        fs::copy_file(program, file, fs::copy_options::overwrite_existing);
    const json records = examine_here(exit_unwell);
    EXPECT_TRUE(finds(records, "config_file", "warning", "NUL"));
    EXPECT_TRUE(finds(records, "properties", "warning", "bytes; only the first"));
}

TEST_F(DoctorProgram, SurvivesFilesThatAreHuge) {
    for (const fs::path& file : {config, properties})
        fs::resize_file(file, std::uintmax_t{1} << 30);
    EXPECT_TRUE(finds(examine_here(exit_ok), "config_file", "warning", "1073741824 bytes"));
}

TEST_F(DoctorProgram, SurvivesADirectoryThatIsMissing) {
    fs::remove_all(dir.path() / "conf");
    EXPECT_TRUE(finds(examine_here(exit_unwell), "properties", "error", "no such file"));
    fs::remove(dir.path());
    const json records = examine_here(exit_unwell);
    EXPECT_TRUE(finds(records, "directory", "error", "no such directory"));
    EXPECT_TRUE(finds(records, "properties", "error", "no such file"));
}

}  // namespace
}  // namespace qnmctl
