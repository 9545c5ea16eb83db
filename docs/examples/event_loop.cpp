// event_loop.cpp - a host program around epoll: a table of cards that is kept up to date, until
// SIGINT or SIGTERM.
//
// Callbacks only note which card has changed and raise an eventfd; the loop then looks at each such
// card once, however many events there were for it meanwhile. So a storm of events costs no more
// memory than there are cards, and the loop cannot fall behind. What a program needs event by event
// goes through a queue instead; see watch_loop.c.
#include <pthread.h>
#include <qnm.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// A descriptor, closed at the end of its scope.
class descriptor {
  public:
    descriptor(int fd, const char* what) : fd_(fd) {
        if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
    }
    ~descriptor() { close(fd_); }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

// From the library's event thread to the loop.
class bridge {
  public:
    void note(uint64_t id) {
        {
            const std::lock_guard lock(mutex_);
            changed_.insert(id);
        }
        raise();
    }

    void raise() { eventfd_write(raised_.get(), 1); }

    // Lowers the eventfd before it looks: what is noted later raises it again.
    std::set<uint64_t> take() {
        eventfd_t times = 0;
        eventfd_read(raised_.get(), &times);  // does not block: EFD_NONBLOCK
        const std::lock_guard lock(mutex_);
        return std::exchange(changed_, {});
    }

    int fd() const { return raised_.get(); }

  private:
    descriptor raised_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"};
    std::mutex mutex_;
    std::set<uint64_t> changed_;
};

// An exception must not leave a callback; what is not noted for want of memory is lost.
void on_event(uint64_t id, qnm_evt_type_t /*type*/, void* arg) noexcept try {
    static_cast<bridge*>(arg)->note(id);
} catch (const std::exception& e) {
    std::fprintf(stderr, "event_loop: an event is lost: %s\n", e.what());
}

// The manager on a thread of its own. The destructor stops it and waits for its end.
class manager {
  public:
    manager(const std::string& dir, bridge& to) {
        qnm_log_init(dir.c_str());  // so that the first calls have somewhere to log to
        thread_ = std::thread([this, dir, &to] {
            result_ = qnm_init_manager(dir.c_str(), QNM_LOGLVL_NONE);
            ended_ = true;
            to.raise();
        });
    }
    ~manager() { stop(); }
    manager(const manager&) = delete;
    manager& operator=(const manager&) = delete;

    // Waits until the manager takes callbacks, and lets frames in.
    void start(bridge& to) {
        for (int type = QNM_EVT_NEWDEVINFO; type < QNM_EVT_MAX; type++) {
            qnm_cbid_t registration = nullptr;
            while (qnm_register_callback(static_cast<qnm_evt_type_t>(type), on_event, &to,
                                         &registration) == QNM_API_ENOSYS) {
                if (ended_) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));  // still starting
            }
        }
        qnm_start_manager();
    }

    bool has_ended() const { return ended_; }

    qnm_api_code_t stop() {
        if (thread_.joinable()) {
            qnm_fini_manager();
            thread_.join();
        }
        return result_;
    }

  private:
    std::thread thread_;
    std::atomic<bool> ended_ = false;
    qnm_api_code_t result_ = QNM_API_SUCCESS;  // to be read after the thread's end
};

// What the table says of a card: its kind and its paths P0M0, P0M1, P1M0, P1M1, C for connected.
std::string describe(const char* kind, const qnm_com_dev_t& dev) {
    std::string text = std::string(kind) + " vlan " + std::to_string(dev.ecd_vlan_id) + " ";
    for (const auto& port : dev.ecd_state) {
        for (const uint32_t state : port)
            text += state == 1 ? 'C' : 'D';
    }
    return text;
}

std::optional<std::string> look_at(uint64_t id) {
    qnm_qnsv_t qnsv;
    if (qnm_get_qnsv(id, &qnsv) == QNM_API_SUCCESS) return describe("qnsv", qnsv.esv_com_dev);
    qnm_qnio_t qnio;
    if (qnm_get_qnio(id, &qnio) == QNM_API_SUCCESS) return describe("qnio", qnio.eio_com_dev);
    return std::nullopt;  // forgotten meanwhile
}

using card_table = std::map<uint64_t, std::string>;

// Brings the cards that have changed up to date, and prints those that look different now.
void refresh(card_table& table, const std::set<uint64_t>& changed) {
    for (const uint64_t id : changed) {
        const std::optional<std::string> seen = look_at(id);
        if (!seen || table[id] == *seen) continue;
        table[id] = *seen;
        std::printf("0x%012llx %s\n", static_cast<unsigned long long>(id), seen->c_str());
    }
    std::fflush(stdout);
}

// SIGINT and SIGTERM by a descriptor. Threads made later inherit that they are blocked.
int open_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return signalfd(-1, &ends, SFD_CLOEXEC);
}

void wait_for_input(int loop, int fd) {
    epoll_event wanted = {};
    wanted.events = EPOLLIN;
    wanted.data.fd = fd;
    if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &wanted) != 0)
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

// Until a signal comes or the manager ends by itself. A program's own descriptors join here.
void run_loop(bridge& from, const manager& host, const descriptor& signals) {
    const descriptor loop(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    wait_for_input(loop.get(), signals.get());
    wait_for_input(loop.get(), from.fd());
    card_table table;
    while (!host.has_ended()) {
        std::array<epoll_event, 8> ready;
        const int count = epoll_wait(loop.get(), ready.data(), ready.size(), -1);
        for (int i = 0; i < count; i++) {
            if (ready[i].data.fd == signals.get()) return;
            refresh(table, from.take());
        }
    }
}

int watch(const std::string& dir) {
    const descriptor signals(open_signals(), "signalfd");
    bridge changes;  // outlives the manager, whose callbacks use it
    manager host(dir, changes);
    host.start(changes);
    run_loop(changes, host, signals);
    const qnm_api_code_t result = host.stop();
    if (result == QNM_API_SUCCESS) return 0;
    std::fprintf(stderr, "event_loop: the manager ended: %s; the log or a line above tells why\n",
                 qnm_retcode_text(result));
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: event_loop DIRECTORY\n");
        return 2;
    }
    try {
        return watch(argv[1]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "event_loop: %s\n", e.what());
        return 1;
    }
}
