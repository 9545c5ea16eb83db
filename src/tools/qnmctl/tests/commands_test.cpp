// The commands of qnmctl: none lacks its texts, and help, completion and manual page have them all.
#include "commands.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <set>

#include "cli/command_line.h"
#include "cli/completion.h"
#include "cli/man_page.h"
#include "cli/usage.h"
#include "common/standard_files.h"
#include "output/text.h"

namespace qnmctl {
namespace {

bool is_sentence(const std::string& text) {
    return !text.empty() && (std::isupper(static_cast<unsigned char>(text.front())) ||
                             text.find(' ') != std::string::npos);
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// As the manual page writes it.
std::string in_man_page(const std::string& text) {
    std::string result;
    for (const char c : text)
        result += c == '-' ? std::string("\\-") : std::string(1, c);
    return result;
}

std::vector<std::string> words_of(const candidates& found) {
    std::vector<std::string> words;
    for (const candidate& one : found.words)
        words.push_back(one.word);
    return words;
}

bool contains(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

const card_source no_cards = [](const settings&) { return std::vector<candidate>{}; };

struct all_commands : command_tree {
    explicit all_commands(used_for purpose) : command_tree(purpose) { define_all_commands(*this); }
};

std::vector<const CLI::Option*> options_of(const CLI::App& app) {
    return app.get_options([&](const CLI::Option* option) {
        return option != app.get_help_ptr() && option != app.get_version_ptr();
    });
}

std::string page_of_all() {
    return man_page(all_commands(used_for::command_line), all_commands(used_for::lines));
}

TEST(Commands, HaveTheirTexts) {
    const all_commands tree(used_for::command_line);
    for (const command& shown : tree.commands) {
        EXPECT_TRUE(is_sentence(shown.app.get_description())) << shown.name;
        EXPECT_TRUE(shown.hidden || !shown.app.get_footer().empty()) << shown.name;
        EXPECT_TRUE(shown.run != nullptr) << shown.name;
        for (const CLI::Option* const option : options_of(shown.app)) {
            if (shown.hidden) continue;
            EXPECT_TRUE(is_sentence(option->get_description()))
                << shown.name << ' ' << option->get_name();
        }
    }
    const all_commands lines(used_for::lines);
    for (const command& shown : lines.commands)
        EXPECT_TRUE(shown.answer != nullptr) << shown.name;
}

TEST(Commands, HaveNamesOfTheirOwn) {
    std::set<std::string> names;
    const all_commands tree(used_for::command_line);
    for (const command& shown : tree.commands)
        EXPECT_TRUE(names.insert(shown.name).second) << shown.name;
}

TEST(Options, OfACommandHaveNamesOfTheirOwn) {
    const all_commands tree(used_for::command_line);
    for (const command& shown : tree.commands) {
        std::set<std::string> names;
        for (const CLI::App* const app : {&shown.app, tree.app.get()}) {
            for (const CLI::Option* const option : options_of(*app))
                EXPECT_TRUE(names.insert(option->get_name()).second)
                    << shown.name << ' ' << option->get_name();
        }
    }
}

// Completion knows the possible values, and so does the message about a wrong one.
TEST(Options, WithWordsOfferThem) {
    const all_commands tree(used_for::command_line);
    for (const auto& [option, taken] : tree.values)
        EXPECT_EQ(taken.offered == offers::words, !taken.words.empty()) << option->get_name();
}

TEST(ManPage, HasEveryCommandWithItsOptions) {
    const std::string page = page_of_all();
    const all_commands tree(used_for::command_line);
    for (const command& shown : tree.commands) {
        const std::string start = ".SS \"" + in_man_page(shown.name + words_text(shown)) + "\"\n";
        ASSERT_EQ(!shown.hidden, holds(page, start)) << start;
        if (shown.hidden) continue;
        const std::size_t at = page.find(start) + start.size();
        const std::string part = page.substr(at, page.find("\n.S", at) - at);
        EXPECT_TRUE(holds(part, in_man_page(shown.app.get_description()))) << shown.name;
        EXPECT_TRUE(holds(part, in_man_page(shown.more_help))) << shown.name;
        for (const CLI::Option* const option : options_of(shown.app)) {
            EXPECT_TRUE(holds(part, in_man_page(option->get_name())))
                << shown.name << ' ' << option->get_name();
            EXPECT_TRUE(holds(part, in_man_page(option->get_description())))
                << shown.name << ' ' << option->get_name();
        }
    }
}

std::string section_of(const std::string& page, const std::string& title) {
    const std::size_t at = page.find(".SH \"" + title + "\"\n");
    return at == std::string::npos ? "" : page.substr(at, page.find("\n.SH", at) - at);
}

TEST(ManPage, HasLinesExamplesAndEnvironment) {
    const std::string page = page_of_all();
    const all_commands lines(used_for::lines);
    for (const command& shown : lines.commands) {
        const std::string line = in_man_page(shown.name + words_text(shown)) + "\"\n" +
                                 in_man_page(shown.app.get_description());
        EXPECT_TRUE(holds(section_of(page, "LINES"), line)) << shown.name;
    }
    ASSERT_FALSE(examples().empty());
    for (const example& shown : examples()) {
        EXPECT_TRUE(holds(section_of(page, "EXAMPLES"), in_man_page(shown.command)))
            << shown.command;
        EXPECT_TRUE(holds(section_of(page, "EXAMPLES"), in_man_page(shown.meaning)))
            << shown.command;
    }
    for (const char* const name :
         {"QNMCTL_PORTS", "NO_COLOR", "COLUMNS", "TERM", "PAGER", "LC_ALL", "TZ", "TMPDIR"})
        EXPECT_TRUE(holds(section_of(page, "ENVIRONMENT"), std::string(".B \"") + name)) << name;
}

// The words of an example: from "qnmctl" up to what the shell does with its output.
std::vector<std::string> words_of_example(const std::string& command) {
    const std::size_t start = command.find("qnmctl ");
    EXPECT_NE(std::string::npos, start) << command;
    const std::string words = command.substr(start, command.find_first_of("|)", start) - start);
    std::vector<std::string> all = split(words, " ");
    all.erase(all.begin());
    std::erase(all, "");
    return all;
}

bool parses(std::vector<std::string> words) {
    words.insert(words.begin(), "qnmctl");
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    all_commands tree(used_for::command_line);
    const auto parsed = parse_command_line(tree, static_cast<int>(argv.size()), argv.data());
    return std::holds_alternative<const command*>(parsed);
}

TEST(Commands, ShowExamplesThatAreRight) {
    const all_commands tree(used_for::command_line);
    for (const command& shown : tree.commands) {
        if (shown.hidden) continue;
        EXPECT_FALSE(shown.examples.empty()) << shown.name;
        for (const example& one : shown.examples) {
            const std::vector<std::string> words = words_of_example(one.command);
            EXPECT_TRUE(holds(join(words, " "), shown.name)) << one.command;
            EXPECT_TRUE(parses(words)) << one.command;
            EXPECT_TRUE(holds(shown.app.help(), one.command)) << one.command;
            EXPECT_TRUE(holds(page_of_all(), in_man_page(one.command))) << one.command;
        }
    }
}

TEST(Commands, ForManyCardsSayHowTheseAreTold) {
    const all_commands tree(used_for::command_line);
    std::size_t waiting = 0;
    for (const command& shown : tree.commands) {
        const CLI::Option* const wait = shown.app.get_option_no_throw("--wait");
        if (wait == nullptr) continue;
        ++waiting;
        const bool many = shown.cards != nullptr;
        EXPECT_EQ(many, holds(wait->get_description(), "or 3 without IDs")) << shown.name;
        EXPECT_TRUE(holds(wait->get_description(), "default: 10")) << shown.name;
        EXPECT_EQ(many, holds(shown.app.get_footer(), "exit status is that of the first one"))
            << shown.name;
    }
    EXPECT_LT(10U, waiting);
}

TEST(ManPage, HasGlobalOptionsAndExitStatuses) {
    const std::string page = page_of_all();
    const all_commands tree(used_for::command_line);
    for (const CLI::Option* const option : options_of(*tree.app))
        EXPECT_TRUE(holds(page, in_man_page(option->get_description()))) << option->get_name();
    for (const status_row& row : exit_statuses()) {
        EXPECT_TRUE(holds(page, ".B \"" + std::to_string(row.status) + "\"\n" + row.meaning + '\n'))
            << row.status;
    }
}

TEST(Completion, KnowsEveryCommandAndItsOptions) {
    const all_commands all(used_for::command_line);
    for (const command& shown : all.commands) {
        std::vector<std::string> line = split(shown.name, " ");
        const auto offered = [&line] {
            all_commands tree(used_for::command_line);
            return words_of(complete(tree, line, no_cards));
        };
        EXPECT_EQ(!shown.hidden, contains(offered(), line.back())) << shown.name;
        line.emplace_back("--");
        const std::vector<std::string> options = offered();
        for (const CLI::Option* const option : options_of(shown.app)) {
            if (option->get_positional()) continue;
            EXPECT_TRUE(contains(options, option->get_name()))
                << shown.name << ' ' << option->get_name();
        }
        EXPECT_TRUE(contains(options, "--ports")) << shown.name;
    }
}

TEST(ExitStatus, IsOneForEachResultCode) {
    std::set<int> statuses;
    for (int code = 0; code < QNM_API_CODE_MAX; ++code)
        statuses.insert(code_status(static_cast<qnm_api_code_t>(code)));
    EXPECT_EQ(static_cast<std::size_t>(QNM_API_CODE_MAX), statuses.size());
    EXPECT_EQ(0, code_status(QNM_API_SUCCESS));
    EXPECT_EQ(11, code_status(QNM_API_EINVAL));
    EXPECT_EQ(19, code_status(QNM_API_ENOSYS));
    std::set<int> documented;
    for (const status_row& row : exit_statuses())
        documented.insert(row.status);
    statuses.insert({exit_failed, exit_usage, exit_unwell, exit_no_card, tools::exit_output});
    EXPECT_EQ(statuses, documented);
}

}  // namespace
}  // namespace qnmctl
