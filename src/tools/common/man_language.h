// Writes the man(7) language, for manual pages that programs make from their own tables.
#pragma once

#include <string>

namespace man_language {

// Plain text. Lines must not be broken at a hyphen that the user types, nor begin like a request.
inline std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const bool starts_line = result.empty() || result.back() == '\n';
        if (starts_line && (c == '.' || c == '\'')) result += "\\&";
        if (c == '\\') {
            result += "\\e";
        } else if (c == '-') {
            result += "\\-";
        } else {
            result += c;
        }
    }
    return result;
}

// An argument of a request, in quotes because of its blanks.
inline std::string argument(const std::string& text) {
    std::string result;
    for (const char c : escaped(text))
        result += c == '"' ? std::string("\\(dq") : std::string(1, c);
    return '"' + result + '"';
}

inline std::string heading(const char* title) {
    return std::string(".SH ") + argument(title) + '\n';
}

// A term in bold and its meaning.
inline std::string tagged(const std::string& term, const std::string& meaning) {
    return ".TP\n.B " + argument(term) + '\n' + escaped(meaning) + '\n';
}

}  // namespace man_language
