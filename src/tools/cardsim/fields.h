// Names and values of card fields as people write them, shared by scenarios and line commands.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cardsim.h"

namespace cardsim {

// The one field that is a list.
inline constexpr std::string_view silent_registers_name = "silent_registers";

// The names of the fields that set_field() knows: those that a card announces, those that show in
// its answers, and those of the records inside a card.
std::vector<std::string_view> card_field_names();
std::vector<std::string_view> answering_field_names();
std::vector<std::string_view> settable_field_names();  // both of the above
std::vector<std::string_view> making_key_names();      // the other keys of a [[card]]
std::vector<std::string_view> bridge_field_names();
std::vector<std::string_view> down_port_field_names();  // bridge fields included

// For example 'no field "vlanid"; the nearest is "vlan_id"'; `what` is the word "field".
std::string unknown_name(std::string_view what, std::string_view name,
                         std::span<const std::string_view> known);

std::string in_quotes(std::string_view text);

// A path as people write it, such as P0M1.
std::string path_text(std::size_t port, std::size_t path);

// Decimal, 0x form or, as a MAC address, colon form. Throws error that names `field`.
std::uint64_t parse_number(std::string_view field, std::string_view text, std::uint64_t limit);
std::uint64_t parse_mac(std::string_view field, std::string_view text);

card_kind parse_kind(std::string_view text);
card_speed parse_speed(std::string_view text);

std::string_view kind_name(card_kind kind);
std::string_view speed_name(card_speed speed);
std::string id_text(std::uint64_t id);            // 0x and 12 digits
std::string address_text(std::uint32_t address);  // 0x and 6 digits at least

// Throws error if the card cannot exist: its ID is out of range, or odd on a 40G card; its speed
// has no such path or the simulator no such port that it is heard on; or its presets are
// impossible.
void check_card(const card& checked, std::size_t ports);

}  // namespace cardsim
