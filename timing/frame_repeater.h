#pragma once
// Re-delivers the last video frame at a fixed interval for as long as no new
// one comes, with a time that keeps up with the host clock, so that a video
// track keeps advancing over a static screen.
//
// One mutex serialises the handler calls: from append on the caller's thread,
// and from the repeat task's thread. The repeat task is joined outside the
// mutex, so cancel() and the destructor never wait on a task that waits on them.

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <thread>
#include <utility>

#include "output/ov_logger.h"
#include "platform/cm_clock.h"
#include "platform/cm_time.h"

namespace ov {

class FrameRepeaterError : public std::runtime_error {
public:
    FrameRepeaterError() : std::runtime_error("handlerNotSet") {}
};

template <class Item>
class FrameRepeater {
public:
    // item, time, and for a repeat the time added since the frame was appended.
    using Handler = std::function<void(const Item&, const platform::CMTime&, const std::optional<platform::CMTime>&)>;

    // interval in seconds, kept in whole milliseconds (0.0333 → 33 ms, tolerance 3 ms).
    explicit FrameRepeater(double interval, Logger logger = Logger("FrameRepeater"))
        : sleepInterval(static_cast<int64_t>(interval * 1000)),
          sleepIntervalTolerance(static_cast<int64_t>(interval * 100)), logger_(std::move(logger)) {}
    FrameRepeater(const FrameRepeater&) = delete;
    FrameRepeater& operator=(const FrameRepeater&) = delete;
    ~FrameRepeater() { cancel(); }

    Handler handler;
    const std::chrono::milliseconds sleepInterval;
    const std::chrono::milliseconds sleepIntervalTolerance;

    // Delivers the frame now and repeats it until the next append or cancel.
    void append(Item item, const platform::CMTime& time) {
        if (!handler) throw FrameRepeaterError();
        const platform::CMTime noted = platform::hostTimeNow();
        stopTask();
        std::lock_guard lock(mutex_);
        task_ = std::jthread([this, item, time, noted](std::stop_token stop) { repeat(stop, item, time, noted); });
        callHandler(item, time, std::nullopt);
    }

    // Stops repeating; a later append starts again.
    void cancel() { stopTask(); }

private:
    void stopTask() {
        std::jthread old;
        {
            std::lock_guard lock(mutex_);
            old = std::move(task_);
        }
        if (!old.joinable()) return;
        old.request_stop();
        cv_.notify_all();
        // A handler that cancels from the repeat task's own thread cannot join it;
        // the task sees the stop at its next wake-up and ends.
        if (old.get_id() == std::this_thread::get_id()) old.detach();
    }

    void repeat(std::stop_token stop, const Item& item, const platform::CMTime& time, const platform::CMTime& noted) {
        platform::CMTime added = platform::kCMTimeZero;
        std::unique_lock lock(mutex_);
        for (;;) {
            // The tolerance lets the wake-up come a little late, never early.
            cv_.wait_for(lock, stop, sleepInterval, [] { return false; });
            if (stop.stop_requested()) return;
            const platform::CMTime elapsed = platform::hostTimeNow() - noted;
            // As the repeats are counted: each round adds the time since the append.
            added = added + elapsed;
            callHandler(item, time + elapsed, added);
        }
    }

    void callHandler(const Item& item, const platform::CMTime& time, const std::optional<platform::CMTime>& addedTime) {
        platform::CMTime used = time;
        if (lastItemTime_ && time <= *lastItemTime_) {
            if (addedTime) {
                logger_.trace("Got repeated frame with time before or at lastTime, this is repeat, ignoring.");
                return;
            }
            used = platform::CMTime(lastItemTime_->value + 1, lastItemTime_->timescale);
            logger_.trace([&] {
                return "Got frame with time before or at lastTime. Calling handler with oldTime:" +
                       lastItemTime_->logDescription() + ", newTime:" + used.logDescription() + ", addedTime:";
            });
        } else {
            logger_.trace([&] {
                return "Calling handler with " + time.logDescription() +
                       ", addedTime: " + (addedTime ? addedTime->logDescription() : std::string("nil"));
            });
        }
        handler(item, used, addedTime);
        lastItemTime_ = used;
    }

    Logger logger_;
    std::mutex mutex_;
    std::condition_variable_any cv_;
    std::jthread task_;
    std::optional<platform::CMTime> lastItemTime_;
};

}  // namespace ov
