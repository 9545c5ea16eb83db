// Checks the inspected system.
#include "doctor/checks.h"

#include <net/if_arp.h>
#include <sys/timex.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

#include "output/foreign_words.h"

namespace qnmctl {

namespace {

// Of those that are there.
void for_interfaces(const inspected& system,
                    const std::function<void(const interface_facts&)>& look) {
    for (const interface_facts& facts : system.interfaces) {
        if (facts.state.error == 0) look(facts);
    }
}

}  // namespace

// ---- The library --------------------------------------------------------------------------------

void check_library(const inspected& system, findings& found) {
    constexpr char mark[] = ".so.";
    const std::string& path = system.library.path;
    const std::size_t at = path.rfind(mark);
    finding verdict = {.about = path};
    if (at == std::string::npos) {
        verdict.rank = severity::note;
        verdict.text = "the name of the library's file does not tell its version";
        found.push_back(verdict);
        return;
    }
    const std::string version = path.substr(at + std::strlen(mark));
    verdict.text = "libqnm " + version + ", qnmctl " QNMCTL_VERSION;
    if (version != QNMCTL_VERSION) {
        verdict.rank = severity::warning;
        verdict.text += "; they come from different releases";
        verdict.remedy =
            "Install both of the same release, and see that no older libqnm.so is found "
            "first: ldconfig -p, LD_LIBRARY_PATH.";
    }
    found.push_back(verdict);
}

// ---- Privileges ---------------------------------------------------------------------------------

void check_privileges(const inspected& system, findings& found) {
    if (const auto wrong = privilege_obstacle(system.privileges)) {
        found.push_back(finding_of("", *wrong));
        return;
    }
    found.push_back({.text = "CAP_NET_RAW is effective, and raw sockets can be opened"});
    if (!system.privileges.root) return;
    found.push_back({.rank = severity::note,
                     .text = "this is root; CAP_NET_RAW alone would do",
                     .remedy = "For an ordinary user: sudo setcap cap_net_raw+ep " +
                               system.privileges.program});
}

// ---- Directory ----------------------------------------------------------------------------------

void check_directory(const inspected& system, findings& found) {
    if (system.temporary) return;
    if (const auto& wrong = system.directory_problem) {
        found.push_back(finding_of(system.directory, *wrong));
    } else {
        found.push_back({.about = system.directory, .text = "is the installation directory"});
    }
}

// ---- Interfaces ---------------------------------------------------------------------------------

namespace {

finding judge_interface(const interface_state& state, const std::vector<std::string>& known) {
    const std::string name = printable(state.name);
    if (const auto wrong = interface_obstacle(state, known)) return finding_of(name, *wrong);
    if (state.hardware == ARPHRD_LOOPBACK) {
        return {.rank = severity::note,
                .about = name,
                .text = "is the loopback; there are no cards behind it"};
    }
    return {.about = name, .text = "is an Ethernet interface, and up"};
}

}  // namespace

void check_interfaces(const inspected& system, findings& found) {
    for (const interface_facts& facts : system.interfaces) {
        found.push_back(judge_interface(facts.state, system.known_interfaces));
    }
    const auto& all = system.interfaces;
    if (all.size() < 2 || all[0].state.name != all[1].state.name) return;
    found.push_back({.rank = severity::warning,
                     .about = printable(all[0].state.name),
                     .text = "is named for both ports, so every frame is received twice",
                     .remedy = "Name two interfaces, or one alone."});
}

void check_links(const inspected& system, findings& found) {
    for_interfaces(system, [&](const interface_facts& facts) {
        if (facts.link.error != 0) {
            found.push_back({.rank = severity::error,
                             .about = facts.state.name,
                             .text = std::string("does not tell its link: ") +
                                     std::strerror(facts.link.error) + "; it cannot be opened so",
                             .remedy = "Use an interface whose driver knows ethtool."});
        } else if (!facts.state.up) {
            return;  // then it has no link either
        } else if (!facts.link.up) {
            found.push_back(
                {.rank = severity::warning,
                 .about = facts.state.name,
                 .text = "has no link, so no card can be heard on it",
                 .remedy = "Check the cable and the far end: ethtool " + facts.state.name});
        } else {
            found.push_back({.about = facts.state.name, .text = "has a link"});
        }
    });
}

void check_mtu(const inspected& system, findings& found) {
    constexpr int longest = 478;  // an announcement behind Ethernet header and VLAN tag
    for_interfaces(system, [&](const interface_facts& facts) {
        const int mtu = facts.state.mtu.value_or(0);
        const bool enough = mtu >= longest;
        const std::string need = std::to_string(longest);
        found.push_back(
            {.rank = enough ? severity::ok : severity::warning,
             .about = facts.state.name,
             .text = "MTU " + std::to_string(mtu) + (enough ? ", " : ", too small: ") + need +
                     " are needed",
             .remedy = enough ? "" : "sudo ip link set " + facts.state.name + " mtu 1500"});
    });
}

// ---- VLAN tags ----------------------------------------------------------------------------------

namespace {

// Only VLAN interfaces have this driver name.
constexpr char vlan_driver[] = "802.1Q VLAN Support";

finding judge_filter(const interface_facts& facts) {
    if (!facts.vlan_filter->on) {
        return {.text = "rx-vlan-filter is off: frames of every VLAN come in"};
    }
    finding verdict = {.rank = severity::note,
                       .text =
                           "rx-vlan-filter is on: frames of VLANs that nobody has set up here may "
                           "be dropped; most drivers let them in to the library, which asks for "
                           "all"};
    verdict.remedy =
        facts.vlan_filter->fixed
            ? "If cards are not heard: ip link add link " + facts.state.name +
                  " type vlan id N, for the group N of each"
            : "If cards are not heard: sudo ethtool -K " + facts.state.name + " rx-vlan-filter off";
    return verdict;
}

}  // namespace

void check_vlan(const inspected& system, findings& found) {
    for_interfaces(system, [&](const interface_facts& facts) {
        const std::size_t before = found.size();
        if (facts.driver == vlan_driver) {
            found.push_back({.rank = severity::warning,
                             .text = "is a VLAN of another interface: frames come without the tag "
                                     "that the library wants",
                             .remedy = "Name the interface below it."});
        }
        if (facts.vlan_offload) {
            found.push_back({.text = facts.vlan_offload->on
                                         ? "rx-vlan-offload is on: tags are taken off, and libpcap "
                                           "puts them back"
                                         : "rx-vlan-offload is off: tags stay in the frames"});
        }
        if (facts.vlan_filter) found.push_back(judge_filter(facts));
        if (found.size() == before) {
            found.push_back({.rank = severity::note,
                             .text = "does not tell how it treats VLAN tags",
                             .remedy = "If cards are not heard: ethtool -k " + facts.state.name});
        }
        for (std::size_t at = before; at < found.size(); ++at)
            found[at].about = facts.state.name;
    });
}

// ---- Capture ------------------------------------------------------------------------------------

namespace {

finding judge_capture(const capture_facts& facts, const std::string& name) {
    if (!facts.problem.empty()) {
        return {.rank = severity::error,
                .text = "cannot be captured from: " + facts.problem,
                .remedy = "Check the findings about privileges and about this interface."};
    }
    if (!facts.in_blocks) return {.text = "delivers frames at once"};
    if (facts.immediate) {
        return {.text = "delivers frames at once, in immediate mode with a buffer of 16 MiB"};
    }
    return {.rank = severity::warning,
            .text = "delivers frames by the block, so an answer can take up to a second",
            .remedy =
                "Free memory for a buffer of 16 MiB, and see that libpcap is 1.5 or later; "
                "try again: qnmctl --ports " +
                name + " doctor"};
}

}  // namespace

void check_capture(const inspected& system, findings& found) {
    found.push_back({.text = system.capture_library});
    for_interfaces(system, [&](const interface_facts& facts) {
        if (facts.capture) {
            found.push_back(judge_capture(*facts.capture, facts.state.name));
        } else {
            found.push_back({.rank = severity::note,
                             .text = "was not opened, because it is down or CAP_NET_RAW is "
                                     "missing"});
        }
        found.back().about = facts.state.name;
    });
}

// ---- Access -------------------------------------------------------------------------------------

namespace {

constexpr char hidden_user[] =
    " the name by which a manager tells that it accesses cards; whether one does cannot be told, "
    "and before Linux 5.12 two may at once, and get wrong values";

finding judge_user(const interface_facts& facts) {
    const auto& user = facts.user;
    if (!user && facts.name_taken) {
        return {.rank = severity::warning,
                .text = std::string("a process that does not answer has") + hidden_user,
                .remedy = "Find out which one has the socket @libqnm.port.INDEX (ss -xlp)."};
    }
    if (!user) return {.text = "no process accesses cards by it"};
    if (user->manager) {
        return {.rank = severity::note,
                .text = process_text(*user) +
                        " accesses cards by it; all others are refused, and can listen",
                .remedy = "To access cards by another process, stop the manager of that one."};
    }
    return {.rank = severity::warning,
            .text = process_text(*user) + " is no manager and has taken" + hidden_user,
            .remedy = "Find out what it is for, and end it."};
}

// A manager opens interfaces by name, so a renamed interface counts as another one.
finding judge_left(const left_behind& left, bool is_port_missing) {
    if (!left.name.empty()) {
        return {.rank = is_port_missing ? severity::warning : severity::note,
                .about = left.name,
                .text = process_text(left.user) +
                        " works with this interface, which is none of the ports here",
                .remedy =
                    "If it was a port of that process and was renamed, its manager is deaf "
                    "there: name the interface in its qnm.conf, and start it again."};
    }
    const std::string index =
        left.if_index == 0 ? "" : " (index " + std::to_string(left.if_index) + ')';
    return {.rank = severity::error,
            .text = process_text(left.user) + " works with an interface that has gone" + index +
                    ": it is deaf there, also when one of the same name has come back",
            .remedy = "Stop its manager and start it again."};
}

}  // namespace

void check_users(const inspected& system, findings& found) {
    for_interfaces(system, [&](const interface_facts& facts) {
        found.push_back(judge_user(facts));
        found.back().about = facts.state.name;
    });
    const bool is_port_missing =
        std::any_of(system.interfaces.begin(), system.interfaces.end(),
                    [](const interface_facts& facts) { return facts.state.error == ENODEV; });
    for (const left_behind& left : system.left)
        found.push_back(judge_left(left, is_port_missing));
    if (system.all_users_seen) return;
    found.push_back({.rank = severity::note,
                     .text = "not all processes could be looked into, so one that only listens and "
                             "is deaf may be missing here",
                     .remedy = "Run it as root, and where all processes can be seen."});
}

// ---- Clock --------------------------------------------------------------------------------------

namespace {

constexpr std::int64_t ns_per_ms = 1'000'000;

constexpr char clock_remedy[] =
    "Have the clock slewed and not set: chrony with makestep at the start only.";

std::string look_text(const std::vector<clock_sample>& samples) {
    const std::int64_t looked = samples.back().after - samples.front().before;
    return "within the " + std::to_string(looked / ns_per_ms) + " ms that it was looked at";
}

}  // namespace

// The wall clock is ahead of the monotonic one by something between wall - after and wall - before;
// where two samples have no value in common, it was set between them.
std::int64_t clock_step(const std::vector<clock_sample>& samples) {
    std::int64_t largest = 0;
    for (std::size_t at = 1; at < samples.size(); ++at) {
        const clock_sample& old = samples[at - 1];
        const clock_sample& now = samples[at];
        const std::int64_t forward = (now.wall - now.after) - (old.wall - old.before);
        const std::int64_t back = (now.wall - now.before) - (old.wall - old.after);
        const std::int64_t step = forward > 0 ? forward : std::min<std::int64_t>(back, 0);
        if (std::abs(step) > std::abs(largest)) largest = step;
    }
    return largest;
}

void check_clock_steps(const inspected& system, findings& found) {
    const std::vector<clock_sample>& samples = system.clock.samples;
    if (samples.empty()) return;
    const std::int64_t step = clock_step(samples);
    if (std::abs(step) < ns_per_ms) {  // the library counts milliseconds
        found.push_back({.text = "the clock was not set " + look_text(samples)});
        return;
    }
    found.push_back({.rank = severity::warning,
                     .text = "the clock was set " + std::string(step > 0 ? "forward" : "back") +
                             " by " + std::to_string(std::abs(step) / ns_per_ms) + " ms " +
                             look_text(samples) + "; cards can seem lost, or losses be told late",
                     .remedy = clock_remedy});
}

void check_clock_sync(const inspected& system, findings& found) {
    const clock_facts& facts = system.clock;
    finding verdict = {.text = "the clock is kept by NTP"};
    if (facts.adjustment < 0) {
        verdict.rank = severity::note;
        verdict.text = "the kernel does not tell whether the clock is synchronised";
    } else if (!facts.synchronised) {
        verdict.rank = severity::note;
        verdict.text =
            "the clock is not synchronised; if somebody sets it, cards can seem lost, or "
            "losses be told late";
        verdict.remedy = "Run chrony or systemd-timesyncd.";
    } else if (facts.adjustment == TIME_INS || facts.adjustment == TIME_DEL) {
        verdict.rank = severity::note;
        verdict.text =
            "a leap second comes at the end of the day, when the clock is set by a second";
    }
    found.push_back(verdict);
}

// ---- The dissector ------------------------------------------------------------------------------

namespace {

// Wireshark 4.0 comes with an init.lua that lets root have all plugins; 4.2 is the first without.
bool keeps_root_from_plugins(const std::string& version) {
    std::pair<int, int> number;
    std::sscanf(version.c_str(), "%d.%d", &number.first, &number.second);
    return number >= std::pair(4, 2);
}

}  // namespace

void check_dissector(const inspected& system, findings& found) {
    const dissector_facts& facts = system.dissector;
    if (facts.version.empty() || facts.folder.empty())
        return;  // no tshark, or one that does not tell
    if (facts.for_all) {
        found.push_back(
            {.text = "tshark " + facts.version + " has quillnet.lua in " + facts.folder});
    } else if (keeps_root_from_plugins(facts.version)) {
        found.push_back(
            {.rank = severity::note,
             .text = "tshark " + facts.version +
                     " lets root have plugins in Lua from one folder only, and does not "
                     "say so; quillnet.lua is not there: " +
                     facts.folder,
             .remedy = "Read captures as an ordinary user, or put quillnet.lua there."});
    }
}

}  // namespace qnmctl
