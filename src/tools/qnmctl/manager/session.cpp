// The manager's thread and its events.
#include "manager/session.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "output/text.h"

namespace qnmctl {

namespace {

constexpr int still_running = -1;
constexpr int retry_milliseconds = 10;
constexpr std::size_t queue_limit = 65536;  // tens of thousands of cards in one burst

// The two kinds differ in their calls only.
template <class Record>
using read_call = qnm_api_code_t (*)(std::uint64_t, Record*);
using list_call = qnm_api_code_t (*)(std::uint64_t**, std::uint32_t*);

template <class Record>
std::optional<card> read_as(std::uint64_t id, read_call<Record> read) {
    Record record;
    if (read(id, &record) != QNM_API_SUCCESS) return std::nullopt;
    return record;
}

template <class Record>
void append_cards(std::vector<card>& to, const char* name, list_call list, read_call<Record> read) {
    std::uint64_t* ids = nullptr;
    std::uint32_t count = 0;
    const qnm_api_code_t code = list(&ids, &count);
    if (code != QNM_API_SUCCESS) throw failed_call(name, code);
    const std::unique_ptr<std::uint64_t, decltype(&qnm_free_idlist)> owned(ids, qnm_free_idlist);
    for (std::uint32_t at = 0; at < count; ++at) {
        if (auto known = read_as<Record>(ids[at], read)) to.push_back(*known);
    }
}

}  // namespace

failed_call::failed_call(const char* call, qnm_api_code_t result)
    : error(std::string(call) + " failed: " + code_name(result) + '\n' + code_remedy(result),
            result) {}

session::session(const std::string& dir, qnm_log_level_t level) : result_(still_running) {
    thread_ = std::thread([this, dir, level] { run(dir, level); });
}

session::~session() {
    qnm_fini_manager();
    thread_.join();
}

void session::run(const std::string& dir, qnm_log_level_t level) {
    result_ = qnm_init_manager(dir.c_str(), level);
    wake_.set();
}

void session::receive(std::uint64_t id, qnm_evt_type_t type, void* to) {
    static_cast<session*>(to)->queue({std::chrono::system_clock::now(), type, id, read_card(id)});
}

void session::queue(const observed& seen) {
    {
        const std::lock_guard guard(mutex_);
        if (waiting_.events.size() < queue_limit) {
            waiting_.events.push_back(seen);
        } else {
            ++waiting_.lost;
        }
    }
    wake_.set();
}

session::batch session::take() {
    wake_.clear();  // first, so that what is queued from here on wakes again
    const std::lock_guard guard(mutex_);
    return std::exchange(waiting_, {});
}

std::optional<qnm_api_code_t> session::result() const {
    const int result = result_;
    if (result == still_running) return std::nullopt;
    return static_cast<qnm_api_code_t>(result);
}

// The manager is starting up on its own thread. The result is that of the first registration, or
// that of a start that failed.
qnm_api_code_t session::wait_usable() {
    while (!result()) {
        pollfd waited{wake_.fd(), POLLIN, 0};
        poll(&waited, 1, retry_milliseconds);
        qnm_cbid_t handle = nullptr;
        const qnm_api_code_t code =
            qnm_register_callback(QNM_EVT_NEWDEVINFO, receive, this, &handle);
        if (code != QNM_API_ENOSYS) return code;
    }
    return *result();
}

qnm_api_code_t session::register_callbacks() {
    qnm_api_code_t code = wait_usable();
    for (int type = QNM_EVT_NEWDEVINFO + 1; code == QNM_API_SUCCESS && type < QNM_EVT_MAX; ++type) {
        qnm_cbid_t handle = nullptr;
        code = qnm_register_callback(static_cast<qnm_evt_type_t>(type), receive, this, &handle);
    }
    return code;
}

std::variant<std::unique_ptr<session>, qnm_api_code_t> start_session(const std::string& dir,
                                                                     qnm_log_level_t level) {
    // Logging starts first: the calls that wait for the manager also write to the log.
    const qnm_api_code_t logging = qnm_log_init(dir.c_str());
    if (logging != QNM_API_SUCCESS) return logging;
    std::unique_ptr<session> started(new session(dir, level));
    qnm_api_code_t code = started->register_callbacks();
    if (code == QNM_API_SUCCESS) code = qnm_start_manager();
    if (code != QNM_API_SUCCESS) return started->result().value_or(code);
    return started;
}

std::optional<card> read_card(std::uint64_t id) {
    std::optional<card> server = read_as<qnm_qnsv_t>(id, qnm_get_qnsv);
    std::optional<card> device = read_as<qnm_qnio_t>(id, qnm_get_qnio);
    if (!server) return device;
    if (!device) return server;
    return common(*server).ecd_updatetime < common(*device).ecd_updatetime ? device : server;
}

std::vector<card> read_cards() {
    std::vector<card> all;
    append_cards<qnm_qnsv_t>(all, "qnm_get_qnsvids", qnm_get_qnsvids, qnm_get_qnsv);
    append_cards<qnm_qnio_t>(all, "qnm_get_qnioids", qnm_get_qnioids, qnm_get_qnio);
    return all;
}

}  // namespace qnmctl
