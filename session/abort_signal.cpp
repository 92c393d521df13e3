#include "session/abort_signal.h"

#include "output/ov_logger.h"
#include "platform/sc_stream_error.h"
#include "foundation/ov_error.h"

namespace ov {

namespace {

// The stream error's code, when the error is one of the screen capture's own.
std::optional<int64_t> streamErrorCode(const std::exception_ptr& error) {
    if (!error) return std::nullopt;
    try {
        std::rethrow_exception(error);
    } catch (const platform::PlatformError& e) {
        if (e.domain() == platform::SCStreamError::errorDomain) return e.code();
    } catch (...) {
    }
    return std::nullopt;
}

}  // namespace

OVError createErrorFromScreenCapture(const std::exception_ptr& stopError, bool isLowDiskSpace, const Logger& logger) {
    using Code = OVError::Code;
    const auto named = [](Code code) { return std::string(OVError::codeName(code)); };

    if (!stopError) {
        if (isLowDiskSpace) {
            logger.debug("ScreenCaptureKit stopped without error, low disk space.");
            return OVError(Code::screenCaptureStoppedLowDiskSpace, named(Code::screenCaptureStoppedLowDiskSpace),
                           "Recording stopped due to low disk space.");
        }
        logger.debug("ScreenCaptureKit stopped without error, unknown reason.");
        return OVError(Code::screenCaptureStoppedWithoutError, named(Code::screenCaptureStoppedWithoutError),
                       "Screen Recording stopped due to unknown error.");
    }

    const auto description = platform::describeError(stopError);
    // Our capture backend reports a system stop with its own code on every
    // version, so a system stop on a full disk is always recognised.
    if (streamErrorCode(stopError) == platform::SCStreamError::systemStoppedStream && isLowDiskSpace) {
        logger.debug("ScreenCaptureKit stopped by system, low disk space.");
        return OVError(Code::screenCaptureStoppedLowDiskSpace, named(Code::screenCaptureStoppedLowDiskSpace),
                       "Recording stopped due to low disk space", {{"SCStreamError", description.debugDescription}});
    }
    logger.debug("ScreenCaptureKit stopped with an error.");
    return OVError(Code::screenCaptureStoppedWithError, named(Code::screenCaptureStoppedWithError),
                   "Recording stopped with a screen capture error: " + description.localizedDescription + ".",
                   {{"optionalError", description.debugDescription}});
}

AbortSignal AbortSignal::create(const std::exception_ptr& screenCaptureKitStopError, bool isLowDiskSpace,
                                const Logger& logger) {
    if (streamErrorCode(screenCaptureKitStopError) == platform::SCStreamError::userStopped) {
        logger.debug("ScreenCaptureKit stopped by user.");
        return userStopped();
    }
    auto error = createErrorFromScreenCapture(screenCaptureKitStopError, isLowDiskSpace, logger);
    const std::string errorText = error.debugDescription();
    logger.debug("ScreenCaptureKit interrupted.", [&] {
        return LogMetadata{{"error", errorText}, {"isLowDiskSpace", isLowDiskSpace ? "true" : "false"}};
    });
    return interrupted(std::make_exception_ptr(std::move(error)));
}

}  // namespace ov
