#pragma once
// The system log: diagnostics for a developer, never part of the protocol.
//
// Lines go to the systemd journal when its socket exists and to standard error
// otherwise; never to standard output, which carries the protocol. The lowest
// type that is emitted comes from ORVANE_OS_LOG (debug, info, default, error,
// off); the default is "info", so that debug lines cost nothing unless asked for.
// ORVANE_OS_LOG_TARGET=stderr keeps lines on standard error even where a journal runs.

#include <string>
#include <string_view>

#include <fmt/format.h>

namespace ov::platform {

class OSLog {
public:
    // The system's types of log line, lowest first.
    enum class Type { debug = 0, info = 1, defaultType = 2, error = 3, fault = 4 };

    static constexpr const char* defaultSubsystem = "dev.halvern.Orvane";

    OSLog(std::string subsystem, std::string category);

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

    static bool isEnabled(Type type);
    void log(Type type, std::string_view message) const;

    void debug(std::string_view m) const { log(Type::debug, m); }
    void info(std::string_view m) const { log(Type::info, m); }
    void notice(std::string_view m) const { log(Type::defaultType, m); }
    void error(std::string_view m) const { log(Type::error, m); }
    void fault(std::string_view m) const { log(Type::fault, m); }

    // Where lines go; tests redirect them to a file descriptor of their own.
    static void redirectForTesting(int fd);

private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace ov::platform
