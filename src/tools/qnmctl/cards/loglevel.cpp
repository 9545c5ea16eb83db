// loglevel: how much the running manager logs.
#include <nlohmann/json.hpp>

#include "cards/commands.h"
#include "cli/options.h"
#include "manager/listen.h"

namespace qnmctl {

namespace {

constexpr char loglevel_help[] =
    "The level is that of the running manager, and qnmctl has one only as long as it runs. So\n"
    "this is a line to type into a running watch: \"loglevel debug\". The log is where --log or\n"
    "--keep-logs puts it. For a single command, give --log-level.";

constexpr const char* level_words[] = {"fatal", "error", "warn", "info", "debug", "trace", "none"};

struct loglevel_options {
    qnm_log_level_t level = QNM_LOGLVL_NONE;
};

void answer_loglevel(context& with, const loglevel_options& options) {
    const qnm_api_code_t code = qnm_set_loglevel(options.level);
    if (code != QNM_API_SUCCESS) throw failed_call("qnm_set_loglevel", code);
    const char* const word = level_word(options.level);
    with.results.text(std::string("log level ") + word + '\n');
    with.results.record("loglevel", {{"level", word}, {"result", code_name(code)}});
}

// "none" is no level of the library's, but asks for the configured one.
value running_level(qnm_log_level_t& target) {
    const auto store = [&target](std::size_t place) {
        const bool level = place < log_level_words().size();
        target = level ? static_cast<qnm_log_level_t>(place) : QNM_LOGLVL_NONE;
    };
    return choice_by_place(store, level_words);
}

}  // namespace

void define_loglevel(command_tree& tree) {
    const command_texts texts = {"loglevel", "Sets the level of the library's log", loglevel_help};
    if (tree.use == used_for::command_line) return refuse_on_command_line(tree, texts);
    const auto loglevel = add_command_with<loglevel_options>(tree, texts);
    add_operand(loglevel.self, "LEVEL",
                "fatal, error, warn, info, debug, trace, or none for the configured one",
                running_level(loglevel.options.level));
    set_answer(loglevel, answer_loglevel);
}

}  // namespace qnmctl
