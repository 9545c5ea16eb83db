// qnm-soak - the library under all that a long life brings, on two veth cables, for some minutes.
//
//   usage: qnm-soak SECONDS [--any-memory] [--seed=N]
//
// Two processes, so that the memory that is watched is the host's alone. It needs a network
// namespace of its own; scripts/soak.sh makes one.

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

// Whoever is started goes with the cards, whatever ends them.
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

int soak_all(const soak::plan& planned) {
    const e2e::cables wires;
    const soak::crowd others;
    soak::stage& shared = make_stage();
    printf("soak: %ld seconds, seed %lu\n", static_cast<long>(planned.duration.count()),
           planned.seed);
    fflush(stdout);
    const pid_t host = start("host", soak::run_host, shared, planned);
    return has_ended_well("host", soak::play_cards(shared, host, planned.seed)) ? 0 : 1;
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
