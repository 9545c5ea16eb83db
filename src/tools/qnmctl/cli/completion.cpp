// Walks the words of a line as the parser would, but accepts incomplete input.
#include "cli/completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iterator>

#include "cli/options.h"
#include "completion_scripts.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// The state after the words before the one to complete.
struct progress {
    command_tree& tree;
    CLI::App* app = nullptr;      // the command or group so far
    std::size_t words = 0;        // operands after the command
    bool lost = false;            // no such command
    CLI::Option* open = nullptr;  // expects its value next
};

bool is_option(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

bool is_shown(const CLI::App& app) {
    return !app.get_group().empty();
}

// The root and groups have commands, a command has none.
bool has_commands(const CLI::App& app) {
    return !app.get_subcommands([](const CLI::App*) { return true; }).empty();
}

// A command's own options and the global ones.
CLI::Option* find_option(const progress& now, const std::string& name) {
    CLI::Option* const own = now.app->get_option_no_throw(name);
    return own != nullptr ? own : now.tree.app->get_option_no_throw(name);
}

void take_name(progress& now, const std::string& word) {
    CLI::App* const named = find_app(*now.app, word);
    now.lost = named == nullptr;
    if (named != nullptr) now.app = named;
}

// A wrong value does not affect the completion of later words.
void take_value(CLI::Option& option, const std::string& word) {
    try {
        if (option.get_expected_max() == 1) option.clear();
        option.add_result(word);
        option.run_callback();
    } catch (const CLI::Error&) {
        option.clear();
    }
}

void take_word(progress& now, const std::string& word) {
    if (word == "=") return;  // bash splits it off as a word of its own
    if (now.open != nullptr) {
        take_value(*now.open, word);
        now.open = nullptr;
    } else if (is_option(word)) {
        const std::size_t equals = std::min(word.find('='), word.size());
        CLI::Option* const named = find_option(now, word.substr(0, equals));
        if (named == nullptr || !now.tree.values.contains(named)) return;
        now.open = named;
        if (equals < word.size()) take_word(now, word.substr(equals + 1));
    } else if (has_commands(*now.app) && !now.lost) {
        take_name(now, word);
    } else {
        ++now.words;
    }
}

// ---- What can come ------------------------------------------------------------------------------

// A value is a list of two interfaces, so what precedes the comma is kept.
std::vector<candidate> interfaces(const std::string& typed) {
    const std::string kept = typed.substr(0, typed.rfind(',') + 1);
    std::vector<candidate> found;
    std::error_code ignored;  // without the directory nothing is offered
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net", ignored)) {
        const std::string name = entry.path().filename();
        if (kept.find(name + ',') == std::string::npos) found.push_back({kept + name, ""});
    }
    return found;
}

candidates values(const CLI::Option& option, const progress& now, const std::string& typed,
                  const card_source& cards) {
    const value& taken = now.tree.values.at(&option);
    candidates found;
    switch (taken.offered) {
        case offers::nothing:
            break;
        case offers::words:
            for (const std::string& word : taken.words)
                found.words.push_back({word, ""});
            break;
        case offers::files:
            found.files = true;
            break;
        case offers::directories:
            found.directories = true;
            break;
        case offers::interfaces:
            found.words = interfaces(typed);
            break;
        case offers::cards:
            found.words = cards(now.tree.global);
            break;
    }
    return found;
}

void add_options(const CLI::App& app, candidates& found) {
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_positional() || option == app.get_help_ptr()) continue;
        if (option == app.get_version_ptr()) continue;
        found.words.push_back({"--" + option->get_lnames().back(), option->get_description()});
    }
}

candidates options(const progress& now) {
    candidates found;
    if (now.app != now.tree.app.get()) add_options(*now.app, found);
    add_options(*now.tree.app, found);
    found.words.push_back({"--help", "Print help and end"});
    return found;
}

// Commands first, then groups.
candidates names(const progress& now) {
    candidates found;
    for (const bool groups : {false, true}) {
        for (const CLI::App* const app : now.app->get_subcommands({})) {
            if (!is_shown(*app) || has_commands(*app) != groups) continue;
            found.words.push_back({app->get_name(), app->get_description()});
        }
    }
    return found;
}

// Operands of a command. Where several IDs can stand, another one is offered.
candidates operands(const progress& now, const std::string& typed, const card_source& cards) {
    std::vector<const CLI::Option*> wanted;
    for (const CLI::Option* const option : now.app->get_options()) {
        if (option->get_positional()) wanted.push_back(option);
    }
    if (wanted.empty()) return {};
    const bool many = now.tree.values.at(wanted.front()).repeatable;
    if (!many && now.words >= wanted.size()) return {};
    candidates found = values(*wanted[many ? 0 : now.words], now, typed, cards);
    if (many && now.words > 0) {
        found.files = now.tree.values.at(wanted.back()).offered == offers::files;
    }
    return found;
}

candidates all_candidates(const progress& now, const std::string& typed, const card_source& cards) {
    if (now.open != nullptr) return values(*now.open, now, typed, cards);
    if (!typed.empty() && typed.front() == '-') return options(now);
    if (now.lost) return {};
    return has_commands(*now.app) ? names(now) : operands(now, typed, cards);
}

}  // namespace

candidates complete(command_tree& tree, const std::vector<std::string>& words,
                    const card_source& cards) {
    if (words.empty()) return {};
    progress now{.tree = tree, .app = tree.app.get()};
    for (auto at = words.begin(); at != std::prev(words.end()); ++at)
        take_word(now, *at);
    take_default_ports(tree.global);
    const std::string typed = words.back() == "=" ? "" : words.back();
    candidates found = all_candidates(now, typed, cards);
    std::erase_if(found.words,
                  [&](const candidate& offer) { return !offer.word.starts_with(typed); });
    return found;
}

std::string candidates_text(const candidates& found) {
    std::string text;
    for (const candidate& offer : found.words)
        text += offer.word + '\t' + offer.help + '\n';
    if (found.files) text += ":files\n";
    if (found.directories) text += ":directories\n";
    return text;
}

std::string completion_script(const std::string& shell) {
    return shell == "bash" ? bash_script : zsh_script;
}

}  // namespace qnmctl
