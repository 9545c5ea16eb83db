// library.h - the steps done to the library, on one thread.
//
// The loops that the manager's threads run (keepalive, link watcher, events) are called here and
// return when what the step is about has been done: the faked sleeps, polls and waits end them.
#pragma once

#include <map>
#include <vector>

#include "model.h"
#include "ports.h"
#include "steps.h"

// One call of a callback, and the result of its reaction.
struct callback_call {
    int registration;
    uint64_t id;
    qnm_evt_type_t type;
    model::outcome reaction;
    bool operator==(const callback_call&) const = default;
};

struct library : ports {
    static constexpr uint64_t k_uptime = 1'000'000'000;  // ms

    library();
    ~library() override;

    void configure(const model::settings& set);

    // Does one step, without the delivery of its events.
    model::outcome apply(const steps::step& it);

    // Runs the event thread until the queue is empty; returns the calls that it has made.
    std::vector<callback_call> deliver();

  private:
    struct listener {
        library* owner;
        int registration;
    };

    static void on_event(uint64_t id, qnm_evt_type_t type, void* arg);

    model::outcome dispatch(const steps::step& it);
    model::outcome take_frame(const steps::step& it);
    model::outcome take_no_frame(const steps::step& it);
    model::outcome pass_time(const steps::step& it);
    model::outcome set_clock(const steps::step& it);
    model::outcome run_keepalive(const steps::step& it);
    model::outcome change_link(const steps::step& it);
    model::outcome list_ids(const steps::step& it);
    model::outcome get(const steps::step& it);
    model::outcome use_callback(const steps::step& it);
    model::outcome use_callback_wrongly(const steps::step& it);
    model::outcome use_card(const steps::step& it);
    model::outcome restart();

    qnm_api_code_t register_for(int registration);
    void open_ports();
    void take_sent(int port, fake_pcap::frame_t frame);
    void answer(int port, const fake_pcap::frame_t& request);

    void on_sleep(std::chrono::nanoseconds duration);
    static void pass(std::chrono::nanoseconds duration);
    void on_poll();

    uint64_t now_ = k_now;
    std::chrono::nanoseconds sleep_left_{0};
    std::chrono::milliseconds standstill_{0};  // at the end of the next sleep
    unsigned polls_ = 0;
    std::map<int, qnm_cbid_t> handles_;  // by registration
    std::vector<listener> listeners_;
    std::vector<callback_call> calls_;
    bool delivers_ = false;
    model::access access_ = {};  // the one under way
    std::vector<model::sent_frame> sent_;
};
