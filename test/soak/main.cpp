// qnm-soak - the library under all the troubles of a long life, on two veth cables, for some
// minutes.
//
//   usage: qnm-soak SECONDS [--any-memory] [--seed=N]
//
// Three processes: the host alone, so that the measured memory is its own; a rival with a manager
// of its own; and the cards with all other troubles. They need a network namespace of their own;
// scripts/soak.sh makes one.

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <random>
#include <string_view>

#include "cards.h"
#include "host.h"
#include "rig.h"
#include "rival.h"
#include "troubles/links.h"

namespace {

soak::stage& make_stage() {
    void* const page = mmap(nullptr, sizeof(soak::stage), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) throw std::bad_alloc();
    return *new (page) soak::stage();
}

soak::plan read_arguments(int argc, char** argv) {
    soak::plan planned{std::chrono::seconds(0), std::random_device()(), true};
    for (int n = 1; n < argc; n++) {
        const std::string_view word = argv[n];
        constexpr std::string_view k_seed = "--seed=";
        if (word == "--any-memory") {
            planned.judge_memory = false;
        } else if (word.starts_with(k_seed)) {
            planned.seed = strtoul(argv[n] + k_seed.size(), nullptr, 10);
        } else {
            planned.duration = std::chrono::seconds(strtoul(argv[n], nullptr, 10));
        }
    }
    return planned;
}

// The other processes end with the cards, whatever ends those.
pid_t start(const char* name, bool (*run)(soak::stage&, const soak::plan&), soak::stage& shared,
            const soak::plan& planned) {
    const pid_t child = fork();
    if (child != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    bool right = false;
    try {
        right = run(shared, planned);
    } catch (const std::exception& problem) {
        fprintf(stderr, "FAILED: %s: %s\n", name, problem.what());
    }
    exit(right ? 0 : 1);
}

bool has_ended_well(const char* name, int status) {
    if (WIFSIGNALED(status)) {
        fprintf(stderr, "FAILED: the %s was ended by signal %d\n", name, WTERMSIG(status));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Returns the wait status. A process that hangs is ended by a signal; its core file shows where it
// was.
int end_rival(soak::stage& shared, pid_t rival) {
    shared.over = true;
    int status = 0;
    if (!e2e::wait_for([&] { return waitpid(rival, &status, WNOHANG) == rival; })) {
        kill(rival, SIGABRT);
        waitpid(rival, &status, 0);
    }
    return status;
}

int soak_all(const soak::plan& planned) {
    const e2e::cables wires;
    const soak::crowd others;
    soak::stage& shared = make_stage();
    printf("soak: %ld seconds, seed %lu\n", static_cast<long>(planned.duration.count()),
           planned.seed);
    fflush(stdout);
    const pid_t host = start("host", soak::run_host, shared, planned);
    const pid_t rival = start("rival", soak::run_rival, shared, planned);
    const int host_status = soak::play_cards(shared, host, planned.seed);
    const int rival_status = end_rival(shared, rival);
    const bool host_right = has_ended_well("host", host_status);
    return has_ended_well("rival", rival_status) && host_right ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const soak::plan planned = read_arguments(argc, argv);
    if (planned.duration.count() < 10) {
        fprintf(stderr,
                "usage: qnm-soak SECONDS [--any-memory] [--seed=N]\n"
                "10 seconds at least\n");
        return 2;
    }
    try {
        return soak_all(planned);
    } catch (const std::exception& problem) {
        fprintf(stderr, "FAILED: %s\n", problem.what());
        return 1;
    }
}
