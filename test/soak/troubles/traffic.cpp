// traffic.cpp - foreign frames in batches, paced by the clock.
//
// On two cores, the sender and the kernel's work for each receiver take much of one core. So the
// frames come in bursts on one port at a time, with a rest after each, and the sender yields to all
// that have work to do. A machine that is too slow only sends fewer: the number and the rate of the
// sent frames are counted.

#include "troubles/traffic.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace soak {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint64_t k_frames_per_second = 100000;
constexpr milliseconds k_burst{1000};
constexpr milliseconds k_rest{200};
constexpr milliseconds k_tick{1};       // between batches
constexpr milliseconds k_catch_up{20};  // what a sender that was held up makes good
constexpr size_t k_batch = 100;
constexpr int k_modesty = 5;  // of the sender: its nice value

constexpr uint16_t k_experimental = 0x88B5;  // the neighbour of the cards' own Ethernet type

// Follows the addresses. The last ones are nearly the cards' own.
struct kind_of_frame {
    std::array<uint16_t, 4> words;
    size_t length;
};

constexpr kind_of_frame k_kinds[] = {
    {{ETH_P_IP, 0x4500, 0x0040, 0}, 78},
    {{ETH_P_IP, 0x4500, 0x0200, 0}, 526},
    {{ETH_P_IPV6, 0x6000, 0, 0}, 86},
    {{ETH_P_ARP, 1, ETH_P_IP, 0x0604}, 60},
    {{ETH_P_LLDP, 0x0207, 0x0400, 0}, 120},
    {{ETH_P_1588, 0x0002, 0x002C, 0}, 60},
    {{ETH_P_8021Q, 0x0005, ETH_P_IP, 0x4500}, 82},
    {{ETH_P_8021Q, 0x8005, ETH_P_IP, 0x4500}, 82},
    {{ETH_P_8021Q, 0x8005, k_experimental, 0x1000}, 60},
    {{ETH_P_8021AD, 0x8005, ETH_P_8021Q, 0x8005}, 90},
    {{k_experimental, ETH_P_8021Q, 0x8005, 0x1000}, 60},
};

// From a host that is no card to another: no network stack beside this one takes the frames.
std::vector<uint8_t> make_frame(const kind_of_frame& kind) {
    std::vector<uint8_t> frame{0x02, 0xFE, 0, 0, 0, 0x01, 0x02, 0xFE, 0, 0, 0, 0x02};
    for (const uint16_t word : kind.words) {
        frame.push_back(static_cast<uint8_t>(word >> 8));
        frame.push_back(static_cast<uint8_t>(word));
    }
    frame.resize(kind.length);
    return frame;
}

class sender {
  public:
    explicit sender(const std::string& interface) {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        if (fd_ < 0 ||
            bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::system_error(errno, std::generic_category(), interface);
        }
        for (const kind_of_frame& kind : k_kinds)
            frames_.push_back(make_frame(kind));
        for (size_t n = 0; n < k_batch; n++) {
            std::vector<uint8_t>& frame = frames_[n % frames_.size()];
            parts_[n] = {frame.data(), frame.size()};
            batch_[n].msg_hdr.msg_iov = &parts_[n];
            batch_[n].msg_hdr.msg_iovlen = 1;
        }
    }
    ~sender() { close(fd_); }
    sender(const sender&) = delete;
    sender& operator=(const sender&) = delete;

    // How many frames have left, of at most this many. None while the link is down.
    uint64_t send(uint64_t wanted) {
        const auto count = static_cast<unsigned>(std::min<uint64_t>(wanted, k_batch));
        const int sent = sendmmsg(fd_, batch_.data(), count, MSG_DONTWAIT);
        return sent > 0 ? static_cast<uint64_t>(sent) : 0;
    }

  private:
    const int fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);  // 0: receives nothing
    std::vector<std::vector<uint8_t>> frames_;
    std::array<iovec, k_batch> parts_{};
    std::array<mmsghdr, k_batch> batch_{};
};

uint64_t frames_in(clock::duration time) {
    return static_cast<uint64_t>(time / std::chrono::microseconds(1)) * k_frames_per_second /
           1000000;
}

// How many of the frames that are due have left.
uint64_t send_due(sender& out, uint64_t due) {
    uint64_t sent = 0;
    while (sent < due) {
        const uint64_t left = out.send(due - sent);
        if (left == 0) break;
        sent += left;
    }
    return sent;
}

// The time counts only while the link is up.
void send_burst(scene& at, sender& out) {
    const auto begin = clock::now();
    uint64_t settled = 0;  // sent, or given up
    for (auto now = begin; now < begin + k_burst && !at.over;) {
        const uint64_t due = frames_in(now - begin);
        settled = std::max(settled, due - std::min(due, frames_in(k_catch_up)));
        const uint64_t sent = send_due(out, due - settled);
        settled += sent;
        std::this_thread::sleep_for(k_tick);
        const auto before = std::exchange(now, clock::now());
        if (sent == 0 && due != settled) continue;
        at.shared.foreign += sent;
        at.shared.foreign_time +=
            static_cast<uint64_t>((now - before) / std::chrono::microseconds(1));
    }
}

}  // namespace

void send_foreign(scene& at, std::mt19937&) {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), k_modesty);
    for (const char* const far_end : {"qsim0", "qsim1"}) {
        {
            const auto step = begin_step(at);
            sender out(far_end);
            send_burst(at, out);
        }
        pause(at, k_rest);
    }
}

}  // namespace soak
