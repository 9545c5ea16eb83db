// topology: which cards belong together.
#include <nlohmann/json.hpp>

#include "cards/commands.h"
#include "cards/topology.h"
#include "cli/options.h"
#include "installation/config_file.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char topology_help[] =
    "A QNSV card reports the MAC address behind each of its downstream ports, a QNIO card that of\n"
    "the QNSV card it is bound to. Where only one of them reports a link, or the other one is not\n"
    "heard, an exclamation mark says so. -o dot is a picture for Graphviz, from the host on the\n"
    "left by its ports to the cards of each group. It has a line for each path, too; what is lost\n"
    "is red:\n"
    "    qnmctl --ports eth1 topology -o dot | dot -Tsvg > topology.svg";

constexpr example topology_examples[] = {
    {"qnmctl topology", "Which card is behind which port"},
    {"qnmctl topology -o dot | dot -Tsvg -o topology.svg", "The same as a picture, by Graphviz"},
};

struct topology_options {
    double seconds = 3;
};

void answer_topology(context& with, const topology_options&) {
    const topology found = make_topology(read_cards());
    if (with.results.form() == output_form::dot) {
        const auto ports = configured_ports(read_config(with.where.config()));
        return with.results.text(topology_dot(found, ports));
    }
    with.results.text(topology_text(found, with.how));
    for (const topology_server& server : found.servers)
        with.results.record("qnsv", server_json(server));
    for (const card& device : found.unbound)
        with.results.record("unbound", unbound_json(device));
}

int run_topology(context& with, const topology_options& options) {
    start(with);
    listen(with, {.seconds = options.seconds});
    answer_topology(with, options);
    return exit_ok;
}

}  // namespace

void define_topology(command_tree& tree) {
    const auto command = add_command_with<topology_options>(
        tree, {"topology", "Shows which QNIO card stands behind which port of which QNSV card",
               topology_help, topology_examples});
    add_seconds(command.self, command.options.seconds);
    add_output_with_graph(command.self);
    set_run(command, run_topology);
    set_answer(command, answer_topology);
}

}  // namespace qnmctl
