// What a command tells, in the form that was asked for.
//
// There are two kinds of form. The text is for people, and a command writes it as it likes. In the
// other forms it tells records: objects that say by "record" what they are and hold IDs as strings,
// numbers as numbers, and a list always as an array. A command tells everything in both ways, each
// only where it counts:
//
//     if (with.told.is_text()) return with.told.text(table_text(cards));
//     for (const card& one : cards) with.told.record("card", card_json(one));
//
// jsonl has a record a line. json is one document around the same records, a line for each, which
// grows as they come:
//
//     {"schema": 1, "command": "list", "records": [ ... ], "status": 0}
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

// Of the records and the document; raised when a reader of the old ones would misread the new.
inline constexpr int schema_number = 1;

class writer {
  public:
    writer(output& to, output_form form, std::string command)
        : to_(to), form_(form), command_(std::move(command)) {}
    writer(const writer&) = delete;
    writer& operator=(const writer&) = delete;

    // Whether the form is for people (or for another program than those that read JSON).
    bool is_text() const { return form_ == output_form::text || form_ == output_form::dot; }
    output_form form() const { return form_; }

    void text(std::string_view words);                  // nothing in other forms
    void record(const char* name, const json& fields);  // nothing in a text

    // What went wrong: a message on standard error, and a record.
    void failure(const std::string& message, int status, std::optional<qnm_api_code_t> code);

    // Behind the last record.
    void end(int status);

  private:
    void begin();

    output& to_;
    output_form form_;
    std::string command_;
    bool begun_ = false;
    bool first_ = true;
};

// Null where there is no code.
json code_json(std::optional<qnm_api_code_t> code);

}  // namespace qnmctl
