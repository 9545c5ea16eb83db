// qnm_config.cpp - reads qnm.conf into qnm_config and prints it.
//
// One table has a row per key, in the order of the record: how the value is read and printed, where
// it is stored, its default and its range. The file is lines of the form key = value; the first
// occurrence of a key wins, and an unknown key or a bad value ends the reading, so that no mistake
// passes unnoticed.

#include "qnm_config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "qnm_util.h"

qnm_conf_t qnm_config;
qnm_conf_flag_t qnm_flag;

namespace {

constexpr size_t k_line_size = 128;
constexpr char k_blanks[] = " \t\r\n";
constexpr char k_list_blanks[] = " ,\t";
constexpr char k_line_end[] = "\r\n";
constexpr size_t k_max_index_length = 10;
constexpr size_t k_mac_length = 17;
constexpr uint32_t k_any = 0xFFFFFFFF;

enum class outcome { ok, parse_error, range_error };
enum class sign { refused, unchecked };

struct key_row;
using parse_func = outcome (*)(const key_row& row, char* value);
using line_func = void (*)(const char* fmt, ...);
using print_func = void (*)(const key_row& row, line_func line);

outcome parse_number(const key_row& row, char* value);
void print_decimal(const key_row& row, line_func line);

struct key_row {
    const char* key;
    int qnm_conf_flag_t::*flag;
    uint32_t qnm_conf_t::*field;  // of a plain number; the other keys store by themselves
    uint32_t initial;
    uint32_t min;
    uint32_t max;
    print_func print = print_decimal;
    sign minus = sign::refused;
    parse_func parse = parse_number;
};

// A whole 32-bit number: decimal, 0x hexadecimal or leading-0 octal.
bool to_number(const char* token, uint32_t* number) {
    char* end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(token, &end, 0);
    if (errno != 0 || end == token || *end != '\0' || value > k_any) return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

outcome parse_number(const key_row& row, char* value) {
    char* rest = nullptr;
    const char* token = strtok_r(value, k_blanks, &rest);
    uint32_t number = 0;
    if (token == nullptr) return outcome::parse_error;
    if (row.minus == sign::refused && token[0] == '-') return outcome::parse_error;
    if (!to_number(token, &number)) return outcome::parse_error;
    if (number < row.min || number > row.max) return outcome::range_error;
    qnm_config.*row.field = number;
    return outcome::ok;
}

// One or two interface names.
outcome parse_ether_port(const key_row&, char* value) {
    memset(qnm_config.ether_port_name, 0, sizeof qnm_config.ether_port_name);
    value[strcspn(value, k_line_end)] = '\0';
    uint32_t count = 0;
    char* rest = nullptr;
    for (const char* token = strtok_r(value, k_list_blanks, &rest);
         token != nullptr && count < std::size(qnm_config.ether_port_name);
         token = strtok_r(nullptr, k_list_blanks, &rest)) {
        const size_t length = strlen(token);
        if (length >= sizeof qnm_config.ether_port_name[0]) return outcome::parse_error;
        memcpy(qnm_config.ether_port_name[count++], token, length + 1);
    }
    if (count == 0) return outcome::parse_error;
    qnm_config.use_port_num_linux = count;
    return outcome::ok;
}

// One or two interface indexes. A token that is no number ends the list.
outcome parse_ether_port_ifindex(const key_row&, char* value) {
    memset(qnm_config.ether_port_ifindex, 0, sizeof qnm_config.ether_port_ifindex);
    qnm_config.use_port_num_win = 0;
    value[strcspn(value, k_line_end)] = '\0';
    uint32_t count = 0;
    char* rest = nullptr;
    for (const char* token = strtok_r(value, k_list_blanks, &rest);
         token != nullptr && count < std::size(qnm_config.ether_port_ifindex);
         token = strtok_r(nullptr, k_list_blanks, &rest)) {
        if (token[0] == '-' || strlen(token) > k_max_index_length) return outcome::parse_error;
        char* end = nullptr;
        strtoul(token, &end, 0);
        if (end == token || *end != '\0') break;
        if (!to_number(token, &qnm_config.ether_port_ifindex[count])) {
            return outcome::parse_error;
        }
        count++;
    }
    if (count == 0) return outcome::parse_error;
    qnm_config.use_port_num_win = count;
    return outcome::ok;
}

// Six pairs of hexadecimal digits with colons. A sign in a pair makes it overflow its byte.
outcome parse_broadcast_mac(const key_row&, char* value) {
    char* rest = nullptr;
    const char* token = strtok_r(value, k_blanks, &rest);
    if (token == nullptr || strlen(token) != k_mac_length) return outcome::parse_error;
    unsigned pair[6];
    if (sscanf(token, "%02x:%02x:%02x:%02x:%02x:%02x", &pair[0], &pair[1], &pair[2], &pair[3],
               &pair[4], &pair[5]) != 6) {
        return outcome::parse_error;
    }
    uint64_t mac = 0;
    for (const unsigned byte : pair) {
        if (byte > 0xFF) return outcome::range_error;
        mac = mac << 8 | byte;
    }
    qnm_config.broadcast_mac = mac;
    return outcome::ok;
}

// Its one error is the parse error, also for a number above 65535.
outcome parse_ether_type(const key_row&, char* value) {
    char* rest = nullptr;
    const char* token = strtok_r(value, k_blanks, &rest);
    uint32_t number = 0;
    if (token == nullptr || !to_number(token, &number) || number > UINT16_MAX) {
        return outcome::parse_error;
    }
    qnm_config.ether_type = static_cast<uint16_t>(number);
    return outcome::ok;
}

void print_decimal(const key_row& row, line_func line) {
    line("    %-30s: %u", row.key, qnm_config.*row.field);
}

void print_hex4(const key_row& row, line_func line) {
    line("    %-30s: %#.4x", row.key, qnm_config.*row.field);
}

void print_hex8(const key_row& row, line_func line) {
    line("    %-30s: %#.8x", row.key, qnm_config.*row.field);
}

void print_ether_port(const key_row&, line_func line) {
    line("    %-30s: %s", "ether_port0_name", qnm_config.ether_port_name[0]);
    line("    %-30s: %s", "ether_port1_name", qnm_config.ether_port_name[1]);
}

void print_broadcast_mac(const key_row& row, line_func line) {
    line("    %-30s: %.12lx", row.key, qnm_config.broadcast_mac);
}

// The two port counts stand behind the indexes in the record and have no key of their own.
void print_ether_port_ifindex(const key_row&, line_func line) {
    line("    %-30s: %u", "ether_port0_ifindex", qnm_config.ether_port_ifindex[0]);
    line("    %-30s: %u", "ether_port1_ifindex", qnm_config.ether_port_ifindex[1]);
    line("    %-30s: %u", "use_port_num_win", qnm_config.use_port_num_win);
    line("    %-30s: %u", "use_port_num_linux", qnm_config.use_port_num_linux);
}

void print_ether_type(const key_row& row, line_func line) {
    line("    %-30s: %#.4x", row.key, qnm_config.ether_type);
}

#define FIELD(name) &qnm_conf_flag_t::ecf_##name, &qnm_conf_t::name
#define FLAG(name) &qnm_conf_flag_t::ecf_##name, nullptr, 0, 0, 0

constexpr key_row k_keys[] = {
    {"ether_port", FLAG(ether_port_name), print_ether_port, sign::refused, parse_ether_port},
    {"broadcast_mac", FLAG(broadcast_mac), print_broadcast_mac, sign::refused, parse_broadcast_mac},
    {"ether_port_ifindex", FLAG(ether_port_ifindex), print_ether_port_ifindex, sign::refused,
     parse_ether_port_ifindex},
    {"devinfo_check_interval", FIELD(devinfo_check_interval), 1000, 1000, 100000},
    {"devinfo_expire_time", FIELD(devinfo_expire_time), 5000, 1000, 100000},
    {"devinfo_flag_check_interval", FIELD(devinfo_flag_check_interval), 100, 1, 100000},
    {"vlan_check_interval", FIELD(vlan_check_interval), 10, 1, 1000},
    {"frame_retry_interval", FIELD(frame_retry_interval), 100, 1, 1000},
    {"frame_retry_count", FIELD(frame_retry_count), 10, 0, 100},
    {"frame_retry_interval_livecheck", FIELD(frame_retry_interval_lc), 100, 1, 1000},
    {"frame_retry_count_livecheck", FIELD(frame_retry_count_lc), 10, 0, 100},
    {"eeprom_id_number", FIELD(eeprom_id_number), 256, 1, 32768, print_hex4, sign::unchecked},
    {"eeprom_retry_interval", FIELD(eeprom_retry_interval), 50, 1, 1000},
    {"eeprom_retry_count", FIELD(eeprom_retry_count), 100, 0, 1000},
    {"eeprom_check_interval", FIELD(eeprom_check_interval), 1, 0, 1000},
    {"eeprom_check_retry_count", FIELD(eeprom_check_retry_count), 50, 0, 1000},
    {"eeprom_verify_count", FIELD(eeprom_verify_count), 20, 0, 60},
    {"eeprom_verify_interval", FIELD(eeprom_verify_interval), 1, 1, k_any},
    {"eeprom_lock_other_bit", FIELD(eeprom_lock_other_bit), 8, 0, k_any, print_hex8,
     sign::unchecked},
    {"eeprom_rw_interval", FIELD(eeprom_rw_interval), 100, 0, 1000},
    {"tag_min", FIELD(tag_min), 0, 0, 255},
    {"tag_max", FIELD(tag_max), 255, 0, 255},
    {"id_list_upper_limit", FIELD(id_list_upper_limit), k_any, 0, k_any, print_hex8,
     sign::unchecked},
    {"log_level", FIELD(log_level), 3, 0, 5},
    {"network_composition", FIELD(network_composition), 2, 1, 2},
    {"eeprom_type", FIELD(eeprom_type), 0, 0, 1},
    {"stats_interval", FIELD(stats_interval), 3600, 1, 2592000},
    {"stats_verbose_level", FIELD(stats_verbose_level), 0, 0, k_any},
    {"force_lock_try_count", FIELD(force_lock_try_count), 10, 0, 1000},
    {"register_verify_interval", FIELD(register_verify_interval), 0, 0, 1000},
    {"update_evt_mask", FIELD(update_evt_mask), 2, 1, 2},
    {"ether_type", FLAG(ether_type), print_ether_type, sign::unchecked, parse_ether_type},
};

#undef FIELD
#undef FLAG

const key_row* find_key(const char* key) {
    for (const key_row& row : k_keys) {
        if (strcmp(row.key, key) == 0) return &row;
    }
    return nullptr;
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
    const key_row* row = find_key(key);
    if (row == nullptr) {
        qnm_log_error("%s: Unknown config parameter: %s", func, key);
        return EPROTO;
    }
    if (qnm_flag.*row->flag == 1) return 0;
    switch (row->parse(*row, value)) {
        case outcome::ok:
            qnm_flag.*row->flag = 1;
            return 0;
        case outcome::range_error:
            qnm_log_error("%s: out of range error: %s", func, key);
            return EPROTO;
        default:
            qnm_log_error("%s: config parameter parse error: %s", func, key);
            return EPROTO;
    }
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

// The file may have become another since it was looked at: a FIFO, which nobody may ever write to,
// and which an opening would wait for. Null with errno when it cannot be read.
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

void print_all(line_func line) {
    for (const key_row& row : k_keys)
        row.print(row, line);
}

}  // namespace

extern "C" {

int _qnm_config_init(void) {
    qnm_config = {};
    strcpy(qnm_config.ether_port_name[0], "eth0");
    strcpy(qnm_config.ether_port_name[1], "eth1");
    qnm_config.broadcast_mac = 0x0300FFFFFFFF;
    qnm_config.ether_port_ifindex[1] = 1;
    qnm_config.use_port_num_win = 2;
    qnm_config.use_port_num_linux = 2;
    qnm_config.ether_type = 0x88B6;
    for (const key_row& row : k_keys) {
        if (row.field != nullptr) qnm_config.*row.field = row.initial;
    }
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
