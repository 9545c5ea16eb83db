// What accesses to cards share: selecting the cards, reaching them, and long work that a signal
// ends.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "access/access_text.h"
#include "access/work.h"
#include "cli/command.h"
#include "manager/context.h"

namespace qnmctl {

inline constexpr std::uint32_t eeprom_bytes = 2048;
inline constexpr std::uint64_t last_register = 0x3FFFFC;  // cards see the low 22 bits of an address

struct access_options {
    selection cards = {};
    std::optional<std::uint32_t> retries = {};   // not given: as configured
    std::optional<std::uint32_t> interval = {};  // milliseconds; likewise
    std::uint32_t flags = 0;                     // QNM_FLAG_LIVECHECK and so on
    std::optional<double> wait = {};             // seconds; not given: as the help says

    std::uint64_t id() const { return cards.ids.front(); }  // of a command that takes one card
};

void add_one_card(command& to, access_options& options);
void add_retry(command& to, access_options& options);
void add_livecheck(command& to, access_options& options);
void add_verify(command& to, access_options& options);
void add_force_lock(command& to, access_options& options);

// --wait; after the cards.
void add_wait(command& to, access_options& options);

void add_yes(command& to, bool& yes);

// A question on the terminal, answered by y or n; a signal is a no.
bool is_confirmed(const context& with, const std::string& question);

// Throws usage_error where no question can be asked, for a command without --yes.
void check_can_ask(const context& with);

// The retry parameters for the library's calls. When only one was given, the other one is as
// configured.
class retry_param {
  public:
    retry_param(const context& with, const access_options& options);
    const qnm_retry_t* get() const { return given_ ? &*given_ : nullptr; }

  private:
    std::optional<qnm_retry_t> given_;
};

// Starts the manager and listens until the cards are known that are named, or for as long
// as it takes to hear all of them. Throws error when a signal ends it, or the reader has gone:
// which cards there are is not known then.
void start_and_hear(context& with, const access_options& options);

// The selected cards. Throws error if none fits, or the only one is not known.
std::vector<std::uint64_t> wanted_ids(const access_options& options);

// As run_work(), but the command ends after a signal.
bool run_access_work(context& with, work wanted);

// How a range of words is read: by calls of the library for a few words each.
struct dump_source {
    const char* call;
    access_scope scope;
    qnm_api_code_t (*read)(std::uint64_t id, std::uint32_t start, std::uint32_t end,
                           std::uint32_t* data, std::size_t* length, const qnm_retry_t* retry,
                           std::uint32_t flags);
    std::uint32_t step;  // bytes in one call; between calls the command can end
    const char* label;   // of the progress line
};

// Why a call failed for a card. If another process has the port, the text names it.
std::string access_failure(const context& with, std::uint64_t id, const char* call,
                           access_scope scope, qnm_api_code_t code);

extern const dump_source register_source;
extern const dump_source eeprom_source;

struct dump_result {
    dump read;                           // as far as it came
    std::optional<qnm_api_code_t> code;  // nothing: ended by a signal
};

dump_result read_dump(context& with, const dump_source& from, const access_options& options,
                      std::uint32_t start, std::uint32_t end);

// Why a dump is not complete. Only for one that is not.
std::string incomplete_text(const context& with, const dump_source& from, const dump_result& result,
                            std::uint32_t end);

}  // namespace qnmctl
