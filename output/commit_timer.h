#pragma once
// The commit timer of a streaming side file: runs a tick on the writer's own
// queue every interval, measured from the end of the previous tick, until
// cancelled. Ticks share the queue with writes, so a tick never sees half a
// write. The owner must destroy its queue before the timer.

#include <atomic>
#include <chrono>
#include <functional>

#include "platform/dispatch_queue.h"

namespace ov {

class CommitTimer {
public:
    CommitTimer(platform::DispatchQueue& queue, std::chrono::nanoseconds interval, std::function<void()> tick)
        : queue_(queue), interval_(interval), tick_(std::move(tick)) {}
    CommitTimer(const CommitTimer&) = delete;
    CommitTimer& operator=(const CommitTimer&) = delete;

    void start() {
        active_ = true;
        schedule();
    }
    // A tick already waiting ends silently when its time comes. Returns
    // whether the timer was running.
    bool cancel() { return active_.exchange(false); }
    bool isActive() const { return active_; }

private:
    void schedule() {
        queue_.asyncAfter(interval_, [this] {
            if (!active_) return;
            tick_();
            if (active_) schedule();
        });
    }

    platform::DispatchQueue& queue_;
    std::chrono::nanoseconds interval_;
    std::function<void()> tick_;
    std::atomic<bool> active_{false};
};

}  // namespace ov
