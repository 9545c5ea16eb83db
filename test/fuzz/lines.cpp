// lines.cpp - any line to qnmctl, as typed into a running watch or on its command line.
//
// A line becomes a command with its options, or a text that says what is wrong.

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "commands.h"
#include "fuzz.h"

namespace qnmctl {
namespace {

using fuzz::require;

// The result of a line is one of the commands, and can do what the line asks for.
void check_command(const command_tree& tree, const command& found) {
    const auto same = [&](const command& defined) { return &defined == &found; };
    require(std::any_of(tree.commands.begin(), tree.commands.end(), same), "a command is known");
    const bool lines = tree.use == used_for::lines;
    require(lines ? found.answer != nullptr : found.run != nullptr, "it can be done");
    if (found.cards == nullptr) return;
    require(found.cards->ids.empty() == found.cards->by_property(), "cards are chosen in one way");
    for (const std::uint64_t id : found.cards->ids)
        require(id <= 0xFFFFFFFFFFFF, "an ID has 48 bits");
    if (found.cards->group) {
        require(*found.cards->group >= 1 && *found.cards->group <= 4094, "a group is a VLAN ID");
    }
    require(found.words.size() >= found.operands.size(), "no operand is missing");
}

void check_line(const std::string& line) {
    command_tree tree(used_for::lines);
    define_all_commands(tree);
    const auto parsed = parse_line(tree, line);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) {
        require(!wrong->empty(), "what is wrong is told");
        return;
    }
    const auto* const found = std::get<const command*>(parsed);
    const bool blank = line.find_first_not_of(" \t\r") == std::string::npos;
    require((found == nullptr) == blank, "a line that is not blank asks for something");
    if (found != nullptr) check_command(tree, *found);
}

// Discards what is printed while it lives.
class silence {
  public:
    silence() : out_(std::cout.rdbuf(nullptr)), err_(std::cerr.rdbuf(nullptr)) {}
    ~silence() {
        std::cout.rdbuf(out_);
        std::cerr.rdbuf(err_);
    }
    silence(const silence&) = delete;
    silence& operator=(const silence&) = delete;

  private:
    std::streambuf* out_;
    std::streambuf* err_;
};

void check_command_line(const std::string& line) {
    const std::vector<std::string> words = split(line, " \t\r\n");
    std::vector<const char*> arguments = {"qnmctl"};
    for (const std::string& word : words)
        arguments.push_back(word.c_str());
    const silence no_help;
    command_tree tree(used_for::command_line);
    define_all_commands(tree);
    const auto parsed =
        parse_command_line(tree, static_cast<int>(arguments.size()), arguments.data());
    if (const auto* status = std::get_if<int>(&parsed)) {
        require(*status == exit_ok || *status == exit_usage, "the exit status is one of two");
        return;
    }
    require(tree.global.ports.size() <= 2, "there are two ports at most");
    check_command(tree, *std::get<const command*>(parsed));
}

}  // namespace
}  // namespace qnmctl

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::reader in({data, size});
    const bool typed = in.u8() != '$';
    const std::string text(fuzz::as_text(in.take(in.size())));
    // A NUL ends a word of a command line, and a line.
    const std::string line = text.substr(0, text.find(typed ? '\n' : '\0'));
    if (typed) {
        qnmctl::check_line(line);
    } else {
        qnmctl::check_command_line(line);
    }
    return 0;
}
