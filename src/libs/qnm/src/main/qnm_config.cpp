// qnm_config.cpp - reads qnm.conf into qnm_config and prints it.
//
// What keys there are and what their values can be is in qnm_config_keys. The file is lines of the
// form key = value; the first occurrence of a key wins, and an unknown key or a bad value ends the
// reading, so that no mistake passes unnoticed.

#include "qnm_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "qnm_config_keys.h"
#include "qnm_util.h"

qnm_conf_t qnm_config;
qnm_conf_flag_t qnm_flag;

namespace {

using qnm::config_base;
using qnm::config_form;
using qnm::config_verdict;

constexpr size_t k_line_size = 128;
constexpr char k_blanks[] = " \t\r\n";

using line_func = void (*)(const char* fmt, ...);

// ---- Printing -----------------------------------------------------------------------------------

void print_number(const qnm_config_key_t& key, line_func line) {
    const uint32_t value = qnm_config.*key.field;
    switch (key.base) {
        case config_base::decimal:
            return line("    %-30s: %u", key.name, value);
        case config_base::hex4:
            return line("    %-30s: %#.4x", key.name, value);
        case config_base::hex8:
            return line("    %-30s: %#.8x", key.name, value);
    }
}

void print_interfaces(line_func line) {
    line("    %-30s: %s", "ether_port0_name", qnm_config.ether_port_name[0]);
    line("    %-30s: %s", "ether_port1_name", qnm_config.ether_port_name[1]);
}

// The two port counts follow the indexes in the record and have no key of their own.
void print_indexes(line_func line) {
    line("    %-30s: %u", "ether_port0_ifindex", qnm_config.ether_port_ifindex[0]);
    line("    %-30s: %u", "ether_port1_ifindex", qnm_config.ether_port_ifindex[1]);
    line("    %-30s: %u", "use_port_num_win", qnm_config.use_port_num_win);
    line("    %-30s: %u", "use_port_num_linux", qnm_config.use_port_num_linux);
}

void print_value(const qnm_config_key_t& key, line_func line) {
    switch (key.form) {
        case config_form::number:
            return print_number(key, line);
        case config_form::ether_type:
            return line("    %-30s: %#.4x", key.name, qnm_config.ether_type);
        case config_form::interfaces:
            return print_interfaces(line);
        case config_form::indexes:
            return print_indexes(line);
        case config_form::mac:
            return line("    %-30s: %.12lx", key.name, qnm_config.broadcast_mac);
    }
}

void print_all(line_func line) {
    for (const qnm_config_key_t& key : qnm::config_keys())
        print_value(key, line);
}

// ---- Reading ------------------------------------------------------------------------------------

// An Ethernet type that is too large is reported as one that cannot be parsed.
const char* text_of(config_verdict verdict, config_form form) {
    const bool is_range =
        verdict == config_verdict::out_of_range && form != config_form::ether_type;
    return is_range ? "out of range error" : "config parameter parse error";
}

// One piece of the file of at most 127 characters. Log lines carry the reader's name.
int read_line(const char* func, char* line) {
    if (line[0] == '#') return 0;
    char* value = strchr(line, '=');
    if (value != nullptr) {
        *value++ = '\0';
    } else {
        value = line + strlen(line);
    }
    char* rest = nullptr;
    const char* key = strtok_r(line, k_blanks, &rest);
    if (key == nullptr) return 0;
    const qnm_config_key_t* const row = _qnm_find_config_key(key);
    if (row == nullptr) {
        qnm_log_error("%s: Unknown config parameter: %s", func, key);
        return EPROTO;
    }
    if (qnm_flag.*row->flag == 1) return 0;
    const config_verdict verdict = _qnm_set_config_value(row, value, &qnm_config);
    if (verdict != config_verdict::ok) {
        qnm_log_error("%s: %s: %s", func, text_of(verdict, row->form), key);
        return EPROTO;
    }
    qnm_flag.*row->flag = 1;
    return 0;
}

int read_lines(const char* func, const char* path, FILE* file) {
    char line[k_line_size];
    while (fgets(line, sizeof line, file) != nullptr) {
        const int ret = read_line(func, line);
        if (ret != 0) return ret;
    }
    if (ferror(file) != 0) {
        qnm_log_error("%s: file read error: %s. errno=%d", func, path, errno);
        return EPROTO;
    }
    if (qnm_config.tag_min > qnm_config.tag_max) {
        qnm_log_error("%s: config parameter error: tag_min > tag_max", func);
        return EPROTO;
    }
    return 0;
}

using stream = std::unique_ptr<FILE, int (*)(FILE*)>;

// The file may have been replaced since it was checked, for instance by a FIFO that nobody writes
// to; opening that would block. Null with errno if it cannot be read.
stream open_file(const char* path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return {nullptr, fclose};
    struct stat now;
    int err = fstat(fd, &now) != 0 ? errno : 0;
    if (err == 0 && !S_ISREG(now.st_mode)) err = S_ISDIR(now.st_mode) ? EISDIR : ESPIPE;
    FILE* file = nullptr;
    if (err == 0) {
        file = fdopen(fd, "r");
        err = errno;
    }
    if (file == nullptr) {
        close(fd);
        errno = err;
    }
    return {file, fclose};
}

}  // namespace

extern "C" {

int _qnm_config_init(void) {
    _qnm_set_config_defaults(&qnm_config);
    return 0;
}

int _qnm_config_read(char* path) {
    _qnm_config_init();
    qnm_flag = {};
    if (_qnm_file_exist(path) != 0) {
        qnm_log_warn("%s: Failed to _qnm_file_exist(). path=%s", __func__, path);
        return ENOENT;
    }
    const stream file = open_file(path);
    if (file == nullptr) {
        qnm_log_error("%s: file open error: %s. erno=%d", __func__, path, errno);
        return EPROTO;
    }
    const int ret = read_lines(__func__, path, file.get());
    if (ret == 0) _qnm_config_value_print();
    return ret;
}

int _qnm_config_fini(void) {
    qnm_log_info("%s: start.", __func__);
    qnm_log_info("%s: end.", __func__);
    return 0;
}

void _qnm_config_value_print(void) {
    qnm_log_info("%s: start.", __func__);
    print_all(qnm_log_info);
    qnm_log_info("%s: end.", __func__);
}

void _qnm_config_stats_print(void) {
    qnm_statslog("  - Config parameters");
    print_all(qnm_statslog);
}

}  // extern "C"
