#pragma once
// What an internal recorder tells its owner when it can't go on, and how a
// screen capture that stopped on its own becomes such a signal.

#include <exception>

namespace ov {

class Logger;
class OVError;

struct AbortSignal {
    enum class Kind { interrupted, userStopped };

    Kind kind = Kind::userStopped;
    std::exception_ptr error;  // with interrupted only

    static AbortSignal interrupted(std::exception_ptr error) { return {Kind::interrupted, std::move(error)}; }
    static AbortSignal userStopped() { return {Kind::userStopped, nullptr}; }

    // From the error with which the screen capture stream stopped (null: it
    // stopped without one). A stop from the system's own capture controls is the
    // user's; anything else interrupts the recording.
    static AbortSignal create(const std::exception_ptr& screenCaptureKitStopError, bool isLowDiskSpace,
                              const Logger& logger);
};

// The error that tells why a screen capture stopped.
OVError createErrorFromScreenCapture(const std::exception_ptr& stopError, bool isLowDiskSpace, const Logger& logger);

}  // namespace ov
