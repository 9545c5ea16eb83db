// stress.cpp - the counters on the shared page.

#include "checks/stress.h"

#include <algorithm>

namespace soak {

namespace {

struct counted_stress {
    const char* name;
    std::atomic<uint64_t> stage::*counter;
    bool forged = false;
};

constexpr counted_stress k_stress[] = {
    {"frames", &stage::frames},
    {"cards swapped", &stage::swaps},
    {"cards changed", &stage::changes},
    {"oddities", &stage::oddities},
    {"link flaps", &stage::flaps},
    {"port flaps", &stage::port_flaps},
    {"changes of other interfaces", &stage::crowd_changes},
    {"foreign frames", &stage::foreign},
    {"signals sent", &stage::signals},
    {"announcements lost", &stage::lost_announcements},
    {"announcements repeated", &stage::repeated_announcements},
    {"requests lost", &stage::lost_requests},
    {"answers lost", &stage::lost_answers},
    {"answers repeated", &stage::repeated_answers},
    {"answers from elsewhere", &stage::stray_answers},
    {"answers late", &stage::late_answers},
    {"strangers", &stage::strangers, true},
    {"false records", &stage::false_records, true},
    {"false kinds", &stage::false_kinds, true},
    {"broken announcements", &stage::broken_announcements, true},
    {"long announcements", &stage::long_announcements, true},
    {"bad tags", &stage::bad_tags, true},
    {"misled answers", &stage::misled_answers, true},
    {"managers of the rival", &stage::rival_managers},
    {"calls refused to the rival", &stage::rival_refused},
    {"reads by the rival", &stage::rival_reads},
};

}  // namespace

std::string missing_stress(const stage& shared) {
    std::string names;
    for (const counted_stress& it : k_stress) {
        if (shared.*it.counter == 0) names += std::string(names.empty() ? "" : ", ") + it.name;
    }
    return names;
}

std::string all_stress(const stage& shared) {
    std::string text;
    for (const counted_stress& it : k_stress) {
        text += std::string(text.empty() ? "" : ", ") + std::to_string(shared.*it.counter) + ' ' +
                it.name;
    }
    return text;
}

uint64_t forgeries(const stage& shared) {
    uint64_t sum = 0;
    for (const counted_stress& it : k_stress) {
        if (it.forged) sum += shared.*it.counter;
    }
    return sum;
}

double foreign_rate(const stage& shared) {
    return 1e6 * static_cast<double>(shared.foreign) /
           static_cast<double>(std::max<uint64_t>(shared.foreign_time, 1));
}

}  // namespace soak
