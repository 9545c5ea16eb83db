// A record of the system, on which the checks are made. Tests invent it; the command reads it from
// the system without changing anything.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "common/regular_file.h"
#include "manager/obstacles.h"
#include "system/interfaces.h"
#include "system/port_user.h"
#include "system/privileges.h"

namespace qnmctl {

using tools::file_state;

struct installation;

struct library_facts {
    std::string path = {};  // of the file in use; empty: it could not be found out
};

struct file_facts {
    std::string name = {};
    file_state state = file_state::missing;
    std::string problem = {};  // why it is unreadable
    std::uintmax_t size = 0;
    std::string text = {};  // its beginning, up to text_limit
};

inline constexpr std::size_t text_limit = std::size_t{1} << 20;

// How frames are captured from an interface.
struct capture_facts {
    std::string problem = {};  // why it cannot be captured from
    bool in_blocks = false;    // the way in which libpcap opens it
    bool immediate = false;    // the same in immediate mode delivers frames at once
};

struct interface_facts {
    interface_state state = {};
    driver_link link = {};
    std::string driver = {};
    std::optional<feature> vlan_offload = {};
    std::optional<feature> vlan_filter = {};
    std::optional<capture_facts> capture = {};  // not there: it was not tried
    std::optional<port_user> user = {};
    bool name_taken = false;  // by whoever does not answer, where there is no user
};

// A process that works with an interface which is no port of the configuration.
struct left_behind {
    int if_index = 0;       // 0: not known
    std::string name = {};  // of the interface; empty: it has gone
    port_user user = {};
};

// The wall clock, read between two readings of the monotonic one; nanoseconds.
struct clock_sample {
    std::int64_t before = 0;
    std::int64_t wall = 0;
    std::int64_t after = 0;
};

struct clock_facts {
    std::vector<clock_sample> samples = {};
    int adjustment = -1;  // as adjtimex() tells, TIME_OK and so on; -1: it does not
    bool synchronised = false;
};

// Where a log file is to be.
struct log_place {
    std::string file = {};
    std::string problem = {};       // why it cannot be written
    std::string folder = {};        // the nearest one above the file that exists
    bool folder_writable = false;   // for the renaming of old files
    bool link = false;              // the file's name stands for another one
    std::uintmax_t free_bytes = 0;  // for this user
    bool files_can_be_made = true;  // there are inodes left
};

// Of tshark; it is asked for root only, who may be kept from the dissector.
struct dissector_facts {
    std::string version = {};  // as "4.4.6"; empty: it was not asked, or is not there
    std::string folder = {};   // of the Lua plugins for all users
    bool for_all = false;      // the dissector is in it
};

// Whether tshark is run, which takes a second, to find out if it has the dissector.
enum class tshark_use { asked, left_alone };

struct inspected {
    bool temporary = false;  // the configuration comes from options
    library_facts library = {};
    qnmctl::privileges privileges = {};
    std::string directory = {};
    std::optional<obstacle> directory_problem = {};
    file_facts config = {};
    file_facts properties = {};
    std::vector<std::string> known_interfaces = {};
    std::vector<interface_facts> interfaces = {};  // those of the configuration, in their order
    std::vector<left_behind> left = {};            // each process once for an interface
    bool all_users_seen = true;                    // no process was hidden from this user
    std::string capture_library = {};              // libpcap's name and version
    clock_facts clock = {};
    std::vector<log_place> logs = {};  // those of the properties file
    dissector_facts dissector = {};
};

inspected inspect_system(const installation& where, tshark_use tshark = tshark_use::asked);

// Parts of it.
file_facts look_at_file(const std::filesystem::path& name);
log_place look_at_log(const std::string& file);
interface_facts look_at_interface(const std::string& name);
dissector_facts look_at_dissector(const std::string& text);  // by tshark, of itself

}  // namespace qnmctl
