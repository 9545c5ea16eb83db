// Simulated Quillnet cards, for everyone who has no hardware.
//
// A `card` is a plain record of what a card announces and how it behaves; encode() puts it on the
// wire and decode() reads what a manager sends to it. A `simulator` owns cards and ports, announces
// every card at its own interval and obeys what managers ask: registers, EEPROM, VLAN ID, Reset and
// MMS pages. Tests drive it in-process through its member functions, people through the line
// commands of execute(). The wire is written here from the protocol tables alone, without any
// code of the manager library, so that a mistake on one side shows on the other.
//
// Errors: a call that fails throws cardsim::error, whose text says what is wrong and what helps.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "common/descriptor.h"

namespace cardsim {

struct error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using frame_bytes = std::vector<std::uint8_t>;
using frame_view = std::span<const std::uint8_t>;

inline constexpr std::size_t port_limit = 2;        // local ports a card can be heard on
inline constexpr std::size_t path_limit = 2;        // paths (source MACs) of a card
inline constexpr std::size_t down_port_limit = 16;  // downstream ports of a server card
inline constexpr std::uint16_t default_ether_type = 0x88B6;
inline constexpr std::uint64_t broadcast_mac = 0xFFFFFFFFFFFF;

// --------------------------------------------------------------------------------------------
// Cards
// --------------------------------------------------------------------------------------------

enum class card_kind : std::uint8_t { qnsv = 0, qnio = 1 };
enum class card_speed : std::uint8_t { g1_10 = 0, g40 = 1 };

// Bridge registers of one PCIe port. The 16- and 32-bit values travel least significant byte first.
struct bridge {
    std::uint8_t pri_bus_num = 0;
    std::uint8_t sec_bus_num = 0;
    std::uint8_t sub_bus_num = 0;
    std::uint8_t command = 0;
    std::uint16_t memory_base = 0;
    std::uint16_t memory_limit = 0;
    std::uint16_t pre_memory_base = 0;
    std::uint16_t pre_memory_limit = 0;
    std::uint32_t pre_base_upper = 0;
    std::uint32_t pre_limit_upper = 0;
};

// A downstream port of a server card. Bit 1 of port_status[1]: an I/O card is connected behind it.
struct down_port {
    std::array<std::uint8_t, 2> port_status{};
    std::uint64_t io_mac = 0;
    bridge com_port;
};

inline constexpr std::size_t eeprom_size = 2048;

// How the registers and the EEPROM behind them behave. Their contents are kept by the simulator, so
// that a card stays cheap to copy.
struct device_settings {
    std::map<std::uint32_t, std::uint32_t> registers;  // presets by address, a multiple of 4
    std::uint32_t register_default = 0;                // of registers neither preset nor written
    bool vlan_frozen = false;  // VLAN set is taken but never comes into effect

    bool id_lock = false;        // the EEPROM has the ID lock; false: the bit lock
    bool lock_stubborn = false;  // another holder takes the lock back when a manager frees it
    std::uint32_t lock_retake_reads = 1;  // manager's looks at the freed lock before that; 0: none

    std::map<std::uint32_t, std::string> eeprom;  // preset bytes by address
    std::uint8_t eeprom_fill = 0xFF;              // all other bytes
    std::string eeprom_file;              // loaded when the card is added, saved when changed
    bool eeprom_packed = true;            // 1G/10G: takes packed addresses; false: raw ones
    bool eeprom_refusing = false;         // every access is refused
    std::uint32_t eeprom_busy_polls = 1;  // polls that find a command still at work
};

// What goes wrong between a manager's request and the card's answer, and with the card's
// announcements (DEVINFO and NOTIFY frames). Rates are per thousand. The same seed gives the same
// faults for the same requests and the same announcements, whatever the order of the two.
struct fault_settings {
    std::uint64_t seed = 0;
    std::uint16_t lose_requests = 0;
    std::uint16_t lose_answers = 0;
    std::uint16_t duplicate_answers = 0;
    std::uint16_t reorder_answers = 0;  // held back until the next answer has left
    std::uint16_t wrong_port = 0;       // answer by the other port, if the card is heard there
    std::uint16_t wrong_mac = 0;        // answer from the other path's MAC
    std::uint16_t wrong_tag = 0;
    std::uint16_t lose_announcements = 0;
    std::uint16_t duplicate_announcements = 0;  // of those that are not lost
    std::uint32_t delay_min_ms = 0;  // every answer waits for a random time between the two
    std::uint32_t delay_max_ms = 0;  // below delay_min_ms: exactly that one
    std::vector<std::uint32_t> silent_registers;  // reads of these are not answered
};

// Everything one card announces, and how it behaves. MAC addresses are 48-bit numbers, first byte
// most significant.
struct card {
    std::string name;
    card_kind kind = card_kind::qnsv;
    card_speed speed = card_speed::g1_10;
    std::uint64_t id = 0;  // source MAC; a 40G card sends from `id` (path 0) and `id` | 1 (path 1)

    // Ethernet header
    std::uint64_t destination = broadcast_mac;
    std::uint16_t ether_type = default_ether_type;
    std::uint8_t priority = 4;      // 3 bits; managers take no other
    std::uint16_t vlan_id = 1;      // 12 bits; the card's group
    bool vlan_change_mode = false;  // Ethernet type in front of the VLAN tag

    // Common part of every announcement
    std::uint8_t flow_id_da = 0xFF;
    std::uint8_t flow_id = 0;
    std::uint8_t ver = 0;  // format version: 0 on 1G/10G cards, 1 on 40G cards (see make_card)
    bool uid_switch = false;
    bool power = true;
    std::uint8_t link_status = 0;
    std::uint8_t sw_status0 = 0;  // first switch-status byte, no meaning known
    std::uint8_t version = 0;     // card version, 4 bits; 1 makes a QNIO card multi-root
    bool port0_link = true;
    bool port1_link = true;
    bool pcie_presence = false;  // QNIO
    std::uint8_t int_vector = 0;

    // Server cards (QNSV): 8 downstream ports travel at 1G/10G, 16 at 40G.
    bridge up_port;
    std::array<down_port, down_port_limit> down_ports{};

    // I/O cards (QNIO)
    std::array<std::uint8_t, 2> io_substate{};  // bit 1 of [1]: connected to its server card
    std::uint64_t ser_mac = 0;                  // server card that it is bound to
    std::uint16_t device_id = 0;                // least significant byte first on the wire
    std::uint16_t vendor_id = 0;                // likewise
    std::uint32_t class_code = 0;               // 24 bits, likewise
    bool link0_fault = false;                   // multi-root cards carry these two bits swapped
    bool link1_fault = false;
    std::uint16_t resource_id = 0;  // multi-root cards only

    // Announcing
    std::array<std::array<bool, path_limit>, port_limit> heard{};  // [local port][path]
    std::uint32_t interval_ms = 1000;  // 0: never by itself, only when told to
    std::uint32_t phase_ms = 0;        // wait before the first announcement
    std::uint32_t jitter_ms = 0;       // each interval is longer by a random 0 to jitter_ms

    // Answering
    device_settings device;
    fault_settings faults;
};

// A card with the defaults of its kind and speed, heard on port 0, path 0.
card make_card(std::string name, card_kind kind, card_speed speed, std::uint64_t id);

// Paths a card of this speed has: 1 at 1G/10G, 2 at 40G.
std::size_t path_count(card_speed speed);

// Sets one field by its name, as scenarios and the `set` command do: numbers in decimal or 0x form,
// true/false, MAC addresses as 0x or colon form; "up_port.FIELD" and "down_port.N.FIELD" reach the
// bridge records; a list is written with commas, an empty one as "none". What a card is (name, id,
// kind, speed) cannot be changed once the card exists.
void set_field(card& target, std::string_view field, std::string_view value);

// --------------------------------------------------------------------------------------------
// The wire, card to manager
// --------------------------------------------------------------------------------------------

enum class message : std::uint8_t { devinfo, notify };

// The whole frame from the destination MAC on, tag included, zero-filled up to the 60 bytes that
// an Ethernet frame has at least. `path` must be one that the card's speed has.
frame_bytes encode(const card& source, message kind, std::size_t path);

// The answer to a Register Read.
struct completion {
    std::uint64_t source = 0;
    std::uint64_t destination = 0;
    std::uint8_t tag = 0;
    std::uint32_t value = 0;
};

// Replaces what is in `out`, so that a buffer can serve many answers.
void encode(const card& sender, const completion& sent, frame_bytes& out);

// --------------------------------------------------------------------------------------------
// The wire, manager to card
// --------------------------------------------------------------------------------------------

struct register_read {
    std::uint8_t tag = 0;
    std::uint32_t address = 0;  // decoded
};
struct register_write {
    std::uint8_t tag = 0;
    std::uint32_t address = 0;  // decoded
    std::uint32_t data = 0;
};
struct vlan_set {
    std::uint8_t type = 0;
    std::uint16_t vlan_id = 0;
};
struct reset {
    std::uint8_t status = 0;
};
using mms_page = std::array<std::uint32_t, 32>;
struct mms_write {
    std::uint32_t page = 0;
    mms_page data{};
};

struct request {
    std::uint64_t destination = 0;
    std::uint64_t source = 0;
    std::uint16_t tci = 0;
    bool vlan_change_mode = false;
    std::uint8_t subtype = 0;
    std::size_t length = 0;  // of the frame, tag included
    // Empty (monostate) when cards receive no such subtype or the frame is cut short.
    std::variant<std::monostate, register_read, register_write, vlan_set, reset, mms_write> body;
    // The first rule of the protocol that the frame breaks (length, priority, flow IDs, reserved
    // bytes, padding); empty for a frame without fault. Zeros behind the message are no fault: the
    // hardware may add some.
    std::string fault;
};

// Nothing for a frame that is not of this protocol (other Ethernet type, no tag, below 19 bytes)
// and for what other cards on the same cable send.
std::optional<request> decode(frame_view frame, std::uint16_t ether_type = default_ether_type);

// One line for people: "Register Read tag=3 address=0x001234 ...".
std::string describe(const request& received);

// --------------------------------------------------------------------------------------------
// Ports
// --------------------------------------------------------------------------------------------

enum class send_status {
    sent,
    link_down,  // the interface, or the other end of the cable, is down
    no_room,    // the device's queue stayed full through all retries
    failed,     // anything else; see `code`
};

struct send_report {
    send_status status = send_status::sent;
    std::uint32_t retries = 0;  // full queue, tried again
    int code = 0;               // errno of the last try that failed
};

// A raw AF_PACKET socket on one interface. The VLAN tag goes out inside the frame; on receipt the
// tag that the kernel took out is put back, so both directions show the frame as on the cable.
class link {
  public:
    explicit link(const std::string& interface_name);

    send_report send(frame_view frame);
    // Never blocks; nothing when no frame waits. For one thread at a time.
    std::optional<frame_bytes> receive();
    int fd() const { return fd_.fd; }  // readable when a frame waits

  private:
    bool running() const;

    std::string name_;
    tools::descriptor fd_;
    frame_bytes buffer_;  // the largest frame fits
};

// What the simulator needs of a port; a test may hand in its own. `fd` is polled for input when it
// is not negative.
struct port {
    std::string name;
    std::function<send_report(frame_view)> send;
    std::function<std::optional<frame_bytes>()> receive;
    int fd = -1;
};

port open_port(const std::string& interface_name);

// --------------------------------------------------------------------------------------------
// Scenarios
// --------------------------------------------------------------------------------------------

struct scenario {
    std::vector<std::string> ports;  // interfaces of local port 0 and 1
    std::vector<card> cards;         // `count` already unfolded
    std::uint16_t ether_type = default_ether_type;
};

// Both throw error with "FILE:LINE: ..."; for an unknown key it names the nearest known one.
// `ports`, when not empty, replace those of the file.
scenario load_scenario(const std::filesystem::path& file,
                       const std::vector<std::string>& ports = {});
scenario parse_scenario(std::string_view text, std::string_view file_name,
                        const std::vector<std::string>& ports = {});

// --------------------------------------------------------------------------------------------
// Simulator
// --------------------------------------------------------------------------------------------

// A card is called by its name, by its ID, or by its ID written as 0x....
struct card_ref {
    card_ref(const char* name) : text(name) {}         // NOLINT(*-explicit-*)
    card_ref(std::string_view name) : text(name) {}    // NOLINT(*-explicit-*)
    card_ref(const std::string& name) : text(name) {}  // NOLINT(*-explicit-*)
    card_ref(std::uint64_t id);                        // NOLINT(*-explicit-*)
    std::string text;
};

struct counters {
    std::uint64_t devinfo = 0;  // announcements sent, repeated or by command
    std::uint64_t notify = 0;
    std::uint64_t raw = 0;
    std::uint64_t retries = 0;    // sends repeated because the queue was full
    std::uint64_t link_down = 0;  // frames not sent: link down
    std::uint64_t lost = 0;       // frames not sent: queue full through all retries
    std::uint64_t failed = 0;     // frames not sent: any other error
    std::uint64_t received = 0;   // frames of the protocol received
    std::uint64_t faulty = 0;     // of these, frames that break a rule of it; not obeyed
    std::uint64_t unheard = 0;    // of these, frames that no card hears on that port and path

    // Obeyed, counted once for every card
    std::uint64_t reads = 0;
    std::uint64_t writes = 0;
    std::uint64_t vlan_sets = 0;
    std::uint64_t resets = 0;
    std::uint64_t mms_writes = 0;
    std::uint64_t answers = 0;  // Completions sent, duplicates included

    // Faults done on purpose
    std::uint64_t lost_requests = 0;
    std::uint64_t lost_answers = 0;
    std::uint64_t silent = 0;  // reads of silent registers
    std::uint64_t duplicated = 0;
    std::uint64_t reordered = 0;
    std::uint64_t delayed = 0;
    std::uint64_t wrong_port = 0;
    std::uint64_t wrong_mac = 0;
    std::uint64_t wrong_tag = 0;
    std::uint64_t lost_announcements = 0;
    std::uint64_t duplicated_announcements = 0;
};

struct reset_history {
    std::uint64_t count = 0;
    std::uint8_t last_status = 0;
};

// Who has the EEPROM; every party is a bit.
struct lock_holders {
    std::uint32_t bits = 0;      // bit lock register
    std::uint32_t requests = 0;  // ID lock: everyone who has asked
    std::uint32_t holder = 0;    // ID lock: whose turn it is; 0: nobody's
};

// Called on the announcing thread, without a lock, for every frame of the protocol that arrives,
// after the cards have obeyed it.
using request_observer = std::function<void(std::size_t port, const request&)>;

// Owns cards and ports. Every member function may be called from any thread at any time; one mutex
// guards cards, timers and counters, and frames are sent under it: when silence() has returned, no
// further frame leaves on that path, and when notify() has returned, its frames have left.
class simulator {
  public:
    explicit simulator(std::vector<port> ports, std::uint16_t ether_type = default_ether_type,
                       request_observer observer = {});
    ~simulator();  // stops and waits
    simulator(const simulator&) = delete;
    simulator& operator=(const simulator&) = delete;

    void add(card added);
    void remove(const card_ref& ref);  // a changed EEPROM goes to the card's file first
    card get(const card_ref& ref) const;
    std::vector<card> cards() const;  // ascending ID

    // Changes a card in place; a change of id, name, kind or speed is refused. The next frame
    // shows it; nothing is sent at once.
    void update(const card_ref& ref, const std::function<void(card&)>& change);
    void set(const card_ref& ref, std::string_view field, std::string_view value);
    void silence(const card_ref& ref, std::size_t port, std::size_t path);
    void wake(const card_ref& ref, std::size_t port, std::size_t path);

    // Send now, on every path on which the card is heard; return how many frames left.
    std::size_t devinfo(const card_ref& ref);
    std::size_t notify(const card_ref& ref);
    std::size_t announce_all();  // one DEVINFO per card and path, back to back
    void send_raw(std::size_t port, frame_view frame);

    // As if the frame had come in on the port: cards obey it and the observer hears of it.
    void deliver(std::size_t port, frame_view frame);

    // A card's registers as a manager's frames would reach them, side effects included: a read of
    // the EEPROM's status is a poll. An address that is no multiple of 4, or has more than 22 bits,
    // is an error.
    std::uint32_t read_register(const card_ref& ref, std::uint32_t address);
    void write_register(const card_ref& ref, std::uint32_t address, std::uint32_t value);

    // The EEPROM contents, not by way of the registers: always eeprom_size bytes, anything else is
    // an error. A word's address is a multiple of 4.
    frame_bytes eeprom(const card_ref& ref);
    void set_eeprom(const card_ref& ref, std::span<const std::uint8_t> bytes);
    std::uint32_t eeprom_word(const card_ref& ref, std::uint32_t address);
    void set_eeprom_word(const card_ref& ref, std::uint32_t address, std::uint32_t value);
    void load_eeprom(const card_ref& ref, const std::filesystem::path& file);
    void save_eeprom(const card_ref& ref, const std::filesystem::path& file);
    // Saves the EEPROMs that have changed to the cards' own files. Tries all, then throws what
    // failed.
    void save_eeproms();

    // Other holders of the EEPROM lock; device.id_lock says which kind. A party that takes the ID
    // lock while another has it waits for it.
    void take_lock(const card_ref& ref, std::uint32_t ids);
    void drop_lock(const card_ref& ref);  // all that take_lock() took
    lock_holders lock(const card_ref& ref) const;

    std::optional<cardsim::mms_page> mms_page(const card_ref& ref, std::uint32_t page) const;
    reset_history resets(const card_ref& ref) const;

    counters count() const;

    // Announcing: run() on the caller's thread, start() on one of the simulator's own (with all
    // signals blocked). Both end by stop(), which only asks and may come from a signal handler;
    // wait() returns when the thread of start() has ended. Sending by command works without either.
    void run();
    void start();
    void stop();
    void wait();

    struct impl;  // simulator_impl.h

  private:
    std::unique_ptr<impl> impl_;
};

// --------------------------------------------------------------------------------------------
// Line commands
// --------------------------------------------------------------------------------------------

struct answer {
    std::string
        text;  // one line, "ok ..." or "error: ...", without its end; empty for an empty line
    bool quit = false;
};

answer execute(simulator& target, std::string_view line);

struct command_text {
    std::string_view name;
    std::string_view usage;  // behind the name
    std::string_view help;   // without a full stop
};
std::vector<command_text> command_texts();

std::string describe(const counters& values);  // one line

}  // namespace cardsim
