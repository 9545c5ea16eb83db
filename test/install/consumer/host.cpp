// host.cpp - a host program in C++: reports cards that appear, until Enter.
#include <qnm.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

namespace {

std::atomic<bool> ended = false;  // the manager has returned

void run(const char* dir) {
    const qnm_api_code_t ret = qnm_init_manager(dir, QNM_LOGLVL_NONE);
    if (ret != QNM_API_SUCCESS)
        std::fprintf(stderr, "the manager ended: %s\n", qnm_retcode_text(ret));
    ended = true;
}

void on_new_card(uint64_t id, qnm_evt_type_t event, void*) {
    std::printf("%s 0x%012lx\n", qnm_event_name(event), static_cast<unsigned long>(id));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    qnm_log_init(argv[1]);
    std::thread manager(run, argv[1]);
    qnm_cbid_t handle = nullptr;
    while (!ended && qnm_register_callback(QNM_EVT_NEWDEVINFO, on_new_card, nullptr, &handle) ==
                         QNM_API_ENOSYS) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    qnm_start_manager();
    for (std::string line; !ended && std::getline(std::cin, line) && !line.empty();) {
    }
    qnm_fini_manager();
    manager.join();
    return 0;
}
