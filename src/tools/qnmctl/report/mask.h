// Replaces card IDs and MAC addresses by pseudonyms. Each has the same pseudonym throughout, so the
// reader sees what belongs together but not which cards they are.
//
// An address is known if it was in a record, a frame's header, an announcement in a frame, or a
// text in an unmistakable spelling. Known addresses are replaced in every spelling.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace qnmctl {

// The lowest bit of an address tells the paths of a card apart, so those two are one entry.
class known_addresses {
  public:
    void learn(std::uint64_t address);  // not a group's address, nor zero
    void learn_from_text(std::string_view text);
    void learn_from_capture(std::string_view file);

    bool has(std::uint64_t address) const { return pairs_.contains(address >> 1); }
    const std::vector<std::uint64_t>& in_order() const { return order_; }  // the even ones

  private:
    std::unordered_set<std::uint64_t> pairs_;
    std::vector<std::uint64_t> order_;
};

class id_mask {
  public:
    explicit id_mask(known_addresses known);

    std::string text(std::string_view clear) const;

    // Nothing when the capture cannot be masked: it is damaged, or a text in it would need another
    // length.
    std::optional<std::string> capture(std::string_view clear) const;

    // Whether an address still shows, as bytes in either order or spelt in a text.
    bool shows_in(std::string_view bytes) const;

    std::size_t size() const { return known_.in_order().size(); }

  private:
    std::uint64_t pseudonym(std::uint64_t address) const;
    void replace_bytes(std::string& in, std::size_t from, std::size_t to) const;

    known_addresses known_;
    std::unordered_map<std::uint64_t, std::uint64_t> pseudonyms_;  // by half the address
};

}  // namespace qnmctl
