// qnm-cardsim: simulated cards on real interfaces, controlled by lines on standard input.
//
// The main thread reads commands and signals, the simulator's own thread announces. Answers and the
// final counters go to standard output, requests from managers to standard error.
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>

#include "cardsim.h"
#include "common/descriptor_writer.h"
#include "common/end_signals.h"
#include "common/input_lines.h"
#include "common/standard_files.h"
#include "common/visible.h"
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

void define_options(CLI::App& app, options& chosen) {
    app.add_option("SCENARIO", chosen.scenario, "TOML file that names the cards")->required();
    app.add_option("--ports", chosen.ports,
                   "Interfaces of port 0 and port 1, instead of the scenario's")
        ->type_name("IF0[,IF1]")
        ->delimiter(',')
        ->expected(1, static_cast<int>(cardsim::port_limit));
    app.add_option("--ether-type", chosen.ether_type,
                   "Ethernet type, instead of the scenario's (0x88B6 where none is given)")
        ->type_name("TYPE");
    app.add_flag("--quiet", chosen.quiet, "Say nothing of frames that arrive");
    app.add_flag("--check", chosen.check, "Read the scenario and end");
    app.set_version_flag("--version", "qnm-cardsim " CARDSIM_VERSION);
    app.footer(
        "Cards announce themselves and answer managers: registers, EEPROM, VLAN ID, Reset and MMS\n"
        "pages. While it runs, lines on standard input look into cards and change them; \"help\"\n"
        "lists them. EEPROMs that have a file in the scenario are saved at the end.");
}

// Writes answers to standard output, one a line, from the main thread.
class console {
  public:
    explicit console(int signals) : to_(STDOUT_FILENO, signals) {}

    // Newlines in names and values must not end the line.
    void print_line(const std::string& line) { to_.write(tools::visible_line(line) + '\n'); }

    bool ended() const { return to_.ended() != tools::output_end::none; }
    bool signalled() const { return to_.ended() == tools::output_end::signalled; }
    std::string problem() const { return tools::output_problem(to_, "standard output"); }

  private:
    tools::descriptor_writer to_;
};

// Writes to standard error, from any thread.
void tell_line(const std::string& line) {
    tools::tell(tools::visible_line(line) + '\n');
}

int print_text(const std::string& text) {
    return tools::print(text, "qnm-cardsim", exit_failed);
}

// Prints the manual page for the build, which fails if an option has no text.
int print_man_page(const CLI::App& app) {
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
    return print_text(cardsim::man_page(options, CARDSIM_VERSION));
}

// Cards without an Ethernet type of their own get the new one.
void change_ether_type(cardsim::scenario& changed, std::uint16_t ether_type) {
    for (cardsim::card& card : changed.cards) {
        if (card.ether_type == changed.ether_type) card.ether_type = ether_type;
    }
    changed.ether_type = ether_type;
}

cardsim::scenario read_scenario(const options& chosen) {
    cardsim::scenario loaded = cardsim::load_scenario(chosen.scenario, chosen.ports);
    if (chosen.ether_type) change_ether_type(loaded, *chosen.ether_type);
    return loaded;
}

void add_cards(cardsim::simulator& target, cardsim::scenario& loaded) {
    for (cardsim::card& card : loaded.cards)
        target.add(std::move(card));
}

// Answers every complete line. Returns whether to end: because of "quit", or because answers can no
// longer be written.
bool answer_lines(cardsim::simulator& target, tools::input_lines& input, console& out) {
    while (const auto line = input.next()) {
        const cardsim::answer reply =
            line->is_cut ? cardsim::answer{.text = "error: the line is too long", .quit = false}
                         : execute(target, line->text);
        if (!reply.text.empty()) out.print_line(reply.text);
        if (reply.quit || out.ended()) return true;
    }
    return false;
}

// Runs until "quit" or a signal. The end of standard input only ends the commands.
void serve(cardsim::simulator& target, int signals, console& out) {
    pollfd waited[] = {{.fd = signals, .events = POLLIN, .revents = 0},
                       {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0}};
    tools::input_lines input;
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
        if (answer_lines(target, input, out)) return;
    }
}

// The exit status when nothing but, perhaps, standard output has failed.
int status_after(const console& out, int signalled) {
    if (!out.ended()) return exit_ok;
    tell_line("qnm-cardsim: " + out.problem());
    return out.signalled() ? signalled : tools::exit_output;
}

cardsim::request_observer observer_of(const options& chosen,
                                      const std::vector<std::string>& names) {
    if (chosen.quiet) return nullptr;
    return [names](std::size_t port, const cardsim::request& received) {
        tell_line(names[port] + ": " + describe(received));
    };
}

int simulate(const options& chosen, int signals) {
    console out(signals);
    cardsim::scenario loaded = read_scenario(chosen);
    if (chosen.check) {
        out.print_line("ok " + chosen.scenario + ": " + std::to_string(loaded.cards.size()) +
                       (loaded.cards.size() == 1 ? " card" : " cards"));
        return status_after(out, exit_failed);
    }
    if (loaded.ports.empty()) {
        tell_line("qnm-cardsim: no interface: give --ports, or \"ports\" in the scenario");
        return exit_usage;
    }
    std::vector<cardsim::port> ports;
    for (const std::string& name : loaded.ports)
        ports.push_back(cardsim::open_port(name));
    cardsim::simulator target(std::move(ports), loaded.ether_type,
                              observer_of(chosen, loaded.ports));
    add_cards(target, loaded);
    target.start();
    if (!chosen.quiet) tell_line("announcing; \"help\" lists the commands");
    serve(target, signals, out);
    target.stop();
    target.wait();
    out.print_line(describe(target.count()));
    target.save_eeproms();
    return status_after(out, exit_ok);
}

// Prints the help that was asked for, or what is wrong.
int tell_end(const CLI::App& app, const CLI::ParseError& found) {
    std::ostringstream text, messages;
    const int status = app.exit(found, text, messages);
    tools::tell(messages.str());
    return status == exit_ok ? print_text(text.str()) : exit_usage;
}

// Signals are read as input from the start, so that they end every wait in the same way.
int open_signals() {
    const int fd = tools::open_end_signals();
    if (fd < 0) throw cardsim::error(std::string("cannot wait for signals: ") + strerror(errno));
    return fd;
}

int run(int argc, char** argv) {
    const int signals = open_signals();
    CLI::App app("Simulated cards on Ethernet interfaces", "qnm-cardsim");
    options chosen;
    define_options(app, chosen);
    if (argc == 2 && argv[1] == std::string_view("--man-page")) return print_man_page(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return tell_end(app, e);
    }
    return simulate(chosen, signals);
}

}  // namespace

int main(int argc, char** argv) {
    if (!tools::open_standard_files()) return exit_failed;
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        tell_line(std::string("qnm-cardsim: ") + e.what());
        return exit_failed;
    }
}
