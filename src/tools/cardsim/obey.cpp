// Carries out what managers ask of cards. A request reaches the card with its destination address;
// a Reset to a group address reaches every card of the VLAN. Cards do not hear frames on a silenced
// port or path, or in the other header arrangement, and do not obey a frame that breaks a rule.
// They answer only a Register Read.
#include "simulator_impl.h"

namespace cardsim {

namespace {

constexpr std::uint64_t group_bit = 0x010000000000;
constexpr std::uint16_t vlan_id_mask = 0x0FFF;

bool hears(const card& listener, std::size_t port, std::size_t path, const request& received) {
    return listener.heard[port][path] && listener.vlan_change_mode == received.vlan_change_mode;
}

bool hears_reset(const card& listener, std::size_t port, const request& received) {
    return std::holds_alternative<reset>(received.body) &&
           listener.vlan_id == (received.tci & vlan_id_mask) &&
           (hears(listener, port, 0, received) || hears(listener, port, 1, received));
}

// What a card does with each message, besides answering a Register Read.
struct obedience {
    slot& target;
    counters& counted;

    void operator()(const std::monostate&) const {}
    void operator()(const register_read&) const {}
    void operator()(const register_write& r) const {
        write_device(target.state, target.held, r.address, r.data);
        ++counted.writes;
    }
    void operator()(const vlan_set& r) const {
        if (!target.held.device.vlan_frozen) target.held.vlan_id = r.vlan_id & vlan_id_mask;
        ++counted.vlan_sets;
    }
    void operator()(const reset& r) const {
        reset_device(target.state, r.status);
        ++counted.resets;
    }
    void operator()(const mms_write& r) const {
        target.state.pages[r.page] = r.data;
        ++counted.mms_writes;
    }
};

}  // namespace

// A 40G card also has the odd address after its ID; a 1G/10G card does not.
slot* simulator::impl::find_by_mac(std::uint64_t mac) {
    for (const std::uint64_t id : {mac, mac & ~std::uint64_t{1}}) {
        if (const auto found = by_mac.find(id); found != by_mac.end()) return found->second;
    }
    return nullptr;
}

void simulator::impl::obey(std::size_t port, const request& received) {
    if (port < port_limit) {
        if ((received.destination & group_bit) != 0) return obey_group(port, received);
        slot* target = find_by_mac(received.destination);
        if (target != nullptr &&
            hears(target->held, port, received.destination ^ target->held.id, received)) {
            return obey_as(*target, port, received);
        }
    }
    ++counted.unheard;
}

void simulator::impl::obey_group(std::size_t port, const request& received) {
    bool heard = false;
    for (auto& [id, listener] : slots) {
        if (!hears_reset(listener.held, port, received)) continue;
        heard = true;
        obey_as(listener, port, received);
    }
    if (!heard) ++counted.unheard;
}

void simulator::impl::obey_as(slot& target, std::size_t port, const request& received) {
    if (request_lost(target.faults, target.held.faults, counted)) return;
    std::visit(obedience{target, counted}, received.body);
    if (std::holds_alternative<register_read>(received.body)) answer_read(target, port, received);
}

void simulator::impl::answer_read(slot& target, std::size_t port, const request& received) {
    const auto& body = std::get<register_read>(received.body);
    ++counted.reads;
    if (read_silenced(target.held.faults, body.address, counted)) return;
    reply outgoing{.port = port,
                   .path = received.destination ^ target.held.id,
                   .body = {.source = received.destination,
                            .destination = received.source,
                            .tag = body.tag,
                            .value = read_device(target.state, target.held, body.address)}};
    const fate decided = decide(target.faults, target.held.faults, outgoing, counted);
    if (decided.what == verdict::leave) return leave(target, outgoing);
    if (decided.what != verdict::wait) return;
    delayed.push({steady::now() + decided.delay, ++last_delayed, target.held.id, outgoing});
}

// Sends nothing if the path was silenced meanwhile.
void simulator::impl::send_reply(const card& sender, const reply& sent) {
    if (sent.port >= ports.size() || !sender.heard[sent.port][sent.path]) return;
    encode(sender, sent.body, answer_frame);
    for (unsigned copy = 0; copy < sent.copies; ++copy)
        send(sent.port, answer_frame, counted.answers);
}

void simulator::impl::leave(slot& target, const reply& sent) {
    send_reply(target.held, sent);
    if (!target.faults.held) return;
    send_reply(target.held, *target.faults.held);
    target.faults.held.reset();
}

void simulator::impl::answer_due() {
    const std::scoped_lock lock(mutex);
    if (delayed.empty()) return;
    const auto now = steady::now();
    while (!delayed.empty() && delayed.top().due <= now) {
        const delayed_reply up = delayed.top();
        delayed.pop();
        const auto sender = slots.find(up.id);
        if (sender != slots.end()) leave(sender->second, up.late);
    }
}

void simulator::impl::take_frame(std::size_t port, frame_view frame) {
    const std::optional<request> received = decode(frame, ether_type);
    if (!received) return;
    {
        const std::scoped_lock lock(mutex);
        ++counted.received;
        if (received->fault.empty()) {
            obey(port, *received);
        } else {
            ++counted.faulty;
        }
    }
    if (observer) observer(port, *received);
}

void simulator::deliver(std::size_t port, frame_view frame) {
    {
        const std::scoped_lock lock(impl_->mutex);
        impl_->port_at(port);
    }
    impl_->take_frame(port, frame);
    impl_->woken.set();  // the next answer may be due at another time
}

}  // namespace cardsim
