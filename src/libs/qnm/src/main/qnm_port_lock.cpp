// qnm_port_lock.cpp - at most one manager accesses cards by an interface.
//
// The lock has two parts. The first decides: a packet socket group of the kernel with room for one
// member (qnm_port_group). Only a process that may open ports can join it, so no other process can
// take it or keep managers out of it. A manager joins with its first frame to a card, and a second
// socket of its own checks that the kernel really refuses another member. If the process forks in a
// way that no handler sees, the child keeps the socket and with it the group: only the last close
// takes a socket out of its group.
//
// The second part is a name, an abstract Unix socket after the interface's index. The member of the
// group listens there, so that others can find out who it is (qnm_port_holder). The kernel lets one
// process of a network namespace bind a name and releases it with the process. A process that has
// the name but not the group is not a manager; this is logged once as a warning, and the name is
// tried again from time to time.
//
// If the group decides nothing (Linux before 5.12, its number in use by another program, no packet
// socket), the name alone decides, and the group is tried again from time to time. Anybody can bind
// the name, so a process that cannot be a manager is ignored with a warning. There is no lock then,
// but each frame tries to get it. Somebody can also fill a manager's backlog by connecting to it.
// The manager makes room whenever it serves the socket, so a process that finds no room asks for a
// while before it ignores the name. Without such a socket there is no lock either.
//
// All sockets are made when the port is opened, because they belong to the namespace of the thread
// that makes them. One is a spare for asking another holder who it is; the thread that runs the
// manager replaces it.
//
// The records are open while their ports are. When nothing is left to do, senders read only
// pl_settled; everything else is guarded by the record's mutex, which is never held together with
// another lock.

#include "qnm_port_lock.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "qnm.h"
#include "qnm_port_group.h"
#include "qnm_port_holder.h"
#include "qnm_root.h"
#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

// How long to wait for a process that has bound the name but does not listen yet, is about to end,
// or has no room in its backlog: a second in all.
constexpr uint32_t k_settle_ms = 10;
constexpr uint32_t k_settle_rounds = 100;

// The same if the group has decided and the name is only needed for the message.
constexpr uint32_t k_naming_rounds = 2;

enum class membership : uint8_t {
    none,      // the group decides nothing, or has not been tried
    unproven,  // joined, and the kernel may let others join
    sole,      // joined, and nobody else can
};

struct port_lock {
    qnm_mutex_t pl_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PORT);
    uint32_t pl_settled = 1;                     // atomic; 1 = frames may leave
    int pl_group QNM_GUARDED_BY(pl_mutex) = -1;  // for the group
    int pl_probe QNM_GUARDED_BY(pl_mutex) = -1;  // must be refused while pl_group is in
    membership pl_member QNM_GUARDED_BY(pl_mutex) = membership::none;
    int pl_fd QNM_GUARDED_BY(pl_mutex) = -1;     // for the name,
    int pl_error QNM_GUARDED_BY(pl_mutex) = 0;   // or why it cannot be had
    int pl_spare QNM_GUARDED_BY(pl_mutex) = -1;  // for the next question
    int pl_if_index QNM_GUARDED_BY(pl_mutex) = 0;
    bool pl_is_named QNM_GUARDED_BY(pl_mutex) = false;         // pl_fd has the name
    qnm_port_holder_t pl_other QNM_GUARDED_BY(pl_mutex) = {};  // as last asked
    bool pl_is_told QNM_GUARDED_BY(pl_mutex) = false;          // that frames leave without the name
    bool pl_has_waited QNM_GUARDED_BY(pl_mutex) = false;       // for a name to show up
};

port_lock port_locks[2];

// The lock of each port. Two ports on the same interface share one. Set before the first frame.
port_lock* lock_of_port[2] = {&port_locks[0], &port_locks[1]};

void close_descriptor(int& fd) {
    if (fd != -1) close(std::exchange(fd, -1));
}

void close_all(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    for (int* fd : {&lock.pl_fd, &lock.pl_spare, &lock.pl_group, &lock.pl_probe})
        close_descriptor(*fd);
}

// A child must not keep the name or the group when this process releases them. It has one thread,
// and a mutex that was held at the fork stays locked.
void close_in_child() QNM_UNCHECKED {
    for (port_lock& lock : port_locks)
        close_all(lock);
}

void prepare_forks(const char* func) {
    static bool is_prepared = false;
    if (is_prepared) return;
    const int err = pthread_atfork(nullptr, nullptr, close_in_child);
    is_prepared = err == 0;
    if (err != 0) qnm_log_warn("%s: Failed to pthread_atfork(). err=%d", func, err);
}

// Whether another manager is in the group. If that is unknown now, it is tried again later.
bool is_other_in_group(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_group == -1 || lock.pl_member != membership::none) return false;
    const int err = _qnm_port_group_join(lock.pl_group, lock.pl_if_index);
    if (err != 0) return err == ENOSPC;
    const bool is_full = _qnm_port_group_join(lock.pl_probe, lock.pl_if_index) == ENOSPC;
    lock.pl_member = is_full ? membership::sole : membership::unproven;
    return false;
}

// 0; EADDRINUSE when another process has the name; else why it cannot be bound.
int bind_name(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_is_named) return 0;
    if (lock.pl_fd == -1) return lock.pl_error;
    struct sockaddr_un address;
    const socklen_t length = _qnm_port_address(lock.pl_if_index, &address);
    if (bind(lock.pl_fd, reinterpret_cast<const struct sockaddr*>(&address), length) != 0 ||
        listen(lock.pl_fd, SOMAXCONN) != 0) {
        return errno;
    }
    lock.pl_is_named = true;
    return 0;
}

// Without a spare socket the last answer is used; the name has just been tried.
void ask_other(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_spare == -1) return;
    if (_qnm_ask_port_holder(lock.pl_spare, lock.pl_if_index, &lock.pl_other)) {
        close_descriptor(lock.pl_spare);
    }
}

// Logs once that there is no lock, or that others cannot find out who has it, and why.
void pass_over(const char* func, port_lock& lock, int port, int err) QNM_REQUIRES(lock.pl_mutex) {
    if (std::exchange(lock.pl_is_told, true)) return;
    const qnm_port_holder_t other = lock.pl_other;
    const bool is_sole = lock.pl_member == membership::sole;
    const bool is_stranger =
        other.eph_kind == QNM_HOLDER_STRANGER || (is_sole && other.eph_kind == QNM_HOLDER_MANAGER);
    if (err != EADDRINUSE && is_sole) {
        qnm_log_warn("%s: Other managers cannot be told who has the port. errno=%d, port_num=%d",
                     func, err, port);
    } else if (err != EADDRINUSE) {
        qnm_log_warn("%s: Failed to lock the port against other managers. errno=%d, port_num=%d",
                     func, err, port);
    } else if (is_stranger && other.eph_pid != 0) {
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

// Another manager is in the group. A process that has the name and can be a manager is most likely
// that one. Nobody has the name while the other is between the two steps, or if the name is
// blocked.
int refuse_by_group(const char* func, port_lock& lock, int port, bool may_wait)
    QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_is_named) return refuse(func, port, {});
    ask_other(lock);
    const qnm_holder_kind_t kind = lock.pl_other.eph_kind;
    if (kind == QNM_HOLDER_NOBODY && may_wait && !lock.pl_has_waited) return EAGAIN;
    lock.pl_has_waited = true;
    return refuse(func, port, kind == QNM_HOLDER_MANAGER ? lock.pl_other : qnm_port_holder_t{});
}

// Another process has the name, and nobody else the group: 0, EBUSY, or EAGAIN.
int judge_name(const char* func, port_lock& lock, int port, uint32_t rounds_left)
    QNM_REQUIRES(lock.pl_mutex) {
    const bool is_sole = lock.pl_member == membership::sole;
    const bool is_first = rounds_left == k_settle_rounds;
    // A process that has answered once may have no room for a second question.
    if (!is_sole || is_first || lock.pl_other.eph_kind == QNM_HOLDER_NOBODY) ask_other(lock);
    const qnm_holder_kind_t kind = lock.pl_other.eph_kind;
    if (is_sole) {
        return rounds_left > k_settle_rounds - k_naming_rounds ? EAGAIN : 0;
    }
    if (kind == QNM_HOLDER_MANAGER) return refuse(func, port, lock.pl_other);
    return kind == QNM_HOLDER_NOBODY && rounds_left > 0 && !lock.pl_is_told ? EAGAIN : 0;
}

// Tries once: 0, EBUSY, or EAGAIN while the process that has the name is given more time.
int try_to_take(const char* func, port_lock& lock, int port, uint32_t rounds_left) {
    const qnm::mutex_guard guard(lock.pl_mutex);
    if (qnm::load(lock.pl_settled) == 1) return 0;
    if (is_other_in_group(lock)) {
        return refuse_by_group(func, lock, port, rounds_left > k_settle_rounds - k_naming_rounds);
    }
    const int err = bind_name(lock);
    if (err == EADDRINUSE) {
        const int judged = judge_name(func, lock, port, rounds_left);
        if (judged != 0) return judged;
    }
    if (err != 0) pass_over(func, lock, port, err);
    if (lock.pl_member == membership::sole || err != EADDRINUSE) qnm::store(lock.pl_settled, 1U);
    return 0;
}

// Accepts and closes the connections of those who have asked, to make room for more; a limited
// number at a time.
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
    lock.pl_is_named = lock.pl_is_told = lock.pl_has_waited = false;
    lock.pl_member = membership::none;
    // The group first: it decides, and descriptors may run out.
    lock.pl_group = _qnm_port_group_socket(if_index);
    lock.pl_fd = _qnm_port_socket();
    lock.pl_error = lock.pl_fd == -1 ? errno : 0;
    lock.pl_spare = _qnm_port_socket();
    lock.pl_probe = lock.pl_group == -1 ? -1 : _qnm_port_group_socket(if_index);
    qnm::store(lock.pl_settled, 0U);
}

int _qnm_port_lock_take(int port) {
    port_lock& lock = *lock_of_port[port];
    if (qnm::load(lock.pl_settled) == 1) return 0;
    for (uint32_t left = k_settle_rounds;; left--) {
        const int err = try_to_take(__func__, lock, port, qnm::is_running() ? left : 0);
        if (err != EAGAIN) return err;
        _qnm_sleep_while_running(k_settle_ms);
    }
}

void _qnm_port_lock_serve(void) {
    for (port_lock& lock : port_locks) {
        const qnm::mutex_guard guard(lock.pl_mutex);
        if (qnm::load(lock.pl_settled) == 0) {
            if (lock.pl_fd != -1 && lock.pl_spare == -1) lock.pl_spare = _qnm_port_socket();
        } else if (is_other_in_group(lock)) {
            qnm::store(lock.pl_settled, 0U);
        } else {
            if (lock.pl_member != membership::none) close_descriptor(lock.pl_probe);
            if (lock.pl_fd == -1) continue;
            bind_name(lock);
            dismiss_guests(lock.pl_fd);
        }
    }
}

void _qnm_port_lock_close(int port) {
    port_lock& lock = port_locks[port];
    const qnm::mutex_guard guard(lock.pl_mutex);
    // Who has got it by a way that runs no handlers, or by a fork at this moment, listens no
    // longer. The name goes before the group, or the next manager would find it taken.
    if (lock.pl_fd != -1) shutdown(lock.pl_fd, SHUT_RDWR);
    close_all(lock);
    qnm::store(lock.pl_settled, 1U);
}

}  // extern "C"
