// A system on which nothing is wrong, for tests to spoil.
#pragma once

#include <net/if_arp.h>

#include "doctor/system.h"

namespace qnmctl {

inline file_facts sample_file(const char* name, const std::string& text) {
    return {.name = name, .state = file_state::readable, .size = text.size(), .text = text};
}

inline interface_facts sample_interface(const char* name) {
    return {
        .state = {.name = name, .up = true, .running = true, .hardware = ARPHRD_ETHER, .mtu = 1500},
        .link = {.up = true},
        .driver = "e1000e",
        .vlan_offload = feature{.on = true},
        .vlan_filter = feature{},
        .capture = capture_facts{.in_blocks = true, .immediate = true}};
}

inline constexpr char sample_properties[] =
    "log4j.logger.logfile=ALL, LOG\n"
    "log4j.logger.syslogfile=ALL, LOG\n"
    "log4j.logger.statslogfile=ALL, STATS\n"
    "log4j.appender.LOG=org.apache.log4j.RollingFileAppender\n"
    "log4j.appender.LOG.File=/var/log/qnm/qnm.log\n"
    "log4j.appender.LOG.MaxFileSize=10MB\n"
    "log4j.appender.LOG.MaxBackupIndex=5\n"
    "log4j.appender.LOG.layout=org.apache.log4j.PatternLayout\n"
    "log4j.appender.STATS=org.apache.log4j.RollingFileAppender\n"
    "log4j.appender.STATS.File=/var/log/qnm/qnm_stats.log\n"
    "log4j.appender.STATS.MaxFileSize=10MB\n"
    "log4j.appender.STATS.MaxBackupIndex=5\n"
    "log4j.appender.STATS.layout=org.apache.log4j.PatternLayout\n";

inline log_place sample_log(const char* file) {
    return {.file = file,
            .folder = "/var/log/qnm",
            .folder_writable = true,
            .free_bytes = std::uintmax_t{1} << 30};
}

inline inspected sample_system() {
    inspected system;
    system.library.path = "/usr/lib/libqnm.so." QNMCTL_VERSION;
    system.privileges = {.effective = true, .permitted = true, .program = "/usr/bin/qnmctl"};
    system.directory = "/opt/tarvo/qnm";
    system.config = sample_file("/opt/tarvo/qnm/conf/qnm.conf", "ether_port = eth1,eth2\n");
    system.properties = sample_file("/opt/tarvo/qnm/conf/qnm_log4c.properties", sample_properties);
    system.known_interfaces = {"lo", "eth0", "eth1", "eth2"};
    system.interfaces = {sample_interface("eth1"), sample_interface("eth2")};
    system.capture_library = "libpcap version 1.10.3 (with TPACKET_V3)";
    system.clock = {.samples = {{0, 1000, 10}, {300'000'000, 300'001'005, 300'000'010}},
                    .adjustment = 0,
                    .synchronised = true};
    system.logs = {sample_log("/var/log/qnm/qnm.log"), sample_log("/var/log/qnm/qnm_stats.log")};
    system.dissector = {
        .version = "4.4.6", .folder = "/usr/lib/wireshark/plugins", .for_all = true};
    return system;
}

}  // namespace qnmctl
