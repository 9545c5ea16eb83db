// redirected_calls.cpp - code under test for the self-test of the fakes; see redirected_calls.h.

#include "redirected_calls.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace redirected {

int do_accept4(int fd, int flags) {
    return accept4(fd, nullptr, nullptr, flags);
}

int do_bind(int fd, const struct sockaddr* addr, socklen_t len) {
    return bind(fd, addr, len);
}

int do_clock_gettime(clockid_t clock, struct timespec* now) {
    return clock_gettime(clock, now);
}

int do_clock_nanosleep(clockid_t clock, int flags, const struct timespec* until) {
    return clock_nanosleep(clock, flags, until, nullptr);
}

int do_connect(int fd, const struct sockaddr* addr, socklen_t len) {
    return connect(fd, addr, len);
}

int do_fcntl(int fd, int command, int arg) {
    return fcntl(fd, command, arg);
}

FILE* do_fdopen(int fd, const char* mode) {
    return fdopen(fd, mode);
}

char* do_fgets(char* buf, int size, FILE* stream) {
    return fgets(buf, size, stream);
}

FILE* do_fopen(const char* path, const char* mode) {
    return fopen(path, mode);
}

int do_fstat(int fd, struct stat* st) {
    return fstat(fd, st);
}

int do_getsockopt(int fd, int level, int option, void* value, socklen_t* len) {
    return getsockopt(fd, level, option, value, len);
}

int do_gettimeofday(struct timeval* now) {
    return gettimeofday(now, nullptr);
}

int do_ioctl(int fd, unsigned long request, void* arg) {
    return ioctl(fd, request, arg);
}

int do_kill(pid_t pid, int signal) {
    return kill(pid, signal);
}

int do_listen(int fd, int backlog) {
    return listen(fd, backlog);
}

struct tm* do_localtime_r(const time_t* when, struct tm* result) {
    return localtime_r(when, result);
}

int do_open(const char* path) {
    return open(path, O_RDONLY);
}

int do_pipe(int ends[2]) {
    return pipe(ends);
}

int do_poll(struct pollfd* fds, nfds_t nfds, int timeout_ms) {
    return poll(fds, nfds, timeout_ms);
}

int do_atfork(void (*child)()) {
    return pthread_atfork(nullptr, nullptr, child);
}

int do_cond_destroy(pthread_cond_t* cond) {
    return pthread_cond_destroy(cond);
}

int do_cond_init(pthread_cond_t* cond) {
    return pthread_cond_init(cond, nullptr);
}

int do_cond_signal(pthread_cond_t* cond) {
    return pthread_cond_signal(cond);
}

int do_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* until) {
    return pthread_cond_timedwait(cond, mutex, until);
}

int do_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    return pthread_cond_wait(cond, mutex);
}

int do_condattr_init(pthread_condattr_t* attr) {
    return pthread_condattr_init(attr);
}

int do_condattr_setclock(pthread_condattr_t* attr, clockid_t clock) {
    return pthread_condattr_setclock(attr, clock);
}

int do_thread_create(pthread_t* thread, void* (*routine)(void*), void* arg) {
    return pthread_create(thread, nullptr, routine, arg);
}

int do_thread_join(pthread_t thread) {
    return pthread_join(thread, nullptr);
}

int do_mutex_destroy(pthread_mutex_t* mutex) {
    return pthread_mutex_destroy(mutex);
}

int do_mutex_init(pthread_mutex_t* mutex) {
    return pthread_mutex_init(mutex, nullptr);
}

int do_mutex_lock(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int do_sigmask(int how, const sigset_t* set, sigset_t* before) {
    return pthread_sigmask(how, set, before);
}

ssize_t do_read(int fd, void* buf, size_t size) {
    return read(fd, buf, size);
}

ssize_t do_recv(int fd, void* buf, size_t size) {
    return recv(fd, buf, size, 0);
}

int do_setsockopt(int fd, int level, int option, const void* value, socklen_t len) {
    return setsockopt(fd, level, option, value, len);
}

int do_socket(int domain, int type, int protocol) {
    return socket(domain, type, protocol);
}

int do_stat(const char* path, struct stat* st) {
    return stat(path, st);
}

size_t do_strftime(char* buf, size_t size, const char* format, const struct tm* when) {
    return strftime(buf, size, format, when);
}

time_t do_time() {
    return time(nullptr);
}

ssize_t do_write(int fd, const void* buf, size_t size) {
    return write(fd, buf, size);
}

}  // namespace redirected
