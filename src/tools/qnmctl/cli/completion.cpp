// Walks the words of a line as the parser would, but forgives what is not there yet.
#include "cli/completion.h"

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "cli/operands.h"
#include "cli/options.h"
#include "completion_scripts.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// What has been read of a line up to the word that is asked for.
struct progress {
    command_line given = {};
    const verb* verb_found = nullptr;
    std::string group = {};        // the first word of a verb that has two
    std::size_t operands = 0;      // words behind the verb
    bool lost = false;             // there is no such verb
    const option* open = nullptr;  // wants its value now
};

bool is_option(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

std::vector<const option*> options_now(const progress& now) {
    std::vector<const option*> found = global_options();
    if (now.verb_found == nullptr) return found;
    const std::vector<const option*> own = options_of(*now.verb_found);
    found.insert(found.begin(), own.begin(), own.end());
    return found;
}

const option* find_option(const progress& now, const std::string& name) {
    for (const option* const row : options_now(now)) {
        const std::vector<std::string> names = names_of(*row);
        if (std::find(names.begin(), names.end(), name) != names.end()) return row;
    }
    return nullptr;
}

const verb* find_verb(std::span<const verb> verbs, const std::string& name) {
    const auto found = std::find_if(verbs.begin(), verbs.end(), [&](const verb& one) {
        return one.run != nullptr && name == one.name;
    });
    return found == verbs.end() ? nullptr : &*found;
}

bool is_group(const std::string& word) {
    const auto groups = verb_groups();
    return std::any_of(groups.begin(), groups.end(),
                       [&](const verb_group& one) { return word == one.name; });
}

void take_name(std::span<const verb> verbs, progress& now, const std::string& word) {
    if (now.group.empty() && is_group(word)) {
        now.group = word;
        return;
    }
    now.verb_found = find_verb(verbs, now.group.empty() ? word : now.group + ' ' + word);
    if (now.verb_found != nullptr) now.given.asked.asked = now.verb_found;
    now.lost = now.verb_found == nullptr;
}

// What is wrong with a value does not matter to the words behind it.
void take_word(std::span<const verb> verbs, progress& now, const std::string& word) {
    if (word == "=") return;  // bash makes a word of its own of it
    if (now.open != nullptr) {
        static_cast<void>(set_value(*now.open, word, now.given));
        now.open = nullptr;
    } else if (is_option(word)) {
        const std::size_t equals = std::min(word.find('='), word.size());
        const option* const row = find_option(now, word.substr(0, equals));
        if (row == nullptr || row->value == nullptr) return;
        now.open = row;
        if (equals < word.size()) take_word(verbs, now, word.substr(equals + 1));
    } else if (now.verb_found == nullptr && !now.lost) {
        take_name(verbs, now, word);
    } else {
        ++now.operands;
    }
}

// ---- What can come ------------------------------------------------------------------------------

// Interfaces stand in a list of two, so those in front of the comma are kept.
std::vector<candidate> interfaces(const std::string& typed) {
    const std::string kept = typed.substr(0, typed.rfind(',') + 1);
    std::vector<candidate> found;
    std::error_code ignored;  // without the directory none is offered
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net", ignored)) {
        const std::string name = entry.path().filename();
        if (kept.find(name + ',') == std::string::npos) found.push_back({kept + name, ""});
    }
    return found;
}

candidates values(const option& of, const progress& now, const std::string& typed,
                  const card_source& cards) {
    candidates found;
    switch (of.offered) {
        case offers::nothing:
            break;
        case offers::words:
            for (const char* const word : of.words)
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
            found.words = cards(now.given.global);
            break;
    }
    return found;
}

candidates options(const progress& now) {
    candidates found;
    for (const option* const row : options_now(now)) {
        if (row->is_word()) continue;
        const std::string help =
            now.verb_found == nullptr ? row->help : option_help(*row, *now.verb_found);
        found.words.push_back({names_of(*row).back(), help});
    }
    found.words.push_back({"--help", "Print help and end"});
    return found;
}

candidates names(std::span<const verb> verbs, const progress& now) {
    candidates found;
    const std::string start = now.group.empty() ? "" : now.group + ' ';
    for (const verb& one : verbs) {
        const std::string name = one.name;
        if (one.run == nullptr || one.hidden || !name.starts_with(start)) continue;
        const std::string rest = name.substr(start.size());
        if (rest.find(' ') == std::string::npos) found.words.push_back({rest, one.help});
    }
    if (!now.group.empty()) return found;
    for (const verb_group& one : verb_groups())
        found.words.push_back({one.name, one.help});
    return found;
}

// The words of a verb: its fixed ones, IDs, and then its operands. Where several IDs can stand, one
// more is offered as long as it could be one.
candidates operands(const progress& now, const std::string& typed, const card_source& cards) {
    std::vector<const option*> fixed;
    for (const option* const row : options_of(*now.verb_found)) {
        if (row->is_word()) fixed.push_back(row);
    }
    if (now.operands < fixed.size()) return values(*fixed[now.operands], now, typed, cards);
    const auto wanted = now.verb_found->operands;
    const bool many = (now.verb_found->takes & takes_ids) != 0;
    const std::size_t at = now.operands - fixed.size();
    candidates found;
    if (many) {
        found.words = cards(now.given.global);
        found.files = at > 0 && !wanted.empty() && wanted.back().form == operand_form::file;
    } else if (at < wanted.size()) {
        found.files = wanted[at].form == operand_form::file;
    }
    return found;
}

candidates all_candidates(std::span<const verb> verbs, const progress& now,
                          const std::string& typed, const card_source& cards) {
    if (now.open != nullptr) return values(*now.open, now, typed, cards);
    if (!typed.empty() && typed.front() == '-') return options(now);
    if (now.lost) return {};
    if (now.verb_found == nullptr) return names(verbs, now);
    return operands(now, typed, cards);
}

}  // namespace

candidates complete(std::span<const verb> verbs, const std::vector<std::string>& words,
                    const card_source& cards) {
    if (words.empty()) return {};
    progress now;
    for (auto at = words.begin(); at != std::prev(words.end()); ++at)
        take_word(verbs, now, *at);
    const std::string typed = words.back() == "=" ? "" : words.back();
    candidates found = all_candidates(verbs, now, typed, cards);
    std::erase_if(found.words, [&](const candidate& one) { return !one.word.starts_with(typed); });
    return found;
}

std::string candidates_text(const candidates& of) {
    std::string text;
    for (const candidate& one : of.words)
        text += one.word + '\t' + one.help + '\n';
    if (of.files) text += ":files\n";
    if (of.directories) text += ":directories\n";
    return text;
}

std::string completion_script(const std::string& shell) {
    return shell == "bash" ? bash_script : zsh_script;
}

}  // namespace qnmctl
