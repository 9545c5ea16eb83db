// Completion scripts, what they ask for, and the manual page.
#include "help_verbs.h"

#include <algorithm>
#include <filesystem>

#include "cards/card_text.h"
#include "cli/completion.h"
#include "cli/man_page.h"
#include "manager/listen.h"
#include "manager/start.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// An announcement of every card fits into it, and somebody waits at a prompt.
constexpr double seconds_at_a_prompt = 1.2;

constexpr char quick_stop[] = "devinfo_flag_check_interval=10";

std::filesystem::path dir_of(const settings& given) {
    return given.dir.empty() ? default_dir : given.dir;
}

// As asked for by the line, but nothing of the logs is left.
void install_to_look(settings given, installation& made) {
    given.log.clear();
    given.keep_logs = false;
    const auto same_key = [](const std::string& setting) {
        return split(setting, "=").front() == split(quick_stop, "=").front();
    };
    if (std::none_of(given.keys.begin(), given.keys.end(), same_key)) {
        given.keys.emplace_back(quick_stop);
    }
    install(given, made);
}

std::vector<candidate> heard_cards(const context& with, const settings& given) {
    if (given.ports.empty() && !std::filesystem::is_directory(dir_of(given))) return {};
    installation where;
    install_to_look(given, where);
    context own{.verbs = with.verbs,
                .where = where,
                .log_level = QNM_LOGLVL_NONE,
                .out = with.out,
                .told = with.told,
                .signals = with.signals,
                .how = {}};
    start(own);
    listen(own, {.seconds = seconds_at_a_prompt});
    std::vector<candidate> found;
    for (const card& one : read_cards()) {
        found.push_back({id_text(common(one).ecd_id), std::string(kind_text(one)) +
                                                          " card of group " +
                                                          std::to_string(common(one).ecd_vlan_id)});
    }
    return found;
}

}  // namespace

int run_completion(context& with, const request& asked) {
    const std::string script = completion_script(asked.word);
    with.told.text(script);
    with.told.record("script", {{"shell", asked.word}, {"text", script}});
    return exit_ok;
}

// Without a manager, for want of a privilege say, there are no cards to offer, and nobody to tell.
int run_complete(context& with, const request& asked) {
    const auto cards = [&](const settings& given) -> std::vector<candidate> {
        try {
            return heard_cards(with, given);
        } catch (const error&) {
            return {};
        }
    };
    with.told.text(candidates_text(complete(with.verbs, asked.rest, cards)));
    return exit_ok;
}

int run_man_page(context& with, const request&) {
    with.told.text(man_page(with.verbs));
    return exit_ok;
}

}  // namespace qnmctl
