// exiting_host.cpp - a host program that ends, by one way or another, while its threads read
// registers and list cards. It prints nothing unless something goes wrong.
//
//   usage: exiting-host DIRECTORY WAY
//
// ways: exit      exit() in the main thread
//       return    the main function returns
//       callback  exit() in a callback
//       selector  exit() in the main thread, when it has given log4cxx loggers of its own
//       starting  the main function returns while the manager starts
//       stuck     the main function returns while a thread is stuck in a log that nobody reads

#include <fcntl.h>
#include <log4cxx/hierarchy.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/spi/repositoryselector.h>
#include <poll.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "qnm.h"

namespace helpers = log4cxx::helpers;  // the macros of log4cxx name it without its scope

class own_loggers : public virtual log4cxx::spi::RepositorySelector {
  public:
    DECLARE_LOG4CXX_OBJECT(own_loggers)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(log4cxx::spi::RepositorySelector)
    END_LOG4CXX_CAST_MAP()

    log4cxx::spi::LoggerRepositoryPtr getLoggerRepository() override { return loggers_; }

  private:
    log4cxx::spi::LoggerRepositoryPtr loggers_ = log4cxx::Hierarchy::create();
};

IMPLEMENT_LOG4CXX_OBJECT(own_loggers)

namespace {

constexpr uint64_t k_card = 0x020000001000;

std::atomic<int> g_reads = 0;
std::atomic<int> g_lists = 0;

void log_at_exit() {
    qnm_log_error("%s: a host program may log in its handlers.", __func__);
}

[[noreturn]] void fail(const char* what) {
    printf("FAILED: %s\n", what);
    fflush(stdout);
    _Exit(1);
}

void run_manager(const std::string& directory) {
    qnm_init_manager(directory.c_str(), QNM_LOGLVL_NONE);
    fail("the manager ended");
}

[[noreturn]] void read_registers() {
    for (;;) {
        uint32_t value = 0;
        if (qnm_read_register(k_card, 0, &value, nullptr, 0) == QNM_API_SUCCESS) g_reads++;
    }
}

[[noreturn]] void list_cards() {
    for (;;) {
        uint64_t* ids = nullptr;
        uint32_t count = 0;
        if (qnm_get_qnsvids(&ids, &count) != QNM_API_SUCCESS) continue;
        if (count > 0) g_lists++;
        qnm_free_idlist(ids);
    }
}

bool all_at_work() {
    return g_reads >= 20 && g_lists >= 20;
}

void exit_from_callback(uint64_t, qnm_evt_type_t, void*) {
    while (!all_at_work())
        poll(nullptr, 0, 1);
    exit(0);
}

void ignore(uint64_t, qnm_evt_type_t, void*) {}

// Like a thread that goes on running while the process ends.
template <typename Function, typename... Arguments>
void leave_running(Function function, Arguments... arguments) {
    std::thread(function, arguments...).detach();
}

int end_while_starting(const std::string& directory) {
    leave_running([directory] { qnm_init_manager(directory.c_str(), QNM_LOGLVL_NONE); });
    std::random_device dice;
    std::this_thread::sleep_for(std::chrono::microseconds(dice() % 20'000));
    return 0;
}

[[noreturn]] void log_lines() {
    for (;;)
        qnm_log_error("%s: a line that fills the pipe, and that nobody reads.", __func__);
}

int end_while_log_is_stuck(const std::string& directory) {
    struct pollfd pipe = {open((directory + "/log").c_str(), O_WRONLY | O_CLOEXEC), POLLOUT, 0};
    qnm_log_init(directory.c_str());
    leave_running(log_lines);
    while (poll(&pipe, 1, 0) != 0)
        poll(nullptr, 0, 1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const std::string directory = argv[1];
    const std::string way = argv[2];
    if (way == "stuck") return end_while_log_is_stuck(directory);
    if (way == "selector") {
        log4cxx::LogManager::setRepositorySelector(std::make_shared<own_loggers>(), nullptr);
    }
    atexit(log_at_exit);
    if (way == "starting") return end_while_starting(directory);
    qnm_log_init(directory.c_str());
    leave_running(run_manager, directory);
    const qnm_cbfunc_t function = way == "callback" ? exit_from_callback : ignore;
    qnm_cbid_t handle = nullptr;
    while (qnm_register_callback(QNM_EVT_NEWDEVINFO, function, nullptr, &handle) == QNM_API_ENOSYS)
        poll(nullptr, 0, 1);
    qnm_start_manager();
    atexit(log_at_exit);
    for (int n = 0; n < 4; n++) {
        leave_running(read_registers);
        leave_running(list_cards);
    }
    while (way == "callback" || !all_at_work())
        poll(nullptr, 0, 1);
    if (way != "return") exit(0);
    return 0;
}
