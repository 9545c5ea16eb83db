// What a frame says, field by field, and why a manager drops it.
//
// A frame is read as far as it was captured and makes sense, dropped or not. The names of fields
// and of the reasons for a drop are those of the Wireshark dissector, and the words of a reason are
// those of the library's log: the library's own unit judges the frame. What was not captured is
// trusted.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "output/writer.h"

namespace qnmctl {

// What the configuration says of frames.
struct frame_rules {
    std::uint16_t ether_type = 0x88B6;
    std::uint8_t tag_min = 0;
    std::uint8_t tag_max = 255;
};

// Those of a qnm.conf, given its text.
frame_rules configured_rules(const std::string& config);

struct frame_bytes {
    std::span<const std::uint8_t> captured;
    std::size_t length;  // on the wire
};

enum class way { to_manager, to_card };

struct message_kind {
    std::uint8_t subtype;
    const char* name;  // "1G/10G DEVINFO"
    const char* word;  // by which messages are chosen; several kinds may have the same
    way goes;
};

// The word for frames that are no known message.
inline constexpr char other_message[] = "other";

// By ascending subtype.
std::span<const message_kind> message_kinds();

struct frame_field {
    const char* name;
    const char* title;
    std::string text;
    json value;
};

// Fields that belong together: those of the frame itself have no name.
struct frame_section {
    const char* name;  // "", "up_port" or "down_port"
    int index;         // of a down port, otherwise -1
    std::vector<frame_field> fields;
};

struct drop_reason {
    const char* name;  // "priority"
    std::string text;  // "priority is not 100(bit). pri=0xA0"
};

struct frame_reading {
    const message_kind* kind = nullptr;        // none: no message that is known
    std::optional<std::uint64_t> source = {};  // MAC addresses
    std::optional<std::uint64_t> destination = {};
    std::optional<std::uint64_t> card = {};  // ID of the sender or, of a request, receiver
    std::vector<frame_section> sections = {};
    std::optional<drop_reason> dropped = {};  // none for a request, which is for cards
    bool cut = false;                         // fields are missing that were not captured

    std::string words = {};                     // what it is about, "QNSV, path 0"
    std::optional<std::uint8_t> tag = {};       // of a Register Read or Completion
    std::optional<std::uint32_t> address = {};  // of a register
};

frame_reading read_frame(const frame_bytes& frame, const frame_rules& rules);

// What a reason is about in general, by its name: "The priority is not 4".
const char* drop_title(const std::string& name);

// The register's name in brackets behind its address, where it has one: "0x005010 (EEPROM ...)".
std::string register_text(std::uint32_t address);

// Every field, by its name.
json fields_json(const frame_reading& reading);

}  // namespace qnmctl
