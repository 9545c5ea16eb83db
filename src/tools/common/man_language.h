// The man(7) language, for the manual pages that programs make from their own tables.
#pragma once

#include <string>

namespace man_language {

// A hyphen that is typed is not one that text may be broken at, and a line must not begin as a
// request does.
inline std::string escaped(const std::string& text) {
    std::string made;
    for (const char c : text) {
        const bool starts_line = made.empty() || made.back() == '\n';
        if (starts_line && (c == '.' || c == '\'')) made += "\\&";
        if (c == '\\') {
            made += "\\e";
        } else if (c == '-') {
            made += "\\-";
        } else {
            made += c;
        }
    }
    return made;
}

// Of a request: blanks are kept together by the quotes.
inline std::string argument(const std::string& text) {
    std::string made;
    for (const char c : escaped(text))
        made += c == '"' ? std::string("\\(dq") : std::string(1, c);
    return '"' + made + '"';
}

inline std::string heading(const char* title) {
    return std::string(".SH ") + argument(title) + '\n';
}

// A term in bold, and what it means.
inline std::string tagged(const std::string& term, const std::string& meaning) {
    return ".TP\n.B " + argument(term) + '\n' + escaped(meaning) + '\n';
}

}  // namespace man_language
