// captures.cpp - any bytes as a capture that is decoded.
//
// Every frame is read up to the place where the file makes no sense, and everything that is known
// of the frame can be printed; the rest is refused with a text.

#include <nlohmann/json.hpp>
#include <string>

#include "frames/frame_text.h"
#include "memory_file.h"
#include "output/text.h"

namespace {

using fuzz::require;

void check_frame(const qnmctl::captured_frame& frame, qnmctl::answers& matched) {
    qnmctl::decoded_frame of = {frame, qnmctl::read_frame(frame.bytes, {}), std::nullopt};
    of.answered = matched.take(of.read, frame.number, frame.nanoseconds);
    require(!of.answered || !of.read.dropped, "an answer is taken or dropped");
    require(!of.answered || of.answered->frame < frame.number, "a question comes first");
    if (of.read.dropped) {
        require(*qnmctl::drop_title(of.read.dropped->name) != '\0', "a reason has its text");
    }
    const std::string line = qnmctl::frame_line(of, {});
    require(line.find('\n') == line.size() - 1, "a frame is one line");
    require(!qnmctl::frame_fields_text(of.read).empty() || frame.bytes.captured.size() < 6,
            "a frame has fields");
    const auto object = qnmctl::frame_json(of);
    require(object["fields"].is_object(), "fields have names");
    const auto text = object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    require(!text.empty(), "a frame can be told");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::memory_file file({data, size});
    qnmctl::answers matched({});
    try {
        qnmctl::capture_file from(file.path());
        std::uint64_t number = 0;
        while (const auto frame = from.next()) {
            require(frame->number == ++number, "frames are numbered");
            check_frame(*frame, matched);
        }
    } catch (const qnmctl::error& e) {
        require(*e.what() != '\0', "it is told what is wrong");
    }
    return 0;
}
