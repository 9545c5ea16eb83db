// Reads the system by calls that change nothing of it: no module is loaded for them, no interface
// becomes promiscuous, no file is made.
#include "doctor/system.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "installation/config_file.h"
#include "installation/installation.h"
#include "installation/log_properties.h"
#include "qnm.h"
#include "system/open_ports.h"
#include "system/own_folder.h"

namespace qnmctl {

namespace fs = std::filesystem;

namespace {

// ---- Library and privileges ---------------------------------------------------------------------

library_facts look_at_library() {
    Dl_info found{};
    if (dladdr(reinterpret_cast<const void*>(&qnm_init_manager), &found) == 0) return {};
    std::error_code problem;
    const fs::path path = fs::canonical(found.dli_fname, problem);
    return {.path = problem ? std::string(found.dli_fname) : path.string()};
}

privilege_facts look_at_privileges() {
    privilege_facts found;
    found.root = geteuid() == 0;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) == 0) {
        found.effective = (data[0].effective >> CAP_NET_RAW & 1U) != 0;
        found.permitted = (data[0].permitted >> CAP_NET_RAW & 1U) != 0;
    }
    found.attainable = prctl(PR_CAPBSET_READ, CAP_NET_RAW) != 0;
    const tools::descriptor raw(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    found.socket_error = raw.fd < 0 ? errno : 0;
    std::error_code ignored;  // the command has a name even so
    found.program = fs::read_symlink("/proc/self/exe", ignored).string();
    if (found.program.empty()) found.program = "qnmctl";
    return found;
}

// ---- Interfaces ---------------------------------------------------------------------------------

// Asks ethtool about an interface; the code of what went wrong, or 0.
int ask(int fd, const std::string& name, void* question) {
    ifreq asked{};
    name.copy(asked.ifr_name, IFNAMSIZ - 1);
    asked.ifr_data = static_cast<char*>(question);
    return ioctl(fd, SIOCETHTOOL, &asked) == 0 ? 0 : errno;
}

// A question of ethtool has its answer behind it, of a length that is known only now.
template <class Question>
struct long_question {
    explicit long_question(std::size_t behind)
        : words((sizeof(Question) + behind) / sizeof(std::uint64_t) + 1) {}
    Question* operator->() { return reinterpret_cast<Question*>(words.data()); }
    void* get() { return words.data(); }

    std::vector<std::uint64_t> words;
};

// How many features the kernel has names for.
std::uint32_t count_features(int fd, const std::string& name) {
    long_question<ethtool_sset_info> info(sizeof(std::uint32_t));
    info->cmd = ETHTOOL_GSSET_INFO;
    info->sset_mask = std::uint64_t{1} << ETH_SS_FEATURES;
    if (ask(fd, name, info.get()) != 0 || info->sset_mask == 0) return 0;
    return info->data[0];
}

std::optional<feature> find_feature(int fd, const std::string& name, const char* wanted) {
    constexpr std::uint32_t bits = 32;
    const std::uint32_t number = count_features(fd, name);
    if (number == 0) return std::nullopt;
    long_question<ethtool_gstrings> names(std::size_t{number} * ETH_GSTRING_LEN);
    names->cmd = ETHTOOL_GSTRINGS;
    names->string_set = ETH_SS_FEATURES;
    names->len = number;
    const std::uint32_t blocks = (number + bits - 1) / bits;
    long_question<ethtool_gfeatures> states(blocks * sizeof(ethtool_get_features_block));
    states->cmd = ETHTOOL_GFEATURES;
    states->size = blocks;
    if (ask(fd, name, names.get()) != 0 || ask(fd, name, states.get()) != 0) return std::nullopt;
    for (std::uint32_t at = 0; at < number; ++at) {
        const auto* const text =
            reinterpret_cast<const char*>(names->data) + std::size_t{ETH_GSTRING_LEN} * at;
        if (std::strncmp(text, wanted, ETH_GSTRING_LEN) != 0) continue;
        const ethtool_get_features_block& block = states->features[at / bits];
        const std::uint32_t bit = 1U << at % bits;
        return feature{.on = (block.active & bit) != 0,
                       .fixed = (block.never_changed & bit) != 0 || (block.available & bit) == 0};
    }
    return std::nullopt;
}

void ask_ethtool(int fd, interface_facts& into) {
    ethtool_value link = {.cmd = ETHTOOL_GLINK, .data = 0};
    into.link_error = ask(fd, into.name, &link);
    into.link = link.data != 0;
    ethtool_drvinfo driver{};
    driver.cmd = ETHTOOL_GDRVINFO;
    if (ask(fd, into.name, &driver) == 0) {
        into.driver.assign(driver.driver, strnlen(driver.driver, sizeof driver.driver));
    }
    into.vlan_offload = find_feature(fd, into.name, "rx-vlan-hw-parse");
    into.vlan_filter = find_feature(fd, into.name, "rx-vlan-filter");
}

std::vector<std::string> name_interfaces() {
    const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> all(if_nameindex(),
                                                                                if_freenameindex);
    std::vector<std::string> names;
    for (const auto* one = all.get(); one != nullptr && one->if_index != 0; ++one)
        names.emplace_back(one->if_name);
    return names;
}

// ---- Capture ------------------------------------------------------------------------------------

struct pcap_closer {
    void operator()(pcap_t* of) const { pcap_close(of); }
};
using capture = std::unique_ptr<pcap_t, pcap_closer>;

// As the library does, but for the promiscuous mode, which the whole network would notice.
capture open_capture(const std::string& name, bool immediate, std::string& problem) {
    constexpr int snaplen = 1024;
    constexpr int timeout_ms = 1000;
    constexpr int buffer_size = 16 * 1024 * 1024;
    char error[PCAP_ERRBUF_SIZE] = "";
    capture made(pcap_create(name.c_str(), error));
    if (!made) {
        problem = error;
        return nullptr;
    }
    pcap_set_snaplen(made.get(), snaplen);
    pcap_set_timeout(made.get(), timeout_ms);
    if (immediate) {
        pcap_set_immediate_mode(made.get(), 1);
        pcap_set_buffer_size(made.get(), buffer_size);
    }
    const int result = pcap_activate(made.get());
    if (result >= 0) return made;  // above 0 is a warning
    const std::string more = pcap_geterr(made.get());
    problem = more.empty() ? pcap_statustostr(result) : more;
    return nullptr;
}

bool is_in_blocks(const capture& of) {
    int version = 0;
    socklen_t length = sizeof version;
    return getsockopt(pcap_fileno(of.get()), SOL_PACKET, PACKET_VERSION, &version, &length) == 0 &&
           version == TPACKET_V3;
}

capture_facts look_at_capture(const std::string& name) {
    capture_facts found;
    const capture first = open_capture(name, false, found.problem);
    if (!first) return found;
    found.in_blocks = is_in_blocks(first);
    if (!found.in_blocks) return found;
    std::string ignored;  // the library goes on with the first one then
    found.immediate = open_capture(name, true, ignored) != nullptr;
    return found;
}

// ---- Who uses the interfaces --------------------------------------------------------------------

// Notes a process with an interface, unless that is one of the ports.
void note_interface(std::vector<left_behind>& found, const std::vector<std::string>& ports,
                    int index, const port_user& user) {
    char name[IF_NAMESIZE] = "";
    const bool is_there =
        index > 0 && if_indextoname(static_cast<unsigned>(index), name) != nullptr;
    if (!is_there && index > 0 && errno != ENXIO) return;
    if (std::find(ports.begin(), ports.end(), name) != ports.end()) return;
    const auto is_same = [&](const left_behind& one) {
        return one.user.pid == user.pid && one.name == name;
    };
    if (std::any_of(found.begin(), found.end(), is_same)) return;
    found.push_back({.if_index = index, .name = name, .user = user});
}

bool is_used(int index) {
    const std::vector<int> used = used_indexes();
    return std::find(used.begin(), used.end(), index) != used.end();
}

// Who has the lock of an interface anybody may ask; who has a port open, only root in general.
void find_left_behind(const std::vector<std::string>& ports, inspected& into) {
    for (const int index : used_indexes()) {
        const auto user = find_port_user(index);
        if (user && user->manager) note_interface(into.left, ports, index, *user);
    }
    const open_ports open = find_open_ports();
    into.all_users_seen = open.all_seen;
    for (const open_port& one : open.found)
        note_interface(into.left, ports, one.if_index, one.user);
}

// ---- Clock --------------------------------------------------------------------------------------

std::int64_t nanoseconds_of(clockid_t clock) {
    constexpr std::int64_t second = 1'000'000'000;
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * second + now.tv_nsec;
}

clock_facts look_at_clock() {
    constexpr int samples = 6;
    constexpr int pause_ms = 50;
    clock_facts found;
    for (int at = 0; at < samples; ++at) {
        if (at > 0) poll(nullptr, 0, pause_ms);
        clock_sample one;
        one.before = nanoseconds_of(CLOCK_MONOTONIC);
        one.wall = nanoseconds_of(CLOCK_REALTIME);
        one.after = nanoseconds_of(CLOCK_MONOTONIC);
        found.samples.push_back(one);
    }
    timex told{};  // without a mode nothing is set
    found.adjustment = adjtimex(&told);
    found.synchronised =
        found.adjustment != TIME_ERROR && (static_cast<unsigned>(told.status) & STA_UNSYNC) == 0;
    return found;
}

// ---- Files --------------------------------------------------------------------------------------

bool may(const fs::path& name, int how) {
    return faccessat(AT_FDCWD, name.c_str(), how, AT_EACCESS) == 0;
}

// The folder itself, or what of those above it is there.
fs::path nearest_folder(fs::path folder) {
    std::error_code ignored;  // what cannot be looked at is not there for us
    while (!fs::exists(folder, ignored) && folder.has_relative_path())
        folder = folder.parent_path();
    return folder.empty() ? "." : folder;
}

std::string reason_not_to_write(const fs::path& file, const fs::path& folder) {
    std::error_code ignored;
    if (fs::is_directory(file, ignored)) return "is a folder";
    if (fs::exists(file, ignored)) {
        return may(file, W_OK) ? "" : std::string("cannot be written: ") + std::strerror(errno);
    }
    if (!fs::is_directory(folder, ignored)) return "cannot be made: no folder: " + folder.string();
    if (may(folder, W_OK | X_OK)) return {};
    const std::string why = std::strerror(errno);
    return "cannot be made in " + folder.string() + ": " + why;
}

struct pipe_closer {
    void operator()(FILE* of) const { pclose(of); }
};

// What tshark tells of itself. It is given up when it takes long.
std::string ask_tshark() {
    constexpr char command[] =
        "exec </dev/null 2>/dev/null; timeout 10 tshark --version && timeout 10 tshark -G folders";
    const std::unique_ptr<FILE, pipe_closer> answer(popen(command, "re"));
    std::string told;
    char part[1024];
    while (answer && fgets(part, sizeof part, answer.get()) != nullptr)
        told += part;
    return told;
}

// Of a temporary configuration it is the command's own, and nothing that the operator has given.
void remove_last_line(std::string& text) {
    if (text.ends_with('\n')) text.pop_back();
    text.erase(text.rfind('\n') + 1);
}

}  // namespace

file_facts look_at_file(const fs::path& name) {
    const tools::opened_file file = open_by_own_links(name, tools::links::refused);
    file_facts found = {.name = file.name, .state = file.state, .problem = file.problem};
    if (file.state != file_state::readable) return found;
    found.text = tools::read_part(file, 0, text_limit);
    found.size = std::max<std::uintmax_t>(file.size(), found.text.size());
    return found;
}

directory_facts look_at_directory(const fs::path& name) {
    directory_facts found = {.name = name.string()};
    std::error_code problem;
    const fs::file_status status = fs::status(name, problem);
    if (found.name.size() > longest_dir) {
        found.problem = "the name is too long; the library takes up to 485 characters";
    } else if (status.type() == fs::file_type::not_found) {
        found.problem = "there is no such directory";
    } else if (problem) {
        found.problem = "cannot be looked at: " + problem.message();
    } else if (!fs::is_directory(status)) {
        found.problem = "is not a directory";
    }
    return found;
}

log_place look_at_log(const std::string& file) {
    log_place found = {.file = file};
    const fs::path folder = nearest_folder(fs::path(file).parent_path());
    found.folder = folder.string();
    found.problem = reason_not_to_write(file, folder);
    found.folder_writable = may(folder, W_OK | X_OK);
    std::error_code ignored;
    found.link = fs::is_symlink(file, ignored);
    struct statvfs space {};
    if (statvfs(folder.c_str(), &space) != 0) {
        found.folder.clear();  // nothing is known of its space
        return found;
    }
    found.free_bytes = std::uintmax_t{space.f_bavail} * space.f_frsize;
    found.files_can_be_made = space.f_files == 0 || space.f_favail > 0;  // not all count them
    return found;
}

// The line behind this beginning, without blanks in front; empty where there is none.
std::string line_behind(const std::string& text, const std::string& beginning) {
    const std::size_t at = ('\n' + text).find('\n' + beginning);
    if (at == std::string::npos) return {};
    const std::size_t start = text.find_first_not_of(" \t", at + beginning.size());
    return start == std::string::npos ? "" : text.substr(start, text.find('\n', start) - start);
}

dissector_facts look_at_dissector(const std::string& told) {
    dissector_facts found;
    const std::string version = line_behind(told, "TShark (Wireshark) ");
    found.version = version.substr(0, version.find_first_not_of("0123456789."));
    if (found.version.ends_with('.')) found.version.pop_back();  // it ends the sentence
    found.folder = line_behind(told, "Global Lua Plugins:");
    std::error_code ignored;  // tshark could not load it either
    found.for_all =
        !found.folder.empty() && fs::exists(fs::path(found.folder) / "quillnet.lua", ignored);
    return found;
}

interface_facts look_at_interface(const std::string& name) {
    interface_facts found = {.name = name};
    const tools::descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq asked{};
    name.copy(asked.ifr_name, IFNAMSIZ - 1);
    if (name.size() >= IFNAMSIZ) {
        found.error = ENODEV;
    } else if (any.fd < 0 || ioctl(any.fd, SIOCGIFFLAGS, &asked) != 0) {
        found.error = errno;
    }
    if (found.error != 0) return found;
    found.up = (asked.ifr_flags & IFF_UP) != 0;
    if (ioctl(any.fd, SIOCGIFHWADDR, &asked) == 0) found.hardware = asked.ifr_hwaddr.sa_family;
    if (ioctl(any.fd, SIOCGIFMTU, &asked) == 0) found.mtu = asked.ifr_mtu;
    ask_ethtool(any.fd, found);
    return found;
}

inspected inspect_system(const installation& where, tshark_use tshark) {
    inspected found;
    found.temporary = where.temporary.has_value();
    found.library = look_at_library();
    found.privileges = look_at_privileges();
    found.directory = look_at_directory(where.dir);
    found.config = look_at_file(where.config());
    if (found.temporary) remove_last_line(found.config.text);
    found.properties = look_at_file(where.properties());
    found.known_interfaces = name_interfaces();
    // Behind a link nobody has looked which ports are named.
    const bool is_known = found.config.state != file_state::link;
    const std::vector<std::string> ports =
        is_known ? configured_ports(found.config.text) : std::vector<std::string>();
    for (const std::string& name : ports) {
        interface_facts one = look_at_interface(name);
        const bool can_open = one.error == 0 && one.up && found.privileges.socket_error == 0;
        if (can_open) one.capture = look_at_capture(name);
        if (one.error == 0) {
            const int index = static_cast<int>(if_nametoindex(name.c_str()));
            one.user = find_port_user(index);
            one.name_taken = is_used(index);
        }
        found.interfaces.push_back(one);
    }
    find_left_behind(ports, found);
    found.capture_library = pcap_lib_version();
    found.clock = look_at_clock();
    for (const std::string& file : log_files(read_log_properties(found.properties.text)))
        found.logs.push_back(look_at_log(file));
    if (found.privileges.root && tshark == tshark_use::asked) {
        found.dissector = look_at_dissector(ask_tshark());
    }
    return found;
}

}  // namespace qnmctl
