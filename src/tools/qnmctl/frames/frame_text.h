// Texts and JSON objects of frames and captures.
#pragma once

#include <optional>
#include <string>

#include "frames/answers.h"
#include "frames/capture.h"
#include "frames/capture_file.h"
#include "output/output.h"

namespace qnmctl {

// A frame of a capture, read.
struct decoded_frame {
    captured_frame frame;
    frame_reading read;
    std::optional<answered_read> answered;
};

// One line.
std::string frame_line(const decoded_frame& decoded, const look& how);

// Below it, a line for each field.
std::string frame_fields_text(const frame_reading& reading);

json frame_json(const decoded_frame& decoded);

// What a capture has come to.
std::string captured_text(const captured& counts);
json captured_json(const captured& counts, const std::string& file);

}  // namespace qnmctl
