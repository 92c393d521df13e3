#pragma once
// A private log engine whose lines a test collects, so that nothing reaches
// the system log and parallel tests don't see each other's lines.

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "output/ov_logger.h"

namespace ov::testing {

class LogCapture {
public:
    Logger loggerFor(std::string category) { return Logger(std::move(category), std::nullopt, {}, engine_); }

    std::vector<OVLogger::LogMessage> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    std::vector<OVLogger::LogMessage> taken() { return lines(); }
    // The only line logged; none when there is not exactly one.
    std::optional<OVLogger::LogMessage> single() {
        auto all = lines();
        if (all.size() != 1) return std::nullopt;
        return all.front();
    }
    // The first line with this message, waiting up to `timeout` for it.
    std::optional<OVLogger::LogMessage> waitFor(const std::string& message,
                                                std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            {
                std::lock_guard lock(mutex_);
                auto it = std::find_if(lines_.begin(), lines_.end(),
                                       [&](const OVLogger::LogMessage& m) { return m.message == message; });
                if (it != lines_.end()) return *it;
            }
            if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    bool contains(const std::string& message) { return waitFor(message, std::chrono::milliseconds(0)).has_value(); }

private:
    std::shared_ptr<OVLogger> engine_ = OVLogger::create(false);
    std::mutex mutex_;
    std::vector<OVLogger::LogMessage> lines_;
    std::shared_ptr<OVLogger::HandlerWrapper> wrapper_ =
        engine_->addLogHandler(OVLogger::HandlerMode::realtime, [this](const OVLogger::LogMessage& m) {
            std::lock_guard lock(mutex_);
            lines_.push_back(m);
        });

public:
    // Declared after the engine it logs to.
    Logger logger{"Test", std::nullopt, {}, engine_};
};

// Polls until the predicate holds or the time-out passes; the predicate's last answer.
template <class P>
bool eventually(P&& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace ov::testing
