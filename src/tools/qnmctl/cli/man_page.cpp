// Writes the tree of commands in the man(7) language.
#include "cli/man_page.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <vector>

#include "cli/command_line.h"
#include "cli/usage.h"
#include "common/man_language.h"
#include "output/text.h"

namespace qnmctl {

namespace {

using man_language::argument;
using man_language::escaped;
using man_language::heading;
using man_language::tagged;

struct entry {
    const char* title;
    const char* text;
};

constexpr char description[] =
    "runs a manager of libqnm in its own process, on up to two Ethernet interfaces, and tells what "
    "it learns of the Quillnet adapter cards that announce themselves there. It needs the "
    "capability CAP_NET_RAW, and nothing else of root's.";

constexpr char output_form_text[] =
    "With -o text a command writes for people: tables that fit the terminal, and colours where "
    "standard output is one. With -o jsonl every line is an object, a record, that says by "
    "\"record\" what it is and by \"schema\" which version of the schema it keeps to. With -o json "
    "the same records stand in the array \"records\" of one document, which ends with the exit "
    "status. IDs are strings (\"0x001122334455\"), values are numbers, and a list is an array even "
    "when it is empty. Failures are printed on standard error, and each is a record as well; only "
    "wrong "
    "usage, "
    "found before the command runs, is on standard error alone.";

constexpr char surroundings_text[] =
    "SIGINT, SIGTERM and SIGHUP end every wait: for frames, for input that does not come, and for "
    "a "
    "reader that takes nothing. What such a reader has not taken is lost, and standard error says "
    "so. Configurations and images are regular files, or symbolic links to them, of up to 1 MiB "
    "and "
    "of the size of what they are for; anything else is named and refused. Control characters in "
    "names and texts of others, and bytes that are no UTF-8, are shown as \\x1b, in JSON as it "
    "escapes them.";

constexpr char logs_text[] =
    "A manager of qnmctl never runs on the installation that --dir names, but on a copy of its "
    "qnm.conf, and its logs are its own: appenders of the installation are not used, so what a "
    "host program logs there is neither added to nor rotated. Copy and logs lie in a folder that "
    "only this user can look into, one for each run, and are removed at the end. What is left of "
    "a run that was killed is removed by a later one. --keep-logs keeps the folder and says where "
    "it is; --log adds the library's log to a file. Then the lines are there that log_level or "
    "--log-level and the levels of the installation's loggers let through; otherwise warnings and "
    "errors alone. In the folder each log is renamed to .1 when it is full: qnm.log at 10 MB, "
    "qnm_stats.log at 100.";

constexpr char places_text[] =
    "The folder is made where nobody but this user and root can have prepared anything: each "
    "folder on the way and each link has to belong to one of them and to be closed to others. "
    "Where that does not hold for XDG_STATE_HOME and HOME, for instance of root with another "
    "user's HOME, it is made in TMPDIR or /tmp; what is left of a run there stays until the "
    "system clears it.";

constexpr entry environment[] = {
    {"QNMCTL_PORTS",
     "Interfaces of port 0 and 1 as --ports takes them, where neither --ports nor --dir is given."},
    {"NO_COLOR", "When it is set and not empty, nothing is coloured."},
    {"COLUMNS",
     "Width that tables have to fit, in place of that of the terminal, when it is a number above "
     "0. "
     "Without either there is no limit."},
    {"TERM", "Kind of the terminal that top draws on."},
    {"PAGER",
     "Shows a table of list that is longer than the terminal; less where it is not set, none where "
     "it is empty or cat. LESS is set to FRX for it, unless it is set already."},
    {"LC_ALL, LC_CTYPE, LANG",
     "Character set: the first that is set and not empty counts. When it names UTF-8, the tree of "
     "topology has lines, otherwise ASCII characters."},
    {"TZ", "Time zone that times are told in."},
    {"XDG_STATE_HOME, HOME",
     "Where the folders with logs are made: in $XDG_STATE_HOME/qnmctl or ~/.local/state/qnmctl."},
    {"TMPDIR", "Where they are made, in place of /tmp, when neither of these can be used."},
};

constexpr entry files[] = {
    {"/opt/tarvo/qnm/conf/qnm.conf", "Configuration, where neither --dir nor --ports is given."},
    {"/opt/tarvo/qnm/conf/qnm_log4c.properties", "Where host programs log to."},
    {"~/.local/state/qnmctl",
     "One folder for each run, run.*, and those that --keep-logs has kept, kept.*"},
    {"/usr/share/qnm/qnmctl.schema.json", "JSON Schema of what -o json and -o jsonl tell."},
};

std::string tagged(std::span<const entry> entries) {
    std::string text;
    for (const entry& item : entries)
        text += tagged(item.title, item.text);
    return text;
}

// ---- The commands -------------------------------------------------------------------------------

// "-v, --verbose", "--for SECONDS"
std::string option_term(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames())
        names.push_back('-' + name);
    for (const std::string& name : option.get_lnames())
        names.push_back("--" + name);
    const std::string type = option.get_type_name();
    return join(names, ", ") + (type.empty() ? "" : ' ' + type);
}

std::vector<const CLI::Option*> options_of(const CLI::App& app, bool positional) {
    return app.get_options([&](const CLI::Option* option) {
        return option->get_positional() == positional && option != app.get_help_ptr() &&
               option != app.get_version_ptr();
    });
}

std::string tagged_examples(std::span<const example> shown) {
    std::string text;
    for (const example& item : shown)
        text += tagged(item.command, item.meaning);
    return text;
}

std::string command_section(const command& verb) {
    std::string text = ".SS " + argument(verb.name + words_text(verb)) + '\n' +
                       escaped(verb.app.get_description()) + ".\n";
    if (!verb.more_help.empty()) text += escaped(verb.more_help) + '\n';
    for (const CLI::Option* const word : options_of(verb.app, true))
        text += tagged(word_text(verb, *word), word->get_description());
    for (const CLI::Option* const option : options_of(verb.app, false))
        text += tagged(option_term(*option), option->get_description());
    if (!verb.examples.empty()) text += ".PP\nExamples:\n" + tagged_examples(verb.examples);
    return text;
}

std::string commands(const command_tree& tree) {
    std::string text;
    for (const command& shown : tree.commands) {
        if (!shown.hidden) text += command_section(shown);
    }
    return text;
}

std::string lines(const command_tree& tree) {
    std::string text = escaped(
                           "A running watch takes commands as lines of "
                           "standard input, on cards already heard:") +
                       '\n';
    for (const command& shown : tree.commands)
        text += tagged(shown.name + words_text(shown), shown.app.get_description());
    return text;
}

std::string globals(const command_tree& tree) {
    std::string text = escaped("They stand in front of the command or behind it.") + '\n';
    for (const CLI::Option* const option : options_of(*tree.app, false))
        text += tagged(option_term(*option), option->get_description());
    text += tagged("-h, --help", "Print help and end; behind a command, that of the command");
    return text + tagged("--version", "Print the version and end");
}

std::string statuses() {
    std::string text;
    for (const status_row& row : exit_statuses())
        text += tagged(std::to_string(row.status), row.meaning);
    return text;
}

}  // namespace

std::string man_page(const command_tree& tree, const command_tree& lines_tree) {
    std::string text = ".\\\" Made from the definitions of the commands; not to be edited.\n";
    text += ".TH QNMCTL 1 " QNM_TEXTS_DATE " \"libqnm " QNMCTL_VERSION
            "\" \"User Commands\"\n.nh\n.ad l\n";
    std::string what = summary;
    what[0] = static_cast<char>(std::tolower(what[0]));
    text += heading("NAME") + "qnmctl \\- " + escaped(what) + '\n';
    text +=
        heading("SYNOPSIS") + ".B qnmctl\n.RI [ options ]\n.I command\n.RI [ argument .\\|.\\|.]\n";
    text += heading("DESCRIPTION") + ".B qnmctl\n" + escaped(description) + '\n';
    text += heading("OPTIONS") + globals(tree);
    text += heading("COMMANDS") + commands(tree);
    text += heading("LINES") + lines(lines_tree);
    text += heading("OUTPUT") + escaped(output_form_text) + '\n';
    text += heading("LOGS") + escaped(logs_text) + "\n.PP\n" + escaped(places_text) + '\n';
    text += heading("SIGNALS AND FILES OF OTHERS") + escaped(surroundings_text) + '\n';
    text += heading("EXIT STATUS") + statuses();
    text += heading("ENVIRONMENT") + tagged(environment);
    text += heading("FILES") + tagged(files);
    text += heading("EXAMPLES") + tagged_examples(examples());
    return text + heading("SEE ALSO") + ".BR qnm (7),\n.BR qnm.conf (5),\n.BR qnm\\-cardsim (1)\n";
}

}  // namespace qnmctl
