// monitor: stops or restarts the monitoring of a card.
#include <nlohmann/json.hpp>

#include "cards/card_text.h"
#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char monitor_help[] =
    "Monitoring is controlled in a running manager, and qnmctl has one only as long as it runs.\n"
    "So this is a line to type into a running watch: \"monitor stop ID\" and \"monitor restart\n"
    "ID\".";

enum class action { stop, restart };

constexpr const char* action_words[] = {"stop", "restart"};

struct monitor_options {
    action wanted = action::stop;
    std::uint64_t id = 0;
};

struct monitor_call {
    const char* name;
    qnm_api_code_t (*call)(std::uint64_t);
    const char* meaning;
};

// Indexed by action.
constexpr monitor_call monitor_calls[] = {
    {"qnm_stop_monitor", qnm_stop_monitor,
     "its announcements are dropped until monitoring is restarted"},
    {"qnm_restart_monitor", qnm_restart_monitor,
     "its next announcement brings its record up to date"},
};

void answer_monitor(context& with, const monitor_options& options) {
    const auto wanted = static_cast<std::size_t>(options.wanted);
    const char* const word = action_words[wanted];
    const monitor_call& row = monitor_calls[wanted];
    const qnm_api_code_t code = row.call(options.id);
    if (code != QNM_API_SUCCESS) throw failed_call(row.name, code);
    with.results.text(std::string("monitor ") + word + ' ' + id_text(options.id) + ": " +
                      code_name(code) + ", " + row.meaning + '\n');
    with.results.record("monitor", monitored_json(word, options.id, code));
    tell_monitor(with, options.id, options.wanted == action::restart);
}

}  // namespace

void define_monitor(command_tree& tree) {
    const command_texts texts = {"monitor", "Stops or restarts the monitoring of a card",
                                 monitor_help};
    if (tree.use == used_for::command_line) return refuse_on_command_line(tree, texts);
    const auto monitor = add_command_with<monitor_options>(tree, texts);
    add_operand(monitor.self, "ACTION", "stop or restart",
                choice(monitor.options.wanted, action_words));
    add_card(monitor.self, monitor.options.id);
    set_answer(monitor, answer_monitor);
}

}  // namespace qnmctl
