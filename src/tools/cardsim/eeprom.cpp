// Runs the EEPROM as a state machine with four phases, and keeps its contents in files.
#include "eeprom.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "common/regular_file.h"
#include "fields.h"

namespace cardsim {

namespace {

constexpr std::uint32_t read_command = 0x80000001;
constexpr std::uint32_t write_command = 0x80000003;
constexpr std::uint32_t idle_command = 0;

constexpr std::size_t word_size = 4;

// The value of the status register in each phase.
constexpr std::uint32_t phase_status[] = {0x40000000, 0x00000001, 0x10000000, 0x30000000};

// The packed form has address bits 8 to 11 in bits 16 to 19; the bits between and above are zero.
constexpr std::uint32_t packed_mask = 0x000F00FF;

std::optional<std::uint32_t> raw_address(std::uint32_t written, const card& owner) {
    std::uint32_t raw = written;
    if (owner.speed == card_speed::g1_10 && owner.device.eeprom_packed) {
        if ((written & ~packed_mask) != 0) return std::nullopt;
        raw = (written >> 8 & 0xF00) | (written & 0xFF);
    }
    if (!is_eeprom_address(raw)) return std::nullopt;
    return raw;
}

// Carries out the command; returns the phase that follows.
eeprom_phase finish(eeprom_state& state, const card& owner) {
    const std::optional<std::uint32_t> address = raw_address(state.address, owner);
    if (!address || owner.device.eeprom_refusing) return eeprom_phase::refused;
    eeprom_bytes& bytes = contents_of(state, owner.device);
    if (state.command == read_command) {
        state.read_data = eeprom_word_at(bytes, *address);
    } else if (eeprom_word_at(bytes, *address) != state.write_data) {
        put_eeprom_word(bytes, *address, state.write_data);
        state.changed = true;
    }
    return eeprom_phase::complete;
}

[[noreturn]] void fail(const char* what, const std::filesystem::path& file,
                       const std::string& why) {
    throw error(std::string(what) + " the EEPROM file " + in_quotes(file.string()) + ": " + why);
}

// Returns why it failed, or nothing. Removes a file of that name first, so that it does not wait
// for a FIFO or follow a link.
std::string write_bytes(const eeprom_bytes& bytes, const std::filesystem::path& file) {
    unlink(file.c_str());
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return std::strerror(errno);
    std::size_t written = 0;
    int code = 0;
    while (written < bytes.size() && code == 0) {
        const ssize_t taken = write(fd, bytes.data() + written, bytes.size() - written);
        if (taken >= 0) written += static_cast<std::size_t>(taken);
        if (taken < 0 && errno != EINTR) code = errno;
    }
    if (close(fd) != 0 && code == 0) code = errno;
    return code == 0 ? "" : std::strerror(code);
}

// The bytes are written beside the file and replace it when they are complete, so that a full disk
// leaves the old contents.
std::string replace_file(const eeprom_bytes& bytes, const std::filesystem::path& file) {
    std::error_code failed;
    const std::filesystem::path target = std::filesystem::weakly_canonical(file, failed);
    if (failed) return failed.message();
    std::filesystem::path fresh = target;
    fresh += ".new";
    std::string reason = write_bytes(bytes, fresh);
    if (reason.empty()) {
        std::filesystem::rename(fresh, target, failed);
        if (failed) reason = failed.message();
    }
    if (!reason.empty()) std::filesystem::remove(fresh, failed);
    return reason;
}

}  // namespace

eeprom_bytes& contents_of(eeprom_state& state, const device_settings& settings) {
    if (state.contents) return *state.contents;
    state.contents = std::make_unique<eeprom_bytes>();
    state.contents->fill(settings.eeprom_fill);
    for (const auto& [address, bytes] : settings.eeprom)
        std::copy(bytes.begin(), bytes.end(), state.contents->begin() + address);
    return *state.contents;
}

std::uint32_t eeprom_word_at(const eeprom_bytes& bytes, std::uint32_t address) {
    std::uint32_t word = 0;
    for (std::size_t i = word_size; i-- > 0;)
        word = word << 8 | bytes[address + i];
    return word;
}

void put_eeprom_word(eeprom_bytes& bytes, std::uint32_t address, std::uint32_t word) {
    for (std::size_t i = 0; i < word_size; ++i)
        bytes[address + i] = static_cast<std::uint8_t>(word >> (8 * i));
}

bool is_eeprom_address(std::uint32_t address) {
    return address < eeprom_size && address % word_size == 0;
}

std::uint32_t poll_eeprom(eeprom_state& state, const card& owner) {
    if (state.phase == eeprom_phase::busy) {
        if (state.polls_left == 0) {
            state.phase = finish(state, owner);
        } else {
            --state.polls_left;
        }
    }
    return phase_status[static_cast<std::size_t>(state.phase)];
}

void command_eeprom(eeprom_state& state, const card& owner, std::uint32_t command) {
    if (command == idle_command) {
        state.phase = eeprom_phase::ready;
        return;
    }
    const bool known = command == read_command || command == write_command;
    if (!known || state.phase == eeprom_phase::busy) return;
    state.command = command;
    state.polls_left = owner.device.eeprom_busy_polls;
    state.phase = eeprom_phase::busy;
}

void reset_eeprom_registers(eeprom_state& state) {
    eeprom_state fresh;
    fresh.contents = std::move(state.contents);
    fresh.changed = state.changed;
    state = std::move(fresh);
}

void load_eeprom_file(eeprom_state& state, const device_settings& settings,
                      const std::filesystem::path& file) {
    const auto read = tools::read_regular_file(file, eeprom_size);
    if (const auto* problem = std::get_if<tools::file_problem>(&read))
        fail(problem->wrong_file ? "cannot use" : "cannot read", file, problem->text);
    const auto& image = std::get<std::string>(read);
    if (image.size() != eeprom_size) {
        fail("cannot use", file,
             "it has " + std::to_string(image.size()) + " bytes, an EEPROM has 2048");
    }
    eeprom_bytes& bytes = contents_of(state, settings);
    std::copy_n(image.begin(), eeprom_size, bytes.begin());
    state.changed = file != settings.eeprom_file;
}

void save_eeprom_file(eeprom_state& state, const device_settings& settings,
                      const std::filesystem::path& file) {
    const eeprom_bytes& bytes = contents_of(state, settings);
    struct stat old {};
    if (stat(file.c_str(), &old) == 0) {
        const std::string kind = tools::strange_kind(old.st_mode);
        if (!kind.empty()) fail("cannot write", file, "it is " + kind + ", not a regular file");
    }
    const std::string reason = replace_file(bytes, file);
    if (!reason.empty()) fail("cannot write", file, reason);
    if (file == settings.eeprom_file) state.changed = false;
}

}  // namespace cardsim
