// The command's own tables: nothing in them is without its text.
#include "verbs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>

#include "options.h"
#include "text.h"

namespace qnmctl {
namespace {

bool is_sentence(const std::string& text) {
    return !text.empty() && (std::isupper(static_cast<unsigned char>(text.front())) ||
                             text.find(' ') != std::string::npos);
}

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
    statuses.insert({exit_failed, exit_usage});
    EXPECT_EQ(statuses, documented);
}

}  // namespace
}  // namespace qnmctl
