// Writes records as lines and documents.
#include "output/writer.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "common/standard_files.h"
#include "common/visible.h"
#include "output/text.h"

namespace qnmctl {

namespace {

// JSON itself escapes only the other control characters.
std::string with_escaped_controls(const std::string& dumped) {
    std::string text;
    char escaped[8];
    for (std::size_t at = 0; at < dumped.size(); ++at) {
        const auto byte = static_cast<unsigned char>(dumped[at]);
        const unsigned next =
            at + 1 < dumped.size() ? static_cast<unsigned char>(dumped[at + 1]) : 0;
        if (byte == 0x7F) {
            text += "\\u007f";
        } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
            std::snprintf(escaped, sizeof escaped, "\\u%04x", next);
            text += escaped;
            ++at;
        } else {
            text += dumped[at];
        }
    }
    return text;
}

// Input such as a file name need not be UTF-8 and may contain what a terminal obeys.
std::string line_of(const json& object) {
    return with_escaped_controls(object.dump(-1, ' ', false, json::error_handler_t::replace));
}

}  // namespace

void writer::text(std::string_view words) {
    if (is_text()) to_.write(tools::visible(words));
}

void writer::begin() {
    if (begun_ || form_ != output_form::json_document) return;
    begun_ = true;
    to_.write("{\"schema\":" + std::to_string(schema_number) +
              ",\"command\":" + line_of(json(command_)) + ",\"records\":[");
}

void writer::record(const char* name, const json& fields) {
    if (is_text()) return;
    json object = json::object();
    if (form_ == output_form::json_lines) object["schema"] = schema_number;
    object["record"] = name;
    object.update(fields);
    if (form_ == output_form::json_lines) return to_.write(line_of(object) + '\n');
    begin();
    to_.write((first_ ? "\n" : ",\n") + line_of(object));
    first_ = false;
}

void writer::failure(const std::string& message, int status, std::optional<qnm_api_code_t> code) {
    tools::tell(message_text(message));
    record("error", {{"status", status}, {"result", code_json(code)}, {"message", message}});
}

void writer::end(int status) {
    if (form_ != output_form::json_document) return;
    begin();
    to_.write(std::string(first_ ? "" : "\n") + "],\"status\":" + std::to_string(status) + "}\n");
}

json code_json(std::optional<qnm_api_code_t> code) {
    return code ? json(code_name(*code)) : json();
}

}  // namespace qnmctl
