// qnm_port_lock.cpp - at most one manager accesses cards by an interface.
//
// The lock is an abstract Unix socket that is named after the interface's index: the kernel lets
// one process of a network namespace bind the name, and releases it with its process, whatever
// happens to that. The socket is made when the port is opened, as it belongs to the namespace of
// the thread that makes it, and so does a spare one, by which another holder can be asked who he
// is; it is replaced by the thread that runs the manager. Bound is the socket with the first frame
// to a card.
//
// Locking must not be a means to keep managers out: a process that cannot be one is passed over
// with a warning, and then there is no lock, but each frame tries for it. Nor must somebody be able
// to hide a manager by connecting to it until nobody else can: it makes room again each time it
// looks at its guests, so whoever finds none asks for a while before passing it over. Where no such
// socket can be had at all, there is no lock either.
//
// The records are open while their ports are. Senders look at pl_settled alone when there is
// nothing left to do; all else is under the record's mutex, which is taken alone.

#include "qnm_port_lock.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "qnm.h"
#include "qnm_main.h"
#include "qnm_port_holder.h"
#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

// How long somebody is given who has bound the name and does not listen yet, is about to leave, or
// has no room for another guest: a second in all.
constexpr uint32_t k_settle_ms = 10;
constexpr uint32_t k_settle_rounds = 100;

struct port_lock {
    qnm_mutex_t pl_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PORT);
    uint32_t pl_settled = 1;                     // atomic; 1 = frames may leave
    int pl_fd QNM_GUARDED_BY(pl_mutex) = -1;     // the lock,
    int pl_error QNM_GUARDED_BY(pl_mutex) = 0;   // or why there is none
    int pl_spare QNM_GUARDED_BY(pl_mutex) = -1;  // for the next question
    int pl_if_index QNM_GUARDED_BY(pl_mutex) = 0;
    qnm_port_holder_t pl_other QNM_GUARDED_BY(pl_mutex) = {};  // as the last question found him
    bool pl_is_told QNM_GUARDED_BY(pl_mutex) = false;          // that frames leave without a lock
};

port_lock port_locks[2];

// The lock of each port: the other one's, where both are the same interface. Set before there are
// frames.
port_lock* lock_of_port[2] = {&port_locks[0], &port_locks[1]};

void close_descriptor(int& fd) {
    if (fd != -1) close(std::exchange(fd, -1));
}

// A child must not keep the names when this process releases them. It has one thread, and whatever
// mutex was held at the fork stays so.
void close_in_child() QNM_UNCHECKED {
    for (port_lock& lock : port_locks) {
        close_descriptor(lock.pl_fd);
        close_descriptor(lock.pl_spare);
    }
}

void prepare_forks(const char* func) {
    static bool is_prepared = false;
    if (is_prepared) return;
    const int err = pthread_atfork(nullptr, nullptr, close_in_child);
    is_prepared = err == 0;
    if (err != 0) qnm_log_warn("%s: Failed to pthread_atfork(). err=%d", func, err);
}

// 0; EADDRINUSE when another one has the name; or why there can be no lock.
int bind_name(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_fd == -1) return lock.pl_error;
    struct sockaddr_un address;
    const socklen_t length = _qnm_port_address(lock.pl_if_index, &address);
    if (bind(lock.pl_fd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0 ||
        listen(lock.pl_fd, SOMAXCONN) != 0) {
        return errno;
    }
    return 0;
}

// Without a spare socket the last answer holds; the name has just been tried for.
void ask_other(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_spare == -1) return;
    if (_qnm_ask_port_holder(lock.pl_spare, lock.pl_if_index, &lock.pl_other)) {
        close_descriptor(lock.pl_spare);
    }
}

// Tells once that there is no lock, and why.
void pass_over(const char* func, port_lock& lock, int port, int err) QNM_REQUIRES(lock.pl_mutex) {
    if (std::exchange(lock.pl_is_told, true)) return;
    const qnm_port_holder_t other = lock.pl_other;
    if (err != EADDRINUSE) {
        qnm_log_warn("%s: Failed to lock the port against other managers. errno=%d, port_num=%d",
                     func, err, port);
    } else if (other.eph_kind == QNM_HOLDER_STRANGER) {
        qnm_log_warn(
            "%s: Process %d (%s) has the lock of the port and is no manager. Going on without it. "
            "port_num=%d",
            func, other.eph_pid, other.eph_name, port);
    } else {
        qnm_log_warn(
            "%s: The lock of the port is taken and nobody answers there. Going on without it. "
            "port_num=%d",
            func, port);
    }
}

int refuse(const char* func, int port, const qnm_port_holder_t& other) {
    if (other.eph_pid != 0) {
        qnm_log_error("%s: Cards on port_num=%d are accessed by process %d (%s)", func, port,
                      other.eph_pid, other.eph_name);
    } else {
        qnm_log_error(
            "%s: Cards on port_num=%d are accessed by a process that cannot be seen from "
            "here",
            func, port);
    }
    return EBUSY;
}

// Tries once: 0, 16, or 11 when whoever has the name is still to be given time.
int try_to_take(const char* func, port_lock& lock, int port, bool may_wait) {
    const qnm::mutex_guard guard(lock.pl_mutex);
    if (qnm::load(lock.pl_settled) == 1) return 0;
    const int err = bind_name(lock);
    if (err == EADDRINUSE) {
        ask_other(lock);
        const qnm_holder_kind_t kind = lock.pl_other.eph_kind;
        if (kind == QNM_HOLDER_MANAGER) return refuse(func, port, lock.pl_other);
        if (kind == QNM_HOLDER_NOBODY && may_wait && !lock.pl_is_told) return EAGAIN;
    }
    if (err != 0) pass_over(func, lock, port, err);
    if (err != EADDRINUSE) qnm::store(lock.pl_settled, 1U);
    return 0;
}

// Takes the connections of those who have asked, so that the next ones find room; not for ever.
void dismiss_guests(int fd) {
    for (int n = 0; n < SOMAXCONN; n++) {
        int guest = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (guest == -1) return;
        close_descriptor(guest);
    }
}

}  // namespace

extern "C" {

void _qnm_port_lock_open(int port, int if_index) {
    prepare_forks(__func__);
    port_lock& first = port_locks[0];
    lock_of_port[port] = &port_locks[port];
    if (port == 1) {
        const qnm::mutex_guard guard(first.pl_mutex);
        if (qnm::load(first.pl_settled) == 0 && first.pl_if_index == if_index) {
            lock_of_port[port] = &first;
            return;
        }
    }
    port_lock& lock = port_locks[port];
    const qnm::mutex_guard guard(lock.pl_mutex);
    lock.pl_if_index = if_index;
    lock.pl_other = {QNM_HOLDER_MANAGER, 0, ""};
    lock.pl_is_told = false;
    lock.pl_fd = _qnm_port_socket();
    lock.pl_error = lock.pl_fd == -1 ? errno : 0;
    lock.pl_spare = _qnm_port_socket();
    qnm::store(lock.pl_settled, 0U);
}

int _qnm_port_lock_take(int port) {
    port_lock& lock = *lock_of_port[port];
    if (qnm::load(lock.pl_settled) == 1) return 0;
    for (uint32_t round = 0;; round++) {
        const bool may_wait = round < k_settle_rounds && qnm::is_running();
        const int err = try_to_take(__func__, lock, port, may_wait);
        if (err != EAGAIN) return err;
        _qnm_sleep_while_running(k_settle_ms);
    }
}

void _qnm_port_lock_serve(void) {
    for (port_lock& lock : port_locks) {
        const qnm::mutex_guard guard(lock.pl_mutex);
        if (lock.pl_fd == -1) continue;
        if (qnm::load(lock.pl_settled) == 1) {
            dismiss_guests(lock.pl_fd);
        } else if (lock.pl_spare == -1) {
            lock.pl_spare = _qnm_port_socket();
        }
    }
}

void _qnm_port_lock_close(int port) {
    port_lock& lock = port_locks[port];
    const qnm::mutex_guard guard(lock.pl_mutex);
    // Who has got it by a way that runs no handlers, or by a fork at this moment, listens no
    // longer.
    if (lock.pl_fd != -1) shutdown(lock.pl_fd, SHUT_RDWR);
    close_descriptor(lock.pl_fd);
    close_descriptor(lock.pl_spare);
    qnm::store(lock.pl_settled, 1U);
}

}  // extern "C"
