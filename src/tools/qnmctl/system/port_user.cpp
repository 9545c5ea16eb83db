// Asks the way the library does.
#include "system/port_user.h"

#include <charconv>
#include <fstream>
#include <set>
#include <string_view>

#include "common/descriptor.h"
#include "qnm_port_holder.h"

namespace qnmctl {

namespace {

// Reads a line of /proc/net/unix, which ends with the name; an @ begins abstract names.
std::optional<int> index_in(std::string_view line) {
    constexpr std::string_view mark = " @" QNM_PORT_NAME;
    const std::size_t at = line.find(mark);
    if (at == std::string_view::npos) return std::nullopt;
    const char* const end = line.data() + line.size();
    int index = 0;
    const auto [stop, problem] = std::from_chars(line.data() + at + mark.size(), end, index);
    if (problem != std::errc{} || stop != end || index <= 0) return std::nullopt;
    return index;
}

}  // namespace

std::string process_text(const port_user& user) {
    if (user.pid == 0) return "a process that cannot be seen from here";
    return "process " + std::to_string(user.pid) + " (" + user.name + ')';
}

std::optional<port_user> find_port_user(int if_index) {
    const tools::descriptor asking(_qnm_port_socket());
    if (asking.fd < 0) return std::nullopt;
    qnm_port_holder_t holder;
    _qnm_ask_port_holder(asking.fd, if_index, &holder);
    if (holder.eph_kind == QNM_HOLDER_NOBODY) return std::nullopt;
    return port_user{.manager = holder.eph_kind == QNM_HOLDER_MANAGER,
                     .pid = holder.eph_pid,
                     .name = holder.eph_name};
}

std::vector<int> used_indexes() {
    std::set<int> found;
    std::ifstream names("/proc/net/unix");
    for (std::string line; std::getline(names, line);) {
        if (const auto index = index_in(line)) found.insert(*index);
    }
    return {found.begin(), found.end()};
}

}  // namespace qnmctl
