// The loop of the full-screen view: reads cards and ports at intervals, counts events and handles
// keys, all on the main thread.
#include "top/top.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iterator>

#include "cli/options.h"
#include "common/deadline.h"
#include "common/descriptor.h"
#include "installation/config_file.h"
#include "manager/listen.h"
#include "manager/session.h"
#include "top/screen.h"
#include "top/stuck.h"

namespace qnmctl {

namespace {

constexpr char top_help[] =
    "Shows ports, cards with their paths, and rates on a full screen, refreshed every second; ?\n"
    "lists the keys, q ends. Frames are those that the kernel counts on the ports' interfaces,\n"
    "including other programs' frames; events are the library's. Rates are those of the last\n"
    "five seconds. A path is C connected, D disconnected, or - never heard. \"heard\" sorts by\n"
    "the time since a card was heard; like events and rate it has the largest first. It needs a\n"
    "terminal; scripts use list and watch.";

constexpr example top_examples[] = {
    {"qnmctl top", "All cards, with the rates of the ports"},
    {"qnmctl top --state disconnected", "Only those that are lost"},
};

struct top_options {
    card_filter filter = {};
    top_order order = top_order::id;
    bool reversed = false;
    double delay = 1;    // seconds between two looks
    double seconds = 0;  // 0: without limit
};

using clock = std::chrono::steady_clock;
using double_seconds = std::chrono::duration<double>;

extern "C" void never_called(int) {}

// Takes SIGWINCH, SIGTSTP, SIGCONT and the signals that would end the command and leave the
// terminal changed. They arrive as input, and are blocked before any thread is started, so that no
// other thread takes them.
//
// A handler for SIGTSTP is installed before ncurses starts, so that ncurses installs none of its
// own. That one would draw in the middle of another drawing. It would also ignore SIGTSTP while it
// draws, and the system discards a blocked signal as soon as it is ignored.
class screen_signals {
  public:
    screen_signals() {
        sigset_t wanted;
        sigemptyset(&wanted);
        for (const int number : {SIGWINCH, SIGTSTP, SIGCONT, SIGQUIT})
            sigaddset(&wanted, number);
        pthread_sigmask(SIG_BLOCK, &wanted, &before_);
        sigaction(SIGTSTP, nullptr, &stop_before_);
        handle_stop();
        come_ = tools::descriptor(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
        if (come_.fd < 0)
            throw error(std::string("cannot wait for signals: ") + std::strerror(errno));
    }
    ~screen_signals() {
        sigaction(SIGTSTP, &stop_before_, nullptr);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    screen_signals(const screen_signals&) = delete;
    screen_signals& operator=(const screen_signals&) = delete;

    int fd() const { return come_.fd; }

    // The number of one that has come; 0 when there is none.
    int take() const {
        signalfd_siginfo received{};
        const ssize_t length = read(come_.fd, &received, sizeof received);
        return length == sizeof received ? static_cast<int>(received.ssi_signo) : 0;
    }

    // Whether Ctrl-Z means anything; it does not where whoever started this has it ignored.
    bool can_stop() const { return stop_before_.sa_handler != SIG_IGN; }

    // As Ctrl-Z does to any program: returns when it is continued, and at once where the system
    // does not stop a process group because no shell is there to continue it.
    void stop() const {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTSTP);
        sigaction(SIGTSTP, &stop_before_, nullptr);
        pthread_kill(pthread_self(), SIGTSTP);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        handle_stop();
    }

    // In the background, stops as the system stops one that changes the terminal there, until it
    // is in the foreground or is to end. Inside such a change it would not see that it is to end:
    // the change begins anew when the process is continued, and stops it again.
    void wait_for_terminal(const context& with) const {
        while (is_in_background() && !is_signalled(with)) {
            pthread_kill(pthread_self(), SIGTTOU);
            // Not stopped: SIGTTOU is ignored, or no shell is there that would continue it.
            if (!is_continued()) return;
        }
    }

  private:
    // Each stop discards a SIGCONT that waits, so one that waits came after it.
    static bool is_continued() {
        sigset_t waiting;
        return sigpending(&waiting) == 0 && sigismember(&waiting, SIGCONT) == 1;
    }

    void handle_stop() const {
        struct sigaction action {};
        action.sa_handler = never_called;
        if (can_stop()) sigaction(SIGTSTP, &action, nullptr);
    }

    sigset_t before_ = {};
    struct sigaction stop_before_ = {};
    tools::descriptor come_ = {};
};

struct view {
    context& with;
    const screen_signals& signals;
    top_screen& screen;
    top_model model = {};
    clock::time_point begun = clock::now();
};

top_model first_model(const context& with, const top_options& options) {
    top_model model;
    model.order = options.order;
    model.reversed = options.reversed;
    model.filter = options.filter;
    for (const std::string& name : configured_ports(read_config(with.where.config())))
        model.ports.push_back({.name = name});
    return model;
}

void look(view& shown) {
    const double now = double_seconds(clock::now() - shown.begun).count();
    look_at_ports(shown.model, read_port_counts(), now);
    look_at_cards(shown.model, read_cards(), std::chrono::system_clock::now(), now);
}

void take_events(view& shown) {
    const session::batch batch = shown.with.manager->take();
    count_events(shown.model, batch.events, batch.lost);
    check_running(shown.with);
}

void stop(view& shown) {
    if (!shown.signals.can_stop()) return;
    shown.screen.leave();
    shown.signals.stop();
}

// One that ends the view is obeyed first: a shell sends it to a stopped job and then continues it
// in the background.
void take_signals(view& shown) {
    while (const int number = shown.signals.take()) {
        if (number == SIGTSTP) stop(shown);
        if (number == SIGCONT) shown.signals.wait_for_terminal(shown.with);
        if (is_signalled(shown.with)) return;
        if (number == SIGWINCH) shown.screen.resize();
        if (number == SIGCONT) shown.screen.resume();
        if (number == SIGQUIT) shown.model.quit = true;
    }
}

void take_keys(view& shown) {
    while (const auto key = shown.screen.key()) {
        press(shown.model, *key);
        if (shown.model.quit || is_signalled(shown.with)) return;
    }
}

// Waits for anything but events, which only count until the next look; false when a signal or the
// end of the terminal ends the view. All is looked at once even when the next look is due, since it
// always may be.
bool wait_for_input(view& shown, clock::time_point until) {
    enum { keys, ends, signals, events };
    pollfd waited[] = {{STDIN_FILENO, POLLIN, 0},
                       {shown.with.signals, POLLIN, 0},
                       {shown.signals.fd(), POLLIN, 0},
                       {shown.with.manager->wake_fd(), POLLIN, 0}};
    do {
        if (poll(waited, std::size(waited), tools::milliseconds_until(until)) < 0) {
            if (errno == EINTR) continue;
            throw error(std::string("cannot wait: ") + std::strerror(errno));
        }
        if (waited[ends].revents != 0) return false;
        if ((waited[keys].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return false;
        if (waited[events].revents != 0) take_events(shown);
        if (waited[signals].revents != 0) take_signals(shown);
        if (is_signalled(shown.with)) return false;
        if (waited[keys].revents != 0) take_keys(shown);
        if (waited[signals].revents != 0 || waited[keys].revents != 0) return true;
    } while (clock::now() < until);
    return true;
}

void show(view& shown, const top_options& options) {
    const auto delay = std::chrono::duration_cast<clock::duration>(double_seconds(options.delay));
    const clock::time_point end = tools::deadline_after(options.seconds);
    clock::time_point next_look = clock::now();
    while (!shown.model.quit && clock::now() < end) {
        if (clock::now() >= next_look) {
            look(shown);
            next_look = clock::now() + delay;
        }
        shown.signals.wait_for_terminal(shown.with);
        if (is_signalled(shown.with)) return;
        shown.screen.draw(top_lines(shown.model, shown.screen.size()));
        if (!wait_for_input(shown, std::min(end, next_look))) return;
    }
}

int run_top(context& with, const top_options& options) {
    if (const auto problem = screen_problem()) throw usage_error(*problem);
    const screen_signals signals;
    signals.wait_for_terminal(with);
    if (is_signalled(with)) return exit_ok;
    limit_screen();
    start(with);
    const stuck_terminal watched(with.signals);
    top_screen screen(with.how.coloured);
    view shown{with, signals, screen, first_model(with, options)};
    show(shown, options);
    return exit_ok;
}

}  // namespace

void define_top(command_tree& tree) {
    if (tree.use == used_for::lines) return;
    const auto top = add_command_with<top_options>(
        tree,
        {"top", "Shows ports, cards and rates on a full screen, live", top_help, top_examples});
    top.self.endless = true;
    top_options& options = top.options;
    add_filter(top.self, options.filter);
    add_option(top.self,
               {"--filter", "TEXT",
                "Only cards whose ID, kind, type or vlanN hold all words of this text"},
               any_text(options.filter.text));
    add_option(top.self,
               {"--sort", "ORDER", "id (default), kind, type, vlan, paths, heard, events or rate"},
               choice(options.order, top_order_words));
    add_flag(top.self, "--reverse", "Reverse the order", options.reversed);
    add_option(top.self,
               {"-d,--delay", "SECONDS", "Seconds between two looks at the cards (default: 1)"},
               seconds(options.delay));
    add_seconds(top.self, options.seconds, "Seconds to run");
    set_run(top, run_top);
}

}  // namespace qnmctl
