// Fake ports without a network: they keep what is sent, and a test can wait for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "cardsim.h"

struct cable {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<cardsim::frame_bytes> frames;
    cardsim::send_report report;  // of every further send

    std::size_t size() {
        const std::scoped_lock lock(mutex);
        return frames.size();
    }

    void fail_with(cardsim::send_report next) {
        const std::scoped_lock lock(mutex);
        report = next;
    }

    // Returns false if `done` does not become true within a generous time.
    bool wait(const std::function<bool(const std::vector<cardsim::frame_bytes>&)>& done) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(60), [&] { return done(frames); });
    }

    cardsim::port port(std::string name) {
        return {.name = std::move(name),
                .send = [this](cardsim::frame_view frame) { return take(frame); },
                .receive = [] { return std::nullopt; }};
    }

  private:
    cardsim::send_report take(cardsim::frame_view frame) {
        const std::scoped_lock lock(mutex);
        if (report.status == cardsim::send_status::sent)
            frames.emplace_back(frame.begin(), frame.end());
        changed.notify_all();
        return report;
    }
};
