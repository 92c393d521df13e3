#include "platform/cv_display_link.h"

#include <systemd/sd-bus.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace ov::platform {
namespace {

int64_t monotonicNanoseconds() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

void sleepUntil(int64_t deadline) {
    timespec ts{static_cast<time_t>(deadline / 1'000'000'000), static_cast<long>(deadline % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

}  // namespace

CVDisplayLink::CVDisplayLink(RateFunction rate) : rate_(std::move(rate)) {}

CVDisplayLink::~CVDisplayLink() { stop(); }

CVReturn CVDisplayLink::setOutputHandler(OutputHandler handler) {
    std::lock_guard lock(mutex_);
    if (running_) return kCVReturnDisplayLinkAlreadyRunning;
    if (!handler) return kCVReturnInvalidArgument;
    handler_ = std::move(handler);
    return kCVReturnSuccess;
}

CVReturn CVDisplayLink::setCurrentCGDisplay(uint32_t displayID) {
    display_ = displayID;
    return kCVReturnSuccess;
}

CVReturn CVDisplayLink::start() {
    std::lock_guard lock(mutex_);
    if (running_) return kCVReturnDisplayLinkAlreadyRunning;
    if (!handler_) return kCVReturnInvalidArgument;
    running_ = true;
    thread_ = std::thread([this] { run(); });
    return kCVReturnSuccess;
}

CVReturn CVDisplayLink::stop() {
    std::thread thread;
    {
        std::lock_guard lock(mutex_);
        if (!running_ && !thread_.joinable()) return kCVReturnDisplayLinkNotRunning;
        running_ = false;
        thread = std::move(thread_);
    }
    if (thread.joinable() && thread.get_id() != std::this_thread::get_id()) thread.join();
    else if (thread.joinable()) thread.detach();
    return kCVReturnSuccess;
}

void CVDisplayLink::run() {
    int64_t next = monotonicNanoseconds();
    while (running_) {
        handler_();
        double rate = rate_ ? rate_(display_) : 0;
        if (!(rate > 0) || rate > 1000) rate = 60;
        const auto period = static_cast<int64_t>(1e9 / rate);
        next += period;
        const int64_t now = monotonicNanoseconds();
        // Missed ticks are skipped, not run in a burst.
        if (next < now) next = now + period - (now - next) % period;
        sleepUntil(next);
    }
}

SessionLockWatcher::SessionLockWatcher(double pollInterval) {
    thread_ = std::thread([this, pollInterval] {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            lock.unlock();
            const auto locked = queryLockedHint();
            lock.lock();
            if (!locked) {
                // No logind: nothing will ever answer; stop asking.
                if (state_ == kUnknown) return;
            } else {
                state_ = *locked ? 1 : 0;
            }
            cv_.wait_for(lock, std::chrono::duration<double>(pollInterval), [this] { return stopping_.load(); });
        }
    });
}

SessionLockWatcher::~SessionLockWatcher() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::optional<bool> SessionLockWatcher::isLocked() const {
    const int state = state_;
    if (state == kUnknown) return std::nullopt;
    return state == 1;
}

std::optional<bool> SessionLockWatcher::queryLockedHint() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) return std::nullopt;
    sd_bus_set_method_call_timeout(bus, 2'000'000);
    // Our own session when the process belongs to one, else the user's
    // display session (a service started from the desktop has none of its own).
    std::string path = "/org/freedesktop/login1/session/auto";
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* reply = nullptr;
        if (sd_bus_get_property(bus, "org.freedesktop.login1", "/org/freedesktop/login1/user/self",
                                "org.freedesktop.login1.User", "Display", &error, &reply, "(so)") >= 0) {
            const char* id = nullptr;
            const char* objectPath = nullptr;
            if (sd_bus_message_read(reply, "(so)", &id, &objectPath) >= 0 && objectPath && id && *id)
                path = objectPath;
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(reply);
    }
    int locked = 0;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int r = sd_bus_get_property_trivial(bus, "org.freedesktop.login1", path.c_str(),
                                              "org.freedesktop.login1.Session", "LockedHint", &error, 'b', &locked);
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(bus);
    if (r < 0) return std::nullopt;
    return locked != 0;
}

}  // namespace ov::platform
