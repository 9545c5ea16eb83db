// A running manager: the thread that qnm_init_manager() blocks, and the events on their way to the
// printing side.
//
// The library's event thread calls receive() for every event: it reads the card's record and puts
// both into a queue, nothing else, so that a slow terminal never holds the library up. The main
// thread waits on wake_fd() and takes the queue. The queue is limited; what does not fit is
// counted.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "common/wake_event.h"
#include "qnm.h"
#include "records/event_text.h"
#include "records/fields.h"

namespace qnmctl {

// A public call that failed.
struct failed_call : error {
    failed_call(const char* call, qnm_api_code_t result);
};

class session {
  public:
    ~session();  // stops the manager and waits for its end
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    // Readable when events can be taken or the manager has ended.
    int wake_fd() const { return wake_.fd(); }

    struct batch {
        std::vector<observed> events;
        std::uint64_t lost = 0;  // did not fit into the queue
    };
    batch take();

    // The manager's result, if it has ended by itself.
    std::optional<qnm_api_code_t> result() const;

  private:
    friend std::variant<std::unique_ptr<session>, qnm_api_code_t> start_session(
        const std::string& dir, qnm_log_level_t level);

    session(const std::string& dir, qnm_log_level_t level);
    static void receive(std::uint64_t id, qnm_evt_type_t type, void* to);
    void run(const std::string& dir, qnm_log_level_t level);
    qnm_api_code_t wait_usable();
    qnm_api_code_t register_callbacks();
    void queue(const observed& seen);

    tools::wake_event wake_;
    std::mutex mutex_;  // guards waiting_
    batch waiting_;
    std::atomic<int> result_;
    std::thread thread_;
};

// Returns when frames are taken, or with the code of a start that failed.
std::variant<std::unique_ptr<session>, qnm_api_code_t> start_session(const std::string& dir,
                                                                     qnm_log_level_t level);

// The record of a card, if it is known. An ID can be known as both kinds, when a card has changed
// its kind; then the record that changed last is the card's.
std::optional<card> read_card(std::uint64_t id);

// All known cards, QNSV first, by ascending ID. Throws failed_call.
std::vector<card> read_cards();

}  // namespace qnmctl
