// A finding of a check: how severe it is, what it is about, and what helps.
#pragma once

#include <string>
#include <vector>

#include "manager/obstacles.h"

namespace qnmctl {

// error: the manager does not start, or ignores a setting.
enum class severity { ok, note, warning, error };

struct finding {
    severity rank = severity::ok;
    std::string about = {};   // an interface or a file, say; empty: the system
    int line = 0;             // of that file, from 1; 0: the whole
    std::string text = {};    // one line
    std::string remedy = {};  // likewise; empty: there is nothing to do
    const char* check = "";   // its name; whoever runs the check fills it in
};

using findings = std::vector<finding>;

// An obstacle to a start is an error.
inline finding finding_of(const std::string& about, const obstacle& hindrance) {
    return {.rank = severity::error,
            .about = about,
            .text = hindrance.text,
            .remedy = hindrance.remedy};
}

}  // namespace qnmctl
