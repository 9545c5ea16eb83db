// Lets tests and line commands see and change what is behind a card's registers.
#include <algorithm>
#include <system_error>
#include <utility>

#include "simulator_impl.h"

namespace cardsim {

namespace {

void check_eeprom_address(std::uint32_t address) {
    if (is_eeprom_address(address)) return;
    throw error("an EEPROM address is a multiple of 4, at most 2044");
}

void save_own_file(slot& saved) {
    const device_settings& settings = saved.held.device;
    if (settings.eeprom_file.empty() || !saved.state.eeprom.changed) return;
    save_eeprom_file(saved.state.eeprom, settings, settings.eeprom_file);
}

}  // namespace

void start_device(slot& started) {
    seed_faults(started.faults, started.held);
    const device_settings& settings = started.held.device;
    std::error_code unknown;  // not checked: reading the file reports the error
    const bool missing = !std::filesystem::exists(settings.eeprom_file, unknown) && !unknown;
    if (settings.eeprom_file.empty() || missing) return;
    load_eeprom_file(started.state.eeprom, settings, settings.eeprom_file);
}

void finish_device(slot& finished) {
    save_own_file(finished);
}

std::uint32_t simulator::read_register(const card_ref& ref, std::uint32_t address) {
    check_register_address(address);
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    return read_device(target.state, target.held, address);
}

void simulator::write_register(const card_ref& ref, std::uint32_t address, std::uint32_t value) {
    check_register_address(address);
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    write_device(target.state, target.held, address, value);
}

frame_bytes simulator::eeprom(const card_ref& ref) {
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    const eeprom_bytes& bytes = contents_of(target.state.eeprom, target.held.device);
    return {bytes.begin(), bytes.end()};
}

void simulator::set_eeprom(const card_ref& ref, std::span<const std::uint8_t> bytes) {
    if (bytes.size() != eeprom_size) {
        throw error("an EEPROM has 2048 bytes, not " + std::to_string(bytes.size()));
    }
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    eeprom_bytes& contents = contents_of(target.state.eeprom, target.held.device);
    std::copy(bytes.begin(), bytes.end(), contents.begin());
    target.state.eeprom.changed = true;
}

std::uint32_t simulator::eeprom_word(const card_ref& ref, std::uint32_t address) {
    check_eeprom_address(address);
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    return eeprom_word_at(contents_of(target.state.eeprom, target.held.device), address);
}

void simulator::set_eeprom_word(const card_ref& ref, std::uint32_t address, std::uint32_t value) {
    check_eeprom_address(address);
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    put_eeprom_word(contents_of(target.state.eeprom, target.held.device), address, value);
    target.state.eeprom.changed = true;
}

void simulator::load_eeprom(const card_ref& ref, const std::filesystem::path& file) {
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    load_eeprom_file(target.state.eeprom, target.held.device, file);
}

void simulator::save_eeprom(const card_ref& ref, const std::filesystem::path& file) {
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    save_eeprom_file(target.state.eeprom, target.held.device, file);
}

void simulator::save_eeproms() {
    const std::scoped_lock lock(impl_->mutex);
    std::string failures;
    for (auto& [id, saved] : impl_->slots) {
        try {
            save_own_file(saved);
        } catch (const error& e) {
            failures += (failures.empty() ? "" : "; ") + std::string(e.what());
        }
    }
    if (!failures.empty()) throw error(failures);
}

void simulator::take_lock(const card_ref& ref, std::uint32_t ids) {
    const std::scoped_lock lock(impl_->mutex);
    slot& target = impl_->find(ref);
    take_lock_by_others(target.state.lock, target.held.device, ids);
}

void simulator::drop_lock(const card_ref& ref) {
    const std::scoped_lock lock(impl_->mutex);
    drop_lock_of_others(impl_->find(ref).state.lock);
}

lock_holders simulator::lock(const card_ref& ref) const {
    const std::scoped_lock guard(impl_->mutex);
    return std::as_const(*impl_).find(ref).state.lock.held;
}

std::optional<mms_page> simulator::mms_page(const card_ref& ref, std::uint32_t page) const {
    const std::scoped_lock lock(impl_->mutex);
    const auto& pages = std::as_const(*impl_).find(ref).state.pages;
    const auto found = pages.find(page);
    if (found == pages.end()) return std::nullopt;
    return found->second;
}

reset_history simulator::resets(const card_ref& ref) const {
    const std::scoped_lock lock(impl_->mutex);
    return std::as_const(*impl_).find(ref).state.resets;
}

}  // namespace cardsim
