// host.cpp - the running library, and the cards that it hears.

#include "host.h"

#include <atomic>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>

#include "figures.h"
#include "qnm_counters.h"

namespace bench {

namespace {

// Cards stay connected while the benchmark does something else.
constexpr char k_conf[] =
    "ether_port = qnm0\n"
    "devinfo_check_interval = 1000\n"
    "devinfo_flag_check_interval = 1000\n"
    "devinfo_expire_time = 100000\n";

// Frames sent ahead of the library; its buffer holds some 15,000.
constexpr size_t k_window = 8000;

// The sample properties, with the files in the installation's own directory.
void install_properties(const std::string& directory) {
    std::ifstream sample(QNM_SAMPLE_PROPERTIES);
    const std::string text{std::istreambuf_iterator<char>(sample), {}};
    if (text.empty()) throw std::runtime_error("no sample properties: " QNM_SAMPLE_PROPERTIES);
    std::ofstream(directory + "/conf/qnm_log4c.properties")
        << std::regex_replace(text, std::regex("/var/log/qnm"), directory);
}

}  // namespace

// ---- The library -------------------------------------------------------------------------------

host::host() : installation_(k_conf) {
    const std::string& directory = installation_.path();
    install_properties(directory);
    qnm_log_init(directory.c_str());
    thread_ = std::thread([this] {
        qnm_init_manager(installation_.path().c_str(), QNM_LOGLVL_NONE);
        ended_ = true;
    });
    e2e::wait_for([this] { return ended_ || qnm_start_manager() == QNM_API_SUCCESS; });
    if (!ended_) return;
    thread_.join();
    throw std::runtime_error("the manager does not start");
}

host::~host() {
    qnm_fini_manager();
    thread_.join();
}

void host::set_level(qnm_log_level_t level) {
    qnm_set_loglevel(level);
}

void host::on(qnm_evt_type_t type, qnm_cbfunc_t function, void* arg) {
    qnm_cbid_t handle = nullptr;
    if (qnm_register_callback(type, function, arg, &handle) != QNM_API_SUCCESS) {
        throw std::runtime_error("cannot register a callback");
    }
}

uint64_t host::frames_taken() {
    return std::atomic_ref(qnm_stats.est_stats_p0[QNM_STATS_R_TOTAL]).load();
}

uint64_t host::manager_cpu_ns() const {
    clockid_t id = 0;
    timespec time = {};
    if (pthread_getcpuclockid(const_cast<std::thread&>(thread_).native_handle(), &id) != 0 ||
        clock_gettime(id, &time) != 0) {
        throw std::runtime_error("no processor clock of a thread");
    }
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

// ---- The cards ---------------------------------------------------------------------------------

announcer::announcer(const std::string& interface, cardsim::card_speed speed, size_t cards)
    : socket_(interface),
      cards_(cards),
      frames_(k_batch, announcement(speed)),
      parts_(k_batch),
      messages_(k_batch) {
    for (size_t i = 0; i < k_batch; i++) {
        parts_[i] = {frames_[i].data(), frames_[i].size()};
        messages_[i].msg_hdr.msg_iov = &parts_[i];
        messages_[i].msg_hdr.msg_iovlen = 1;
    }
}

void announcer::send(size_t count) {
    while (count > 0) {
        const size_t batch = std::min(count, k_batch);
        for (size_t i = 0; i < batch; i++) {
            set_source(frames_[i], card_id(next_));
            next_ = (next_ + 1) % cards_;
        }
        socket_.send_all(std::span(messages_).first(batch));
        count -= batch;
    }
}

void announcer::send_paced(size_t count, double per_second) {
    const auto start = stopwatch::now();
    for (size_t sent = 0; sent < count;) {
        const auto due_now = static_cast<size_t>(seconds_since(start) * per_second) + 1;
        const size_t due = std::min(count, due_now);
        const size_t batch = due > sent ? std::min(due - sent, k_batch) : 0;
        send(batch);
        sent += batch;
    }
}

void send_ahead(announcer& far_end, size_t count, const std::function<uint64_t()>& taken) {
    constexpr size_t k_step = 500;
    const uint64_t before = taken();
    for (size_t sent = 0; sent < count; sent += k_step) {
        far_end.send(std::min(count - sent, k_step));
        while (taken() - before + k_window < sent)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    if (!e2e::wait_for([&] { return taken() - before >= count; })) {
        throw std::runtime_error("announcements were lost");
    }
}

void learn_cards(announcer& far_end, size_t cards) {
    send_ahead(far_end, cards, host::frames_taken);
}

}  // namespace bench
