// cards.cpp - the process of the cards: the cards themselves, and a thread for each kind of
// trouble.

#include "cards.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "rig.h"
#include "troubles/forgeries.h"
#include "troubles/links.h"
#include "troubles/traffic.h"

namespace soak {

namespace {

using cardsim::card;
using cardsim::card_kind;
using cardsim::card_speed;
using std::chrono::milliseconds;

constexpr int k_signals[] = {SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH, SIGIO};

void add_presets(card& made) {
    std::string bytes;
    for (uint32_t n = 0; n < k_presets; n++) {
        const uint32_t address = k_preset_registers + 4 * n;
        made.device.registers[address] = preset_value(made.id, address);
        const uint32_t word = preset_value(made.id, k_preset_words + 4 * n);
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(word >> shift);
    }
    made.device.eeprom[k_preset_words] = bytes;
}

// Every eighth card answers late, sometimes after it has been asked again; the others repeat their
// answers. A card that did both would answer a question of long ago.
void add_faults(card& made, size_t number) {
    const bool late = number % 8 == 7;
    made.faults.seed = number;
    made.faults.lose_requests = 30;
    made.faults.lose_answers = 30;
    made.faults.duplicate_answers = late ? 0 : 100;
    made.faults.lose_announcements = 50;
    made.faults.duplicate_announcements = 50;
    made.faults.wrong_port = 10;
    made.faults.wrong_mac = 10;
    made.faults.delay_max_ms = late ? 30 : 3;
}

card make(size_t number) {
    const card_kind kind = number % 2 == 0 ? card_kind::qnsv : card_kind::qnio;
    const card_speed speed = number / 2 % 2 == 0 ? card_speed::g1_10 : card_speed::g40;
    card made = e2e::lively(kind, speed, card_id(number));
    // A card that is written to is heard on one port, so that no write overtakes another.
    if (number < k_lasting) made.heard[number / 4 % 2] = {};
    made.vlan_id = is_reset_often(number) ? k_reset_vlan
                                          : static_cast<uint16_t>(k_first_vlan + number % k_vlans);
    made.version = is_reset_often(number) ? 1 : 0;
    made.device.id_lock = number % 3 == 0;
    made.interval_ms = 1000;
    made.jitter_ms = 100;
    made.phase_ms = static_cast<uint32_t>(number * 997 % 1000);
    add_presets(made);
    add_faults(made, number);
    return made;
}

constexpr trouble k_troubles[] = {flap_links, change_crowd, send_foreign, forge};

class far_end {
  public:
    far_end(stage& shared, pid_t host, uint64_t seed) : shared_(shared), host_(host), seed_(seed) {
        for (size_t number = 0; number < k_present; number++)
            simulator_.add(make(number));
        for (size_t number = k_present; number < k_cards; number++)
            away_.push_back(number);
        for (size_t number = k_lasting; number < k_present; number++)
            present_.push_back(number);
        simulator_.start();
    }

    int play() {
        std::vector<std::thread> actors;
        const auto add_actor = [&](std::function<void(std::mt19937&)> act) {
            actors.emplace_back(
                [this, act = std::move(act), random = std::mt19937(seed_++)]() mutable {
                    while (!scene_.over)
                        act(random);
                });
        };
        add_actor([this](std::mt19937& random) { move_cards(random); });
        add_actor([this](std::mt19937& random) { send_signals(random); });
        for (const trouble act : k_troubles)
            add_actor([this, act](std::mt19937& random) { act(scene_, random); });
        const int status = serve_host();
        scene_.over = true;
        for (std::thread& actor : actors)
            actor.join();
        return status;
    }

  private:
    // Keeps calm when the host asks for it, until the host has ended.
    int serve_host() {
        int status = 0;
        std::unique_lock rest(scene_.steps, std::defer_lock);
        while (waitpid(host_, &status, WNOHANG) == 0) {
            const bool wanted = shared_.calm_wanted;
            if (wanted && !rest.owns_lock()) {
                rest.lock();
                publish();
                shared_.calm = true;
            } else if (!wanted && rest.owns_lock()) {
                shared_.calm = false;
                rest.unlock();
            }
            count();
            std::this_thread::sleep_for(milliseconds(20));
        }
        return status;
    }

    void count() {
        const cardsim::counters counted = simulator_.count();
        shared_.frames = counted.devinfo + counted.notify + counted.raw + counted.answers;
        shared_.faulty = counted.faulty;
        shared_.lost_announcements = counted.lost_announcements;
        shared_.repeated_announcements = counted.duplicated_announcements;
        shared_.lost_requests = counted.lost_requests;
        shared_.lost_answers = counted.lost_answers;
        shared_.repeated_answers = counted.duplicated;
        shared_.stray_answers = counted.wrong_port + counted.wrong_mac;
        shared_.late_answers = counted.delayed;
    }

    void publish() {
        shared_.cards = {};
        for (const card& it : simulator_.cards()) {
            announced& out = shared_.cards[(it.id - card_id(0)) / 0x10];
            out.present = true;
            out.uid_switch = it.uid_switch;
            out.int_vector = it.int_vector;
            out.vlan_id = it.vlan_id;
            out.power = it.power;
            out.link0_fault = it.link0_fault;
            out.io_substate1 = it.io_substate[1];
            for (size_t port = 0; port < out.port_status1.size(); port++)
                out.port_status1[port] = it.down_ports[port].port_status[1];
            out.paths = {it.heard[0][0], it.heard[0][1], it.heard[1][0], it.heard[1][1]};
        }
    }

    // ---- The cards -----------------------------------------------------------------------------

    void move_cards(std::mt19937& random) {
        {
            const auto step = begin_step(scene_);
            switch (random() % 4) {
                case 0:
                    swap(random);
                    break;
                case 1:
                    turn_path(random);
                    break;
                case 2:
                    send_oddity(random);
                    break;
                default:
                    change(random);
            }
        }
        std::this_thread::sleep_for(milliseconds(20));
    }

    // Adds the card that has been away for longest and removes another one.
    void swap(std::mt19937& random) {
        size_t& place = present_[random() % present_.size()];
        simulator_.remove(card_id(place));
        away_.push_back(place);
        place = away_.front();
        away_.pop_front();
        simulator_.add(make(place));
        shared_.swaps++;
    }

    void turn_path(std::mt19937& random) {
        const uint64_t id = card_id(present_[random() % present_.size()]);
        const card it = simulator_.get(id);
        const size_t port = random() % 2;
        const size_t path = random() % cardsim::path_count(it.speed);
        if (it.heard[port][path]) {
            simulator_.silence(id, port, path);
        } else {
            simulator_.wake(id, port, path);
        }
        shared_.changes++;
    }

    void change(std::mt19937& random) {
        const uint64_t id = card_id(random() % 2 == 0 ? present_[random() % present_.size()]
                                                      : random() % k_lasting);
        const uint32_t bits = random();
        simulator_.update(id, [bits](card& it) {
            it.uid_switch = (bits & 1) != 0;
            it.power = (bits & 2) != 0;
            it.link0_fault = (bits & 4) != 0;
            it.io_substate[1] = bits >> 3 & 2;
            it.down_ports[bits >> 8 & 7].port_status[1] = bits >> 4 & 2;
            it.int_vector = static_cast<uint8_t>(bits >> 16);
        });
        if (random() % 2 == 0) simulator_.notify(id);
        shared_.changes++;
    }

    // Sends the same announcement twice, all cards in one burst, or a frame that breaks off.
    void send_oddity(std::mt19937& random) {
        const card it = simulator_.get(card_id(random() % k_lasting));
        if (random() % 500 == 0) {
            simulator_.announce_all();
        } else if (random() % 2 == 0) {
            simulator_.devinfo(it.id);
            simulator_.devinfo(it.id);
        } else {
            const cardsim::frame_bytes whole = cardsim::encode(it, cardsim::message::devinfo, 0);
            send_part(random() % 2, std::span(whole).first(14 + random() % 20));
        }
        shared_.oddities++;
    }

    void send_part(size_t port, cardsim::frame_view part) {
        try {
            simulator_.send_raw(port, part);
        } catch (const cardsim::error&) {
            // The link is down, so the frame is as good as lost.
        }
    }

    // ---- The signals ---------------------------------------------------------------------------

    // A signal to every thread of the host, the library's own included.
    void send_signals(std::mt19937& random) {
        std::this_thread::sleep_for(milliseconds(5));
        if (!shared_.host_ready) return;
        const std::string tasks = "/proc/" + std::to_string(host_) + "/task";
        const std::unique_ptr<DIR, int (*)(DIR*)> threads(opendir(tasks.c_str()), closedir);
        while (const dirent* const thread = threads ? readdir(threads.get()) : nullptr) {
            const int id = atoi(thread->d_name);
            if (id == 0) continue;
            const int signal = k_signals[random() % std::size(k_signals)];
            if (syscall(SYS_tgkill, host_, id, signal) == 0) shared_.signals++;
        }
    }

    stage& shared_;
    const pid_t host_;
    uint64_t seed_;
    scene scene_{.shared = shared_, .cards = simulator_, .over = false, .steps = {}};
    cardsim::simulator simulator_{
        {cardsim::open_port("qsim0"), cardsim::open_port("qsim1")},
        cardsim::default_ether_type,
        [this](size_t port, const cardsim::request& it) { mislead(scene_, port, it); }};
    std::vector<size_t> present_;  // of those that do not last
    std::deque<size_t> away_;
};

}  // namespace

int play_cards(stage& shared, pid_t host, uint64_t seed) {
    return far_end(shared, host, seed).play();
}

}  // namespace soak
