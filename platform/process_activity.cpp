#include "platform/process_activity.h"

#include <systemd/sd-bus.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ov::platform {

namespace {

// Long enough for a busy logind, short enough not to be noticed at start.
constexpr uint64_t busTimeoutMicroseconds = 2'000'000;

std::string describeBusError(int r, const sd_bus_error* error) {
    if (error && sd_bus_error_is_set(error)) return std::string(error->name) + ": " + (error->message ? error->message : "");
    return std::strerror(-r);
}

// What logind is asked to hold off: idle always, sleep whenever the system may not sleep.
std::string inhibitWhat(uint64_t options) {
    std::string what = "idle";
    if (options & (NSActivityIdleSystemSleepDisabled | NSActivityLatencyCritical)) what += ":sleep";
    return what;
}

}  // namespace

ActivityToken::~ActivityToken() { release(); }

void ActivityToken::release() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

std::shared_ptr<ActivityToken> ProcessInfo::beginActivity(uint64_t options, const std::string& reason) {
    auto unavailable = [&](std::string why) {
        return std::shared_ptr<ActivityToken>(new ActivityToken(-1, options, reason, std::move(why)));
    };
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) return unavailable("no system bus: " + describeBusError(r, nullptr));
    sd_bus_set_method_call_timeout(bus, busTimeoutMicroseconds);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call_method(bus, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "Inhibit", &error, &reply, "ssss", inhibitWhat(options).c_str(), "Orvane", reason.c_str(),
                           "block");
    std::shared_ptr<ActivityToken> token;
    if (r < 0) {
        token = unavailable("logind refused or is absent: " + describeBusError(r, &error));
    } else {
        int fd = -1;
        r = sd_bus_message_read(reply, "h", &fd);
        // The descriptor belongs to the message; keep a copy of our own.
        int owned = r >= 0 ? ::fcntl(fd, F_DUPFD_CLOEXEC, 3) : -1;
        token = owned >= 0 ? std::shared_ptr<ActivityToken>(new ActivityToken(owned, options, reason, ""))
                           : unavailable("logind's answer held no inhibitor descriptor");
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return token;
}

void ProcessInfo::endActivity(const std::shared_ptr<ActivityToken>& token) {
    if (token) token->release();
}

}  // namespace ov::platform
