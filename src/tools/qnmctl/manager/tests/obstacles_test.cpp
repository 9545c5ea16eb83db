// What keeps a manager from starting, on invented systems.
#include "manager/obstacles.h"

#include <gtest/gtest.h>
#include <net/if_arp.h>

#include <cerrno>

#include "common/tests/temporary_dir.h"

namespace qnmctl {
namespace {

using tools::file_state;

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(PrivilegeObstacle, IsNoneWhereRawSocketsCanBeOpened) {
    EXPECT_FALSE(privilege_obstacle({.effective = true}));
}

TEST(PrivilegeObstacle, TellsWhatIsMissingAndWhatHelps) {
    privileges of = {.socket_error = EPERM, .program = "/usr/bin/qnmctl"};
    EXPECT_TRUE(holds(privilege_obstacle(of)->text, "no privilege for raw sockets"));
    EXPECT_TRUE(holds(privilege_obstacle(of)->remedy, "setcap cap_net_raw+ep /usr/bin/qnmctl"));
    of.attainable = false;
    EXPECT_TRUE(holds(privilege_obstacle(of)->remedy, "--cap-add NET_RAW"));
    of.permitted = true;
    EXPECT_TRUE(holds(privilege_obstacle(of)->text, "permitted, but not effective"));
    of.effective = true;
    EXPECT_TRUE(holds(privilege_obstacle(of)->text, "Operation not permitted"));
}

TEST(DirectoryObstacle, IsNoneForADirectory) {
    const tools::temporary_dir dir;
    EXPECT_FALSE(directory_obstacle(dir.path()));
    EXPECT_EQ("there is no such directory", directory_obstacle(dir.path() / "none")->text);
    EXPECT_EQ("is not a directory", directory_obstacle("/dev/null")->text);
    EXPECT_TRUE(holds(directory_obstacle('/' + std::string(485, 'x'))->text, "too long"));
}

TEST(FileObstacle, IsNoneForWhatTheLibraryCanRead) {
    for (const file_state state : {file_state::readable, file_state::link}) {
        EXPECT_FALSE(config_obstacle(state, ""));
        EXPECT_FALSE(properties_obstacle(state, ""));
    }
    EXPECT_FALSE(config_obstacle(file_state::missing, ""));
    EXPECT_TRUE(holds(properties_obstacle(file_state::missing, "")->text, "no such file"));
    EXPECT_TRUE(holds(config_obstacle(file_state::no_file, "")->text, "takes no notice"));
    EXPECT_TRUE(holds(properties_obstacle(file_state::no_file, "")->text, "does not start"));
    for (const auto judge : {config_obstacle, properties_obstacle})
        EXPECT_EQ("cannot be read: why", judge(file_state::unreadable, "why")->text);
}

TEST(InterfaceObstacle, IsNoneForAnEthernetInterfaceThatIsUp) {
    interface_state of = {.name = "eth0", .up = true, .hardware = ARPHRD_ETHER};
    EXPECT_FALSE(interface_obstacle(of, {}));
    of.hardware = ARPHRD_LOOPBACK;
    EXPECT_FALSE(interface_obstacle(of, {}));
    of.up = false;
    EXPECT_EQ("Bring it up: sudo ip link set eth0 up", interface_obstacle(of, {})->remedy);
    of.hardware = ARPHRD_NONE;
    EXPECT_EQ("is no Ethernet interface", interface_obstacle(of, {})->text);
    of.error = EPERM;
    EXPECT_TRUE(holds(interface_obstacle(of, {})->text, "Operation not permitted"));
    of.name = "a234567890123456";
    EXPECT_TRUE(holds(interface_obstacle(of, {})->text, "too long"));
}

TEST(InterfaceObstacle, NamesTheInterfaceThatIsProbablyMeant) {
    const interface_state of = {.name = "eht0", .error = ENODEV};
    EXPECT_TRUE(interface_obstacle(of, {"lo", "eth0"})->remedy.starts_with("Is eth0 meant?"));
    EXPECT_TRUE(interface_obstacle(of, {"lo"})->remedy.starts_with("\"ip link\" lists them"));
}

}  // namespace
}  // namespace qnmctl
