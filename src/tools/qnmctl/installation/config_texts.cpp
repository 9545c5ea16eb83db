// Writes the table of keys as a sample file, as a manual page and as a Markdown table.
#include "installation/config_texts.h"

#include <algorithm>
#include <vector>

#include "common/man_language.h"
#include "installation/config_keys.h"
#include "output/text.h"

namespace qnmctl {

namespace {

using man_language::argument;
using man_language::escaped;
using man_language::heading;

constexpr char summary[] =
    "configuration of libqnm, the manager library for Quillnet adapter cards";

constexpr char introduction[] =
    "The library reads this file once, when it starts. It belongs into the directory conf under "
    "the "
    "installation directory (/opt/tarvo/qnm unless the host program names another). Without the "
    "file, and for every key that is not given, the default holds.";

constexpr char sample_note[] =
    "Every key stands below, commented out, with its default; to change one, take the # away and "
    "set the value. qnm.conf(5) says the same.";

constexpr std::size_t line_width = 100;

std::string meaning_of(const qnm_config_key_t& key) {
    std::string text = std::string(key.brief) + '.';
    if (key.more[0] != '\0') text += std::string(" ") + key.more;
    return text;
}

std::string value_of(const qnm_config_key_t& key) {
    return "Value: " + value_text(key) + '.';
}

// ---- The sample ---------------------------------------------------------------------------------

// Wraps a text into comment lines; the first begins with `first`, the others with `next`.
std::string commented(const std::string& text, const std::string& first, const std::string& next) {
    std::string result;
    std::string line = first;
    bool begun = false;
    for (const std::string& word : split(text, " ")) {
        if (begun && line.size() + 1 + word.size() > line_width) {
            result += line + '\n';
            line = next;
            begun = false;
        }
        line += (begun ? " " : "") + word;
        begun = true;
    }
    return result + line + '\n';
}

std::string commented(const std::string& text) {
    return commented(text, "# ", "# ");
}

// "# ---- Ports ------"
std::string ruler(const std::string& title) {
    const std::string begin = "# ---- " + title + ' ';
    return begin + std::string(line_width - 4 - begin.size(), '-') + '\n';
}

std::string sample_of(const config_group_row& group) {
    std::string text = "\n\n" + ruler(group.title);
    if (group.text[0] != '\0') text += commented(group.text);
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        if (key.group != group.group) continue;
        text += '\n' + commented(meaning_of(key)) + commented(value_of(key));
        text += std::string("#") + key.name + " = " + key.initial + '\n';
    }
    return text;
}

// ---- The page -----------------------------------------------------------------------------------

constexpr char name_letters[] = "abcdefghijklmnopqrstuvwxyz_0123456789";

// Escapes a text and makes the names of keys in it bold.
std::string with_keys(const std::string& plain) {
    const std::string text = escaped(plain);
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_not_of(name_letters, at), text.size());
        const std::string word = text.substr(at, std::max<std::size_t>(end - at, 1));
        result += _qnm_find_config_key(word.c_str()) != nullptr ? "\\fB" + word + "\\fP" : word;
        at += word.size();
    }
    return result;
}

std::string page_of(const qnm_config_key_t& key) {
    return ".TP\n.BR " + argument(key.name) + " \" = \" " + argument(key.initial) + '\n' +
           with_keys(meaning_of(key)) + "\n.br\n" + escaped(value_of(key)) + '\n';
}

std::string page_of(const config_group_row& group) {
    std::string text = ".SS " + argument(group.title) + '\n';
    if (group.text[0] != '\0') text += with_keys(group.text) + '\n';
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        if (key.group == group.group) text += page_of(key);
    }
    return text;
}

constexpr char page_files[] =
    ".TP\n.I /opt/tarvo/qnm/conf/qnm.conf\nThe file, where the host program names no directory.\n"
    ".TP\n.I /opt/tarvo/qnm/conf/qnm_log4c.properties\nWhere the library logs to; it must be "
    "there.\n";

constexpr char page_example[] =
    ".nf\n# One port, and cards that announce themselves every 10 seconds.\n"
    "ether_port = ens5f0\ndevinfo_expire_time = 35000\n.fi\n";

constexpr char page_see_also[] =
    ".BR qnmctl (1),\n.BR qnm_init_manager (3),\n.BR qnm_set_loglevel (3),\n.BR qnm (7)\n";

}  // namespace

std::string config_sample() {
    std::string text = commented(std::string("qnm.conf - ") + summary + '.') + "#\n" +
                       commented(std::string(introduction) + ' ' + sample_note) +
                       "#\n# How the file is read:\n";
    for (const char* const rule : config_rules())
        text += commented(rule, "#  - ", "#    ");
    for (const config_group_row& group : config_groups())
        text += sample_of(group);
    return text;
}

std::string config_page() {
    std::string text = ".\\\" Made from the table of keys; not to be edited.\n";
    text += std::string(".TH QNM.CONF 5 " QNM_TEXTS_DATE) + " \"libqnm " QNMCTL_VERSION +
            "\" \"File Formats\"\n.nh\n.ad l\n";
    text += heading("NAME") + "qnm.conf \\- " + escaped(summary) + '\n';
    text += heading("DESCRIPTION") + escaped(introduction) + '\n';
    for (const char* const rule : config_rules())
        text += ".IP \\(bu 2\n" + escaped(rule) + '\n';
    text += heading("KEYS") + "Each stands here with its default.\n";
    for (const config_group_row& group : config_groups())
        text += page_of(group);
    return text + heading("FILES") + page_files + heading("EXAMPLES") + page_example +
           heading("SEE ALSO") + page_see_also;
}

std::string config_table() {
    std::string text = "| Key | Default | Value | Meaning |\n|---|---|---|---|\n";
    for (const qnm_config_key_t& key : qnm::config_keys()) {
        text += std::string("| `") + key.name + "` | `" + key.initial + "` | " + value_text(key) +
                " | " + key.brief + " |\n";
    }
    return text;
}

}  // namespace qnmctl
