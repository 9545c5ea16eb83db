// lines.cpp - any line to qnmctl, as typed into a running watch or on its command line.
//
// It becomes a request within the limits of its operands, or a text that tells what is wrong.

#include <iostream>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "fuzz.h"
#include "output/text.h"

namespace qnmctl {
namespace {

using fuzz::require;

constexpr std::uint64_t id_limit = 0xFFFFFFFFFFFF;

int run(context&, const request&) {
    return exit_ok;
}
void answer(context&, const request&) {}

constexpr operand addr = {.name = "ADDR", .help = "", .most = 0x3FFFFC, .step = 4};
constexpr operand value = {.name = "VALUE", .help = ""};
constexpr operand addr_only[] = {addr};
constexpr operand addr_value_mask[] = {addr, value, {.name = "MASK", .help = "", .least = 1}};
constexpr operand range[] = {
    {.name = "START", .help = "", .most = 0x7FC, .step = 4, .optional = true},
    {.name = "END", .help = "", .least = 4, .most = 0x800, .step = 4, .optional = true}};
constexpr operand page_file[] = {value, {.name = "FILE", .help = "", .form = operand_form::file}};

// Everything that may stand behind a verb, in the combinations that are in use.
constexpr verb table[] = {
    {"watch", "", "", takes_filter | takes_for | takes_count, 0, run, nullptr},
    {"show", "", "", takes_id | takes_for, 10, run, answer},
    {"stats", "", "", takes_verbose | takes_for, 3, run, answer},
    {"monitor", "", "", takes_action | takes_id, 0, run, answer},
    {"reg read", "", "", takes_ids | takes_wait | takes_retry | takes_livecheck, 0, run, answer,
     addr_only},
    {"reg modify", "", "", takes_ids | takes_verify | takes_force_lock, 0, run, answer,
     addr_value_mask},
    {"eeprom dump", "", "", takes_id | takes_raw | takes_yes, 0, run, answer, range},
    {"mms", "", "", takes_ids, 0, run, answer, page_file},
    {"loglevel", "", "", takes_level, 0, run, answer},
    {"quit", "", "", takes_nothing, 0, nullptr, answer},
};

void check_operands(const request& asked) {
    std::size_t at = 0;
    for (const operand& wanted : asked.asked->operands) {
        if (wanted.form == operand_form::file) {
            require(!asked.file.empty(), "a file has a name");
            continue;
        }
        if (at == asked.numbers.size()) {
            require(wanted.optional, "an operand that is needed is there");
            continue;
        }
        const std::uint32_t number = asked.numbers[at++];
        require(number >= wanted.least && number <= wanted.most && number % wanted.step == 0,
                "a number is within its limits");
    }
    require(at == asked.numbers.size(), "there are no more numbers than operands");
}

void check_request(const request& asked) {
    require(asked.asked >= std::begin(table) && asked.asked < std::end(table), "a verb is known");
    require(asked.id <= id_limit, "an ID has 48 bits");
    for (const std::uint64_t id : asked.cards.ids)
        require(id <= id_limit, "an ID has 48 bits");
    if (asked.cards.group) require(*asked.cards.group <= 0xFFF, "a group is a VLAN ID");
    if ((asked.asked->takes & takes_ids) != 0) {
        require(!asked.cards.ids.empty() || asked.cards.by_property(), "a card is asked for");
    }
    require(asked.seconds >= 0 && asked.seconds <= 1e9, "a time is a usable one");
    if (asked.wait) require(*asked.wait > 0 && *asked.wait <= 1e9, "a time is a usable one");
    check_operands(asked);
}

void check_line(const std::string& line) {
    const auto parsed = parse_line(table, line);
    if (const auto* wrong = std::get_if<std::string>(&parsed)) {
        require(!wrong->empty(), "what is wrong is told");
        return;
    }
    const auto& asked = std::get<request>(parsed);
    const bool blank = line.find_first_not_of(" \t\r") == std::string::npos;
    require((asked.asked == nullptr) == blank, "a line that is not blank asks for something");
    if (!blank) check_request(asked);
}

// Sends what is printed nowhere while it lives.
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
    std::vector<const char*> given = {"qnmctl"};
    for (const std::string& word : words)
        given.push_back(word.c_str());
    const silence no_help;
    const auto parsed = parse_command_line(table, static_cast<int>(given.size()), given.data());
    if (const auto* status = std::get_if<int>(&parsed)) {
        require(*status == exit_ok || *status == exit_usage, "the exit status is one of two");
        return;
    }
    const auto& understood = std::get<command_line>(parsed);
    require(understood.global.ports.size() <= 2, "there are two ports at most");
    check_request(understood.asked);
}

}  // namespace
}  // namespace qnmctl

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::reader in({data, size});
    const bool typed = in.u8() != '$';
    const std::string text(fuzz::as_text(in.take(in.size())));
    // A word ends at the NUL when it comes from a command line, and a line at its end.
    const std::string line = text.substr(0, text.find(typed ? '\n' : '\0'));
    if (typed) {
        qnmctl::check_line(line);
    } else {
        qnmctl::check_command_line(line);
    }
    return 0;
}
