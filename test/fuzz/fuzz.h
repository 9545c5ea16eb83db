// fuzz.h - what all fuzz targets share.
//
// A target is one function, LLVMFuzzerTestOneInput(), that accepts any bytes. Built by clang with
// QNM_FUZZ it is a fuzzer (scripts/fuzz.sh); in every other build it is a regression test that
// replays the inputs in corpus/<target> (replay.cpp). A rule that does not hold aborts, which is a
// finding in both.
//
// Targets read only their input and keep nothing from one input to the next, so that an input alone
// reproduces a finding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

using bytes = std::span<const std::uint8_t>;

// Ends the program unless the rule holds.
inline void require(bool holds, const char* rule) {
    if (holds) return;
    std::fprintf(stderr, "broken rule: %s\n", rule);
    std::abort();
}

inline std::string_view as_text(bytes input) {
    return {reinterpret_cast<const char*>(input.data()), input.size()};
}

// Takes an input apart. Every value after its end is 0, so that every input has a meaning and a
// shortened one means nearly the same.
class reader {
  public:
    explicit reader(bytes input) : left_(input) {}

    bool is_empty() const { return left_.empty(); }
    std::size_t size() const { return left_.size(); }

    // The next size bytes as a number, the most significant one first.
    std::uint64_t number(std::size_t size) {
        std::uint64_t value = 0;
        for (std::size_t n = 0; n < size; n++)
            value = value << 8 | next();
        return value;
    }
    std::uint8_t u8() { return next(); }
    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }

    // 0 to limit - 1; limit is at most 256.
    std::size_t below(std::size_t limit) { return next() % limit; }
    bool flag() { return (next() & 1) != 0; }

    // The next bytes, fewer at the end of the input.
    bytes take(std::size_t size) {
        const bytes taken = left_.first(size < left_.size() ? size : left_.size());
        left_ = left_.subspan(taken.size());
        return taken;
    }

  private:
    std::uint8_t next() {
        if (left_.empty()) return 0;
        const std::uint8_t byte = left_.front();
        left_ = left_.subspan(1);
        return byte;
    }

    bytes left_;
};

}  // namespace fuzz
