// steps.h - random steps for the library and its model.
//
// A seed makes one sequence of steps, always the same. A step is plain data: it can be done to the
// library and to the model, and printed. What it does depends on nothing but itself and what was
// done before.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "model.h"

namespace steps {

enum class what {
    frame,      // arrives at port
    no_frame,   // the capture of port ends its wait with result number
    time,       // number ms pass
    set_clock,  // somebody sets the wall clock forward by number ms, or as int64_t back
    keepalive,  // the loop sleeps number times, and the process stands still for num ms
    link,       // the interface of port goes up (number 1) or down; notify: the watcher is told
    list,       // cards, value number, num
    free_list,  // of a null list
    get,
    forget,
    stop_monitor,
    restart_monitor,
    callback,        // registers registration number, or unregisters it when it is registered
    wrong_callback,  // registers for type number, or with null_argument; unregisters a null handle
    access,          // a call on a card, as in access
    restart          // all units end and begin anew; the recorders are registered
};

struct step {
    steps::what what = what::time;
    bool delivers = false;  // the event thread runs afterwards
    model::flags manager = {};
    uint32_t failing_allocation = 0;  // the n-th of the step; 0: none
    int port = 0;
    model::kind which = model::k_server;
    model::wanted cards = model::wanted::all;
    uint64_t id = 0;
    uint64_t number = 0;
    uint32_t num = 0;
    bool null_argument = false;
    bool null_num = false;
    bool notify = false;
    bool query_fails = false;
    model::frame_t frame = {};
    model::access access = {};
};

// Registrations are numbered, and each is for one type. Steps register and unregister the first
// ones; the recorders, one for each type, stay, so that no event passes unseen.
constexpr int k_registrations = 24;
constexpr int k_recorders_end = k_registrations + QNM_EVT_MAX;

inline int type_of(int registration) {
    return registration % QNM_EVT_MAX;
}

// What the callback of a registration does when it is called.
step reaction(int registration, uint64_t id);

std::string describe(const step& it);

// Draws the steps. It keeps what each card has sent last, so that its next frame differs little or
// not at all.
class source {
  public:
    explicit source(uint64_t seed);

    model::settings draw_settings();
    step next(const model::state& now);
    step list(const model::state& now, model::kind which, model::wanted cards);

    uint64_t below(uint64_t limit) { return random_() % limit; }
    bool one_in(uint64_t n) { return below(n) == 0; }
    uint64_t any_id();
    model::frame_t any_frame(uint16_t ether_type);

  private:
    uint64_t mac();
    model::frame_t fresh_frame(uint64_t mac, uint8_t host, uint16_t ether_type);
    void change(model::frame_t& frame);
    void damage(model::frame_t& frame);

    std::mt19937_64 random_;
    std::map<std::pair<uint64_t, uint8_t>, model::frame_t> last_;  // by ID and host
};

// The IDs that all steps are about.
std::vector<uint64_t> known_ids();

}  // namespace steps
