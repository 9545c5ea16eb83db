// answering_card.h - a card that answers Register Reads and obeys Register Writes, and the units
// brought up on two fake ports, for the tests of device access.
//
// The card sees each frame as it is sent and answers before the send has returned, on the sender's
// thread: a test needs no thread and no wait for it. It goes by its MAC address, whose lowest bit
// names the path, and answers by the port and the path it was asked on.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_pcap.h"
#include "ports.h"
#include "qnm_completion.h"
#include "wait.h"

// Any thread may use it; hooks run with its lock held and may use it as well. It has to live until
// the last frame has been sent.
class answering_card {
  public:
    // A frame that the card has got: a Register Read or, with data, a Register Write.
    struct access {
        bool is_write;
        uint32_t addr;
        uint32_t data;  // 0 for a read
        int tag;        // 0 for a write
        int port;
        int path;

        bool operator==(const access&) const = default;
    };

    // What a register that is read answers in place of its value; nullopt: nothing.
    using read_hook = std::function<std::optional<uint32_t>(uint32_t value)>;
    // Takes a value written, in place of storing it.
    using write_hook = std::function<void(uint32_t value)>;

    explicit answering_card(uint64_t mac) : mac_(mac & ~uint64_t{1}) {
        for (int port = 0; port < 2; port++) {
            fake_pcap::on_send(ports::name(port), [this, port](const fake_pcap::frame_t& frame) {
                take(frame, port);
            });
        }
    }
    answering_card(const answering_card&) = delete;
    answering_card& operator=(const answering_card&) = delete;

    // Registers are 0 until they are set.
    void set(uint32_t addr, uint32_t value) {
        const std::lock_guard lock(mutex_);
        registers_[addr] = value;
    }

    uint32_t get(uint32_t addr) {
        const std::lock_guard lock(mutex_);
        return registers_[addr];
    }

    // A null hook ends it.
    void on_read(uint32_t addr, read_hook hook) {
        const std::lock_guard lock(mutex_);
        read_hooks_[addr] = std::move(hook);
    }

    void on_write(uint32_t addr, write_hook hook) {
        const std::lock_guard lock(mutex_);
        write_hooks_[addr] = std::move(hook);
    }

    // Whether frames on a path reach the card; all do until told otherwise. Frames that do not are
    // recorded nevertheless.
    void set_reachable(int port, int path, bool reachable) {
        const std::lock_guard lock(mutex_);
        reachable_[port][path] = reachable;
    }

    void set_reachable(bool reachable) {
        for (int port = 0; port < 2; port++) {
            for (int path = 0; path < 2; path++)
                set_reachable(port, path, reachable);
        }
    }

    // The n-th read from now (1 = the next) is not answered; 0 takes it back.
    void lose(size_t n) {
        const std::lock_guard lock(mutex_);
        reads_until_lost_ = n;
    }

    bool is_to_lose() {
        const std::lock_guard lock(mutex_);
        return reads_until_lost_ != 0;
    }

    // The frames to this card so far, in order.
    std::vector<access> accesses() {
        const std::lock_guard lock(mutex_);
        return accesses_;
    }

    // Forgets the frames so far, not what they did.
    void forget() {
        const std::lock_guard lock(mutex_);
        accesses_.clear();
    }

    size_t reads() { return count(false, std::nullopt); }
    size_t reads(uint32_t addr) { return count(false, addr); }
    size_t writes() { return count(true, std::nullopt); }
    size_t writes(uint32_t addr) { return count(true, addr); }

    // Answers a read again, or late.
    void answer(const access& read, uint32_t data) {
        _qnm_recv_comp(read.tag, read.port, mac_ | static_cast<uint64_t>(read.path), data);
    }

  private:
    static uint64_t mac_of(const fake_pcap::frame_t& frame) {
        uint64_t mac = 0;
        for (int i = 0; i < 6; i++)
            mac = mac << 8 | frame[i];
        return mac;
    }

    // The inverse of the address code; register frames have one layout in both arrangements.
    static access decode(const fake_pcap::frame_t& frame, int port) {
        const uint32_t coded =
            static_cast<uint32_t>(frame[24]) << 24 | frame[25] << 16 | frame[26] << 8 | frame[27];
        access it = {frame[18] == 0x90, (coded >> 16 & 0x3FF) << 12 | (coded & 0xFFF), 0, 0, port,
                     frame[5] & 1};
        if (it.is_write) {
            memcpy(&it.data, &frame[28], sizeof it.data);
        } else {
            it.tag = frame[23];
        }
        return it;
    }

    void take(const fake_pcap::frame_t& frame, int port) {
        if ((mac_of(frame) & ~uint64_t{1}) != mac_ || (frame[18] & 0xFE) != 0x90) return;
        const std::lock_guard lock(mutex_);
        const access it = decode(frame, port);
        accesses_.push_back(it);
        if (!reachable_[it.port][it.path]) return;
        if (it.is_write) {
            write(it);
        } else {
            read(it);
        }
    }

    void write(const access& it) {
        if (const write_hook hook = write_hooks_[it.addr]) {
            hook(it.data);
        } else {
            registers_[it.addr] = it.data;
        }
    }

    void read(const access& it) {
        if (reads_until_lost_ != 0 && --reads_until_lost_ == 0) return;
        std::optional<uint32_t> value = registers_[it.addr];
        if (const read_hook hook = read_hooks_[it.addr]) value = hook(*value);
        if (value.has_value()) answer(it, *value);
    }

    size_t count(bool is_write, std::optional<uint32_t> addr) {
        const std::lock_guard lock(mutex_);
        size_t found = 0;
        for (const access& it : accesses_) {
            if (it.is_write == is_write && it.addr == addr.value_or(it.addr)) found++;
        }
        return found;
    }

    const uint64_t mac_;
    std::recursive_mutex mutex_;  // guards all below
    std::map<uint32_t, uint32_t> registers_;
    std::map<uint32_t, read_hook> read_hooks_;
    std::map<uint32_t, write_hook> write_hooks_;
    bool reachable_[2][2] = {{true, true}, {true, true}};
    size_t reads_until_lost_ = 0;
    std::vector<access> accesses_;
};

// Both ports open and up, the tags ready, and one card: connected by P0M0, in the QNSV table and
// with a write lock. A retry waits 1 ms, so that silence costs little time.
struct card_units : ports {
    static constexpr uint64_t k_id = 0x001122334454;
    static constexpr uint64_t k_mac = 0x020000001000;
    static constexpr qnm_retry_t k_retry = {.er_retry_count = 2, .er_retry_interval = 1};

    answering_card card{k_mac};
    qnm_com_dev_t dev = record(k_id, k_mac);  // connected by P0M0

    card_units() {
        for (int port = 0; port < 2; port++)
            strcpy(qnm_config.ether_port_name[port], name(port).c_str());
        EXPECT_EQ(_qnm_cmp_init(), 0);
        EXPECT_EQ(_qnm_create_reg_lock_node(k_id), 0);
        store(dev);
        logs.clear();
    }

    ~card_units() override {
        expect_all_tags_free();
        _qnm_cmp_fini();
    }

    static void expect_all_tags_free() {
        int tag = -1;
        unsigned found = 0;
        while (_qnm_get_tag(&tag) == 0)
            found++;
        EXPECT_EQ(found, qnm_config.tag_max - qnm_config.tag_min + 1) << "a tag is still held";
    }

    // A card's record; connected by P0M0, 1G/10G.
    static qnm_com_dev_t record(uint64_t id, uint64_t mac) {
        qnm_com_dev_t made = {};
        made.ecd_id = id;
        made.ecd_vlan_id = 10;
        made.ecd_state[0][0] = 1;
        for (int i = 0; i < 6; i++)
            made.ecd_macaddr[i] = static_cast<uint8_t>(mac >> (40 - 8 * i));
        return made;
    }

    // Puts the record into the table of QNSV cards, or changes it there.
    static void store(const qnm_com_dev_t& dev, uint32_t ignore_state = QNM_WATCH) {
        qnm_qnsv_t qnsv = {};
        qnsv.esv_com_dev = dev;
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnsv(dev.ecd_id, &qnsv, ignore_state, 0, QNM_VALID_ALL), 0);
    }

    // The same for QNIO cards.
    static void store_qnio(const qnm_com_dev_t& dev, uint32_t ignore_state = QNM_WATCH) {
        qnm_qnio_t qnio = {};
        qnio.eio_com_dev = dev;
        const qnm::table_guard lock;
        EXPECT_EQ(_qnm_set_qnio(dev.ecd_id, &qnio, ignore_state, 0, QNM_VALID_ALL), 0);
    }

    // Whether another thread gets the card's write lock.
    static bool is_lock_free(uint64_t id = k_id) {
        std::atomic<bool> taken = false;
        std::thread other([&] {
            _qnm_write_reg_lock(id);
            taken = true;
            _qnm_write_reg_unlock(id);
        });
        const bool is_free = wait_until([&] { return taken.load(); });
        if (!is_free) _qnm_write_reg_unlock(id);  // so that the test ends
        other.join();
        return is_free;
    }
};
