// Reads a configuration file as the library does, but goes on after the first mistake, at which the
// library stops.
#include "doctor/config_checks.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "common/nearest.h"
#include "installation/config_file.h"
#include "installation/config_keys.h"
#include "output/foreign_words.h"
#include "output/text.h"

namespace qnmctl {

namespace {

constexpr std::size_t piece_size = 127;    // of what the library reads as a line
constexpr std::size_t finding_limit = 50;  // a file that is no configuration would fill the screen
constexpr char blanks[] = " \t\r\n";
constexpr char list_blanks[] = " ,\t";
constexpr std::size_t port_limit = 2;

// How the library reads a value.
struct reading {
    severity rank = severity::ok;
    std::string text = {};  // what is wrong, or what it means
    std::string remedy = {};
};

struct known_value {
    int line = 0;
    bool good = false;
};

// The configuration by the lines read so far.
struct known_values {
    known_values() { _qnm_set_config_defaults(&config); }

    qnm_conf_t config;
    std::map<std::string, known_value> keys = {};
};

// Findings beyond the limit are only counted.
struct line_findings {
    std::size_t limit = finding_limit;
    findings shown = {};
    std::size_t all = 0;
    bool wrong = false;  // there are errors among all
};

bool is_full(const line_findings& into) {
    return into.shown.size() >= into.limit;
}

void add(line_findings& to, finding verdict) {
    ++to.all;
    to.wrong = to.wrong || verdict.rank == severity::error;
    if (!is_full(to)) to.shown.push_back(std::move(verdict));
}

// ---- Values -------------------------------------------------------------------------------------

std::string right_form(const qnm_config_key_t& key) {
    return std::string("Write ") + key.name + " = VALUE; it can be " + value_text(key) +
           ", and is " + key.initial + " by default.";
}

reading wrong_form(const qnm_config_key_t& key, const std::string& value) {
    return {.rank = severity::error,
            .text = value.empty() ? "has no value" : in_quotes(value) + " is not understood",
            .remedy = right_form(key)};
}

reading out_of_range(const qnm_config_key_t& key, const std::string& value) {
    return {.rank = severity::error,
            .text = printable(value) + " is out of range",
            .remedy = right_form(key)};
}

void warn_of_octal(reading& found, const std::string& word) {
    std::uint32_t number = 0;
    _qnm_config_number(word.c_str(), &number);
    if (word.size() < 2 || word[0] != '0' || number <= 7 || word[1] == 'x' || word[1] == 'X')
        return;
    found.rank = severity::warning;
    found.text += " is an octal number and means " + std::to_string(number);
    found.remedy = "Leave out the 0 in front if the decimal number is meant.";
}

// The text after the one word that is the value.
void warn_of_more(reading& found, const std::vector<std::string>& words) {
    if (found.rank != severity::ok || words.size() < 2 || words[1][0] == '#') return;
    found.rank = severity::warning;
    found.text += " is taken, and what stands behind it is ignored: " + in_quotes(words[1]);
    found.remedy = "Take it away, or begin it with #.";
}

reading read_word(const qnm_config_key_t& key, const std::vector<std::string>& words) {
    reading found = {.text = printable(words[0])};
    if (key.form != qnm::config_form::mac) warn_of_octal(found, words[0]);
    warn_of_more(found, words);
    return found;
}

reading read_interfaces(const std::vector<std::string>& names) {
    if (names.size() <= port_limit) return {.text = printable(join(names, ","))};
    return {.rank = severity::warning,
            .text = in_quotes(names[port_limit]) + " is ignored; there are two ports",
            .remedy = "Name one or two interfaces."};
}

bool is_list(const qnm_config_key_t& key) {
    return key.form == qnm::config_form::interfaces || key.form == qnm::config_form::indexes;
}

// The library's verdict, and values that it accepts silently but that were hardly meant.
reading read_value(qnm_conf_t& config, const qnm_config_key_t& key, const std::string& value) {
    const std::string line = value.substr(0, value.find_first_of("\r\n"));
    const std::vector<std::string> words = split(line, is_list(key) ? list_blanks : blanks);
    std::string read = value;
    const auto verdict = _qnm_set_config_value(&key, read.data(), &config);
    if (verdict != qnm::config_verdict::ok && words.empty()) return wrong_form(key, "");
    const std::string& wrong = is_list(key) ? line : words[0];
    if (verdict == qnm::config_verdict::not_understood) return wrong_form(key, wrong);
    if (verdict == qnm::config_verdict::out_of_range) return out_of_range(key, wrong);
    if (key.form == qnm::config_form::interfaces) return read_interfaces(words);
    if (key.form == qnm::config_form::indexes) return {.text = printable(line)};
    return read_word(key, words);
}

// ---- Lines --------------------------------------------------------------------------------------

std::string meaning_of(const qnm_config_key_t& key, const reading& value) {
    const std::string start = std::string(key.name) + " = " + value.text;
    return value.rank == severity::ok
               ? start + " (" + value_text(key) + "; default " + key.initial + ')'
               : std::string(key.name) + ": " + value.text;
}

void tell_unknown(const std::string& key, int line, line_findings& found) {
    constexpr char byte_order_mark[] = "\xEF\xBB\xBF";
    finding verdict = {.rank = severity::error, .line = line};
    if (is_full(found)) return add(found, verdict);  // looking for what is meant takes long
    if (key.starts_with('#')) {
        verdict.text = "the # is not in the first column, so this is no comment";
        verdict.remedy = "Take away the blanks in front of the #.";
    } else if (key.starts_with(byte_order_mark)) {
        verdict.text = "the file begins with a byte order mark, which is read as part of the key";
        verdict.remedy = "Save the file as UTF-8 without BOM, or as ASCII.";
    } else {
        std::vector<std::string> names;
        for (const qnm_config_key_t& row : qnm::config_keys())
            names.emplace_back(row.name);
        const auto meant = tools::nearest_name(key, names);
        verdict.text = in_quotes(key) + " is no key";
        verdict.remedy = meant ? "Is " + *meant + " meant? Upper and lower case matter."
                               : "Remove the line, or put a # in front of it.";
    }
    add(found, verdict);
}

void read_key(known_values& seen, const qnm_config_key_t& key, const std::string& value, int line,
              line_findings& found) {
    known_value& known = seen.keys[key.name];
    if (known.good) {
        add(found, {.rank = severity::warning,
                    .line = line,
                    .text = std::string(key.name) + " is given twice; line " +
                            std::to_string(known.line) + " counts, this one is ignored",
                    .remedy = "Remove one of the two."});
        return;
    }
    const reading read = read_value(seen.config, key, value);
    known = {.line = line, .good = read.rank != severity::error};
    add(found,
        {.rank = read.rank, .line = line, .text = meaning_of(key, read), .remedy = read.remedy});
}

// A piece that the library reads at once. It ends at a NUL.
void read_piece(known_values& seen, std::string_view piece, int line, line_findings& found) {
    piece = piece.substr(0, piece.find('\0'));
    if (piece.starts_with('#')) return;
    const std::size_t equals = std::min(piece.find('='), piece.size());
    const std::vector<std::string> words = split(piece.substr(0, equals), blanks);
    if (words.empty()) {
        if (equals == piece.size()) return;
        add(found, {.rank = severity::warning,
                    .line = line,
                    .text = "there is no key in front of the =, so the line is ignored",
                    .remedy = "Write it as KEY = VALUE."});
        return;
    }
    const qnm_config_key_t* const key = _qnm_find_config_key(words[0].c_str());
    if (key == nullptr) return tell_unknown(words[0], line, found);
    const std::string value(piece.substr(std::min(equals + 1, piece.size())));
    read_key(seen, *key, value, line, found);
}

// Of the pieces after the first, only harmful ones are reported.
void read_line(known_values& seen, std::string_view text, int line, line_findings& found) {
    read_piece(seen, text.substr(0, piece_size), line, found);
    if (text.size() <= piece_size) return;
    line_findings further = {.limit = 0};
    for (std::size_t at = piece_size; at < text.size(); at += piece_size)
        read_piece(seen, text.substr(at, piece_size), line, further);
    add(found, {.rank = further.wrong ? severity::error : severity::warning,
                .line = line,
                .text = "has " + std::to_string(text.size()) +
                        " characters, and what is behind the first 127 is read as a line of "
                        "its own",
                .remedy = "Break the line; a comment needs a # in front of each part."});
}

void check_tags(known_values& seen, line_findings& found) {
    const qnm_conf_t& config = seen.config;
    if (config.tag_min <= config.tag_max) return;
    add(found, {.rank = severity::error,
                .line = std::max(seen.keys["tag_min"].line, seen.keys["tag_max"].line),
                .text = "tag_min " + std::to_string(config.tag_min) + " is above tag_max " +
                        std::to_string(config.tag_max),
                .remedy = "Set tag_min to at most tag_max."});
}

void check_ether_type(known_values& seen, line_findings& found) {
    constexpr std::uint32_t least = 0x0600;
    const std::uint32_t type = seen.config.ether_type;
    if (type >= least) return;
    add(found, {.rank = severity::warning,
                .line = seen.keys["ether_type"].line,
                .text = "ether_type " + hex_text(type, 4) +
                        " is the length of a frame, and no Ethernet type",
                .remedy = "Set it to the cards' own, or leave it out for the default."});
}

void tell_what_is_left_out(const std::string& file, line_findings& found) {
    if (found.all <= found.limit) return;
    const std::string more = std::to_string(found.all - found.limit);
    found.shown.push_back({.rank = found.wrong ? severity::error : severity::note,
                           .about = file,
                           .text = "there are " + more + " more findings in this file",
                           .remedy = found.wrong ? "Is it the right file?" : ""});
}

std::size_t count_lines(const std::string& text) {
    const auto ends = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    return ends + (text.empty() || text.back() == '\n' ? 0 : 1);
}

}  // namespace

void check_config_file(const inspected& system, findings& found) {
    const file_facts& file = system.config;
    if (system.temporary) return;  // options have no file
    finding verdict = {.about = file.name};
    if (const auto wrong = config_obstacle(file.state, file.problem)) {
        verdict = finding_of(file.name, *wrong);
    } else if (file.state == file_state::missing) {
        verdict.rank = severity::note;
        verdict.text = "there is no such file, so every key has its default";
        verdict.remedy = "To change one, copy the sample conf/qnm.conf there.";
    } else if (file.state == file_state::link) {
        verdict.rank = severity::warning;
        verdict.text =
            "is a symbolic link, which is not followed here, so neither its keys nor the ports "
            "were looked at";
        verdict.remedy = "Put the file itself there.";
    } else {
        verdict.text = "can be read, " + std::to_string(count_lines(file.text)) + " lines";
    }
    if (file.size > file.text.size()) {
        verdict.rank = severity::warning;
        verdict.text = "has " + std::to_string(file.size) + " bytes; only the first " +
                       std::to_string(file.text.size()) + " were looked at";
        verdict.remedy = "Is it the right file?";
    }
    found.push_back(verdict);
    if (file.text.find('\0') == std::string::npos) return;
    found.push_back({.rank = severity::warning,
                     .about = file.name,
                     .text = "holds NUL bytes, so it is no text",
                     .remedy = "Save it as ASCII or UTF-8, or copy the sample conf/qnm.conf."});
}

void check_config_lines(const inspected& system, findings& found) {
    known_values seen;
    line_findings own;
    std::string_view rest = system.config.text;
    for (int line = 1; !rest.empty() && own.all < 100 * finding_limit; ++line) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        read_line(seen, rest.substr(0, end), line, own);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    check_tags(seen, own);
    check_ether_type(seen, own);
    tell_what_is_left_out(system.config.name, own);
    for (finding& verdict : own.shown) {
        verdict.about = system.temporary ? "--set" : system.config.name;
        if (system.temporary) verdict.line = 0;
        found.push_back(verdict);
    }
}

}  // namespace qnmctl
