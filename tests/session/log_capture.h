#pragma once
// A private log engine whose lines a test reads back; nothing reaches the system log.

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "output/ov_logger.h"

namespace ov::testing {

struct LogCapture {
    std::shared_ptr<OVLogger> engine = OVLogger::create(false);
    std::mutex mutex;
    std::vector<OVLogger::LogMessage> lines;
    std::shared_ptr<OVLogger::HandlerWrapper> wrapper =
        engine->addLogHandler(OVLogger::HandlerMode::realtime, [this](const OVLogger::LogMessage& m) {
            std::lock_guard lock(mutex);
            lines.push_back(m);
        });
    Logger logger{"Test", std::nullopt, {}, engine};

    std::vector<OVLogger::LogMessage> taken() {
        std::lock_guard lock(mutex);
        return lines;
    }
    // The only line logged; fails the test when there is not exactly one.
    std::optional<OVLogger::LogMessage> single() {
        auto all = taken();
        if (all.size() != 1) return std::nullopt;
        return all.front();
    }
};

}  // namespace ov::testing
