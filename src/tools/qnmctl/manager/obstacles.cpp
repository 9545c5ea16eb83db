// Checks for what keeps a manager from starting, and words the messages.
#include "manager/obstacles.h"

#include <net/if.h>
#include <net/if_arp.h>

#include <cerrno>
#include <cstring>

#include "common/nearest.h"
#include "installation/private_folder.h"

namespace qnmctl {

namespace fs = std::filesystem;

using tools::file_state;

namespace {

constexpr char let_read[] = "Let the user of the host program read it: chmod, chown.";

std::string capability_remedy(const privileges& rights) {
    if (!rights.attainable) {
        return "Start the container or service with the capability NET_RAW (docker run --cap-add "
               "NET_RAW, CapabilityBoundingSet=).";
    }
    return "Run it under sudo, or give it the capability once: sudo setcap cap_net_raw+ep " +
           rights.program;
}

obstacle missing_interface(const std::string& name, const std::vector<std::string>& known) {
    const std::string remedy =
        "\"ip link\" lists them; name the right one by ether_port in qnm.conf or by --ports.";
    const auto meant = tools::nearest_name(name, known);
    return {"there is no such interface", meant ? "Is " + *meant + " meant? " + remedy : remedy};
}

bool carries_frames(const interface_state& state) {
    return state.hardware == ARPHRD_ETHER || state.hardware == ARPHRD_LOOPBACK;
}

}  // namespace

std::optional<obstacle> privilege_obstacle(const privileges& rights) {
    if (rights.socket_error != 0 && rights.effective) {
        return obstacle{std::string("CAP_NET_RAW is effective, but no raw socket can be opened: ") +
                            std::strerror(rights.socket_error),
                        "Look for what refuses it: a user namespace without the network, a "
                        "seccomp profile, a security module."};
    }
    if (rights.socket_error == 0 && rights.effective) return std::nullopt;
    return obstacle{rights.permitted ? "CAP_NET_RAW is permitted, but not effective"
                                     : "no privilege for raw sockets (capability "
                                       "CAP_NET_RAW), so no port can be opened",
                    capability_remedy(rights)};
}

std::optional<obstacle> directory_obstacle(const fs::path& name) {
    obstacle found = {"",
                      "Name the installation directory by --dir, or the interfaces by --ports."};
    std::error_code problem;
    const fs::file_status status = fs::status(name, problem);
    if (name.native().size() > longest_dir) {
        found.text = "the name is too long; the library takes up to 485 characters";
    } else if (status.type() == fs::file_type::not_found) {
        found.text = "there is no such directory";
    } else if (problem) {
        found.text = "cannot be looked at: " + problem.message();
    } else if (!fs::is_directory(status)) {
        found.text = "is not a directory";
    } else {
        return std::nullopt;
    }
    return found;
}

std::optional<obstacle> config_obstacle(file_state state, const std::string& problem) {
    if (state == file_state::no_file) {
        return obstacle{"is no regular file; the library takes no notice of it",
                        "Move it away, and copy the sample conf/qnm.conf there."};
    }
    if (state != file_state::unreadable) return std::nullopt;
    return obstacle{"cannot be read: " + problem, let_read};
}

std::optional<obstacle> properties_obstacle(file_state state, const std::string& problem) {
    if (state == file_state::missing) {
        return obstacle{"there is no such file, and the library does not start without it",
                        "Copy the sample qnm_log4c.properties there (packages have it in "
                        "/usr/share/qnm/conf), or name the interfaces by --ports."};
    }
    if (state == file_state::no_file) {
        return obstacle{"is no regular file, and the library does not start without one",
                        "Move it away, and copy the sample conf/qnm_log4c.properties there."};
    }
    if (state != file_state::unreadable) return std::nullopt;
    return obstacle{"cannot be read: " + problem, let_read};
}

std::optional<obstacle> interface_obstacle(const interface_state& state,
                                           const std::vector<std::string>& known) {
    if (state.name.size() >= IFNAMSIZ) {
        return obstacle{"the name is too long; Linux has up to 15 characters",
                        "Name the interface by its short name, which \"ip link\" shows."};
    }
    if (state.error == ENODEV) return missing_interface(state.name, known);
    if (state.error != 0) {
        return obstacle{std::string("cannot be looked at: ") + std::strerror(state.error),
                        "\"ip link\" may tell more."};
    }
    if (!carries_frames(state)) {
        return obstacle{"is no Ethernet interface",
                        "Name an Ethernet interface by ether_port in qnm.conf or by --ports."};
    }
    if (state.up) return std::nullopt;
    return obstacle{"is down, so it cannot be opened",
                    "Bring it up: sudo ip link set " + state.name + " up"};
}

}  // namespace qnmctl
