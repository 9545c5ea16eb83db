// The simulator: cards are added, removed and announced. obey.cpp obeys the requests of managers.
//
// Timers are in a heap, with one live entry for each announcing card. An entry is void when its
// generation is not that of its card, because the card was removed or got another interval; it is
// dropped when it is due. The announcing thread sleeps in ppoll() until the first entry is due, a
// port has a frame, or the wake event says that the heap or the stop flag has changed.
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "fields.h"
#include "simulator_impl.h"

namespace cardsim {

namespace {

using std::chrono::milliseconds;

// Frames taken from one port before the announcements get their turn again.
constexpr int receive_batch = 64;

}  // namespace

simulator::impl::impl(std::vector<port> given_ports, std::uint16_t type,
                      request_observer given_observer)
    : ports(std::move(given_ports)), ether_type(type), observer(std::move(given_observer)) {}

std::uint64_t simulator::impl::find_id(const card_ref& ref) const {
    if (ref.text.starts_with("0x")) {
        const std::uint64_t id = parse_mac("id", ref.text);
        if (slots.contains(id)) return id;
    } else if (const auto known = ids.find(ref.text); known != ids.end()) {
        return known->second;
    }
    throw error("no card \"" + ref.text + "\"");
}

void simulator::impl::arm(slot& armed, steady::time_point due) {
    armed.generation = ++last_generation;
    if (armed.held.interval_ms == 0) return;
    timers.push({due, armed.held.id, armed.generation});
}

void simulator::impl::replace(slot& changed, card next) {
    const card& old = changed.held;
    if (next.id != old.id || next.name != old.name || next.kind != old.kind ||
        next.speed != old.speed || next.device.eeprom_file != old.device.eeprom_file) {
        throw error("card \"" + old.name +
                    "\": id, name, kind, speed and eeprom_file stay; add another card");
    }
    check_card(next, ports.size());
    const bool rearm = next.interval_ms != old.interval_ms;
    const bool reseed = next.faults.seed != old.faults.seed;
    changed.held = std::move(next);
    if (reseed) seed_faults(changed.faults, changed.held);
    if (!rearm || !running) return;
    arm(changed, steady::now() + milliseconds(changed.held.interval_ms));
    woken.set();
}

void simulator::impl::count_failure(const send_report& report) {
    switch (report.status) {
        case send_status::sent:
            break;
        case send_status::link_down:
            ++counted.link_down;
            break;
        case send_status::no_room:
            ++counted.lost;
            break;
        case send_status::failed:
            ++counted.failed;
            break;
    }
}

bool simulator::impl::send(std::size_t port, frame_view frame, std::uint64_t& sent) {
    const send_report report = ports[port].send(frame);
    counted.retries += report.retries;
    count_failure(report);
    if (report.status != send_status::sent) return false;
    ++sent;
    return true;
}

std::size_t simulator::impl::send_everywhere(slot& announced, message kind) {
    const card& source = announced.held;
    std::uint64_t& total = kind == message::devinfo ? counted.devinfo : counted.notify;
    std::size_t left = 0;
    for (std::size_t path = 0; path < path_count(source.speed); ++path) {
        const frame_bytes frame = encode(source, kind, path);
        for (std::size_t p = 0; p < ports.size() && p < port_limit; ++p) {
            if (!source.heard[p][path]) continue;
            unsigned copies = announcement_copies(announced.faults, source.faults, counted);
            for (; copies > 0; --copies)
                left += send(p, frame, total) ? 1 : 0;
        }
    }
    return left;
}

const port& simulator::impl::port_at(std::size_t index) const {
    if (index < ports.size()) return ports[index];
    throw error("no port " + std::to_string(index) + "; there are " + std::to_string(ports.size()));
}

void simulator::impl::set_heard(const card_ref& ref, std::size_t port, std::size_t path,
                                bool heard) {
    port_at(port);
    slot& changed = find(ref);
    if (path >= path_count(changed.held.speed)) {
        throw error("card \"" + changed.held.name + "\" has no path " + std::to_string(path));
    }
    changed.held.heard[port][path] = heard;
}

void simulator::impl::begin() {
    const std::scoped_lock lock(mutex);
    if (running) throw error("the simulator is running already");
    running = true;
    timers = {};
    const auto now = steady::now();
    for (auto& [id, armed] : slots)
        arm(armed, now + milliseconds(armed.held.phase_ms));
}

void simulator::impl::announce_due() {
    const std::scoped_lock lock(mutex);
    const auto now = steady::now();
    while (!timers.empty() && timers.top().due <= now) {
        const timer up = timers.top();
        timers.pop();
        const auto found = slots.find(up.id);
        if (found == slots.end() || found->second.generation != up.generation) continue;
        slot& announced = found->second;
        send_everywhere(announced, message::devinfo);
        const milliseconds interval(announced.held.interval_ms);
        const milliseconds jitter(random() % (std::uint64_t{announced.held.jitter_ms} + 1));
        // An announcement that comes too late is not made up for: that would cause a burst.
        const auto next = up.due + interval + jitter;
        arm(announced, next > now ? next : now + interval);
    }
}

std::optional<steady::time_point> simulator::impl::next_due() const {
    const std::scoped_lock lock(mutex);
    std::optional<steady::time_point> due;
    if (!timers.empty()) due = timers.top().due;
    if (!delayed.empty()) due = std::min(due.value_or(delayed.top().due), delayed.top().due);
    return due;
}

void simulator::impl::receive_from(std::size_t index) {
    for (int taken = 0; taken < receive_batch; ++taken) {
        const std::optional<frame_bytes> frame = ports[index].receive();
        if (!frame) return;
        take_frame(index, *frame);
    }
}

void simulator::impl::loop() {
    std::vector<pollfd> waited{{.fd = woken.fd(), .events = POLLIN, .revents = 0}};
    for (const port& p : ports)
        waited.push_back({.fd = p.fd, .events = POLLIN, .revents = 0});
    while (!stopping) {
        announce_due();
        answer_due();
        timespec limit{};
        const auto due = next_due();
        if (due) {
            const auto left = std::max(*due - steady::now(), steady::duration::zero());
            const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
            limit = {
                .tv_sec = static_cast<time_t>(seconds.count()),
                .tv_nsec = static_cast<long>(std::chrono::nanoseconds(left - seconds).count())};
        }
        if (ppoll(waited.data(), waited.size(), due ? &limit : nullptr, nullptr) <= 0) continue;
        if (waited[0].revents != 0) woken.clear();  // why it was set is seen in the next round
        for (std::size_t p = 0; p < ports.size(); ++p) {
            if (waited[p + 1].revents != 0) receive_from(p);
        }
    }
    const std::scoped_lock lock(mutex);
    running = false;
}

card_ref::card_ref(std::uint64_t id) : text(id_text(id)) {}

simulator::simulator(std::vector<port> ports, std::uint16_t ether_type, request_observer observer)
    : impl_(std::make_unique<impl>(std::move(ports), ether_type, std::move(observer))) {}

simulator::~simulator() {
    stop();
    wait();
}

void simulator::add(card added) {
    const std::scoped_lock lock(impl_->mutex);
    check_card(added, impl_->ports.size());
    if (impl_->ids.contains(added.name)) {
        throw error("the name \"" + added.name + "\" is there already");
    }
    if (const auto taken = impl_->slots.find(added.id); taken != impl_->slots.end()) {
        throw error("the ID " + id_text(added.id) + " is card \"" + taken->second.held.name +
                    "\" already");
    }
    slot fresh;
    fresh.held = std::move(added);
    start_device(fresh);
    const std::uint64_t id = fresh.held.id;
    slot& stored = impl_->slots.emplace(id, std::move(fresh)).first->second;
    impl_->ids.emplace(stored.held.name, id);
    impl_->by_mac.emplace(id, &stored);
    if (!impl_->running) return;
    impl_->arm(stored, steady::now() + milliseconds(stored.held.phase_ms));
    impl_->woken.set();
}

void simulator::remove(const card_ref& ref) {
    const std::scoped_lock lock(impl_->mutex);
    const std::uint64_t id = impl_->find_id(ref);
    slot& removed = impl_->slots.at(id);
    finish_device(removed);
    impl_->ids.erase(removed.held.name);
    impl_->by_mac.erase(id);
    impl_->slots.erase(id);
}

card simulator::get(const card_ref& ref) const {
    const std::scoped_lock lock(impl_->mutex);
    return std::as_const(*impl_).find(ref).held;
}

std::vector<card> simulator::cards() const {
    const std::scoped_lock lock(impl_->mutex);
    std::vector<card> all;
    all.reserve(impl_->slots.size());
    for (const auto& [id, known] : impl_->slots)
        all.push_back(known.held);
    return all;
}

void simulator::update(const card_ref& ref, const std::function<void(card&)>& change) {
    const std::scoped_lock lock(impl_->mutex);
    slot& changed = impl_->find(ref);
    card next = changed.held;
    change(next);
    impl_->replace(changed, std::move(next));
}

void simulator::set(const card_ref& ref, std::string_view field, std::string_view value) {
    update(ref, [&](card& changed) { set_field(changed, field, value); });
}

void simulator::silence(const card_ref& ref, std::size_t port, std::size_t path) {
    const std::scoped_lock lock(impl_->mutex);
    impl_->set_heard(ref, port, path, false);
}

void simulator::wake(const card_ref& ref, std::size_t port, std::size_t path) {
    const std::scoped_lock lock(impl_->mutex);
    impl_->set_heard(ref, port, path, true);
}

std::size_t simulator::devinfo(const card_ref& ref) {
    const std::scoped_lock lock(impl_->mutex);
    return impl_->send_everywhere(impl_->find(ref), message::devinfo);
}

std::size_t simulator::notify(const card_ref& ref) {
    const std::scoped_lock lock(impl_->mutex);
    return impl_->send_everywhere(impl_->find(ref), message::notify);
}

std::size_t simulator::announce_all() {
    const std::scoped_lock lock(impl_->mutex);
    std::size_t left = 0;
    for (auto& [id, known] : impl_->slots) {
        left += impl_->send_everywhere(known, message::devinfo);
    }
    return left;
}

void simulator::send_raw(std::size_t port, frame_view frame) {
    const std::scoped_lock lock(impl_->mutex);
    const cardsim::port& out = impl_->port_at(port);
    const send_report report = out.send(frame);
    impl_->counted.retries += report.retries;
    impl_->count_failure(report);
    if (report.status != send_status::sent) {
        throw error("not sent on " + out.name + ": " + std::strerror(report.code));
    }
    ++impl_->counted.raw;
}

counters simulator::count() const {
    const std::scoped_lock lock(impl_->mutex);
    return impl_->counted;
}

void simulator::run() {
    impl_->begin();
    impl_->loop();
    impl_->stopping = false;
}

void simulator::start() {
    impl_->begin();
    wait();  // for the thread of an earlier start, which has ended
    impl_->stopping = false;
    // The thread inherits the mask: signals are for the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    impl_->thread = std::thread([this] { impl_->loop(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void simulator::stop() {
    impl_->stopping = true;
    impl_->woken.set();
}

void simulator::wait() {
    if (impl_->thread.joinable()) impl_->thread.join();
}

}  // namespace cardsim
