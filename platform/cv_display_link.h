#pragma once
// A timer that fires once per display refresh: the stand-in for the
// platform's display link. It runs a thread of its own and ticks on
// CLOCK_MONOTONIC absolute deadlines, so ticks don't drift with the handler's
// run time; a handler that overruns skips the ticks it missed. The rate is
// asked of `rate` for the current display at each tick; 0 or less (no known
// refresh rate, as under Xvfb) ticks at 60 per second.

#include <atomic>
#include <cstdint>
#include <functional>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace ov::platform {

using CVReturn = int32_t;
inline constexpr CVReturn kCVReturnSuccess = 0;
inline constexpr CVReturn kCVReturnInvalidArgument = -6661;
inline constexpr CVReturn kCVReturnDisplayLinkAlreadyRunning = -6671;
inline constexpr CVReturn kCVReturnDisplayLinkNotRunning = -6672;

class CVDisplayLink {
public:
    using OutputHandler = std::function<void()>;
    using RateFunction = std::function<double(uint32_t displayID)>;

    explicit CVDisplayLink(RateFunction rate = {});
    ~CVDisplayLink();
    CVDisplayLink(const CVDisplayLink&) = delete;
    CVDisplayLink& operator=(const CVDisplayLink&) = delete;

    CVReturn setOutputHandler(OutputHandler handler);
    CVReturn setCurrentCGDisplay(uint32_t displayID);
    uint32_t currentCGDisplay() const { return display_; }
    // Needs a handler.
    CVReturn start();
    // Returns once no handler call runs and none follows.
    CVReturn stop();
    bool isRunning() const { return running_; }

private:
    void run();

    RateFunction rate_;
    OutputHandler handler_;
    std::atomic<uint32_t> display_{0};
    std::atomic<bool> running_{false};
    std::mutex mutex_;
    std::thread thread_;
};

// Whether logind says the session of this process (or the user's display
// session) is locked. Absent where no system bus or no logind answers, as in
// containers and CI. Polls the bus on a thread of its own, so readers never wait.
class SessionLockWatcher {
public:
    explicit SessionLockWatcher(double pollInterval = 0.5);
    ~SessionLockWatcher();
    SessionLockWatcher(const SessionLockWatcher&) = delete;
    SessionLockWatcher& operator=(const SessionLockWatcher&) = delete;

    // The last answer; absent before the first one and where logind is absent.
    std::optional<bool> isLocked() const;
    // Whether logind answered at least once.
    bool isAvailable() const { return state_.load() != kUnknown; }

    // Reads LockedHint once, blocking (at most the bus's 2 s time-out).
    static std::optional<bool> queryLockedHint();

private:
    static constexpr int kUnknown = -1;
    std::atomic<int> state_{kUnknown};
    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::condition_variable cv_;
    std::thread thread_;
};

}  // namespace ov::platform
