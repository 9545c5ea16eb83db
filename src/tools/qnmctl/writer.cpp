// Records into lines and documents.
#include "writer.h"

#include "standard_files.h"
#include "text.h"

namespace qnmctl {

namespace {

// What came from outside, a file name say, need not be UTF-8.
std::string line_of(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace

void writer::text(std::string_view words) {
    if (is_text()) to_.write(words);
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
