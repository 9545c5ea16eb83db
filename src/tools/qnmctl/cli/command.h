// The commands in one tree, CLI::App for each, which parsing, help, completion and the manual page
// walk.
//
// A command is defined in the file of what it does: a function adds it to the tree, with options
// that store their values in the command's own record, and with what runs. Nothing else has to know
// of it but the list of these functions.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/value.h"
#include "installation/installation.h"
#include "output/writer.h"
#include "records/selection.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace qnmctl {

struct context;  // what a running command works with; see manager/context.h

struct command_tree;

struct operand {
    std::string name;
    value taken;
};

struct command {
    command_tree& tree;
    CLI::App& app;
    std::string name;                                // with the name of its group in front
    std::function<int(context&)> run = nullptr;      // from the command line
    std::function<void(context&)> answer = nullptr;  // from a line of standard input
    output_form form = output_form::text;
    bool streams = false;  // goes on and tells events as they come
    bool endless = false;  // what it tells may have no end, so a signal is a usual one
    bool hidden = false;   // for scripts of its own; neither in help nor in the manual page

    // Of one that takes several cards: how many of its words are IDs shows only when all are there.
    selection* cards = nullptr;
    std::vector<operand> operands = {};       // behind the IDs
    std::vector<std::string> words = {};      // IDs and operands as they were typed
    std::shared_ptr<void> options = nullptr;  // that the functions and values above refer to
};

// What a tree is for. A line gets its form from the watch that takes it, and waits for nothing, so
// options for that are left out.
enum class used_for { command_line, lines };

struct command_tree {
    explicit command_tree(used_for purpose);
    ~command_tree();
    command_tree(const command_tree&) = delete;
    command_tree& operator=(const command_tree&) = delete;

    used_for use;
    std::unique_ptr<CLI::App> app;
    command root;  // for the options in front of a command
    settings global = {};
    std::deque<command> commands = {};  // in the order in which help shows them
    std::map<const CLI::Option*, value> values = {};
};

// Defines every command that there is; commands.h has the one of qnmctl.
using define_commands = void (*)(command_tree&);

// The help of the command as a whole is one line; `more_help` has further lines for its own --help.
struct command_texts {
    const char* name;
    const char* help;
    const char* more_help = "";
};

// A first word that several commands have in common.
void add_group(command_tree& tree, const char* name, const char* help);

command& add_command(command_tree& tree, const command_texts& texts);

// Stores a word, or fails as the parser itself does.
void take_word(const std::string& name, const value& taken, const std::string& word);

// That of a command or group below; nullptr when there is none.
CLI::App* find_app(CLI::App& parent, const std::string& name);

void hide(command& of);

// One whose options are a record, which lives as long as the tree.
template <class Options>
struct defined {
    command& self;
    Options& options;
};
template <class Options>
defined<Options> add_command_with(command_tree& tree, const command_texts& texts) {
    const auto options = std::make_shared<Options>();
    command& self = add_command(tree, texts);
    self.options = options;
    return {self, *options};
}

template <class Options>
void set_run(const defined<Options>& of, int (*run)(context&, const Options&)) {
    of.self.run = [&options = of.options, run](context& with) { return run(with, options); };
}
template <class Options>
void set_answer(const defined<Options>& of, void (*answer)(context&, const Options&)) {
    of.self.answer = [&options = of.options, answer](context& with) { answer(with, options); };
}

// ---- Options ------------------------------------------------------------------------------------

struct option_texts {
    const char* names;  // "-o,--output"
    const char* value;  // how the help calls it, "SECONDS"
    std::string help;   // one line
};

void add_option(command& to, const option_texts& texts, value taken);
void add_flag(command& to, const char* names, const char* help, bool& target);
void add_flag(command& to, const char* names, const char* help, std::uint32_t& flags,
              std::uint32_t bit);

enum class presence { required, optional };

// A word behind the command that is no option, and no ID where several can stand.
void add_operand(command& to, const char* name, const char* help, value taken,
                 presence needed = presence::required);

// All words that are left, options among them when they follow "--".
void add_rest(command& to, const char* name, std::vector<std::string>& target);

}  // namespace qnmctl
