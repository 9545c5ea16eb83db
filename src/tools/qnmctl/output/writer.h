// Writes what a command has to say, in the form that the user wants.
//
// There are two kinds of forms. Text is for people; a command lays it out as it likes. In the other
// forms it writes records: objects that name their kind in "record" and have IDs as strings,
// numbers as numbers, and lists always as arrays. A command writes everything both ways, and the
// writer drops what the chosen form does not need:
//
//     if (with.results.is_text()) return with.results.text(table_text(cards));
//     for (const card& one : cards) with.results.record("card", card_json(one));
//
// jsonl is one record per line. json is a document with the same records, one per line, which grows
// as they come:
//
//     {"schema": 2, "command": "list", "records": [ ... ], "status": 0}
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "output/output.h"
#include "qnm.h"

namespace qnmctl {

using json = nlohmann::ordered_json;

enum class output_form { text, json_document, json_lines, dot };

// The version of records and document; raised when readers of the old one would misread the new.
inline constexpr int schema_number = 2;

class writer {
  public:
    writer(output& to, output_form form, std::string command)
        : to_(to), form_(form), command_(std::move(command)) {}
    writer(const writer&) = delete;
    writer& operator=(const writer&) = delete;

    // Whether the form is for people (or for another program than those that read JSON).
    bool is_text() const { return form_ == output_form::text || form_ == output_form::dot; }
    output_form form() const { return form_; }

    void text(std::string_view words);                  // nothing in the other forms
    void record(const char* name, const json& fields);  // nothing in a text

    // A failure: a message on standard error and a record.
    void failure(const std::string& message, int status, std::optional<qnm_api_code_t> code);

    // To be called after the last record.
    void end(int status);

  private:
    void begin();

    output& to_;
    output_form form_;
    std::string command_;
    bool begun_ = false;
    bool first_ = true;
};

// null when there is no code.
json code_json(std::optional<qnm_api_code_t> code);

}  // namespace qnmctl
