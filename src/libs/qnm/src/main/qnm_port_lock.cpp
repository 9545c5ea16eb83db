// qnm_port_lock.cpp - at most one manager accesses cards by an interface.
//
// Two things make the lock. What decides is a group of the kernel's in which there is room for one
// (qnm_port_group): only who may open ports can be in it, and it takes no guests, so that nobody
// else can have it, fill it or keep managers from it. With the first frame to a card a manager
// joins it. Whether the kernel keeps to the number of members is tried, by a second socket that has
// to be refused. A child by a way that no handler sees, which keeps the socket, keeps the group as
// well; nothing takes a socket out of a group but its last close.
//
// The other one is a name, an abstract Unix socket after the interface's index: whoever is in the
// group listens there, so that others can be told who it is (qnm_port_holder). The kernel lets one
// process of a network namespace bind a name, and releases it with its process. Who has the name
// and not the group is no manager, and gets one warning; the name is then tried for from time to
// time.
//
// Where the group tells nothing (Linux before 5.12, its number in other hands, no packet socket)
// the name alone decides, and the group is tried for from time to time. Anybody can have the name,
// so a process that cannot be a manager is passed over with a warning, and then there is no lock,
// but each frame tries for it. Somebody can also fill a manager's backlog by connecting to it; it
// makes room each time it looks at its guests, so whoever finds none asks for a while before
// passing it over. Where no such socket can be had at all, there is no lock either.
//
// All sockets are made when the port is opened, as they belong to the namespace of the thread that
// makes them; so is a spare one, by which another holder can be asked who he is, and which is
// replaced by the thread that runs the manager.
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
#include "qnm_port_group.h"
#include "qnm_port_holder.h"
#include "qnm_root.h"
#include "qnm_thread.h"
#include "qnm_util.h"

namespace {

// How long somebody is given who has bound the name and does not listen yet, is about to leave, or
// has no room for another guest: a second in all.
constexpr uint32_t k_settle_ms = 10;
constexpr uint32_t k_settle_rounds = 100;

// The same where the group has decided, and the name is only to be told.
constexpr uint32_t k_naming_rounds = 2;

enum class membership : uint8_t {
    none,      // the group tells nothing, or has not been tried
    unproven,  // joined, and the kernel may let others join
    sole,      // joined, and nobody else can
};

struct port_lock {
    qnm_mutex_t pl_mutex = QNM_MUTEX_OF_LEVEL(QNM_LOCK_PORT);
    uint32_t pl_settled = 1;                     // atomic; 1 = frames may leave
    int pl_group QNM_GUARDED_BY(pl_mutex) = -1;  // for the group
    int pl_probe QNM_GUARDED_BY(pl_mutex) = -1;  // must not get into it beside pl_group
    membership pl_member QNM_GUARDED_BY(pl_mutex) = membership::none;
    int pl_fd QNM_GUARDED_BY(pl_mutex) = -1;     // for the name,
    int pl_error QNM_GUARDED_BY(pl_mutex) = 0;   // or why it cannot be had
    int pl_spare QNM_GUARDED_BY(pl_mutex) = -1;  // for the next question
    int pl_if_index QNM_GUARDED_BY(pl_mutex) = 0;
    bool pl_is_named QNM_GUARDED_BY(pl_mutex) = false;         // pl_fd has the name
    qnm_port_holder_t pl_other QNM_GUARDED_BY(pl_mutex) = {};  // as the last question found him
    bool pl_is_told QNM_GUARDED_BY(pl_mutex) = false;          // that frames leave without the name
    bool pl_has_waited QNM_GUARDED_BY(pl_mutex) = false;       // for a name to show up
};

port_lock port_locks[2];

// The lock of each port: the other one's, where both are the same interface. Set before there are
// frames.
port_lock* lock_of_port[2] = {&port_locks[0], &port_locks[1]};

void close_descriptor(int& fd) {
    if (fd != -1) close(std::exchange(fd, -1));
}

void close_all(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    for (int* fd : {&lock.pl_fd, &lock.pl_spare, &lock.pl_group, &lock.pl_probe})
        close_descriptor(*fd);
}

// A child must keep neither name nor group when this process releases them. It has one thread, and
// whatever mutex was held at the fork stays so.
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

// Whether another one is in the group. Where that cannot be told now it is tried again.
bool is_other_in_group(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_group == -1 || lock.pl_member != membership::none) return false;
    const int err = _qnm_port_group_join(lock.pl_group, lock.pl_if_index);
    if (err != 0) return err == ENOSPC;
    const bool is_full = _qnm_port_group_join(lock.pl_probe, lock.pl_if_index) == ENOSPC;
    lock.pl_member = is_full ? membership::sole : membership::unproven;
    return false;
}

// 0; EADDRINUSE when another one has the name; or why it cannot be had.
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

// Without a spare socket the last answer holds; the name has just been tried for.
void ask_other(port_lock& lock) QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_spare == -1) return;
    if (_qnm_ask_port_holder(lock.pl_spare, lock.pl_if_index, &lock.pl_other)) {
        close_descriptor(lock.pl_spare);
    }
}

// Tells once that there is no lock, or that others cannot be told who has it, and why.
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

// Another one is in the group. Who has the name is most likely that one, if it can be a manager;
// nobody has it yet while the other one is between the two, and for good if somebody fills it.
int refuse_by_group(const char* func, port_lock& lock, int port, bool may_wait)
    QNM_REQUIRES(lock.pl_mutex) {
    if (lock.pl_is_named) return refuse(func, port, {});
    ask_other(lock);
    const qnm_holder_kind_t kind = lock.pl_other.eph_kind;
    if (kind == QNM_HOLDER_NOBODY && may_wait && !lock.pl_has_waited) return EAGAIN;
    lock.pl_has_waited = true;
    return refuse(func, port, kind == QNM_HOLDER_MANAGER ? lock.pl_other : qnm_port_holder_t{});
}

// Another one has the name, and nobody else the group: 0, EBUSY, or EAGAIN.
int judge_name(const char* func, port_lock& lock, int port, uint32_t rounds_left)
    QNM_REQUIRES(lock.pl_mutex) {
    const bool is_sole = lock.pl_member == membership::sole;
    const bool is_first = rounds_left == k_settle_rounds;
    // Who has answered once may have no room for a second question.
    if (!is_sole || is_first || lock.pl_other.eph_kind == QNM_HOLDER_NOBODY) ask_other(lock);
    const qnm_holder_kind_t kind = lock.pl_other.eph_kind;
    if (is_sole) {
        return rounds_left > k_settle_rounds - k_naming_rounds ? EAGAIN : 0;
    }
    if (kind == QNM_HOLDER_MANAGER) return refuse(func, port, lock.pl_other);
    return kind == QNM_HOLDER_NOBODY && rounds_left > 0 && !lock.pl_is_told ? EAGAIN : 0;
}

// Tries once: 0, EBUSY, or EAGAIN when whoever has the name is still to be given time.
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
    lock.pl_is_named = lock.pl_is_told = lock.pl_has_waited = false;
    lock.pl_member = membership::none;
    // Where descriptors run out, what decides comes first.
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
