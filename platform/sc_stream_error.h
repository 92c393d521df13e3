#pragma once
// Errors with which a screen capture stream stops.

#include "platform/platform_error.h"

namespace ov::platform {

class SCStreamError : public PlatformError {
public:
    static constexpr const char* errorDomain = "com.apple.ScreenCaptureKit.SCStreamErrorDomain";

    enum Code : int64_t {
        // Stopped by the user from the system's own capture controls.
        userStopped = -3817,
        // Stopped by the system, for example when the disk ran full.
        systemStoppedStream = -3821,
    };

    SCStreamError(int64_t code, std::string localizedDescription, std::string debugDescription = {})
        : PlatformError(errorDomain, code, std::move(localizedDescription), std::move(debugDescription)) {}
};

}  // namespace ov::platform
