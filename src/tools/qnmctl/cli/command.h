// The tree of commands, a CLI::App for each. Parsing, help, completion and the manual page walk it.
//
// Each command is defined in the file that implements it. A function adds it to the tree, with its
// options, which store their values in the command's own record, and the function that runs it.
// Only the list of these functions has to know about it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <span>
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

struct context;  // what a running command works with, see manager/context.h

struct command_tree;

struct example {
    const char* command;
    const char* meaning;
};

struct operand {
    std::string name;
    value taken;
};

struct command {
    command_tree& tree;
    CLI::App& app;
    std::string name;  // preceded by that of its group
    std::string more_help = {};
    std::span<const example> examples = {};
    std::function<int(context&)> run = nullptr;      // from the command line
    std::function<void(context&)> answer = nullptr;  // from a line of standard input
    output_form form = output_form::text;
    bool streams = false;  // prints events as they come
    bool endless = false;  // may run until a signal ends it, which is then no failure
    bool hidden = false;   // for our own scripts; not in help or the manual page

    // For a command that takes several cards: only the number of words tells which of them are IDs.
    selection* cards = nullptr;
    std::vector<operand> operands = {};       // after the IDs
    std::vector<std::string> words = {};      // IDs and operands as typed
    std::shared_ptr<void> options = nullptr;  // the functions and values above refer to it
};

// What a tree is for. A line on standard input has the output form of its watch and never waits for
// cards, so it lacks the options for both.
enum class used_for { command_line, lines };

struct command_tree {
    explicit command_tree(used_for purpose);
    ~command_tree();
    command_tree(const command_tree&) = delete;
    command_tree& operator=(const command_tree&) = delete;

    used_for use;
    std::unique_ptr<CLI::App> app;
    command root;  // holds the options before a command
    settings global = {};
    std::deque<command> commands = {};  // in the order of the help
    std::map<const CLI::Option*, value> values = {};
};

// Defines all commands; qnmctl's own such function is in commands.h.
using define_commands = void (*)(command_tree&);

// `help` is one line for the list of commands; `more_help` and the examples are added in the
// command's own --help.
struct command_texts {
    const char* name;
    const char* help;
    const char* more_help = "";
    std::span<const example> examples = {};
};

// A word that several commands begin with, such as "reg".
void add_group(command_tree& tree, const char* name, const char* help);

command& add_command(command_tree& tree, const command_texts& texts);

// Stores a word, or fails like the parser itself.
void take_word(const std::string& name, const value& taken, const std::string& word);

// The App of a command or group below this one; nullptr when there is none.
CLI::App* find_app(CLI::App& parent, const std::string& name);

void hide(command& verb);

// For a command that steers the running manager, so that it is a line of watch only: on the command
// line there is none but a hidden one that says so.
void refuse_on_command_line(command_tree& tree, const command_texts& texts);

// Adds a command whose options are a record. The record lives as long as the tree.
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
void set_run(const defined<Options>& added, int (*run)(context&, const Options&)) {
    added.self.run = [&options = added.options, run](context& with) { return run(with, options); };
}
template <class Options>
void set_answer(const defined<Options>& added, void (*answer)(context&, const Options&)) {
    added.self.answer = [&options = added.options, answer](context& with) {
        answer(with, options);
    };
}

// ---- Options ------------------------------------------------------------------------------------

struct option_texts {
    const char* names;  // "-o,--output"
    const char* value;  // its name in the help, "SECONDS"
    std::string help;   // one line
};

void add_option(command& to, const option_texts& texts, value taken);
void add_flag(command& to, const char* names, const char* help, bool& target);
void add_flag(command& to, const char* names, const char* help, std::uint32_t& flags,
              std::uint32_t bit);

enum class presence { required, optional };

// Adds an operand: a word after the command that is not an option.
void add_operand(command& to, const char* name, const char* help, value taken,
                 presence needed = presence::required);

// Takes all remaining words, and options as well if they follow "--".
void add_rest(command& to, const char* name, std::vector<std::string>& target);

}  // namespace qnmctl
