// site.cpp - writes the files of an installation.

#include "site.h"

#include <filesystem>
#include <fstream>

#include "stage.h"

namespace soak {

namespace {

std::string configuration() {
    return "ether_port = qnm0,qnm1\n"
           "devinfo_expire_time = 4000\n"
           "stats_interval = 20\n"
           "eeprom_retry_count = 20\n"
           "eeprom_verify_count = 5\n"
           "eeprom_rw_interval = 10\n"
           "tag_max = " +
           std::to_string(k_highest_tag) + "\n";
}

void install_rotation(const std::string& directory) {
    std::ofstream out(directory + "/conf/qnm_log4c.properties");
    for (const std::string logger : {"logfile", "syslogfile", "statslogfile"}) {
        const std::string appender = "log4j.appender." + logger;
        out << "log4j.logger." << logger << "=ALL, " << logger << '\n'
            << "log4j.additivity." << logger << "=false\n"
            << appender << "=org.apache.log4j.RollingFileAppender\n"
            << appender << ".File=" << directory << '/' << logger << '\n'
            << appender << ".MaxFileSize=50KB\n"
            << appender << ".MaxBackupIndex=2\n"
            << appender << ".layout=org.apache.log4j.PatternLayout\n"
            << appender << ".layout.ConversionPattern=%d{ISO8601} %-5p %m%n\n";
    }
}

}  // namespace

site::site() : e2e::installation(configuration()) {
    install_rotation(path());
}

std::string site::unrotated() const {
    std::string names;
    for (const char* const log : {"logfile.1", "statslogfile.1"}) {
        if (!std::filesystem::exists(path() + '/' + log)) names += std::string(" ") + log;
    }
    return names;
}

}  // namespace soak
