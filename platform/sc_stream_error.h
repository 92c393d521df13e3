#pragma once
// Errors with which a screen capture stream stops.

#include "foundation/platform_error.h"

namespace ov::platform {

class SCStreamError : public PlatformError {
public:
    static constexpr const char* errorDomain = "com.apple.ScreenCaptureKit.SCStreamErrorDomain";

    enum Code : int64_t {
        // The source could not be started (not available on this build, gone).
        failedToStart = -3802,
        // startCapture on a stream that is already capturing.
        attemptToStartStreamState = -3807,
        // stopCapture on a stream that isn't capturing (never started, stopped,
        // or stopped by itself).
        attemptToStopStreamState = -3808,
        // updateContentFilter or updateConfiguration on a stream that can't take it.
        attemptToUpdateFilterState = -3809,
        attemptToConfigState = -3810,
        // A bad argument, such as an output type that doesn't exist.
        invalidParameter = -3812,
        // The display or window of the filter is gone.
        noCaptureSource = -3815,
        // Stopped by the user from the system's own capture controls.
        userStopped = -3817,
        // Stopped by the system, for example when the disk ran full.
        systemStoppedStream = -3821,
    };

    SCStreamError(int64_t code, std::string localizedDescription, std::string debugDescription = {})
        : PlatformError(errorDomain, code, std::move(localizedDescription), std::move(debugDescription)) {}
};

}  // namespace ov::platform
