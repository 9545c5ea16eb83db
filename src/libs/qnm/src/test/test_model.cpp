// test_model.cpp - the library beside its model: random sequences of frames, time, link changes and
// public calls, done to both. After every step both have to agree in everything.
//
// A difference is reported with the seed, the number of the step and the last steps. How to run
// longer or from another seed stands in model/settings.h.

#include <algorithm>
#include <deque>
#include <sstream>

#include "model/difference.h"
#include "model/library.h"
#include "model/model.h"
#include "model/settings.h"
#include "model/steps.h"

namespace {

using model::outcome;
using steps::step;
using steps::what;

constexpr uint64_t k_sequences = 16;
constexpr size_t k_shown = 12;  // of the last steps

// Making every list call after each step would be most of the work. Once in a while finds as much,
// because what the lists are made of is compared after each step.
constexpr uint64_t k_lists_every = 4;

// ---- The steps done to the model ----------------------------------------------------------------

outcome change_link(model::state& s, const step& it) {
    s.link_up[it.port] = it.number != 0;
    if (it.notify) notify_link(s, it.query_fails);
    return {};
}

outcome list_ids(model::state& s, const step& it) {
    const uint64_t value = it.cards == model::wanted::group ? it.number & 0xFFFF : it.number;
    outcome done = list_ids(
        s, model::list_request{it.which, it.cards, value, it.num, it.null_argument, it.null_num});
    if (done.pointer != model::list::untouched) {
        free_list(s, done.pointer == model::list::null);
    }
    return done;
}

outcome use_callback(model::state& s, const step& it) {
    const int number = static_cast<int>(it.number);
    const int type = steps::type_of(number);
    const bool known = std::count(s.callbacks[type].begin(), s.callbacks[type].end(), number) != 0;
    return known ? unregister_callback(s, type, number) : register_callback(s, type, number, false);
}

outcome use_callback_wrongly(model::state& s, const step& it) {
    const int type = static_cast<int>(it.number);
    register_callback(s, type, 0, true);
    register_callback(s, type, 0, true);
    return unregister_callback(s, 0, -1);
}

// The record of the counters keeps their values from the end.
outcome restart(model::state& s) {
    finish(s);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&s.counters);
    outcome done = {.record = {bytes, bytes + sizeof s.counters}};
    begin(s);
    for (int recorder = steps::k_registrations; recorder < steps::k_recorders_end; recorder++)
        register_callback(s, steps::type_of(recorder), recorder, false);
    return done;
}

outcome dispatch(model::state& s, const step& it) {
    switch (it.what) {
        case what::frame:
            return {.result = receive(s, it.port, it.frame)};
        case what::no_frame:
            return {.result = it.number == 0 ? 0 : -1};
        case what::time:
            s.now += it.number;
            s.uptime += it.number;
            return {};
        case what::set_clock:
            s.now += it.number;
            return {};
        case what::keepalive:
            run_keepalive(s, static_cast<uint32_t>(it.number), it.num);
            return {};
        case what::link:
            return change_link(s, it);
        case what::list:
            return list_ids(s, it);
        case what::free_list:
            return free_list(s, true);
        case what::get:
            return get(s, it.which, it.id, it.null_argument);
        case what::forget:
            return forget(s, it.which, it.id);
        case what::stop_monitor:
            return stop_monitor(s, it.id);
        case what::restart_monitor:
            return restart_monitor(s, it.id);
        case what::callback:
            return use_callback(s, it);
        case what::wrong_callback:
            return use_callback_wrongly(s, it);
        case what::access:
            return use_card(s, it.id, it.access);
        case what::restart:
            return restart(s);
    }
    return {};
}

outcome apply(model::state& s, const step& it) {
    s.manager = it.manager;
    s.failing_allocation = it.failing_allocation;
    outcome done = dispatch(s, it);
    s.failing_allocation = 0;
    s.manager = {};
    return done;
}

std::vector<callback_call> deliver(model::state& s) {
    std::vector<callback_call> calls;
    model::deliver(s, [&](int registration, const model::event& event) {
        calls.push_back({registration, event.id, event.type,
                         dispatch(s, steps::reaction(registration, event.id))});
    });
    return calls;
}

// ---- Reports ------------------------------------------------------------------------------------

void print(std::ostream& out, const outcome& it) {
    out << "result " << it.result << ", list " << static_cast<int>(it.pointer) << ", num " << it.num
        << ", " << it.ids.size() << " IDs, " << it.record.size() << " bytes of a record";
    for (const model::sent_frame& sent : it.sent) {
        out << "\n  by port " << sent.port << std::hex;
        for (size_t at = 0; at < sent.frame.size(); at++)
            out << (at % 4 == 0 ? " " : "") << sent.frame[at] / 16U << sent.frame[at] % 16U;
        out << std::dec;
    }
}

std::string different_results(const outcome& is, const outcome& wanted) {
    if (is == wanted) return "";
    std::ostringstream out;
    out << "returned: ";
    print(out, is);
    out << "\nwanted:   ";
    print(out, wanted);
    out << "\n";
    return out.str();
}

std::string different_calls(const std::vector<callback_call>& is,
                            const std::vector<callback_call>& wanted) {
    if (is == wanted) return "";
    std::ostringstream out;
    for (size_t i = 0; i < std::max(is.size(), wanted.size()); i++) {
        for (const auto* calls : {&is, &wanted}) {
            out << (calls == &is ? "called: " : "wanted: ");
            if (i >= calls->size()) {
                out << "nothing\n";
                continue;
            }
            const callback_call& it = (*calls)[i];
            out << "registration " << it.registration << ", type " << it.type << ", id 0x"
                << std::hex << it.id << std::dec << ", its reaction: ";
            print(out, it.reaction);
            out << "\n";
        }
    }
    return out.str();
}

// ---- Both side by side --------------------------------------------------------------------------

struct ModelSequence : library, testing::WithParamInterface<uint64_t> {
    model::state expected = {};
    std::deque<step> last_steps;

    // Does one step; returns what the two disagree in.
    std::string walk(const step& it) {
        std::string text = different_results(library::apply(it), ::apply(expected, it));
        if (it.delivers) text += different_calls(library::deliver(), ::deliver(expected));
        return text + difference(expected);
    }

    // Makes every kind of list call on both.
    std::string ask_for_lists(steps::source& source) {
        std::string text;
        for (const model::kind which : model::k_kinds) {
            for (const auto cards :
                 {model::wanted::all, model::wanted::updated, model::wanted::group}) {
                const step it = source.list(expected, which, cards);
                const std::string differences =
                    different_results(library::apply(it), ::apply(expected, it));
                if (!differences.empty()) text += describe(it) + "\n" + differences;
            }
        }
        return text;
    }

    std::string history() const {
        std::ostringstream out;
        for (const step& it : last_steps)
            out << "  " << describe(it) << "\n";
        return out.str();
    }
};

INSTANTIATE_TEST_SUITE_P(seeds, ModelSequence, testing::Range<uint64_t>(0, k_sequences));

TEST_P(ModelSequence, agrees_with_the_library_after_every_step) {
    const uint64_t seed = model::first_seed() + GetParam();
    const uint64_t count = model::step_count() / k_sequences;
    steps::source source(seed);
    expected.set = source.draw_settings();
    for (int port = 0; port < 2; port++)
        expected.set.port_mac[port] = k_port_mac[port];
    expected.now = k_now;
    expected.uptime = k_uptime;
    expected.counters = qnm_stats;
    configure(expected.set);
    ASSERT_EQ(walk({.what = what::restart}), "");  // registers the recorders
    for (uint64_t number = 1; number <= count; number++) {
        last_steps.push_back(source.next(expected));
        if (last_steps.size() > k_shown) last_steps.pop_front();
        std::string text = walk(last_steps.back());
        if (number % k_lists_every == 0) text += ask_for_lists(source);
        if (text.empty() && !HasFailure()) continue;
        FAIL() << text << "seed " << seed << ", step " << number << ", the last of:\n" << history();
    }
}

}  // namespace
