// qnm-cardsim: simulated cards on real interfaces, told what to do by lines on standard input.
//
// The main thread reads commands and signals, the simulator's own thread announces. Answers and the
// counters at the end go to standard output, what arrives from managers to standard error.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "cardsim.h"
#include "input_lines.h"
#include "man_page.h"

namespace {

constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

struct options {
    std::string scenario;
    std::vector<std::string> ports;
    std::optional<std::uint16_t> ether_type;
    bool quiet = false;
    bool check = false;
};

void define_options(CLI::App& app, options& given) {
    app.add_option("SCENARIO", given.scenario, "TOML file that names the cards")->required();
    app.add_option("--ports", given.ports,
                   "Interfaces of port 0 and port 1, instead of the scenario's")
        ->type_name("IF0[,IF1]")
        ->delimiter(',')
        ->expected(1, static_cast<int>(cardsim::port_limit));
    app.add_option("--ether-type", given.ether_type,
                   "Ethernet type, instead of the scenario's (0x88B6 where none is given)")
        ->type_name("TYPE");
    app.add_flag("--quiet", given.quiet, "Say nothing of frames that arrive");
    app.add_flag("--check", given.check, "Read the scenario and end");
    app.set_version_flag("--version", "qnm-cardsim " CARDSIM_VERSION);
    app.footer(
        "Cards announce themselves and answer managers: registers, EEPROM, VLAN ID, Reset and MMS\n"
        "pages. While it runs, lines on standard input look into cards and change them; \"help\"\n"
        "lists them. EEPROMs that have a file in the scenario are saved at the end.");
}

// For the build, which makes the manual page and fails where an option has no text.
void print_man_page(const CLI::App& app) {
    std::vector<cardsim::option_text> options;
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_description().empty()) {
            throw std::logic_error(option->get_name() + " has no text");
        }
        std::string term = option->get_name(option->get_positional(), true);
        if (!option->get_positional() && !option->get_type_name().empty()) {
            term += ' ' + option->get_type_name();
        }
        options.push_back({term, option->get_description()});
    }
    std::fputs(cardsim::man_page(options, CARDSIM_VERSION).c_str(), stdout);
}

// Cards without an Ethernet type of their own follow the new one.
void change_ether_type(cardsim::scenario& changed, std::uint16_t ether_type) {
    for (cardsim::card& card : changed.cards) {
        if (card.ether_type == changed.ether_type) card.ether_type = ether_type;
    }
    changed.ether_type = ether_type;
}

cardsim::scenario read_scenario(const options& given) {
    cardsim::scenario read = cardsim::load_scenario(given.scenario, given.ports);
    if (given.ether_type) change_ether_type(read, *given.ether_type);
    return read;
}

void print_line(std::FILE* to, const std::string& line) {
    std::fputs((line + "\n").c_str(), to);
    std::fflush(to);
}

void add_cards(cardsim::simulator& target, cardsim::scenario& read) {
    for (cardsim::card& card : read.cards)
        target.add(std::move(card));
}

// SIGINT and SIGTERM as input, so that one poll() waits for everything.
int open_signals() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    const int fd = signalfd(-1, &ends, SFD_CLOEXEC);
    if (fd < 0) throw cardsim::error(std::string("cannot wait for signals: ") + strerror(errno));
    return fd;
}

// Answers every whole line that has come; true when one of them was "quit".
bool answer_lines(cardsim::simulator& target, input_lines& input) {
    while (const auto line = input.next()) {
        const cardsim::answer given = execute(target, *line);
        if (!given.text.empty()) print_line(stdout, given.text);
        if (given.quit) return true;
    }
    return false;
}

// Until "quit" or a signal. The end of standard input only ends the commands.
void serve(cardsim::simulator& target, int signals) {
    pollfd waited[] = {{.fd = signals, .events = POLLIN, .revents = 0},
                       {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0}};
    input_lines input;
    while (true) {
        if (poll(waited, std::size(waited), -1) < 0) continue;
        if (waited[0].revents != 0) return;
        if (waited[1].revents == 0) continue;
        char chunk[4096];
        const ssize_t length = read(STDIN_FILENO, chunk, sizeof chunk);
        if (length > 0) {
            input.add({chunk, static_cast<std::size_t>(length)});
        } else {
            waited[1].fd = -1;
            input.end();
        }
        if (answer_lines(target, input)) return;
    }
}

int simulate(const options& given) {
    cardsim::scenario read = read_scenario(given);
    if (given.check) {
        print_line(stdout, "ok " + given.scenario + ": " + std::to_string(read.cards.size()) +
                               (read.cards.size() == 1 ? " card" : " cards"));
        return exit_ok;
    }
    if (read.ports.empty()) {
        print_line(stderr, "qnm-cardsim: no interface: give --ports, or \"ports\" in the scenario");
        return exit_usage;
    }
    const int signals = open_signals();
    std::vector<cardsim::port> ports;
    for (const std::string& name : read.ports)
        ports.push_back(cardsim::open_port(name));
    cardsim::request_observer observer;
    if (!given.quiet) {
        observer = [names = read.ports](std::size_t port, const cardsim::request& received) {
            print_line(stderr, names[port] + ": " + describe(received));
        };
    }
    cardsim::simulator target(std::move(ports), read.ether_type, std::move(observer));
    add_cards(target, read);
    target.start();
    if (!given.quiet) print_line(stderr, "announcing; \"help\" lists the commands");
    serve(target, signals);
    target.stop();
    target.wait();
    print_line(stdout, describe(target.count()));
    target.save_eeproms();
    return exit_ok;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Simulated cards on Ethernet interfaces", "qnm-cardsim");
    options given;
    define_options(app, given);
    if (argc == 2 && argv[1] == std::string_view("--man-page")) {
        print_man_page(app);
        return exit_ok;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == exit_ok ? exit_ok : exit_usage;
    }
    try {
        return simulate(given);
    } catch (const std::exception& e) {
        print_line(stderr, std::string("qnm-cardsim: ") + e.what());
        return exit_failed;
    }
}
