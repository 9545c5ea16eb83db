// rig.cpp - cables, installations and managers for the end-to-end tests.

#include "rig.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace e2e {

bool wait_for(const std::function<bool()>& condition) {
    const auto give_up = std::chrono::steady_clock::now() + k_limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > give_up) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

void run(const std::string& command) {
    if (system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

cables::cables() {
    for (const char* const port : {"0", "1"}) {
        const std::string near = std::string("qnm") + port;
        const std::string far = std::string("qsim") + port;
        run("ip link add " + near + " type veth peer name " + far);
        run("ip link set " + near + " up && ip link set " + far + " up");
    }
}

cables::~cables() {
    for (const char* const near : {"qnm0", "qnm1"}) {
        // A test may have taken the cable away itself.
        [[maybe_unused]] const int ret =
            system((std::string("ip link del ") + near + " 2>/dev/null").c_str());
    }
}

installation::installation(const std::string& conf) {
    std::string name = (std::filesystem::temp_directory_path() / "qnm-e2e-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = name;
    std::filesystem::create_directory(path_ + "/conf");
    std::ofstream(path_ + "/conf/qnm.conf") << conf;
    std::ofstream properties(path_ + "/conf/qnm_log4c.properties");
    for (const char* const logger : {"logfile", "syslogfile", "statslogfile"}) {
        properties << "log4j.logger." << logger << "=ALL, FILE\n"
                   << "log4j.additivity." << logger << "=false\n";
    }
    properties << "log4j.appender.FILE=org.apache.log4j.FileAppender\n"
               << "log4j.appender.FILE.File=" << path_ << "/log\n"
               << "log4j.appender.FILE.layout=org.apache.log4j.PatternLayout\n"
               << "log4j.appender.FILE.layout.ConversionPattern=%c %p %m%n\n";
}

installation::~installation() {
    std::filesystem::remove_all(path_);
}

std::string installation::log() const {
    std::ifstream file(path_ + "/log");
    return {std::istreambuf_iterator<char>(file), {}};
}

manager::manager(const std::string& dir) {
    qnm_log_init(dir.c_str());
    thread_ = std::thread([this, dir] {
        result_ = qnm_init_manager(dir.c_str(), QNM_LOGLVL_NONE);
        ended_ = true;
    });
    for (int type = 0; type < QNM_EVT_MAX && !ended_; type++) {
        qnm_cbid_t handle = nullptr;
        while (!ended_ && qnm_register_callback(static_cast<qnm_evt_type_t>(type), on_event, this,
                                                &handle) == QNM_API_ENOSYS) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    running_ = !ended_ && qnm_start_manager() == QNM_API_SUCCESS;
}

manager::~manager() {
    stop();
}

qnm_api_code_t manager::stop() {
    if (thread_.joinable()) {
        if (!ended_) qnm_fini_manager();
        thread_.join();
    }
    return result_;
}

void manager::on_event(uint64_t id, qnm_evt_type_t type, void* self) {
    auto* const it = static_cast<manager*>(self);
    const std::lock_guard lock(it->mutex_);
    it->events_.push_back({id, type});
}

std::vector<seen_event> manager::events() const {
    const std::lock_guard lock(mutex_);
    return events_;
}

size_t manager::count(uint64_t id, qnm_evt_type_t type) const {
    size_t found = 0;
    for (const seen_event& it : events()) {
        if (it.id == id && it.type == type) found++;
    }
    return found;
}

bool manager::wait_event(uint64_t id, qnm_evt_type_t type, size_t times) const {
    return wait_for([&] { return count(id, type) >= times; });
}

void manager::forget_events() {
    const std::lock_guard lock(mutex_);
    events_.clear();
}

std::optional<qnm_qnsv_t> qnsv(uint64_t id) {
    qnm_qnsv_t record;
    if (qnm_get_qnsv(id, &record) != QNM_API_SUCCESS) return std::nullopt;
    return record;
}

std::optional<qnm_qnio_t> qnio(uint64_t id) {
    qnm_qnio_t record;
    if (qnm_get_qnio(id, &record) != QNM_API_SUCCESS) return std::nullopt;
    return record;
}

namespace {

uint32_t total(qnm_api_code_t (*get_ids)(uint64_t**, uint32_t*)) {
    uint64_t* ids = nullptr;
    uint32_t count = 0;
    if (get_ids(&ids, &count) != QNM_API_SUCCESS) return 0;
    qnm_free_idlist(ids);
    return count;
}

}  // namespace

uint32_t qnsv_total() {
    return total(qnm_get_qnsvids);
}

uint32_t qnio_total() {
    return total(qnm_get_qnioids);
}

std::string paths(uint64_t id) {
    qnm_com_dev_t dev;
    if (const auto server = qnsv(id)) {
        dev = server->esv_com_dev;
    } else if (const auto io = qnio(id)) {
        dev = io->eio_com_dev;
    } else {
        return "";
    }
    std::string letters;
    for (const auto& port : dev.ecd_state) {
        for (const uint32_t state : port)
            letters += state == 1 ? 'C' : 'D';
    }
    return letters;
}

std::unique_ptr<cardsim::simulator> make_cards() {
    std::vector<cardsim::port> ports;
    ports.push_back(cardsim::open_port("qsim0"));
    ports.push_back(cardsim::open_port("qsim1"));
    return std::make_unique<cardsim::simulator>(std::move(ports));
}

cardsim::card lively(card_kind kind, card_speed speed, uint64_t id) {
    cardsim::card card = cardsim::make_card("card" + std::to_string(id), kind, speed, id);
    for (auto& port : card.heard) {
        for (size_t path = 0; path < cardsim::path_count(speed); path++)
            port[path] = true;
    }
    card.interval_ms = 100;
    return card;
}

}  // namespace e2e
