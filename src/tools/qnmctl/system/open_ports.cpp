// A port has one packet socket to capture with and one that locks it. The kernel's table of packet
// sockets has the interface of each; the descriptors of the processes tell whose it is.
#include "system/open_ports.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "output/foreign_words.h"

namespace qnmctl {

namespace {

namespace fs = std::filesystem;

// From the link text of a socket's descriptor to its interface; 0 if that has gone.
using socket_table = std::map<std::string, int>;

socket_table packet_sockets() {
    constexpr int index_of_gone = -1;
    socket_table found;
    std::ifstream table("/proc/net/packet");
    std::string line;
    std::getline(table, line);  // headings: sk RefCnt Type Proto Iface R Rmem User Inode
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string skipped, inode;
        int index = 0;
        words >> skipped >> skipped >> skipped >> skipped >> index >> skipped >> skipped >>
            skipped >> inode;
        if (!words || index == 0) continue;  // 0: of all interfaces, so not a port's
        found["socket:[" + inode + ']'] = index == index_of_gone ? 0 : index;
    }
    return found;
}

// The entries of a folder, as far as it can be read; it may vanish meanwhile.
std::vector<fs::path> entries_of(const fs::path& folder) {
    std::vector<fs::path> found;
    std::error_code problem;
    fs::directory_iterator at(folder, problem);
    for (; !problem && at != fs::directory_iterator{}; at.increment(problem))
        found.push_back(at->path());
    return found;
}

std::optional<int> pid_of(const fs::path& folder) {
    const std::string name = folder.filename().string();
    const char* const end = name.data() + name.size();
    int pid = 0;
    const auto [stop, problem] = std::from_chars(name.data(), end, pid);
    if (problem != std::errc{} || stop != end || pid <= 0) return std::nullopt;
    return pid;
}

bool has_library(std::ifstream& maps) {
    for (std::string line; std::getline(maps, line);) {
        if (line.find("/libqnm.so") != std::string::npos) return true;
    }
    return false;
}

// The sockets of the table that belong to a process.
std::vector<socket_table::const_iterator> sockets_of(const fs::path& process,
                                                     const socket_table& sockets) {
    std::vector<socket_table::const_iterator> found;
    for (const fs::path& descriptor : entries_of(process / "fd")) {
        std::error_code ignored;  // the descriptor may be closed by now
        const auto at = sockets.find(fs::read_symlink(descriptor, ignored).string());
        if (at != sockets.end()) found.push_back(at);
    }
    return found;
}

std::string name_of(const fs::path& process) {
    std::ifstream file(process / "comm");
    std::string name;
    std::getline(file, name);
    return printable(name);
}

}  // namespace

// A socket without a process belongs to one that is hidden or may not be inspected.
open_ports find_open_ports() {
    open_ports result;
    const socket_table sockets = packet_sockets();
    if (sockets.empty()) return result;
    std::set<std::string> seen;
    for (const fs::path& process : entries_of("/proc")) {
        const auto pid = pid_of(process);
        if (!pid) continue;
        const auto own = sockets_of(process, sockets);
        if (own.empty()) continue;
        std::ifstream maps(process / "maps");
        if (!maps) continue;
        std::set<int> interfaces;  // once each, a port has several sockets
        for (const auto& socket : own) {
            seen.insert(socket->first);
            interfaces.insert(socket->second);
        }
        // The sockets of this process are not of interest.
        if (*pid == getpid() || !has_library(maps)) continue;
        const port_user user = {.pid = *pid, .name = name_of(process)};
        for (const int index : interfaces)
            result.found.push_back({.if_index = index, .user = user});
    }
    const socket_table now = packet_sockets();  // some may have been closed meanwhile
    result.all_seen = std::all_of(sockets.begin(), sockets.end(), [&](const auto& socket) {
        return seen.count(socket.first) > 0 || now.count(socket.first) == 0;
    });
    return result;
}

}  // namespace qnmctl
