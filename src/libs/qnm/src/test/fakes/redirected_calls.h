// redirected_calls.h - code under test for the self-test of the fakes.
//
// The functions make the calls that fail.cpp takes over, and are built and redirected as the
// library is. Each only passes its arguments on. The _fortified ones are compiled with
// _FORTIFY_SOURCE, for which the C library has symbols of its own.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#include <cstdio>

namespace redirected {

int do_accept4(int fd, int flags);
int do_bind(int fd, const struct sockaddr* addr, socklen_t len);
int do_clock_gettime(clockid_t clock, struct timespec* now);
int do_clock_nanosleep(clockid_t clock, int flags, const struct timespec* until);
int do_connect(int fd, const struct sockaddr* addr, socklen_t len);
int do_fcntl(int fd, int command, int arg);
FILE* do_fdopen(int fd, const char* mode);
char* do_fgets(char* buf, int size, FILE* stream);
FILE* do_fopen(const char* path, const char* mode);
int do_fstat(int fd, struct stat* st);
int do_getsockopt(int fd, int level, int option, void* value, socklen_t* len);
int do_gettimeofday(struct timeval* now);
int do_ioctl(int fd, unsigned long request, void* arg);
int do_kill(pid_t pid, int signal);
int do_listen(int fd, int backlog);
struct tm* do_localtime_r(const time_t* when, struct tm* result);
int do_open(const char* path);
int do_pipe(int ends[2]);
int do_poll(struct pollfd* fds, nfds_t nfds, int timeout_ms);
int do_atfork(void (*child)());
int do_cond_destroy(pthread_cond_t* cond);
int do_cond_init(pthread_cond_t* cond);
int do_cond_signal(pthread_cond_t* cond);
int do_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* until);
int do_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex);
int do_condattr_init(pthread_condattr_t* attr);
int do_condattr_setclock(pthread_condattr_t* attr, clockid_t clock);
int do_thread_create(pthread_t* thread, void* (*routine)(void*), void* arg);
int do_thread_join(pthread_t thread);
int do_mutex_destroy(pthread_mutex_t* mutex);
int do_mutex_init(pthread_mutex_t* mutex);
int do_mutex_lock(pthread_mutex_t* mutex);
int do_sigmask(int how, const sigset_t* set, sigset_t* before);
ssize_t do_read(int fd, void* buf, size_t size);
ssize_t do_recv(int fd, void* buf, size_t size);
int do_setsockopt(int fd, int level, int option, const void* value, socklen_t len);
int do_socket(int domain, int type, int protocol);
int do_stat(const char* path, struct stat* st);
size_t do_strftime(char* buf, size_t size, const char* format, const struct tm* when);
time_t do_time();
ssize_t do_write(int fd, const void* buf, size_t size);

constexpr size_t k_fortified_size = 16;

// Into a buffer of k_fortified_size bytes of their own.
bool fgets_fortified(int size, FILE* stream);
ssize_t read_fortified(int fd, size_t size);
ssize_t recv_fortified(int fd, size_t size);
int poll_fortified(nfds_t nfds);  // on up to two unused entries

}  // namespace redirected
