// qnm_util.cpp - stateless helpers: result codes, ID and MAC conversion, clocks, file tests.

#include "qnm_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char k_default_dir[] = "/opt/tarvo/qnm";

struct code_row {
    int err;
    qnm_api_code_t code;
};

constexpr code_row k_codes[] = {
    {0, QNM_API_SUCCESS},     {EINVAL, QNM_API_EINVAL},       {ERANGE, QNM_API_ERANGE},
    {ENOENT, QNM_API_ENOENT}, {ENOLINK, QNM_API_ENOLINK},     {ENOMEM, QNM_API_ENOMEM},
    {EPROTO, QNM_API_EPROTO}, {ETIMEDOUT, QNM_API_ETIMEDOUT}, {EBUSY, QNM_API_EBUSY},
    {ENOSYS, QNM_API_ENOSYS},
};

// A single bit of the mode, not the whole file-type field.
int has_mode_bit(const char* path, mode_t bit) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) return -1;
    return (st.st_mode & bit) != 0 ? 0 : -1;
}

uint64_t to_msec(const struct timespec& time) {
    return static_cast<uint64_t>(time.tv_sec) * 1000 +
           static_cast<uint64_t>(time.tv_nsec) / 1000000;
}

}  // namespace

extern "C" {

qnm_api_code_t qnm_err2retcode(int err) {
    for (const code_row& row : k_codes) {
        if (row.err == err) return row.code;
    }
    return QNM_API_EPROTO;
}

void _qnm_mac_to_uint64(const uint8_t mac[6], uint64_t* value) {
    uint64_t number = 0;
    for (int i = 0; i < 6; i++)
        number = number << 8 | mac[i];
    *value = number;
}

void _qnm_mac2id(const uint8_t mac[6], uint64_t* id, uint8_t clear_low_bit) {
    _qnm_mac_to_uint64(mac, id);
    if (clear_low_bit != 0) *id &= ~uint64_t{1};
}

void _qnm_uint64_to_mac(uint64_t value, uint8_t mac[6]) {
    for (int i = 0; i < 6; i++)
        mac[i] = static_cast<uint8_t>(value >> (40 - 8 * i));
}

void _qnm_id2mac(uint64_t id, uint8_t mac[6]) {
    _qnm_uint64_to_mac(id, mac);
}

uint64_t _qnm_get_usec_timenow_lin(void) {
    struct timeval now = {};  // what it stays when the clock cannot be read
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

uint64_t _qnm_get_usec_timenow(void) {
    return _qnm_get_usec_timenow_lin();
}

uint64_t _qnm_get_msec_timenow_lin(void) {
    return _qnm_get_usec_timenow_lin() / 1000;
}

uint64_t _qnm_get_msec_timenow(void) {
    return _qnm_get_msec_timenow_lin();
}

int _qnm_get_nowstr_lin(char* buf, size_t len) {
    const time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) {
        if (len != 0) buf[0] = '\0';
        return EPROTO;
    }
    return strftime(buf, len, "%Y-%m-%d %H:%M:%S", &local) != 0 ? 0 : EPROTO;
}

int _qnm_get_nowstr(char* buf, size_t len) {
    return _qnm_get_nowstr_lin(buf, len);
}

int _qnm_get_deadline(uint32_t ms, struct timespec* deadline) {
    errno = 0;
    if (clock_gettime(CLOCK_MONOTONIC, deadline) != 0 && errno != 0) return EPROTO;
    deadline->tv_sec += ms / 1000;
    deadline->tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (deadline->tv_nsec >= 1000000000) {
        deadline->tv_sec++;
        deadline->tv_nsec -= 1000000000;
    }
    return 0;
}

uint64_t _qnm_get_msec_monotonic(void) {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return to_msec(now);
}

uint64_t _qnm_get_msec_since_boot(void) {
    struct timespec now = {};
    if (clock_gettime(CLOCK_BOOTTIME, &now) != 0) return _qnm_get_msec_monotonic();
    return to_msec(now);
}

void _qnm_msleep(uint32_t ms) {
    struct timespec deadline;
    if (_qnm_get_deadline(ms, &deadline) != 0) return;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

void _qnm_close_on_exec(int fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

int _qnm_make_filename(const char* dir, const char* file, char* name, size_t size) {
    const char* const base = dir != nullptr && dir[0] != '\0' ? dir : k_default_dir;
    if (strlen(base) + 1 + strlen(file) + 1 > size) return EPROTO;
    snprintf(name, size, "%s/%s", base, file);
    return 0;
}

int _qnm_file_exist(const char* path) {
    return has_mode_bit(path, 0x8000);
}

int _qnm_dir_exist(const char* path) {
    return has_mode_bit(path, 0x4000);
}

}  // extern "C"
