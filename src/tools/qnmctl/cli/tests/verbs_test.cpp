// The command's own tables: nothing in them is without its text, and help, completion and manual
// page have it all.
#include "verbs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "cli/completion.h"
#include "cli/man_page.h"
#include "cli/options.h"
#include "cli/usage.h"
#include "common/standard_files.h"
#include "doctor/doctor.h"
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
    std::string made;
    for (const char c : text)
        made += c == '-' ? std::string("\\-") : std::string(1, c);
    return made;
}

std::vector<std::string> words_of(const candidates& of) {
    std::vector<std::string> words;
    for (const candidate& one : of.words)
        words.push_back(one.word);
    return words;
}

bool contains(const std::vector<std::string>& words, const std::string& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

const card_source no_cards = [](const settings&) { return std::vector<candidate>{}; };

TEST(Verbs, HaveTheirTexts) {
    for (const verb& one : verbs) {
        EXPECT_TRUE(is_sentence(one.help)) << one.name;
        const bool shown = one.run != nullptr && !one.hidden;
        EXPECT_EQ(shown, one.more_help[0] != '\0') << one.name;
        for (const operand& wanted : one.operands)
            EXPECT_TRUE(is_sentence(wanted.help)) << one.name << ' ' << wanted.name;
        EXPECT_TRUE(one.run != nullptr || one.answer != nullptr) << one.name;
    }
    for (const verb_group& one : verb_groups())
        EXPECT_TRUE(is_sentence(one.help)) << one.name;
}

TEST(Verbs, HaveNamesOfTheirOwn) {
    std::set<std::string> names;
    for (const verb& one : verbs)
        EXPECT_TRUE(names.insert(one.name).second) << one.name;
}

TEST(Options, HaveTheirTexts) {
    for (const option& one : all_options()) {
        EXPECT_TRUE(is_sentence(one.help)) << one.names;
        EXPECT_NE(nullptr, one.set) << one.names;
        const bool words = one.offered == offers::words;
        EXPECT_EQ(words, !one.words.empty()) << one.names;
    }
}

TEST(Options, AreTakenBySomeVerbOrInFrontOfIt) {
    for (const option& one : all_options()) {
        const std::vector<const option*> global = global_options();
        bool taken = std::find(global.begin(), global.end(), &one) != global.end();
        for (const verb& user : verbs) {
            const std::vector<const option*> own = options_of(user);
            taken = taken || std::find(own.begin(), own.end(), &one) != own.end();
        }
        EXPECT_TRUE(taken) << one.names;
    }
}

TEST(Options, OfAVerbHaveNamesOfTheirOwn) {
    for (const verb& user : verbs) {
        std::set<std::string> names;
        std::vector<const option*> all = options_of(user);
        for (const option* const row : global_options())
            all.push_back(row);
        for (const option* const row : all) {
            for (const std::string& name : names_of(*row))
                EXPECT_TRUE(names.insert(name).second) << user.name << ' ' << name;
        }
    }
}

TEST(ManPage, HasEveryVerbWithItsOptions) {
    const std::string page = man_page(verbs);
    for (const verb& one : verbs) {
        const std::string start = ".SS \"" + in_man_page(one.name + words_text(one)) + "\"\n";
        const bool shown = one.run != nullptr && !one.hidden;
        ASSERT_EQ(shown, holds(page, start)) << start;
        if (!shown) continue;
        const std::size_t at = page.find(start) + start.size();
        const std::string part = page.substr(at, page.find("\n.S", at) - at);
        EXPECT_TRUE(holds(part, in_man_page(one.help))) << one.name;
        EXPECT_TRUE(holds(part, in_man_page(one.more_help))) << one.name;
        for (const option* const row : options_of(one)) {
            EXPECT_TRUE(holds(part, in_man_page(names_of(*row).back())))
                << one.name << ' ' << row->names;
            EXPECT_TRUE(holds(part, in_man_page(option_help(*row, one))))
                << one.name << ' ' << row->names;
        }
        for (const operand& wanted : one.operands)
            EXPECT_TRUE(holds(part, in_man_page(wanted.help))) << one.name << ' ' << wanted.name;
    }
}

std::string section_of(const std::string& page, const std::string& title) {
    const std::size_t at = page.find(".SH \"" + title + "\"\n");
    return at == std::string::npos ? "" : page.substr(at, page.find("\n.SH", at) - at);
}

TEST(ManPage, HasLinesExamplesAndEnvironment) {
    const std::string page = man_page(verbs);
    for (const verb& one : verbs) {
        if (one.answer == nullptr) continue;
        const std::string line =
            in_man_page(one.name + words_text(one)) + "\"\n" + in_man_page(one.help);
        EXPECT_TRUE(holds(section_of(page, "LINES"), line)) << one.name;
    }
    ASSERT_FALSE(examples().empty());
    for (const example& one : examples()) {
        EXPECT_TRUE(holds(section_of(page, "EXAMPLES"), in_man_page(one.command))) << one.command;
        EXPECT_TRUE(holds(section_of(page, "EXAMPLES"), in_man_page(one.meaning))) << one.command;
    }
    for (const char* const name : {"NO_COLOR", "COLUMNS", "TERM", "LC_ALL", "TZ", "TMPDIR"})
        EXPECT_TRUE(holds(section_of(page, "ENVIRONMENT"), std::string(".B \"") + name)) << name;
}

TEST(Verbs, ForManyCardsSayHowTheseAreTold) {
    for (const verb& one : verbs) {
        for (const option* const row : options_of(one)) {
            if (row->names != std::string("--wait")) continue;
            const bool many = (one.takes & takes_ids) != 0;
            EXPECT_EQ(many, holds(option_help(*row, one), "without IDs 3")) << one.name;
            EXPECT_TRUE(holds(option_help(*row, one), "default: 10")) << one.name;
            EXPECT_EQ(many, holds(one.more_help, "exit status is that of the first one"))
                << one.name;
        }
    }
}

TEST(ManPage, HasGlobalOptionsAndExitStatuses) {
    const std::string page = man_page(verbs);
    for (const option* const row : global_options())
        EXPECT_TRUE(holds(page, in_man_page(row->help))) << row->names;
    for (const status_row& row : exit_statuses()) {
        EXPECT_TRUE(holds(page, ".B \"" + std::to_string(row.status) + "\"\n" + row.meaning + '\n'))
            << row.status;
    }
}

TEST(Completion, KnowsEveryVerbAndItsOptions) {
    for (const verb& one : verbs) {
        if (one.run == nullptr) continue;
        std::vector<std::string> line = split(one.name, " ");
        EXPECT_EQ(!one.hidden, contains(words_of(complete(verbs, line, no_cards)), line.back()))
            << one.name;
        line.emplace_back("--");
        const std::vector<std::string> offered = words_of(complete(verbs, line, no_cards));
        for (const option* const row : options_of(one)) {
            if (row->is_word() || one.hidden) continue;
            EXPECT_TRUE(contains(offered, names_of(*row).back())) << one.name << ' ' << row->names;
        }
        EXPECT_TRUE(contains(offered, "--ports")) << one.name;
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
    statuses.insert({exit_failed, exit_usage, exit_unwell, tools::exit_output});
    EXPECT_EQ(statuses, documented);
}

}  // namespace
}  // namespace qnmctl
