// Reads the system by calls that change nothing: they load no module, make no interface promiscuous
// and create no file.
#include "doctor/system.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
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

// ---- Library ------------------------------------------------------------------------------------

library_facts look_at_library() {
    Dl_info found{};
    if (dladdr(reinterpret_cast<const void*>(&qnm_init_manager), &found) == 0) return {};
    std::error_code problem;
    const fs::path path = fs::canonical(found.dli_fname, problem);
    return {.path = problem ? std::string(found.dli_fname) : path.string()};
}

// ---- Capture ------------------------------------------------------------------------------------

struct pcap_closer {
    void operator()(pcap_t* handle) const { pcap_close(handle); }
};
using capture = std::unique_ptr<pcap_t, pcap_closer>;

// As the library does, but not in promiscuous mode, which the kernel would log.
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

bool is_in_blocks(const capture& source) {
    int version = 0;
    socklen_t length = sizeof version;
    return getsockopt(pcap_fileno(source.get()), SOL_PACKET, PACKET_VERSION, &version, &length) ==
               0 &&
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
    const auto is_same = [&](const left_behind& other) {
        return other.user.pid == user.pid && other.name == name;
    };
    if (std::any_of(found.begin(), found.end(), is_same)) return;
    found.push_back({.if_index = index, .name = name, .user = user});
}

bool is_used(int index) {
    const std::vector<int> used = used_indexes();
    return std::find(used.begin(), used.end(), index) != used.end();
}

// Any user may ask who holds the lock of an interface; in general only root can see who has a port
// open.
void find_left_behind(const std::vector<std::string>& ports, inspected& into) {
    for (const int index : used_indexes()) {
        const auto user = find_port_user(index);
        if (user && user->manager) note_interface(into.left, ports, index, *user);
    }
    const open_ports open = find_open_ports();
    into.all_users_seen = open.all_seen;
    for (const open_port& port : open.found)
        note_interface(into.left, ports, port.if_index, port.user);
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
        clock_sample sample;
        sample.before = nanoseconds_of(CLOCK_MONOTONIC);
        sample.wall = nanoseconds_of(CLOCK_REALTIME);
        sample.after = nanoseconds_of(CLOCK_MONOTONIC);
        found.samples.push_back(sample);
    }
    timex clock{};  // without a mode nothing is set
    found.adjustment = adjtimex(&clock);
    found.synchronised =
        found.adjustment != TIME_ERROR && (static_cast<unsigned>(clock.status) & STA_UNSYNC) == 0;
    return found;
}

// ---- Files --------------------------------------------------------------------------------------

bool may(const fs::path& name, int how) {
    return faccessat(AT_FDCWD, name.c_str(), how, AT_EACCESS) == 0;
}

// The folder itself, or the nearest one above it that exists.
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
    void operator()(FILE* file) const { pclose(file); }
};

// What tshark prints about itself. It is ended if it takes long.
std::string ask_tshark() {
    constexpr char command[] =
        "exec </dev/null 2>/dev/null; timeout 10 tshark --version && timeout 10 tshark -G folders";
    const std::unique_ptr<FILE, pipe_closer> answer(popen(command, "re"));
    std::string text;
    char part[1024];
    while (answer && fgets(part, sizeof part, answer.get()) != nullptr)
        text += part;
    return text;
}

// In a temporary configuration the file is the command's own, not the operator's.
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

// The rest of the line that begins like this, without leading blanks; empty if there is none.
std::string line_behind(const std::string& text, const std::string& beginning) {
    const std::size_t at = ('\n' + text).find('\n' + beginning);
    if (at == std::string::npos) return {};
    const std::size_t start = text.find_first_not_of(" \t", at + beginning.size());
    return start == std::string::npos ? "" : text.substr(start, text.find('\n', start) - start);
}

dissector_facts look_at_dissector(const std::string& text) {
    dissector_facts found;
    const std::string version = line_behind(text, "TShark (Wireshark) ");
    found.version = version.substr(0, version.find_first_not_of("0123456789."));
    if (found.version.ends_with('.')) found.version.pop_back();  // it ends the sentence
    found.folder = line_behind(text, "Global Lua Plugins:");
    std::error_code ignored;  // tshark could not load it either
    found.for_all =
        !found.folder.empty() && fs::exists(fs::path(found.folder) / "quillnet.lua", ignored);
    return found;
}

interface_facts look_at_interface(const std::string& name) {
    interface_facts found = {.state = read_interface(name)};
    if (found.state.error != 0) return found;
    found.link = read_driver_link(name);
    found.driver = read_driver(name).value_or(interface_driver()).name;
    found.vlan_offload = read_feature(name, "rx-vlan-hw-parse");
    found.vlan_filter = read_feature(name, "rx-vlan-filter");
    return found;
}

inspected inspect_system(const installation& where, tshark_use tshark) {
    inspected found;
    found.temporary = where.temporary.has_value();
    found.library = look_at_library();
    found.privileges = read_privileges();
    found.directory = where.dir.string();
    found.directory_problem = directory_obstacle(where.dir);
    found.config = look_at_file(where.config());
    if (found.temporary) remove_last_line(found.config.text);
    found.properties = look_at_file(where.properties());
    found.known_interfaces = interface_names();
    // Behind a link nobody has looked which ports are named.
    const bool is_known = found.config.state != file_state::link;
    const std::vector<std::string> ports =
        is_known ? configured_ports(found.config.text) : std::vector<std::string>();
    for (const std::string& name : ports) {
        interface_facts facts = look_at_interface(name);
        const bool can_open =
            facts.state.error == 0 && facts.state.up && found.privileges.socket_error == 0;
        if (can_open) facts.capture = look_at_capture(name);
        if (facts.state.error == 0) {
            const int index = static_cast<int>(if_nametoindex(name.c_str()));
            facts.user = find_port_user(index);
            facts.name_taken = is_used(index);
        }
        found.interfaces.push_back(facts);
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
